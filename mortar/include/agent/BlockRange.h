/// @file
/// A stretch of a volume.
#pragma once

#include "agent/Export.h"

#include <cstdint>

namespace agent {

/// Consecutive units of a volume. What a unit is (a cluster, a block) is told by whoever fills the range.
///
/// @code
/// std::vector<agent::BlockRange> runs{{40, 8}, {16, 4}}; // 40 to 47, and 16 to 19
/// std::sort(runs.begin(), runs.end());                   // 16 to 19 first
/// @endcode
struct BlockRange {
    std::int64_t first; ///< number of the first unit
    std::int64_t count; ///< units in the range
};

/// Orders ranges by `first`, then by `count`. Any thread.
AGENT_EXPORT bool operator<(BlockRange const& left, BlockRange const& right);

} // namespace agent
