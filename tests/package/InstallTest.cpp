// What `cmake --install` leaves: every file in its place, a command that runs wherever the tree is moved, and libraries
// that projects outside of this one find, by pkg-config and by CMake.
#include "InstalledTree.h"
#include "ShownCommands.h"

#include "support/Files.h"
#include "support/NtfsBuilder.h"
#include "support/Sanitized.h"

#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace tests;
namespace files = std::filesystem;

/// The files below a directory that end as said, relative to it.
std::set<std::string> filesBelow(files::path const& directory, std::string const& ending = "") {
    std::set<std::string> names;
    for (auto const& entry : files::recursive_directory_iterator(directory)) {
        std::string const name = entry.path().lexically_relative(directory).string();
        if (!entry.is_directory() && name.ends_with(ending)) {
            names.insert(name);
        }
    }
    return names;
}

/// An ext volume, and what programs outside say of it.
struct Sample {
    explicit Sample(InstalledTree const& tree) : path(tree.scratch("ext.img")) {
        ExtBuilder builder = makeSoundExtVolume();
        builder.setUsedFrom(9000, 777);
        writeExtVolume(path, builder);
        std::vector<bool> const map = builder.map();
        used = std::to_string(std::count(map.begin(), map.end(), true));
        answer = "3 " + std::to_string(map.size()) + ' ' + used + '\n';
    }

    std::string path;
    std::string used;   ///< its units that are in use
    std::string answer; ///< of used_units: the code of ext, the units, and those in use
};

class Install : public testing::Test {
protected:
    void SetUp() override {
        if (!findProgram("cmake")) {
            GTEST_SKIP() << "cmake is not installed";
        }
        tree.emplace();
        ASSERT_TRUE(tree->result().succeeded()) << tree->result();
    }

    CommandResult inTree(std::vector<std::string> const& arguments) const {
        CommandOptions options;
        options.environment = tree->environment();
        options.timeout = std::chrono::minutes(5);
        return runCommand(arguments, options);
    }

    std::optional<InstalledTree> tree;
};

TEST_F(Install, PutsTheExportedHeadersAndNoOthers) {
    std::set<std::string> expected;
    for (char const* const library : {"mortar", "fsparser"}) {
        expected.merge(filesBelow(files::path(FSPARSER_SOURCE_DIR) / library / "include"));
    }
    EXPECT_GE(expected.size(), 27U);
    EXPECT_EQ(filesBelow(tree->prefix() / "include"), expected);
}

TEST_F(Install, PutsTheLibrariesUnderTheirNamesAndLinkNames) {
    for (std::string const library : {"libmortar.so", "libfsparser.so"}) {
        files::path const link = tree->libraries() / library;
        ASSERT_TRUE(files::is_symlink(link)) << link;
        EXPECT_EQ(files::read_symlink(link), library + ".1");
        EXPECT_TRUE(files::is_symlink(link.string() + ".1"));
        EXPECT_TRUE(files::is_regular_file(files::canonical(link)));
    }
    EXPECT_TRUE(filesBelow(tree->prefix(), ".a").empty()) << "what is only linked into the command stays away";
}

TEST_F(Install, PutsTheCommandAndItsDocuments) {
    EXPECT_EQ(filesBelow(tree->prefix() / "bin"), std::set<std::string>{"fsparser"});
    auto const documents = filesBelow(tree->prefix() / "share" / "doc");
    EXPECT_TRUE(documents.contains("fsparser/README.md"));
    EXPECT_TRUE(documents.contains("fsparser/CHANGELOG.md"));
    EXPECT_TRUE(documents.contains("fsparser/docs/embedding.md"));
    EXPECT_TRUE(documents.contains("fsparser/examples/agent/agent.cpp"));
}

TEST_F(Install, EveryLinkOfThePagesLeadsSomewhere) {
    EXPECT_EQ(deadLinksBelow(tree->prefix() / "share" / "doc"), std::vector<std::string>());
}

TEST_F(Install, NamesNoDirectoryOfTheBuild) {
    for (char const* const ending : {".pc", ".cmake"}) {
        auto const found = filesBelow(tree->prefix(), ending);
        EXPECT_FALSE(found.empty());
        for (std::string const& name : found) {
            std::ifstream file(tree->prefix() / name);
            std::string const text(std::istreambuf_iterator<char>(file), {});
            EXPECT_FALSE(text.empty()) << name;
            EXPECT_EQ(text.find(FSPARSER_SOURCE_DIR), std::string::npos) << name;
            EXPECT_EQ(text.find(InstalledTree::buildDirectory()), std::string::npos) << name;
        }
    }
}

