// Stands in for read, pread and lseek of this process.
#include "VolumeCalls.h"

#include <cerrno>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

std::atomic<tests::VolumeCalls*> current{nullptr};

tests::VolumeCalls* callsOn(int descriptor) {
    tests::VolumeCalls* const calls = current;
    return calls != nullptr && calls->isMine(descriptor) ? calls : nullptr;
}

ssize_t failed() {
    errno = EIO;
    return -1;
}

/// The call with what goes wrong: a system call of a length.
template <typename Call>
ssize_t readWith(int descriptor, void* buffer, std::size_t length, bool hasPlace, Call const& call) {
    tests::VolumeCalls* const calls = callsOn(descriptor);
    if (calls == nullptr || !calls->isReadTurn(descriptor, hasPlace)) {
        return call(length);
    }
    switch (calls->fault()) {
    case tests::CallFault::ReadShort:
        return call(length / 2);
    case tests::CallFault::OtherBytes: {
        ssize_t const count = call(length);
        calls->change(buffer, count);
        return count;
    }
    default:
        return failed();
    }
}

} // namespace

namespace tests {

VolumeCalls::VolumeCalls(std::string const& path, CallFault fault, unsigned n, Other other, unsigned seed)
    : fault_(fault), left_(n), other_(other), seed_(seed) {
    struct stat facts {};
    if (::stat(path.c_str(), &facts) != 0) {
        throw std::runtime_error("cannot stat " + path);
    }
    device_ = facts.st_dev;
    file_ = facts.st_ino;
    current = this;
}

VolumeCalls::~VolumeCalls() {
    current = nullptr;
}

bool VolumeCalls::isMine(int descriptor) const {
    struct stat facts {};
    return ::fstat(descriptor, &facts) == 0 && facts.st_dev == device_ && facts.st_ino == file_;
}

bool VolumeCalls::isSeekTurn() {
    if (fault_ != CallFault::SeekFails || left_-- != 0) {
        return false;
    }
    fired_ = true;
    return true;
}

bool VolumeCalls::isReadTurn(int descriptor, bool hasPlace) {
    if (!hasPlace && fault_ == CallFault::OtherBytes) {
        places_.push_back(::syscall(SYS_lseek, descriptor, 0, SEEK_CUR));
    }
    if (fault_ == CallFault::SeekFails || (fault_ == CallFault::OtherBytes && hasPlace)) {
        return false;
    }
    if (fault_ == CallFault::EveryReadFails && fired_) {
        return true;
    }
    if (left_-- != 0) {
        return false;
    }
    fired_ = true;
    return true;
}

void VolumeCalls::change(void* buffer, long count) const {
    if (count > 0) {
        deliverOther(other_, seed_, static_cast<std::uint8_t*>(buffer), static_cast<std::size_t>(count));
    }
}

} // namespace tests

// Seen by the libraries as well.
#pragma GCC visibility push(default)
extern "C" {

ssize_t read(int descriptor, void* buffer, std::size_t length) {
    return readWith(descriptor, buffer, length, false,
                    [=](std::size_t count) { return ::syscall(SYS_read, descriptor, buffer, count); });
}

ssize_t pread(int descriptor, void* buffer, std::size_t length, off_t offset) {
    return readWith(descriptor, buffer, length, true,
                    [=](std::size_t count) { return ::syscall(SYS_pread64, descriptor, buffer, count, offset); });
}

// What fortified calls become.
ssize_t __read_chk(int descriptor, void* buffer, std::size_t length, std::size_t) {
    return read(descriptor, buffer, length);
}

ssize_t __pread_chk(int descriptor, void* buffer, std::size_t length, off_t offset, std::size_t) {
    return pread(descriptor, buffer, length, offset);
}

off_t lseek(int descriptor, off_t offset, int whence) noexcept {
    tests::VolumeCalls* const calls = callsOn(descriptor);
    return calls != nullptr && calls->isSeekTurn() ? failed() : ::syscall(SYS_lseek, descriptor, offset, whence);
}

} // extern "C"
#pragma GCC visibility pop
