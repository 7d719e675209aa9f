// Reading image files and block devices.
#include "imaging/copy/Source.h"

#include "agent/PosixError.h"
#include "imaging/Device.h"
#include "imaging/Error.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>

namespace imaging {

namespace {

/// What the page cache takes; large enough that reads of odd stretches begin with a page.
constexpr std::uint64_t kFileAlignment = 4096;

Descriptor openVolume(std::string const& path, bool direct) {
    return Descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | (direct ? O_DIRECT : 0)));
}

} // namespace

FileSource::FileSource(std::string const& path, std::uint64_t size, std::uint64_t start) : size_(size), start_(start) {
    struct stat facts {};
    bool const isDevice = ::stat(path.c_str(), &facts) == 0 && S_ISBLK(facts.st_mode);
    file_ = openVolume(path, isDevice);
    if (!file_.isOpen() && isDevice && errno == EINVAL) {
        file_ = openVolume(path, false);
    }
    if (!file_.isOpen()) {
        throw VolumeError(Trouble::Io, path + ": cannot be opened: " + agent::PosixError::strerror(errno));
    }
    alignment_ = isDevice ? directIoAlignment(file_.get()) : kFileAlignment;
    mayHaveHoles_ = !isDevice;
    if (start % alignment_ != 0) {
        // Direct reads could not begin there.
        file_ = openVolume(path, false);
        alignment_ = isDevice ? 1 : kFileAlignment;
    }
    ::posix_fadvise(file_.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
}

std::size_t FileSource::read(std::uint64_t offset, std::span<std::uint8_t> buffer) const {
    std::size_t done = 0;
    while (done < buffer.size()) {
        ssize_t const count = ::pread(file_.get(), buffer.data() + done, buffer.size() - done,
                                      static_cast<off_t>(start_ + offset + done));
        if (count == -1 && errno == EINTR) {
            continue;
        }
        if (count == -1) {
            throw std::system_error(errno, std::generic_category());
        }
        if (count == 0) {
            break;
        }
        done += static_cast<std::size_t>(count);
    }
    return done;
}

Source::Stretch FileSource::stretchAt(std::uint64_t offset) const {
    if (offset < lastBegin_ || offset >= last_.end) {
        last_ = findStretch(offset);
        lastBegin_ = offset;
    }
    return last_;
}

Source::Stretch FileSource::findStretch(std::uint64_t offset) const {
    if (!mayHaveHoles_) {
        return {size_, false};
    }
    std::uint64_t const end = start_ + size_;
    off_t const data = ::lseek(file_.get(), static_cast<off_t>(start_ + offset), SEEK_DATA);
    if (data == -1 && errno == ENXIO) {
        // No data up to the end of the file; past it, a volume that became shorter is no hole.
        return {size_, ::lseek(file_.get(), 0, SEEK_END) >= static_cast<off_t>(end)};
    }
    if (data == -1) {
        return {size_, false}; // the file system cannot tell
    }
    if (static_cast<std::uint64_t>(data) > start_ + offset) {
        return {std::min(end, static_cast<std::uint64_t>(data)) - start_, true};
    }
    off_t const hole = ::lseek(file_.get(), data, SEEK_HOLE);
    return {(hole == -1 ? end : std::min(end, static_cast<std::uint64_t>(hole))) - start_, false};
}

} // namespace imaging
