// What a FAT32 boot sector says of the volume's clusters, and of the parser's limits.
#pragma once

#include "imaging/Answerer.h"
#include "imaging/Volume.h"

namespace imaging::fat {

/// The FAT parser behind windows over its table, or all used where a limit applies.
/// @throws VolumeError  the boot sector describes no volume, or the parser refuses it
Answerer open(Volume& volume);

} // namespace imaging::fat