TEST_F(Install, LibrariesAreLookedForBesideTheTreeOnly) {
    if (!findProgram("readelf")) {
        GTEST_SKIP() << "readelf is not installed";
    }
    for (files::path const& file : {tree->prefix() / "bin" / "fsparser", tree->libraries() / "libfsparser.so.1",
                                    tree->libraries() / "libmortar.so.1"}) {
        std::istringstream lines(runCommand({"readelf", "-d", "-W", file.string()}).output);
        for (std::string line; std::getline(lines, line);) {
            EXPECT_EQ(line.find("(RPATH)"), std::string::npos) << file;
            if (line.find("(RUNPATH)") != std::string::npos) {
                std::string const path = line.substr(line.find('['));
                EXPECT_TRUE(path == "[$ORIGIN]" || path.starts_with("[$ORIGIN/../lib")) << file << ' ' << path;
                EXPECT_EQ(path.find(':'), std::string::npos) << file << ' ' << path;
            }
        }
    }
}

TEST_F(Install, TheCommandRunsWhereverTheTreeIsMoved) {
    Sample const sample(*tree);
    files::path const moved = tree->scratch("moved");
    files::rename(tree->prefix(), moved);
    CommandResult const result = runCommand({(moved / "bin" / "fsparser").string(), "detect", sample.path});
    EXPECT_EQ(result.output, "ext\n");
    EXPECT_EQ(result.exitCode, 0) << result;
}

TEST_F(Install, GoesBelowARootOfItsOwnWhenAsked) {
    std::string const root = tree->scratch("root");
    CommandOptions options;
    options.environment = {{"DESTDIR", root}};
    CommandResult const result =
        runCommand({"cmake", "--install", InstalledTree::buildDirectory(), "--prefix", "/usr"}, options);
    ASSERT_TRUE(result.succeeded()) << result;
    EXPECT_EQ(filesBelow(root + "/usr"), filesBelow(tree->prefix()));
}

TEST_F(Install, EachComponentHasItsPart) {
    std::set<std::string> together;
    for (std::string const component : {"runtime", "development", "command"}) {
        std::string const prefix = tree->scratch(component);
        ASSERT_TRUE(runCommand({"cmake", "--install", InstalledTree::buildDirectory(), "--prefix", prefix,
                                "--component", component})
                        .succeeded());
        auto part = filesBelow(prefix);
        EXPECT_FALSE(part.empty()) << component;
        bool const isRuntime = component == "runtime";
        EXPECT_EQ(isRuntime,
                  std::all_of(part.begin(), part.end(),
                              [](std::string const& name) { return name.find(".so.1") != std::string::npos; }))
            << component;
        together.merge(part);
        EXPECT_TRUE(part.empty()) << component << " repeats " << *part.begin();
    }
    EXPECT_EQ(together, filesBelow(tree->prefix()));
}

// Projects outside

class OutsideProject : public Install {
protected:
    void SetUp() override {
        if (kIsSanitized) {
            GTEST_SKIP() << "sanitized libraries want a program that is sanitized as they are";
        }
        if (!findProgram("g++")) {
            GTEST_SKIP() << "g++ is not installed";
        }
        Install::SetUp();
    }

    /// Runs used_units as it was built in a directory.
    void expectAnswer(std::string const& directory) const {
        Sample const sample(*tree);
        CommandResult const counted = inTree({directory + "/used_units", sample.path});
        EXPECT_EQ(counted.output, sample.answer) << counted;
        EXPECT_EQ(counted.error, "");
        CommandResult const missing = inTree({directory + "/used_units", "/nowhere/at/all"});
        EXPECT_EQ(missing.exitCode, 1);
        EXPECT_TRUE(missing.error.ends_with("error number 2\n")) << "the library's exception is caught by its type";
    }
};

TEST_F(OutsideProject, FindsTheLibraryByPkgConfig) {
    if (!findProgram("make") || !findProgram("pkg-config")) {
        GTEST_SKIP() << "make or pkg-config is not installed";
    }
    std::string const output = tree->scratch("with-pkgconfig");
    files::create_directory(output);
    CommandResult const built = inTree({"make", "-C", (outsideProjects() / "pkgconfig").string(), "OUTPUT=" + output});
    ASSERT_TRUE(built.succeeded()) << built;
    expectAnswer(output);
    EXPECT_TRUE(inTree({"pkg-config", "--exists", "fsparser >= 1.0", "mortar >= 1.0"}).succeeded());
}

