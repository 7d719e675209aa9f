// Lets the process's own system calls on one file go wrong, below everything that is tested.
#pragma once

#include "support/FaultMatrix.h"

#include <atomic>
#include <string>
#include <vector>

namespace tests {

/// What goes wrong.
enum class CallFault {
    SeekFails,      ///< the n-th lseek ends in EIO
    ReadFails,      ///< the n-th read or pread ends in EIO
    EveryReadFails, ///< as do all that follow
    ReadShort,      ///< it delivers its first half
    OtherBytes,     ///< the n-th read, without preads, delivers other bytes
};

/// While it lives, the n-th call (counted from 0) on a file goes wrong. One at a time.
class VolumeCalls {
public:
    VolumeCalls(std::string const& path, CallFault fault, unsigned n, Other other = Other::Zeros, unsigned seed = 0);
    VolumeCalls(VolumeCalls const&) = delete;
    VolumeCalls& operator=(VolumeCalls const&) = delete;
    ~VolumeCalls();

    bool fired() const { return fired_; }

    /// Where each read of the file began, in order; preads are not among them.
    std::vector<long> const& places() const { return places_; }

    // For the system calls' stand-ins.
    bool isMine(int descriptor) const;
    bool isSeekTurn();
    bool isReadTurn(int descriptor, bool hasPlace);
    CallFault fault() const { return fault_; }
    void change(void* buffer, long count) const;

private:
    unsigned long device_ = 0;
    unsigned long file_ = 0;
    CallFault fault_;
    unsigned left_;
    Other other_;
    unsigned seed_;
    std::vector<long> places_;
    std::atomic<bool> fired_{false};
};

} // namespace tests
