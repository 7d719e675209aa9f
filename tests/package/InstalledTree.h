// The build that these tests belong to, installed somewhere else.
#pragma once

#include "support/Command.h"
#include "support/TempDirectory.h"

#include <filesystem>
#include <string>

namespace tests {

/// A prefix into which `cmake --install` has put everything.
class InstalledTree {
public:
    InstalledTree()
        : result_(runCommand(
              {"cmake", "--install", buildDirectory(), "--prefix", (directory_.path() / "installed").string()})) {}

    static std::string buildDirectory() { return std::filesystem::path(FSPARSER_LIBRARY_DIR).parent_path().string(); }

    CommandResult const& result() const { return result_; }
    std::filesystem::path prefix() const { return directory_.path() / "installed"; }

    /// A path beside the tree.
    std::string scratch(std::string const& name) const { return directory_.file(name); }

    /// Where the project of another directory finds the tree.
    Environment environment() const {
        return {{"PKG_CONFIG_PATH", (libraries() / "pkgconfig").string()},
                {"CMAKE_PREFIX_PATH", prefix().string()},
                {"LD_LIBRARY_PATH", libraries().string()}};
    }

    /// lib, or what the system has in its place.
    std::filesystem::path libraries() const {
        for (auto const& entry : std::filesystem::recursive_directory_iterator(prefix())) {
            if (entry.path().filename() == "libfsparser.so.1") {
                return entry.path().parent_path();
            }
        }
        return prefix() / "lib";
    }

private:
    TempDirectory directory_;
    CommandResult result_;
};

/// The folder of the projects outside of this one.
inline std::filesystem::path outsideProjects() {
    return std::filesystem::path(FSPARSER_SOURCE_DIR) / "tests" / "package" / "outside";
}

} // namespace tests
