// What a copy of an ext volume must keep although the map may call it free.
#pragma once

#include "imaging/ByteRange.h"
#include "imaging/Volume.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
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

/// The first group whose block bitmap is not initialised and that counts fewer free blocks than it has beside the
/// volume's own structures, as one clause: it is in use, and the map calls it free.
/// @param groups  numbers in order, and their counts
/// @throws VolumeError  the descriptors cannot be read
std::optional<std::string> findUsedUninitialised(Volume& volume,
                                                 std::vector<std::pair<std::uint64_t, std::uint64_t>> const& groups);

} // namespace imaging::ext
