// Temporary name, sync, rename.
#include "imaging/OutputFile.h"

#include "agent/PosixError.h"
#include "imaging/Error.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace imaging {

namespace {

std::string directoryOf(std::string const& path) {
    auto const slash = path.find_last_of('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

/// Where a symbolic link leads, so that the file it names is replaced and not the link.
std::string targetOf(std::string const& path) {
    std::unique_ptr<char, decltype(&std::free)> const resolved(::realpath(path.c_str(), nullptr), &std::free);
    return resolved == nullptr ? path : resolved.get();
}

/// A destination that is a device, a directory or the volume itself would be destroyed by what is about to happen.
void requireReplaceable(std::string const& path, std::string const& source) {
    struct stat target {};
    if (::stat(path.c_str(), &target) != 0) {
        return; // not there; creating it will tell if it cannot be
    }
    if (S_ISBLK(target.st_mode)) {
        throw VolumeError(Trouble::Io, path + ": is a block device; it is left alone (copy --to-device writes to one)");
    }
    if (!S_ISREG(target.st_mode)) {
        throw VolumeError(Trouble::Io, path + ": exists and is not a regular file; it is left alone");
    }
    struct stat origin {};
    if (::stat(source.c_str(), &origin) == 0 && origin.st_dev == target.st_dev && origin.st_ino == target.st_ino) {
        throw VolumeError(Trouble::Io, path + ": is the volume itself; it is left alone");
    }
}

/// A file made by a program with the usual rights, unlike one that mkstemp leaves private.
void applyUsualMode(int descriptor) {
    mode_t const mask = ::umask(0);
    ::umask(mask);
    ::fchmod(descriptor, 0666 & ~mask);
}

} // namespace

OutputFile::OutputFile(std::string const& path, std::string const& source, Existing existing)
    : path_(targetOf(path)), temporary_(directoryOf(path_) + "/.fsparser.XXXXXX"), existing_(existing) {
    requireReplaceable(path, source);
    if (existing == Existing::IsRefused && ::access(path_.c_str(), F_OK) == 0) {
        throw VolumeError(Trouble::Io, path_ + ": exists, and is left alone without --force");
    }
    descriptor_ = ::mkostemp(temporary_.data(), O_CLOEXEC);
    if (descriptor_ == -1) {
        fail("cannot be created");
    }
    applyUsualMode(descriptor_);
}

OutputFile::~OutputFile() {
    if (descriptor_ != -1) {
        ::close(descriptor_);
        ::unlink(temporary_.c_str());
    }
}

void OutputFile::write(std::span<std::uint8_t const> bytes) {
    while (!bytes.empty()) {
        ssize_t const count = ::write(descriptor_, bytes.data(), bytes.size());
        if (count == -1 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            errno = count == 0 ? ENOSPC : errno;
            fail("cannot be written");
        }
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
}

void OutputFile::writeAt(std::uint64_t offset, std::span<std::uint8_t const> bytes) {
    while (!bytes.empty()) {
        ssize_t const count = ::pwrite(descriptor_, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (count == -1 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            errno = count == 0 ? ENOSPC : errno;
            fail("cannot be written");
        }
        bytes = bytes.subspan(static_cast<std::size_t>(count));
        offset += static_cast<std::uint64_t>(count);
    }
}

void OutputFile::resize(std::uint64_t size) {
    if (::ftruncate(descriptor_, static_cast<off_t>(size)) != 0) {
        fail("cannot be made as long as the volume");
    }
}

void OutputFile::commit() {
    if (::fsync(descriptor_) != 0) {
        fail("cannot be synced");
    }
    if (!isRenamed()) {
        fail("cannot be renamed into place");
    }
    ::close(descriptor_);
    descriptor_ = -1;
    int const directory = ::open(directoryOf(path_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory != -1) {
        ::fsync(directory); // the name is there either way; this only makes it durable sooner
        ::close(directory);
    }
}

bool OutputFile::isRenamed() const {
    if (existing_ == Existing::IsRefused) {
        int const result = ::renameat2(AT_FDCWD, temporary_.c_str(), AT_FDCWD, path_.c_str(), RENAME_NOREPLACE);
        if (result == 0 || errno != EINVAL) {
            return result == 0;
        }
        // This file system cannot tell; a file that came meanwhile was not there when the work began.
    }
    return ::rename(temporary_.c_str(), path_.c_str()) == 0;
}

void OutputFile::fail(char const* what) const {
    int const error = errno;
    throw VolumeError(Trouble::Io, path_ + ": " + what + ": " + agent::PosixError::strerror(error));
}

} // namespace imaging
