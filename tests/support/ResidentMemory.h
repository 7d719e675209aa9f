// How much memory this process really takes, as the system counts it.
#pragma once

#include <cstddef>
#include <fstream>
#include <unistd.h>

namespace tests {

/// Bytes of this process that stand in memory now; 0 where the system does not tell.
inline std::size_t residentBytes() {
    std::ifstream statm("/proc/self/statm");
    std::size_t total = 0;
    std::size_t resident = 0;
    statm >> total >> resident;
    return statm ? resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)) : 0;
}

} // namespace tests
