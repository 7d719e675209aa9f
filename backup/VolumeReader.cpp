// The volume reader: open, lseek, read and close, each failure logged with its errno.
#include "agent/core/backup/VolumeReader.h"

#include "agent/Path.h"
#include "agent/PosixError.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace agent::core::backup {

using agent::info::Level;
using agent::info::Logger;

class AGENT_LOCAL VolumeReader::Impl {
public:
    /// Closed, and nothing measured.
    Impl(Logger& logger, std::string const& path) : logger_(&logger), path_(path) {}
    Impl(Impl const&) = delete;
    Impl& operator=(Impl const&) = delete;
    ~Impl() { close(); }

    bool open();
    long read(void* buffer, long length);
    long seek(long offset, int whence);

    std::string const& path() const { return path_; }
    int descriptor() const { return descriptor_; }
    long size() const { return size_; }
    int lastError() const { return lastError_; }

    /// Opens, measures, and closes again. Whatever is thrown, the destructor closes.
    void measure();

private:
    void close();

    Logger* logger_;
    std::string path_;
    int descriptor_ = -1;
    long size_ = 0;
    long position_ = 0; // the offset argument of the last successful seek
    int lastError_ = 0;
};

bool VolumeReader::Impl::open() {
    int const before = errno;
    descriptor_ = ::open(path_.c_str(), O_RDONLY | O_DIRECT);
    lastError_ = 0;
    if (descriptor_ != -1) {
        return true;
    }
    if (errno == EINVAL) {
        descriptor_ = ::open(path_.c_str(), O_RDONLY);
        if (descriptor_ != -1) {
            errno = before; // the first try is nobody's failure
            return true;
        }
    }
    lastError_ = errno;
    Logger::Entry(*logger_, Level::Error) << "Failed to open block device " << path_ << ", err: " << lastError_;
    return false;
}

void VolumeReader::Impl::measure() {
    if (!open()) {
        throw PosixError("Unable to open block device to calculate size", lastError_);
    }
    long const end = seek(0, SEEK_END);
    if (end != -1) {
        size_ = end;
        close();
        return;
    }
    // The common seek path has logged already; this second entry names the size computation, on purpose.
    int const error = lastError_;
    Logger::Entry(*logger_, Level::Error) << "Failed to seek to end of device " << path_ << ": errno = " << error;
    close();
    throw PosixError("Unable to seek to end of block device to calculate size", error);
}

void VolumeReader::Impl::close() {
    if (descriptor_ != -1) {
        ::close(descriptor_);
        descriptor_ = -1;
    }
}

long VolumeReader::Impl::seek(long offset, int whence) {
    lastError_ = 0;
    long const result = ::lseek(descriptor_, offset, whence);
    if (result == -1) {
        lastError_ = errno;
        Logger::Entry(*logger_, Level::Error)
            << "Failed to seek to block " << offset << " on block device " << path_ << ", err: " << lastError_;
        return -1;
    }
    // The argument is kept, not the result, on purpose: it only serves the message of a short read.
    position_ = offset;
    return result;
}

long VolumeReader::Impl::read(void* buffer, long length) {
    lastError_ = 0;
    long const result = ::read(descriptor_, buffer, static_cast<std::size_t>(length));
    if (result == -1) {
        lastError_ = errno;
        Logger::Entry(*logger_, Level::Error)
            << "Failed to read length " << length << " on block device " << path_ << ", err: " << lastError_;
        return -1;
    }
    if (result < length) {
        Logger::Entry(*logger_, Level::Warning) << "Failed to read " << length << " on device " << path_
                                                << " at offset " << position_ << ", only read " << result;
    }
    return result;
}

VolumeReader::VolumeReader(Logger& logger, std::string const& path) : impl_(std::make_unique<Impl>(logger, path)) {
    impl_->measure();
}

VolumeReader::~VolumeReader() = default;

std::string VolumeReader::getVolumePath() const {
    return agent::Path::concat(impl_->path());
}

long VolumeReader::read(void* buffer, long length) const {
    return impl_->read(buffer, length);
}

long VolumeReader::seek(long offset, int whence) const {
    return impl_->seek(offset, whence);
}

int VolumeReader::getHandle() const {
    return impl_->descriptor();
}

int VolumeReader::getLastError() const {
    return impl_->lastError();
}

bool VolumeReader::open() {
    return impl_->open();
}

long VolumeReader::size() {
    return impl_->size();
}

} // namespace agent::core::backup
