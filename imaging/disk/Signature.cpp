// Asking libblkid.
#include "imaging/disk/Signature.h"

#include "imaging/copy/Descriptor.h"

#include <algorithm>
#include <array>
#include <blkid/blkid.h>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <utility>

namespace imaging {

namespace {

/// The library's name, or words for one that is no word.
std::string inWords(std::string const& type) {
    constexpr std::array<std::pair<std::string_view, std::string_view>, 5> words{{
        {"crypto_LUKS", "LUKS"},
        {"linux_raid_member", "Linux RAID member"},
        {"LVM1_member", "LVM physical volume"},
        {"LVM2_member", "LVM physical volume"},
        {"zfs_member", "ZFS member"},
    }};
    auto const* const found =
        std::find_if(words.begin(), words.end(), [&](auto const& each) { return each.first == type; });
    return found == words.end() ? type : std::string(found->second);
}

} // namespace

std::string identifySignature(std::string const& path, std::uint64_t start, std::uint64_t size) {
    Descriptor const file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::unique_ptr<blkid_struct_probe, decltype(&blkid_free_probe)> const probe(blkid_new_probe(), &blkid_free_probe);
    if (!file.isOpen() || !probe ||
        blkid_probe_set_device(probe.get(), file.get(), static_cast<blkid_loff_t>(start),
                               static_cast<blkid_loff_t>(size)) != 0) {
        return {};
    }
    blkid_probe_enable_superblocks(probe.get(), 1);
    blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_TYPE);
    char const* type = nullptr;
    if (blkid_do_safeprobe(probe.get()) != 0 || blkid_probe_lookup_value(probe.get(), "TYPE", &type, nullptr) != 0) {
        return {};
    }
    return inWords(type);
}

} // namespace imaging
