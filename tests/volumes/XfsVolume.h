// Making XFS volumes: formatted and filled from a list as an ordinary user, or mounted for a while to be filled.
#pragma once

#include "support/Command.h"

#include <cstdint>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace tests {

/// One real volume.
struct XfsRecipe {
    std::string name;                 ///< letters and digits: part of the test's name
    std::vector<std::string> options; ///< of mkfs.xfs
    std::uint64_t kibibytes;          ///< size of the image file and of the volume
    unsigned files = 0;               ///< of one block each that mkfs puts in
    unsigned leastLevels = 1;         ///< of the tree by block number of some group, once files were taken out again
};

inline void PrintTo(XfsRecipe const& recipe, std::ostream* out) {
    *out << recipe.name;
}

inline std::string xfsRecipeName(testing::TestParamInfo<XfsRecipe> const& parameter) {
    return parameter.param.name;
}

/// Makes the volume as `volume.img` in a directory, in sizes that mkfs.xfs keeps for its own tests.
/// @return its path
/// @throws std::runtime_error  mkfs.xfs refused, with what it said
std::string makeXfsVolume(XfsRecipe const& recipe, std::filesystem::path const& directory);

/// Takes every second file of the root directory out again, so that free space is in many pieces: their inodes are
/// damaged, and xfs_repair then writes the groups' trees anew. Nothing is mounted.
/// @throws std::runtime_error  a tool refused, or the volume is not sound afterwards
void punchHolesIntoXfs(std::string const& volume);

/// Runs xfs_db commands on a volume, changing it.
/// @throws std::runtime_error  xfs_db failed
void changeWithXfsDb(std::string const& volume, std::vector<std::string> const& commands);

/// Whether xfs_repair finds nothing to repair.
bool isSoundXfs(std::string const& volume);

/// A volume mounted through a loop device.
class XfsMount {
public:
    /// @param directory  an existing empty directory
    XfsMount(std::string const& volume, std::filesystem::path directory);
    XfsMount(XfsMount const&) = delete;
    XfsMount& operator=(XfsMount const&) = delete;
    ~XfsMount(); ///< unmounts

    /// Why it is not mounted.
    std::optional<std::string> const& refusal() const { return refusal_; }

    std::filesystem::path const& path() const { return directory_; }

    /// Unmounts, after which everything is in the volume's file.
    /// @throws std::runtime_error  it cannot be unmounted
    void unmount();

private:
    std::filesystem::path directory_;
    std::optional<std::string> refusal_;
    bool isMounted_ = false;
};

} // namespace tests
