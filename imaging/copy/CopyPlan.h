// What a copy of a volume takes along.
#pragma once

#include "imaging/ByteRange.h"
#include "imaging/VolumeMap.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace imaging {

/// Bytes of a volume by what a copy does with them; they add up to the volume's size.
struct CopyTotals {
    std::uint64_t used = 0; ///< in used units
    std::uint64_t kept = 0; ///< in free units, or in none, and taken along all the same
    std::uint64_t free = 0; ///< left out

    std::uint64_t taken() const { return used + kept; }
    bool operator==(CopyTotals const&) const = default;
};

/// Tells which bytes of a volume are in use and which must be kept whatever its map says: what lies before the first
/// unit and past the end of the file system, and what the file system's folder names.
class CopyPlan {
public:
    /// @param volume  must outlive the plan
    /// @throws VolumeError  as VolumeMap, or the volume cannot be read for what must be kept
    CopyPlan(Volume& volume, VolumeMap::Refused refused, std::uint64_t unit);

    /// Takes a stretch of bytes that a copy takes along; what it throws ends the walk.
    using RangeSink = std::function<void(ByteRange const&)>;

    /// Walks the whole volume. A map that turns out to be doubtful makes every later walk take everything. The ranges
    /// come in order, do not overlap, and lie inside the volume.
    /// @param warnings  takes what does not fit together
    /// @throws VolumeError  the map cannot be read
    CopyTotals walk(RangeSink const& sink, VolumeMap::Progress const& progress, std::vector<std::string>& warnings);

    /// Whether the next walk takes everything, because the map is not to be trusted.
    bool takesEverything() const { return takesEverything_; }

    Geometry const& geometry() const { return map_.geometry(); }

    /// What the volume says of itself when it was not cleanly unmounted, one sentence; empty for a clean one.
    /// @throws VolumeError  the volume cannot be read for it
    std::string uncleanWarning() const;

private:
    Volume& volume_;
    VolumeMap map_;
    std::vector<ByteRange> kept_; // in order, inside the volume
    bool takesEverything_ = false;
};

} // namespace imaging
