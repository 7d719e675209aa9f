// What independent tools say of the sectors of a FAT32 volume, and what follows for the units of its map.
#pragma once

#include "support/FatBuilder.h"
#include "volumes/ExtOracles.h"

#include <string>

namespace tests {

/// How a tool's answer differs from this system's map on purpose. The tools know sectors, the map units of a cluster's
/// size from byte 0 on, which straddle clusters where the data area starts inside one; that is no difference: a unit is
/// used when one of its sectors is.
struct FatDifferences {
    bool badIsUsed;  ///< the tool counts bad clusters as used; here they are free
    bool tailIsUsed; ///< the tool counts the sectors behind the last cluster as used; here they are free
};

/// The map of units that a map of sectors implies, with the tool's differences taken out of it.
/// @param bad  clusters that are marked bad
BlockMap unitsFromSectors(BlockMap const& sectors, FatGeometry const& geometry, FatDifferences const& differences,
                          std::vector<std::uint64_t> const& bad);

/// The sectors that partclone writes to its domain file, with its differences taken out.
BlockMap fatUnitsFromPartclone(std::string const& volume, std::string const& domainFile,
                               std::vector<std::uint64_t> const& bad);

/// The sectors that blkls lists as free, with its differences taken out.
BlockMap fatUnitsFromBlkls(std::string const& volume, std::vector<std::uint64_t> const& bad);

} // namespace tests
