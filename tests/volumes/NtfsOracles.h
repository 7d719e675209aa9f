// What independent tools say of an NTFS volume.
#pragma once

#include "agent/core/fs/NTFSTypes.h"
#include "volumes/ExtOracles.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tests {

/// A name in a volume, as fls lists it.
struct ListedName {
    std::string path; ///< below the root, with slashes
    std::uint64_t record;
};

/// Every name below the root, once each; streams and deleted files are left out.
/// @throws std::runtime_error  fls failed
std::vector<ListedName> listNames(std::string const& volume);

/// The first bits of $Bitmap, as ntfscat copies it out.
BlockMap mapFromNtfscat(std::string const& volume, std::uint64_t clusters);

/// The map that partclone writes to its domain file.
BlockMap mapFromPartcloneNtfs(std::string const& volume, std::string const& domainFile, std::uint64_t clusterBytes,
                              std::uint64_t clusters);

/// The runs of a file as the library must give them, worked out from what ntfsinfo prints: of every data stream, those
/// in extension records first, and at the end those of the attribute list itself where it is not resident. Real runs
/// stand where ntfsinfo says as long as no sparse run comes before them; a sparse run stands at the cluster of the one
/// before plus the last byte of its length, and moves all that follow.
struct ExpectedRuns {
    std::vector<agent::core::fs::ntfs_runlist> runs;
    bool hasSparse = false;
    bool isSpread = false; ///< an attribute list leads to other records
};
ExpectedRuns runsFromNtfsinfo(std::string const& volume, std::uint64_t record);

/// An attribute's content, as ntfscat copies it out; the type and name as ntfscat takes them.
std::string attributeContent(std::string const& volume, std::uint64_t record, std::string const& type,
                             std::string const& name);

} // namespace tests
