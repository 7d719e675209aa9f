// What the parser is working out right now, so that structures that name one another end.
#pragma once

#include "agent/core/fs/NTFSParser.h"

#include <unordered_set>
#include <utility>
#include <vector>

namespace agent::core::fs {

/// Requests in progress. A healthy volume never meets one again from within.
struct NTFSParser::Walks {
    /// Lists inside extension records, which NTFS does not make, are followed this deep: each level takes stack, and a
    /// chain of them may be as long as the MFT.
    static constexpr std::size_t kDeepestList = 16;

    /// Records reached through lists inside extension records since the outermost list was begun: each is read once, or
    /// records whose lists name one another several times over would take practically for ever.
    std::unordered_set<unsigned long> nestedHolders;

    bool mftRunlist = false;                                    ///< the runlist of $MFT
    std::vector<std::pair<unsigned long, std::uint32_t>> lists; ///< attribute lists: record and wanted type
};

} // namespace agent::core::fs
