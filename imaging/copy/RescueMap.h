// What could not be read, as other rescuing tools take it.
#pragma once

#include "imaging/ByteRange.h"

#include <cstdint>
#include <string>
#include <vector>

namespace imaging {

/// A GNU ddrescue mapfile (its manual, chapter "Mapfile structure"): the unreadable ranges as bad sectors ("-"), all
/// else as finished ("+"). It covers the volume to its last byte.
/// @param unreadable  in order, inside the volume
std::string rescueMap(std::vector<ByteRange> const& unreadable, std::uint64_t size);

} // namespace imaging
