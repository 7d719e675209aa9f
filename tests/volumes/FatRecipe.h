// Recipes for real FAT32 volumes: what the file system's own tools are asked for, and what that must have led to.
#pragma once

#include "support/FatBuilder.h"

#include <cstdint>
#include <filesystem>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <vector>

namespace tests {

/// What is put into a volume.
enum class FatFill {
    Nothing, ///< only what mkfs.fat makes itself
    Files,   ///< a directory of files
    Holes,   ///< files one behind the other, every second one removed, and files that fill some of the holes
};

/// One real volume.
struct FatRecipe {
    std::string name;                 ///< letters and digits: part of the test's name
    std::vector<std::string> options; ///< of mkfs.fat
    std::uint64_t bytes;              ///< size of the image file
    FatFill fill = FatFill::Nothing;
    bool isUnaligned = false;                     ///< whether the data area must turn out to start inside a unit
    bool hasTail = false;                         ///< whether sectors must be left behind the last cluster
    std::vector<std::uint64_t> badKibibytes = {}; ///< pieces of 1 KiB that mkfs.fat is told to be bad
};

inline void PrintTo(FatRecipe const& recipe, std::ostream* out) {
    *out << recipe.name;
}

/// The part of a test's name that the recipe gives: a name generator of a parametrised suite.
inline std::string fatRecipeName(testing::TestParamInfo<FatRecipe> const& parameter) {
    return parameter.param.name;
}

/// Makes the volume as `volume.img` in a directory.
/// @return its path
/// @throws std::runtime_error  a tool refused, with what it said
std::string makeFatVolume(FatRecipe const& recipe, std::filesystem::path const& directory);

/// What fsck.fat finds without changing anything: 0 is a sound volume.
int checkWithFsckFat(std::string const& volume);

/// The geometry in a volume's boot sector.
FatGeometry readFatGeometry(std::string const& volume);

} // namespace tests
