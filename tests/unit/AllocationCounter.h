// Counts the heap allocations of this process, the libraries' included.
#pragma once

#include <cstddef>

namespace tests {

/// Allocations by this thread since the program started.
std::size_t allocationsSoFar();

} // namespace tests