TEST_F(OutsideProject, FindsTheLibraryByCMake) {
    std::string const output = tree->scratch("with-cmake");
    CommandResult const configured = inTree({"cmake", "-S", (outsideProjects() / "cmake").string(), "-B", output});
    ASSERT_TRUE(configured.succeeded()) << configured;
    CommandResult const built = inTree({"cmake", "--build", output, "--target", "used_units"});
    ASSERT_TRUE(built.succeeded()) << built;
    expectAnswer(output);
}

TEST_F(OutsideProject, BuildsTheAgentOfTheExamples) {
    std::string const output = tree->scratch("agent");
    std::string const example = (tree->prefix() / "share" / "doc" / "fsparser" / "examples" / "agent").string();
    CommandResult const configured = inTree({"cmake", "-S", example, "-B", output});
    ASSERT_TRUE(configured.succeeded()) << configured;
    CommandResult const built = inTree({"cmake", "--build", output});
    ASSERT_TRUE(built.succeeded()) << built;
    Sample const sample(*tree);
    CommandResult const result = inTree({output + "/agent_example", sample.path});
    EXPECT_TRUE(result.succeeded()) << result;
    EXPECT_EQ(result.error, "ext: " + sample.used + " units of 1024 bytes are used\n");
}

TEST_F(OutsideProject, AnswersForFilesByPathWithTheLinesOfThePageOnEmbedding) {
    std::ifstream file(outsideProjects() / "ntfs_files.cpp");
    std::string const program(std::istreambuf_iterator<char>(file), {});
    auto const shown = codeInMarkdown("docs/embedding.md", "cpp");
    ASSERT_EQ(shown.size(), 2U) << "the agent, and the files by path";
    std::istringstream lines(shown.back());
    std::string inProgram;
    for (std::string line; std::getline(lines, line);) {
        inProgram += "    " + line + '\n';
    }
    EXPECT_NE(program.find(inProgram), std::string::npos) << inProgram;

    std::string const output = tree->scratch("by-path");
    CommandResult const configured = inTree({"cmake", "-S", (outsideProjects() / "cmake").string(), "-B", output});
    ASSERT_TRUE(configured.succeeded()) << configured;
    CommandResult const built = inTree({"cmake", "--build", output, "--target", "ntfs_files"});
    ASSERT_TRUE(built.succeeded()) << built;
    NtfsBuilder builder = NtfsBuilder::standard();
    NtfsRecord& letter = builder.record(26).remove(ntfs_type::kData);
    auto const runs = builder.store(letter, ntfs_type::kData, u"", NtfsBytes(3 * builder.geometry().clusterBytes), 2);
    std::string expected;
    for (NtfsRun const& run : runs) {
        expected += std::to_string(run.lcn) + ' ' + std::to_string(run.length) + '\n';
    }
    std::string const volume = writeFile(tree->scratch("ntfs.img"), builder.seal().bytes);
    CommandResult const result = inTree({output + "/ntfs_files", volume});
    EXPECT_EQ(result.output, expected + "32 1\n") << result;
}

TEST_F(OutsideProject, IsRefusedWhenItWantsAnotherMajorVersion) {
    files::path const project = tree->scratch("later");
    files::create_directory(project);
    std::ofstream(project / "CMakeLists.txt") << "cmake_minimum_required(VERSION 3.25)\nproject(later LANGUAGES NONE)\n"
                                                 "find_package(fsparser 2.0 REQUIRED)\n";
    CommandResult const result = inTree({"cmake", "-S", project.string(), "-B", (project / "build").string()});
    EXPECT_NE(result.exitCode, 0);
    EXPECT_NE(result.error.find("requested version \"2.0\""), std::string::npos) << result;
}

TEST_F(OutsideProject, CompilesEveryHeaderOnItsOwn) {
    files::path const sources = tree->scratch("headers");
    files::create_directory(sources);
    std::string const include = (tree->prefix() / "include").string();
    std::vector<std::string> arguments{"g++",     "-std=c++20", "-fsyntax-only", "-Wall",
                                       "-Wextra", "-Wpedantic", "-Werror",       "-I" + include};
    for (std::string const& header : filesBelow(include)) {
        std::string name = header + ".cpp";
        std::replace(name.begin(), name.end(), '/', '-');
        std::ofstream(sources / name) << "#include <" << header << ">\n";
        arguments.push_back((sources / name).string());
    }
    CommandResult const result = inTree(arguments);
    EXPECT_TRUE(result.succeeded()) << result;
}

} // namespace
