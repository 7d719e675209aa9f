// The Debian packages that scripts/package leaves in build/packages: what is in them, and that it works.
#include "InstalledTree.h"
#include "ShownCommands.h"

#include "support/Files.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace tests;
namespace files = std::filesystem;

/// The packages by their names; none where nobody made them.
std::map<std::string, std::string> builtPackages() {
    std::map<std::string, std::string> packages;
    files::path const directory = files::path(FSPARSER_SOURCE_DIR) / "build" / "packages";
    std::error_code none;
    for (auto const& entry : files::directory_iterator(directory, none)) {
        std::string const name = entry.path().filename().string();
        if (name.ends_with(".deb")) {
            packages[name.substr(0, name.find('_'))] = entry.path().string();
        }
    }
    return packages;
}

class InstallPackages : public testing::Test {
protected:
    void SetUp() override {
        if (!findProgram("dpkg-deb")) {
            GTEST_SKIP() << "this is not a Debian system: dpkg-deb is missing";
        }
        packages = builtPackages();
        if (packages.empty()) {
            GTEST_SKIP() << "there are no packages: scripts/package makes them, in a few minutes";
        }
        ASSERT_EQ(packages.size(), 3U);
    }

    std::string ask(std::string const& option, std::string const& package, std::string const& name = "") const {
        std::vector<std::string> arguments{"dpkg-deb", option, packages.at(package)};
        if (!name.empty()) {
            arguments.push_back(name);
        }
        CommandResult const result = runCommand(arguments);
        EXPECT_TRUE(result.succeeded()) << result;
        return result.output;
    }

    /// The paths in a package, directories left out.
    std::vector<std::string> contentsOf(std::string const& package) const {
        std::vector<std::string> paths;
        std::istringstream lines(ask("-c", package));
        for (std::string line; std::getline(lines, line);) {
            std::string const path = line.substr(line.find(" ./") + 2);
            if (!path.ends_with('/')) {
                paths.push_back(path.substr(0, path.find(" -> ")));
            }
        }
        return paths;
    }

    /// Unpacks all of them into one root, and gives where the libraries are then.
    files::path unpack(files::path const& root) const {
        for (auto const& [name, file] : packages) {
            EXPECT_TRUE(runCommand({"dpkg-deb", "-x", file, root.string()}).succeeded()) << name;
        }
        for (auto const& entry : files::directory_iterator(root / "usr" / "lib")) {
            if (files::exists(entry.path() / "libfsparser.so.1")) {
                return entry.path();
            }
        }
        ADD_FAILURE() << "no library in " << root;
        return root;
    }

    std::map<std::string, std::string> packages;
};

bool hasPath(std::vector<std::string> const& paths, std::string const& ending) {
    return std::any_of(paths.begin(), paths.end(),
                       [&ending](std::string const& path) { return path.ends_with(ending); });
}

TEST_F(InstallPackages, EachHasItsFiles) {
    auto const libraries = contentsOf("libfsparser1");
    EXPECT_TRUE(hasPath(libraries, "/libfsparser.so.1"));
    EXPECT_TRUE(hasPath(libraries, "/libmortar.so.1"));
    EXPECT_FALSE(hasPath(libraries, ".so")) << "link names are for those who compile";
    auto const development = contentsOf("libfsparser-dev");
    for (char const* const ending :
         {"/usr/include/agent/core/fs/EXTParser.h", "/usr/include/agent/info/Logger.h", "/libfsparser.so",
          "/libmortar.so", "/pkgconfig/fsparser.pc", "/pkgconfig/mortar.pc", "/cmake/fsparser/fsparserConfig.cmake"}) {
        EXPECT_TRUE(hasPath(development, ending)) << ending;
    }
    auto const command = contentsOf("fsparser");
    for (char const* const ending :
         {"/usr/bin/fsparser", "/man1/fsparser.1.gz", "/bash-completion/completions/fsparser",
          "/zsh/site-functions/_fsparser", "/doc/fsparser/README.md", "/doc/fsparser/docs/pictures/ext3.png"}) {
        EXPECT_TRUE(hasPath(command, ending)) << ending;
    }
}

TEST_F(InstallPackages, EveryLinkOfTheirPagesLeadsSomewhere) {
    TempDirectory const directory;
    unpack(directory.path());
    EXPECT_TRUE(files::exists(directory.path() / "usr/share/doc/fsparser/docs/embedding.md"));
    EXPECT_EQ(deadLinksBelow(directory.path() / "usr" / "share" / "doc"), std::vector<std::string>());
}

