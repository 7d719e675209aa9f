// What a copy of an ext volume must keep although the map may call it free.
#pragma once

#include "imaging/ByteRange.h"
#include "imaging/Volume.h"

#include <vector>

namespace imaging::ext {

/// Everything before the first group, every copy of superblock and descriptor table, and the bitmaps and inode tables
/// of all groups: the map reports a group whose block bitmap is not initialised as free, whatever it holds, also of
/// other groups.
/// @throws VolumeError  the descriptors cannot be read
std::vector<ByteRange> alwaysKept(Volume& volume);

} // namespace imaging::ext
