// What an HFS+ volume header says of the volume's blocks, and of the parser's limits.
#pragma once

#include "imaging/Answerer.h"
#include "imaging/Volume.h"

namespace imaging::hfs {

/// The HFS+ parser on a volume that is presented the way it expects, also inside an HFS wrapper; or all used where a
/// limit applies.
/// @throws VolumeError  the volume header describes no volume, or the parser refuses it
Answerer open(Volume& volume);

} // namespace imaging::hfs
