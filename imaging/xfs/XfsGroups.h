// The free-space headers of an XFS volume's groups.
#pragma once

#include "imaging/Answerer.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace imaging::xfs {

/// How the groups lie.
struct GroupLayout {
    std::uint64_t groups;
    std::uint64_t groupBlocks;
    std::uint64_t blocks; ///< of the volume; the last group may be short
    std::uint64_t blockSize;
    std::uint64_t sectorSize;
    bool hasChecksums; ///< version 5
};

struct GroupHeaders {
    /// Free blocks of each group as the parser must find them: those of its tree, and those of its free list that the
    /// parser marks.
    std::vector<FreeCount> freeCounts;

    /// The roots of the groups' trees, which are never free.
    std::vector<ByteRange> roots;

    /// The blocks of the free lists: the parser calls them free, and they are kept for the trees' own growth.
    std::vector<ByteRange> listed;

    /// Levels of the deepest tree, by the headers' own word; only what a walk costs depends on it.
    std::uint64_t levels = 0;

    /// The first header under which the parser would mark blocks that are in use, as one clause. The parser does not
    /// look at a free list's count: of a list that is empty or shorter than its two ends say, old entries would count.
    /// Nor does it mind a root past the group's end, or a list or root of the other version.
    std::optional<std::string> notBelieved;
};

/// Reads every group's header. One that is none is left to the parser.
/// @throws VolumeError  a header cannot be read
GroupHeaders readGroupHeaders(Volume& volume, GroupLayout const& layout);

} // namespace imaging::xfs
