// What an ext superblock says of the volume's blocks, and of the parser's limits.
#pragma once

#include "imaging/Answerer.h"
#include "imaging/Volume.h"

#include <cstdint>
#include <span>

namespace imaging::ext {

/// Reads the superblock's geometry and holds it against the table of what the ext parser does not interpret.
/// @throws VolumeError  the superblock cannot be read, is cut off, or describes no volume
Geometry readGeometry(Volume& volume);

/// The ext parser, or all used where a limit applies.
/// @throws VolumeError  as readGeometry, and where the parser refuses the volume
Answerer open(Volume& volume);

} // namespace imaging::ext
