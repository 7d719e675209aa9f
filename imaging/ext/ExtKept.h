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

/// The first superblock and descriptors, bitmaps and inode tables, as far as they lie in groups whose block bitmap is
/// initialised: there no sound map calls them free. The volume has groups.
/// @throws VolumeError  the descriptors cannot be read
std::vector<ByteRange> mustBeUsed(Volume& volume);

} // namespace imaging::ext
