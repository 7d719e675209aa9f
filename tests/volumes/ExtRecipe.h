// Recipes for real ext volumes: what the file system's own tools are asked for, and what that must have led to.
#pragma once

#include "support/Command.h"

#include <cstdint>
#include <filesystem>
#include <gtest/gtest.h>
#include <initializer_list>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace tests {

/// What is put into a volume.
enum class Fill {
    Nothing, ///< only what mke2fs makes itself
    Tree,    ///< a directory tree that mke2fs copies in
    Holes,   ///< files one behind the other, then every second one removed, so that free space is in many pieces
};

/// One real volume.
struct ExtRecipe {
    std::string name;                 ///< letters and digits: part of the test's name
    std::vector<std::string> options; ///< of mke2fs
    std::uint64_t kibibytes;          ///< size of the image file and of the volume
    Fill fill = Fill::Nothing;
    std::vector<std::string> features = {}; ///< those that the volume must turn out to have
    std::vector<std::string> missing = {};  ///< those that it must not have
    bool hasUninitialised = false;          ///< whether groups without an initialised bitmap must be among them
};

inline void PrintTo(ExtRecipe const& recipe, std::ostream* out) {
    *out << recipe.name;
}

/// The part of a test's name that the recipe gives: a name generator of a parametrised suite.
inline std::string recipeName(testing::TestParamInfo<ExtRecipe> const& parameter) {
    return parameter.param.name;
}

/// Why volumes cannot be made here, if one of the programs is missing.
std::optional<std::string> missingProgram(std::initializer_list<char const*> names);

/// Makes the volume as `volume.img` in a directory: the same bytes each time, whatever the machine's configuration
/// (except the times of the files in a Tree).
/// @return its path
/// @throws std::runtime_error  a tool refused, with what it said
std::string makeExtVolume(ExtRecipe const& recipe, std::filesystem::path const& directory);

/// Runs a file system tool with a fixed clock and untranslated messages.
CommandResult runTool(std::vector<std::string> const& arguments, Environment const& more = {});

/// Runs debugfs commands on a volume, changing it.
/// @throws std::runtime_error  one of them failed
void changeWithDebugfs(std::string const& volume, std::vector<std::string> const& commands);

/// What e2fsck finds without changing anything: 0 is a sound volume.
int checkWithE2fsck(std::string const& volume);

} // namespace tests
