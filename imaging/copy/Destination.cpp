// Writing copies to files, devices and streams.
#include "imaging/copy/Destination.h"

#include "agent/PosixError.h"
#include "imaging/ByteRange.h"
#include "imaging/Error.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/fs.h>
#include <optional>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <system_error>
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

void requireGoingOn(std::atomic<bool> const& isCancelled, std::string const& name) {
    if (isCancelled) {
        throw VolumeError(Trouble::Io, name + ": the copy was stopped");
    }
}

/// Bytes of a file or a whole disk, whatever names lead there.
struct Storage {
    dev_t device;
    ino_t file; ///< 0 for a disk
    ByteRange range;
};

std::string readLine(std::string const& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

std::uint64_t readNumber(std::string const& path) {
    return std::strtoull(readLine(path).c_str(), nullptr, 10);
}

/// Where the bytes of a path really lie: a partition's on its disk, a loop device's in the file behind it.
std::optional<Storage> findStorage(std::string const& path, ByteRange range) {
    constexpr std::uint64_t kSysfsSector = 512;
    struct stat facts {};
    if (::stat(path.c_str(), &facts) != 0) {
        return std::nullopt;
    }
    if (!S_ISBLK(facts.st_mode)) {
        return Storage{facts.st_dev, facts.st_ino, range};
    }
    std::string folder =
        "/sys/dev/block/" + std::to_string(major(facts.st_rdev)) + ":" + std::to_string(minor(facts.st_rdev));
    dev_t disk = facts.st_rdev;
    if (!readLine(folder + "/partition").empty()) {
        std::uint64_t const start = readNumber(folder + "/start") * kSysfsSector;
        range = {range.begin + start, range.end + start};
        unsigned high = 0;
        unsigned low = 0;
        std::error_code error;
        folder = std::filesystem::canonical(folder, error).parent_path();
        if (error || std::sscanf(readLine(folder + "/dev").c_str(), "%u:%u", &high, &low) != 2) {
            return std::nullopt;
        }
        disk = makedev(high, low);
    }
    std::string const backing = readLine(folder + "/loop/backing_file");
    if (!backing.empty()) {
        std::uint64_t const offset = readNumber(folder + "/loop/offset");
        return findStorage(backing, {range.begin + offset, range.end + offset});
    }
    return Storage{disk, 0, range};
}

/// The volume must not share bytes with what is written, whatever their names are.
void requireOther(std::string const& path, std::uint64_t size, std::string const& source, std::uint64_t start) {
    std::optional<Storage> const target = findStorage(path, {0, size});
    std::optional<Storage> const origin = findStorage(source, {start, start + size});
    if (target && origin && target->device == origin->device && target->file == origin->file &&
        target->range.begin < origin->range.end && origin->range.begin < target->range.end) {
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

DeviceDestination::DeviceDestination(std::string const& path, std::string const& source, std::uint64_t size,
                                     std::uint64_t start)
    : path_(path) {
    struct stat facts {};
    if (::stat(path.c_str(), &facts) != 0) {
        fail(path_, "cannot be opened", errno);
    }
    if (!S_ISBLK(facts.st_mode)) {
        throw VolumeError(Trouble::Io, path_ + ": is no block device");
    }
    requireOther(path, size, source, start);
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
        requireGoingOn(isCancelled_, path_);
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

StreamDestination::StreamDestination(int descriptor, std::string name, std::uint64_t size, std::function<void()> pause)
    : descriptor_(descriptor), name_(std::move(name)), size_(size), pause_(std::move(pause)), flags_(-1) {
    struct stat facts {};
    // A pipe that nobody reads would keep the writer for ever; it is waited for where the copy can be stopped.
    if (::fstat(descriptor, &facts) == 0 && (S_ISFIFO(facts.st_mode) || S_ISSOCK(facts.st_mode))) {
        flags_ = ::fcntl(descriptor, F_GETFL);
        ::fcntl(descriptor, F_SETFL, flags_ | O_NONBLOCK);
    }
}

StreamDestination::~StreamDestination() {
    if (flags_ != -1) {
        ::fcntl(descriptor_, F_SETFL, flags_);
    }
}

void StreamDestination::waitUntilWritable() const {
    requireGoingOn(isCancelled_, name_);
    constexpr int kMilliseconds = 100;
    pollfd wanted{descriptor_, POLLOUT, 0};
    ::poll(&wanted, 1, kMilliseconds);
}

void StreamDestination::put(std::span<std::uint8_t const> bytes) {
    while (!bytes.empty()) {
        ssize_t const count = ::write(descriptor_, bytes.data(), bytes.size());
        if (count == -1 && errno == EINTR) {
            continue;
        }
        if (count == -1 && errno == EAGAIN) {
            waitUntilWritable();
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
        if (pause_) {
            pause_();
        }
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
