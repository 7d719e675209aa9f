// What an NTFS boot sector says of the volume's clusters, and of the parser's limits.
#pragma once

#include "imaging/Answerer.h"
#include "imaging/Volume.h"

namespace imaging::ntfs {

/// The NTFS parser, or all used where a limit applies.
/// @throws VolumeError  the parser refuses the volume, or its size is no size
Answerer open(Volume& volume);

} // namespace imaging::ntfs
