# What the scripts share: where the repository is, and how packages are installed. Sourced, not run.

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

# The file systems' own tools stand in directories that an ordinary user's PATH lacks on Debian.
export PATH="$PATH:/usr/sbin:/sbin"

build_packages=(g++ cmake ninja-build libcli11-dev libfmt-dev nlohmann-json3-dev libssl-dev libblkid-dev libfdisk-dev
    libcairo2-dev pkg-config libxml2-dev)
sample_packages=(e2fsprogs ntfs-3g dosfstools mtools xfsprogs xorriso)
test_packages=(python3-samba libgtest-dev libgmock-dev clang-14 libclang-rt-14-dev binutils e2fsprogs ntfs-3g dosfstools
    mtools xfsprogs xorriso hfsplus libfshfs-utils sleuthkit partclone mount util-linux fdisk bmap-tools gddrescue nbdkit
    libnbd-bin qemu-utils exfatprogs btrfs-progs apfsprogs mandoc groff-base zsh jq xxd zstd less
    abigail-tools xz-utils make doxygen)
bench_packages=(libbenchmark-dev ntfs-3g-dev e2fsprogs ntfs-3g dosfstools mtools xfsprogs partclone mount util-linux
    strace gnuplot-nox python3-minimal)
package_packages=(build-essential debhelper dpkg-dev fakeroot lintian)
lint_packages=(clang-format-14 clang-tidy-14 git)

say() { printf '== %s\n' "$*" >&2; }

# require_packages NAME...: installs those that are missing, or says what only root can do.
require_packages() {
    if ! command -v dpkg-query >/dev/null; then
        say "this is not a Debian system: install the counterparts of $* yourself"
        return
    fi
    local missing=() name
    for name in "$@"; do
        dpkg-query -W -f '${db:Status-Status}\n' "$name" 2>/dev/null | grep -qx installed || missing+=("$name")
    done
    if [ "${#missing[@]}" -eq 0 ]; then
        return
    fi
    if [ "$(id -u)" -ne 0 ]; then
        say "packages are missing, and only root can install them; run: sudo apt-get install ${missing[*]}"
        exit 1
    fi
    say "installing ${missing[*]}"
    # The package lists of this machine may be missing or old; being offline is only an error if a package is.
    apt-get update -qq || say "the package lists could not be updated"
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# build_preset NAME: configures (cheap when nothing changed) and builds.
build_preset() {
    say "building preset $1"
    cmake --preset "$1" >/dev/null
    cmake --build --preset "$1"
}
