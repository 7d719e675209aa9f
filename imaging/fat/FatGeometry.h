// What a FAT32 boot sector says of the volume's clusters, and of the parser's limits.
#pragma once

#include "imaging/Answerer.h"
#include "imaging/Volume.h"

namespace imaging::fat {

/// The FAT parser, or all used where a limit applies. Its map is asked for in one request: a request from anywhere but
/// unit 0 would not be answered rightly.
/// @throws VolumeError  the boot sector describes no volume, or the parser refuses it
Answerer open(Volume& volume);

} // namespace imaging::fat
