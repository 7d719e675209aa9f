// What independent tools say of the blocks of an HFS+ volume.
#pragma once

#include "volumes/ExtOracles.h"

#include <string>

namespace tests {

/// A volume, as fsstat prints it.
struct HfsAnswers {
    std::string type; ///< "HFS+" or "HFSX"
    std::uint64_t blockSize = 0;
    std::uint64_t blocks = 0;
    std::uint64_t freeBlocks = 0; ///< by the header's own counter
};

/// @throws std::runtime_error  fsstat failed, or did not say all that
HfsAnswers askFsstat(std::string const& volume);

/// The map that blkls lists; it reads the overflow tree by its keys.
BlockMap hfsMapFromBlkls(std::string const& volume, std::uint64_t blocks);

/// The map that partclone writes to its domain file. It does not know overflow extents.
BlockMap hfsMapFromPartclone(std::string const& volume, std::string const& domainFile, std::uint64_t blockSize);

} // namespace tests
