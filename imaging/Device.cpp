// Asking the system about a path and about an open file.
#include "imaging/Device.h"

#include "agent/PosixError.h"
#include "imaging/Error.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

namespace imaging {

namespace {

/// Safe on every device in use: the sector of 4K-native disks and the page of x86-64.
constexpr std::uint64_t kSafeAlignment = 4096;

/// Enough where the path refused direct I/O: the smallest sector, so that few volumes end inside a unit.
constexpr std::uint64_t kBufferedAlignment = 512;

std::uint64_t fileAlignment(int descriptor) {
    if (!usesDirectIo(descriptor)) {
        return kBufferedAlignment;
    }
#ifdef STATX_DIOALIGN
    struct statx facts {};
    if (::statx(descriptor, "", AT_EMPTY_PATH, STATX_DIOALIGN, &facts) == 0 && (facts.stx_mask & STATX_DIOALIGN) != 0) {
        std::uint64_t const alignment = std::max(facts.stx_dio_offset_align, facts.stx_dio_mem_align);
        if (std::has_single_bit(alignment)) {
            return std::max<std::uint64_t>(alignment, kBufferedAlignment);
        }
    }
#endif
    return kSafeAlignment;
}

} // namespace

void requireVolumePath(std::string const& path) {
    struct stat facts {};
    if (::stat(path.c_str(), &facts) != 0) {
        int const error = errno;
        bool const missing = error == ENOENT || error == ENOTDIR;
        throw VolumeError(missing ? Trouble::NotUnderstood : Trouble::Io,
                          path + ": cannot be opened: " + agent::PosixError::strerror(error));
    }
    if (S_ISDIR(facts.st_mode)) {
        throw VolumeError(Trouble::NotUnderstood, path + ": is a directory, not an image file or a block device");
    }
    if (!S_ISREG(facts.st_mode) && !S_ISBLK(facts.st_mode)) {
        throw VolumeError(Trouble::NotUnderstood, path + ": is neither an image file nor a block device");
    }
}

bool usesDirectIo(int descriptor) {
    int const flags = ::fcntl(descriptor, F_GETFL);
    return flags == -1 || (flags & O_DIRECT) != 0;
}

std::uint64_t directIoAlignment(int descriptor) {
    struct stat facts {};
    if (::fstat(descriptor, &facts) != 0 || !S_ISBLK(facts.st_mode)) {
        return fileAlignment(descriptor);
    }
    int sector = 0;
    if (::ioctl(descriptor, BLKSSZGET, &sector) != 0 || sector <= 0) {
        return kSafeAlignment;
    }
    return static_cast<std::uint64_t>(sector);
}

} // namespace imaging
