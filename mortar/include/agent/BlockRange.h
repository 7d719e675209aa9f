/// @file
/// A stretch of a volume.
#pragma once

#include "agent/Export.h"

#include <cstdint>

namespace agent {

/// Consecutive units of a volume. What a unit is (a cluster, a block) is told by whoever fills the range.
struct BlockRange {
    std::int64_t first; ///< number of the first unit
    std::int64_t count; ///< units in the range
};

/// Orders ranges by `first`, then by `count`.
AGENT_EXPORT bool operator<(BlockRange const& left, BlockRange const& right);

} // namespace agent
