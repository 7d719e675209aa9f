// Writing copies to files, devices and streams.
#include "imaging/copy/Destination.h"

#include "agent/PosixError.h"
#include "imaging/Error.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <vector>

namespace imaging {

namespace {

/// Zeros that are written where no call makes them.
constexpr std::size_t kZeroBytes = std::size_t{256} * 1024;

std::span<std::uint8_t const> zeros(std::uint64_t length) {
    static std::vector<std::uint8_t> const bytes(kZeroBytes);
    return {bytes.data(), static_cast<std::size_t>(std::min<std::uint64_t>(length, kZeroBytes))};
}

[[noreturn]] void fail(std::string const& path, char const* what, int error) {
    throw VolumeError(Trouble::Io, path + ": " + what + ": " + agent::PosixError::strerror(error));
}

/// The file behind a loop device; empty for any other.
std::string backingFile(struct stat const& device) {
    std::ifstream file("/sys/dev/block/" + std::to_string(major(device.st_rdev)) + ":" +
                       std::to_string(minor(device.st_rdev)) + "/loop/backing_file");
    std::string path;
    std::getline(file, path);
    return path;
}

/// The volume must not be the same device, or the file behind it, under another name.
void requireOther(std::string const& path, std::string const& source) {
    struct stat target {};
    struct stat origin {};
    if (::stat(path.c_str(), &target) != 0 || ::stat(source.c_str(), &origin) != 0) {
        return; // opening them will tell
    }
    struct stat behind {};
    std::string const backing = backingFile(target);
    bool const isBehind = !backing.empty() && ::stat(backing.c_str(), &behind) == 0 && behind.st_dev == origin.st_dev &&
                          behind.st_ino == origin.st_ino;
    if (isBehind || (S_ISBLK(origin.st_mode) && origin.st_rdev == target.st_rdev)) {
        throw VolumeError(Trouble::Io, path + ": is the volume itself; it is left alone");
    }
}

} // namespace

FileDestination::FileDestination(std::string const& path, std::string const& source, std::uint64_t size,
                                 OutputFile::Existing existing)
    : file_(path, source, existing) {
    file_.resize(size);
}

void FileDestination::write(std::uint64_t offset, std::span<std::uint8_t const> bytes) {
    file_.writeAt(offset, bytes);
}

void FileDestination::zero(std::uint64_t, std::uint64_t) {}

void FileDestination::finish() {
    file_.commit();
}

DeviceDestination::DeviceDestination(std::string const& path, std::string const& source, std::uint64_t size)
    : path_(path) {
    struct stat facts {};
    if (::stat(path.c_str(), &facts) != 0) {
        fail(path_, "cannot be opened", errno);
    }
    if (!S_ISBLK(facts.st_mode)) {
        throw VolumeError(Trouble::Io, path_ + ": is no block device");
    }
    requireOther(path, source);
    // Exclusive: the system refuses a device that is mounted or otherwise in use, or one of its partitions.
    device_ = Descriptor(::open(path.c_str(), O_WRONLY | O_EXCL | O_CLOEXEC));
    if (!device_.isOpen()) {
        if (errno == EBUSY) {
            throw VolumeError(Trouble::Io, path_ + ": is mounted or in use; it is left alone");
        }
        fail(path_, "cannot be opened", errno);
    }
    std::uint64_t capacity = 0;
    if (::ioctl(device_.get(), BLKGETSIZE64, &capacity) != 0) {
        fail(path_, "its size cannot be told", errno);
    }
    if (capacity < size) {
        throw VolumeError(Trouble::Io, path_ + ": has " + std::to_string(capacity) + " bytes, and the volume " +
                                           std::to_string(size) + "; it is left alone");
    }
}

void DeviceDestination::write(std::uint64_t offset, std::span<std::uint8_t const> bytes) {
    while (!bytes.empty()) {
        ssize_t const count = ::pwrite(device_.get(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (count == -1 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            fail(path_, "cannot be written", count == 0 ? ENOSPC : errno);
        }
        bytes = bytes.subspan(static_cast<std::size_t>(count));
        offset += static_cast<std::uint64_t>(count);
    }
}

void DeviceDestination::zero(std::uint64_t offset, std::uint64_t length) {
    while (length != 0) {
        std::span<std::uint8_t const> const piece = zeros(length);
        write(offset, piece);
        offset += piece.size();
        length -= piece.size();
    }
}

void DeviceDestination::finish() {
    if (::fsync(device_.get()) != 0) {
        fail(path_, "cannot be synced", errno);
    }
}

StreamDestination::StreamDestination(int descriptor, std::string name, std::uint64_t size)
    : descriptor_(descriptor), name_(std::move(name)), size_(size) {}

void StreamDestination::put(std::span<std::uint8_t const> bytes) {
    while (!bytes.empty()) {
        ssize_t const count = ::write(descriptor_, bytes.data(), bytes.size());
        if (count == -1 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            fail(name_, "cannot be written", count == 0 ? ENOSPC : errno);
        }
        bytes = bytes.subspan(static_cast<std::size_t>(count));
        done_ += static_cast<std::uint64_t>(count);
    }
}

void StreamDestination::fillTo(std::uint64_t offset) {
    while (done_ < offset) {
        put(zeros(offset - done_));
    }
}

void StreamDestination::write(std::uint64_t offset, std::span<std::uint8_t const> bytes) {
    fillTo(offset);
    put(bytes);
}

void StreamDestination::zero(std::uint64_t, std::uint64_t) {} // what is skipped arrives as zeros

void StreamDestination::finish() {
    fillTo(size_);
}

} // namespace imaging
