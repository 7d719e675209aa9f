// How much memory this process really takes, as the system counts it.
#pragma once

#include "support/Sanitized.h"

#include <cstddef>
#include <fstream>
#include <string>
#include <unistd.h>

namespace tests {

/// Bytes of this process that stand in memory now; 0 where the system does not tell, and under the address sanitizer,
/// which keeps freed memory and books of its own.
inline std::size_t residentBytes() {
    if (kIsSanitized) {
        return 0;
    }
    std::ifstream statm("/proc/self/statm");
    std::size_t total = 0;
    std::size_t resident = 0;
    statm >> total >> resident;
    return statm ? resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)) : 0;
}

/// Why residentBytes() is 0.
inline constexpr char const* kWhyNotResident = kIsSanitized ? "the address sanitizer keeps memory of its own"
                                                            : "the system does not tell how much memory is resident";

/// The value of a line of the process's status, in KiB.
inline long statusKiB(std::string const& name) {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        if (word == name + ":") {
            long value = 0;
            status >> value;
            return value;
        }
    }
    return -1;
}

/// The most memory that was resident at once since construction, beyond what was resident then.
class ResidentPeak {
public:
    ResidentPeak() {
        std::ofstream clear("/proc/self/clear_refs");
        clear << "5" << std::flush; // the peak starts again from what is resident now
        works = clear.good();
        before_ = statusKiB("VmRSS");
        works = works && before_ > 0 && statusKiB("VmHWM") > 0;
    }

    long growthMiB() const { return (statusKiB("VmHWM") - before_) / 1024; }

    bool works = false;

private:
    long before_ = 0;
};

} // namespace tests
