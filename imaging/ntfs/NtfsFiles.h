// Files of an NTFS volume by path.
#pragma once

#include "agent/BlockRange.h"
#include "agent/core/fs/NTFSParser.h"
#include "imaging/Volume.h"
#include "imaging/ntfs/NtfsProbe.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace imaging::ntfs {

/// A file's record number and its standard information.
struct FileFacts {
    unsigned long record;
    agent::core::fs::ntfs_standard_information information;
    bool isWhole; ///< false when the stored value ends after 48 bytes: what the library returns from owner_id on is not
                  ///< it
};

/// Answers questions about files by path. All paths of one object share the parser's cache.
///
/// Paths are taken with '/' or '\', with or without a drive prefix such as "C:" and a leading separator.
class Files {
public:
    /// @param volume         must outlive the object
    /// @param cacheCapacity  directories that the path cache keeps; nothing for the library's default
    /// @throws VolumeError  the volume does not hold NTFS, or the parser refuses it
    Files(Volume& volume, std::optional<unsigned long> cacheCapacity);

    /// Each throws std::runtime_error with the library's reason when the path is not there or its records are damaged.
    /// accessLists() also throws for a file whose standard information names no descriptor.
    FileFacts stat(std::string const& path);
    std::vector<agent::BlockRange> extents(std::string const& path);
    std::vector<agent::core::fs::NTFS_ACL> accessLists(std::string const& path);

    /// Bytes of a cluster.
    std::uint64_t clusterSize() const { return boot_.clusterSize(); }

private:
    explicit Files(OpenProbe opened);
    bool isInformationWhole(unsigned long record) const;

    std::unique_ptr<Probe> parser_;
    Boot boot_;
};

/// The path as the library takes it: one backslash before each component.
std::string toLibraryPath(std::string const& path);

} // namespace imaging::ntfs