TEST_F(InstallPackages, EachSaysWhatItIsAndWhose) {
    for (auto const& [name, file] : packages) {
        auto const contents = contentsOf(name);
        EXPECT_TRUE(hasPath(contents, "/usr/share/doc/" + name + "/copyright")) << name;
        EXPECT_TRUE(hasPath(contents, "/usr/share/doc/" + name + "/changelog.Debian.gz")) << name;
        EXPECT_EQ(ask("-f", name, "Version").substr(0, 6), "1.0.0-") << name;
    }
}

TEST_F(InstallPackages, EachDependsOnWhatItNeeds) {
    EXPECT_NE(ask("-f", "libfsparser1", "Depends").find("libstdc++6"), std::string::npos);
    EXPECT_EQ(ask("-f", "libfsparser-dev", "Depends").find("libfsparser1 (= "), 0U);
    std::string const command = ask("-f", "fsparser", "Depends");
    for (char const* const library : {"libfsparser1 (>= 1.0.0)", "libblkid1", "libcairo2", "libxml2", "libssl3"}) {
        EXPECT_NE(command.find(library), std::string::npos) << library << " in " << command;
    }
}

TEST_F(InstallPackages, TheLibrariesTellOthersOfTheirSymbolsAndTheSystemOfThemselves) {
    std::string const control = ask("-I", "libfsparser1");
    for (char const* const part : {" symbols", " shlibs", " triggers"}) {
        EXPECT_NE(control.find(part), std::string::npos) << part;
    }
    EXPECT_NE(ask("-I", "libfsparser1", "triggers").find("ldconfig"), std::string::npos);
    std::string const symbols = ask("-I", "libfsparser1", "symbols");
    EXPECT_NE(symbols.find("libfsparser.so.1 libfsparser1 #MINVER#"), std::string::npos);
    EXPECT_NE(symbols.find("libmortar.so.1 libfsparser1 #MINVER#"), std::string::npos);
}

TEST_F(InstallPackages, NoBinaryNamesAPathToItsLibraries) {
    if (!findProgram("readelf")) {
        GTEST_SKIP() << "readelf is not installed";
    }
    TempDirectory const directory;
    files::path const libraries = unpack(directory.path());
    for (files::path const& file : {libraries / "libfsparser.so.1", libraries / "libmortar.so.1",
                                    directory.path() / "usr" / "bin" / "fsparser"}) {
        CommandResult const result = runCommand({"readelf", "-d", "-W", file.string()});
        ASSERT_NE(result.output.find("(NEEDED)"), std::string::npos) << result;
        EXPECT_EQ(result.output.find("RPATH"), std::string::npos) << file;
        EXPECT_EQ(result.output.find("RUNPATH"), std::string::npos) << file;
    }
}

TEST_F(InstallPackages, WorkTogether) {
    TempDirectory const directory;
    files::path const root = directory.path() / "root";
    CommandOptions options;
    std::string const libraries = unpack(root).string();
    options.environment = {{"LD_LIBRARY_PATH", libraries}, {"PKG_CONFIG_PATH", libraries + "/pkgconfig"}};
    std::string const volume = writeExtVolume(directory.file("ext.img"), makeSoundExtVolume());
    CommandResult const named = runCommand({(root / "usr" / "bin" / "fsparser").string(), "detect", volume}, options);
    EXPECT_EQ(named.output, "ext\n") << named;
    if (!findProgram("make") || !findProgram("pkg-config") || !findProgram("g++")) {
        GTEST_SKIP() << "make, pkg-config or g++ is not installed";
    }
    std::string const project = (outsideProjects() / "pkgconfig").string();
    CommandResult const built = runCommand({"make", "-C", project, "OUTPUT=" + directory.path().string()}, options);
    ASSERT_TRUE(built.succeeded()) << built;
    CommandResult const counted = runCommand({directory.file("used_units"), volume}, options);
    EXPECT_EQ(counted.output.substr(0, 8), "3 20000 ") << counted;
}

TEST_F(InstallPackages, AreWithoutWarningsToLintian) {
    if (!findProgram("lintian")) {
        GTEST_SKIP() << "lintian is not installed";
    }
    // The tag asks for a number in Debian's own list of wanted packages.
    std::vector<std::string> arguments{"lintian", "--fail-on", "error,warning", "--suppress-tags",
                                       "initial-upload-closes-no-bugs"};
    for (auto const& [name, file] : packages) {
        arguments.push_back(file);
    }
    CommandOptions options;
    options.timeout = std::chrono::minutes(5);
    CommandResult const result = runCommand(arguments, options);
    EXPECT_EQ(result.exitCode, 0) << result.output << result.error;
}

} // namespace
