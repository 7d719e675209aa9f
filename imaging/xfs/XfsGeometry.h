// What an XFS superblock says of the volume's blocks and journal, and of the parser's limits.
#pragma once

#include "imaging/Answerer.h"
#include "imaging/Volume.h"

namespace imaging::xfs {

/// The XFS parser, or all used where a limit applies.
/// @throws VolumeError  the superblock describes no volume, or the parser refuses it
Answerer open(Volume& volume);

} // namespace imaging::xfs
