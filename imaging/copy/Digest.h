// One number for a volume's map and used content.
#pragma once

#include "imaging/VolumeMap.h"
#include "imaging/copy/Source.h"

#include <string>
#include <vector>

namespace imaging {

struct Digest {
    std::string sha256; ///< 64 hexadecimal digits
    MapTotals totals;
};

/// SHA-256 over the map and the content of the used units: equal for a volume, its copies and whatever they are
/// restored to, whatever lies in free space and past the last unit.
///
/// Hashed are, numbers as 64 bits little-endian: the text "fsparser digest 1" and a newline; unit size, units and the
/// byte of unit 0; then for each run of used units the first unit, the count, and the bytes, as far as the file system
/// goes (its last unit may reach past its end).
/// @throws VolumeError  the map or the content cannot be read
Digest digestVolume(VolumeMap& map, Source const& source, std::string const& path, VolumeMap::Progress const& progress);

} // namespace imaging
