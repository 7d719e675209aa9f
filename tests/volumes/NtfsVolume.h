// Making NTFS volumes: formatted and filled without mounting, or mounted for a while to be filled as any directory.
#pragma once

#include "support/Command.h"
#include "support/TempDirectory.h"

#include <cstdint>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace tests {

/// How a volume is formatted.
struct NtfsRecipe {
    std::string name; ///< letters and digits: part of the test's name
    std::uint64_t clusterBytes;
    std::uint64_t mebibytes = 16;
    std::uint64_t sectorBytes = 512; ///< 4096 makes MFT records of 4096 bytes
};

inline void PrintTo(NtfsRecipe const& recipe, std::ostream* out) {
    *out << recipe.name;
}

inline std::string ntfsRecipeName(testing::TestParamInfo<NtfsRecipe> const& parameter) {
    return parameter.param.name;
}

/// Formats a new file.
/// @return its path
/// @throws std::runtime_error  mkfs.ntfs refused, with what it said
std::string makeNtfsVolume(NtfsRecipe const& recipe, std::string const& path);

/// Copies a file into the volume without mounting it.
/// @param stream  name of the data stream; empty for the unnamed one
/// @throws std::runtime_error  ntfscp refused, with what it said
void copyIntoNtfs(std::string const& volume, std::string const& source, std::string const& path,
                  std::string const& stream = "");

/// Why nothing can be mounted here.
std::optional<std::string> missingNtfsMount();

/// A volume mounted with permissions, compression, and streams as extended attributes.
class NtfsMount {
public:
    /// @param directory  an existing empty directory
    /// @throws std::runtime_error  it cannot be mounted
    NtfsMount(std::string const& volume, std::filesystem::path directory);
    NtfsMount(NtfsMount const&) = delete;
    NtfsMount& operator=(NtfsMount const&) = delete;
    ~NtfsMount(); ///< unmounts

    std::filesystem::path const& path() const { return directory_; }

    /// Unmounts, and waits until everything is in the volume's file.
    /// @throws std::runtime_error  it cannot be unmounted
    void unmount();

private:
    std::filesystem::path directory_;
    std::unique_ptr<Process> driver_;
};

/// An extended attribute. Linux alone has them; each volume's own ones begin with "system.ntfs_".
/// @throws std::runtime_error  it cannot be set or read
void setAttribute(std::filesystem::path const& path, std::string const& name, std::string const& value);
std::string readAttribute(std::filesystem::path const& path, std::string const& name);

/// A path as the library takes it, from one below the mount point written with slashes.
std::string backslashed(std::string path);

} // namespace tests
