// The libraries' exported symbols and their types, against what is written down in abi/. scripts/abi-baseline renews
// that, on purpose.
#include "LibraryFile.h"

#include "support/Sanitized.h"
#include "support/TempDirectory.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace tests;

/// A file of abi/: that of libfsparser.so.1 is called libfsparser and something.
std::string baselineFile(std::string const& library, std::string const& ending) {
    return std::string(FSPARSER_SOURCE_DIR) + "/abi/" + library.substr(0, library.find('.')) + ending;
}

std::set<std::string> symbolsInList(std::string const& library) {
    std::ifstream file(baselineFile(library, ".symbols"));
    std::set<std::string> symbols;
    for (std::string line; std::getline(file, line);) {
        symbols.insert(line.substr(0, line.find(' ')));
    }
    return symbols;
}

enum class Kind { All, Strong };

std::set<std::string> symbolsOf(std::string const& library, Kind wanted = Kind::All) {
    std::set<std::string> symbols;
    for (std::string const& line : linesOf({"nm", "-D", "--defined-only", libraryFile(library)})) {
        std::istringstream words(line);
        std::string address;
        char kind = 0;
        std::string name;
        words >> address >> kind >> name;
        bool const isWeak = kind == 'W' || kind == 'V' || kind == 'u';
        if (words && (wanted == Kind::All || !isWeak)) {
            symbols.insert(name);
        }
    }
    return symbols;
}

/// Three numbers, which compare as versions do.
std::vector<int> parseVersion(std::string const& text) {
    static std::regex const pattern(R"((\d+)\.(\d+)\.(\d+))");
    std::smatch match;
    if (!std::regex_match(text, match, pattern)) {
        return {};
    }
    return {std::stoi(match[1]), std::stoi(match[2]), std::stoi(match[3])};
}

/// The version that the project has in its build description.
std::string projectVersion() {
    static std::regex const pattern(R"(^project\(\w+ VERSION (\S+))");
    std::ifstream file(std::string(FSPARSER_SOURCE_DIR) + "/CMakeLists.txt");
    for (std::string line; std::getline(file, line);) {
        if (std::smatch match; std::regex_search(line, match, pattern)) {
            return match[1];
        }
    }
    return {};
}

std::vector<std::string> missingFrom(std::set<std::string> const& some, std::set<std::string> const& all) {
    std::vector<std::string> missing;
    std::set_difference(all.begin(), all.end(), some.begin(), some.end(), std::back_inserter(missing));
    return missing;
}

class Abi : public testing::TestWithParam<char const*> {};

TEST_P(Abi, TheListedSymbolsAreExported) {
    if (!findProgram("nm")) {
        GTEST_SKIP() << "nm is not installed";
    }
    auto const listed = symbolsInList(GetParam());
    ASSERT_GT(listed.size(), 20U);
    EXPECT_EQ(missingFrom(symbolsOf(GetParam()), listed), std::vector<std::string>{});
}

TEST_P(Abi, NoOtherSymbolIsExported) {
    if (!findProgram("nm")) {
        GTEST_SKIP() << "nm is not installed";
    }
    // Instrumentation leaves templates and descriptions of functions beside the library's own.
    auto const exported = symbolsOf(GetParam(), isSanitized() ? Kind::Strong : Kind::All);
    ASSERT_GT(exported.size(), 15U);
    EXPECT_EQ(missingFrom(symbolsInList(GetParam()), exported), std::vector<std::string>{})
        << "if they are to stay, scripts/abi-baseline adds them";
}

TEST_P(Abi, EachSymbolIsListedOnceWithAVersionUpToThisOne) {
    std::vector<int> const first{1, 0, 0};
    std::vector<int> const current = parseVersion(projectVersion());
    ASSERT_GE(current, first) << projectVersion();
    std::ifstream file(baselineFile(GetParam(), ".symbols"));
    std::string previous;
    std::string line;
    for (; std::getline(file, line); previous = line) {
        EXPECT_LT(previous.substr(0, previous.find(' ')), line.substr(0, line.find(' ')));
        std::vector<int> const version = parseVersion(line.substr(line.find(' ') + 1));
        EXPECT_GE(version, first) << line;
        EXPECT_LE(version, current) << line << ", in version " << projectVersion();
    }
    EXPECT_FALSE(previous.empty());
}

TEST_P(Abi, TheLibrarysFileEndsInTheProjectsVersion) {
    auto const file = std::filesystem::canonical(libraryFile(GetParam())).filename().string();
    std::string const name = GetParam();
    EXPECT_EQ(file, name.substr(0, name.rfind('.')) + "." + projectVersion());
}

TEST_P(Abi, TypesAndFunctionsAreThoseOfTheBaseline) {
#if !defined(__GNUC__) || defined(__clang__) || __GNUC__ != 12
    GTEST_SKIP() << "the baseline was made with g++ 12, whose standard library describes itself in other words";
#endif
    if (!findProgram("abidiff") || !findProgram("xz")) {
        GTEST_SKIP() << "abidiff (abigail-tools) or xz is not installed";
    }
    auto const sections = linesOf({"readelf", "-S", "-W", libraryFile(GetParam())});
    bool const hasTypes = std::any_of(sections.begin(), sections.end(), [](std::string const& line) {
        return line.find(".debug_info") != std::string::npos;
    });
    if (!hasTypes || kIsSanitized) {
        GTEST_SKIP() << "this build does not describe its types as the baseline's does";
    }
    TempDirectory const directory;
    std::string const baseline = directory.file("baseline.abi");
    CommandResult const unpacked = runCommand({"xz", "-dc", baselineFile(GetParam(), ".abi.xz")});
    ASSERT_TRUE(unpacked.succeeded()) << unpacked;
    std::ofstream(baseline) << unpacked.output;
    CommandResult const difference = runCommand({"abidiff", "--exported-interfaces-only", "--no-default-suppression",
                                                 "--harmless", baseline, libraryFile(GetParam())});
    EXPECT_EQ(difference.exitCode, 0) << difference.output << difference.error;
}

INSTANTIATE_TEST_SUITE_P(Libraries, Abi, testing::Values(kMortar, kFsparser),
                         [](auto const& instance) { return instance.param == kMortar ? "mortar" : "fsparser"; });

} // namespace
