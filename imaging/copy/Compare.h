// Comparing a volume with a copy of it.
#pragma once

#include "imaging/copy/CopyPlan.h"
#include "imaging/copy/Source.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace imaging {

/// The first byte in which a copy differs.
struct Difference {
    std::uint64_t offset;              ///< of the volume
    std::optional<std::uint64_t> unit; ///< the unit that it lies in, if any
    std::uint8_t expected;             ///< what the volume holds
    std::optional<std::uint8_t> found; ///< what the copy holds; nothing when it ends before
};

struct Comparison {
    CopyTotals totals;
    std::uint64_t compared = 0; ///< bytes
    std::optional<Difference> difference;
    std::vector<std::string> warnings;
};

/// One of the two that are compared.
struct Compared {
    Source const& source;
    std::string path;
    std::uint64_t size;
};

/// Compares what a copy of the volume takes along; free space may hold anything.
/// @throws VolumeError  either cannot be read
Comparison compareVolumes(CopyPlan& plan, Compared const& volume, Compared const& copy,
                          VolumeMap::Progress const& progress);

} // namespace imaging
