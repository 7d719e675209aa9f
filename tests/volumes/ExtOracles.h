// What independent tools say of the blocks of an ext volume.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace tests {

/// One state a block, counted from block 0: true is used.
using BlockMap = std::vector<bool>;

/// A block group, as dumpe2fs lists it.
struct DumpedGroup {
    std::uint64_t first = 0;    ///< block
    std::uint64_t last = 0;     ///< block, inclusive
    bool uninitialised = false; ///< flagged BLOCK_UNINIT: no bitmap was ever written
};

/// A volume, as dumpe2fs lists it.
struct DumpedVolume {
    std::uint64_t blocks = 0;
    std::uint64_t blockSize = 0;
    std::uint64_t firstBlock = 0;
    std::uint64_t freeBlocks = 0; ///< by the superblock's own counter
    std::set<std::string> features;
    std::vector<DumpedGroup> groups;
    BlockMap used; ///< block 0 counts as used where it belongs to no group

    std::uint64_t uninitialisedGroups() const;
};

/// @throws std::runtime_error  dumpe2fs failed, or its listing does not add up
DumpedVolume dumpVolume(std::string const& volume);

/// The two differences between dumpe2fs and this system's map that are kept on purpose: block 0 belongs to no group
/// where blocks have 1 KiB, and counts as free; every block of a group flagged BLOCK_UNINIT counts as free, those of
/// its metadata included. Everything else must be as dumpe2fs says.
BlockMap withKeptDifferences(DumpedVolume const& dumped);

/// The map that `debugfs testb` gives, block by block. It takes no question about block 0, which is always used:
/// it is no block of a group, or the place of the superblock.
BlockMap mapFromDebugfs(std::string const& volume, DumpedVolume const& dumped);

/// The map that partclone writes to its domain file.
BlockMap mapFromPartclone(std::string const& volume, std::string const& domainFile, DumpedVolume const& dumped);

/// The map that blkls lists, from an ext reader that shares no code with the other tools.
BlockMap mapFromBlkls(std::string const& volume, DumpedVolume const& dumped);

/// The first blocks that differ, one line each; empty when the maps are equal.
std::string differences(BlockMap const& map, BlockMap const& expected);

/// The bitmap of a map: a bit a block, least significant bit first, padding clear.
std::string bitmapOf(BlockMap const& map);

} // namespace tests
