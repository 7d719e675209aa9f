// What independent tools say of the blocks of an XFS volume.
#pragma once

#include "volumes/ExtOracles.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tests {

/// A group, as xfs_db prints it.
struct XfsGroupAnswer {
    std::uint64_t levels = 0;               ///< of the tree by block number
    std::uint64_t listFirst = 0;            ///< index of the free list's first entry
    std::uint64_t listLast = 0;             ///< of its last one
    std::vector<std::uint64_t> listEntries; ///< from the first to the last, blocks in the group
};

/// A volume, as xfs_db prints it.
struct XfsAnswers {
    std::uint64_t blockSize = 0;
    std::uint64_t blocks = 0;
    std::uint64_t groupBlocks = 0;
    std::uint64_t logBlocks = 0;
    std::uint64_t logStart = 0; ///< numbered like the units of the map
    std::vector<XfsGroupAnswer> groups;
    BlockMap used; ///< a block of a free list is free

    std::uint64_t mostLevels() const;
};

/// @throws std::runtime_error  xfs_db failed, or what it prints does not add up
XfsAnswers askXfsDb(std::string const& volume);

/// The one difference between xfs_db and this system's map that is kept on purpose: the blocks of a free list that
/// wraps around its end stay used.
BlockMap withKeptXfsDifferences(XfsAnswers const& answers);

/// The map that partclone writes to its domain file. It, too, has the blocks of free lists free.
BlockMap mapFromPartcloneXfs(std::string const& volume, std::string const& domainFile, XfsAnswers const& answers);

} // namespace tests
