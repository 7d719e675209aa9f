// How the shared libraries and the command were compiled and linked: what makes damage by a bad volume harder.
#include "LibraryFile.h"
#include "support/Sanitized.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace {

using tests::kFsparser;
using tests::kMortar;

/// A built object: one of the libraries, or the command.
struct BuiltObject {
    char const* title;
    std::string path;
    bool isLibrary;
};

void PrintTo(BuiltObject const& object, std::ostream* out) {
    *out << object.title;
}

std::vector<std::string> readelf(char const* option, std::string const& path) {
    return tests::linesOf({"readelf", "-W", option, path});
}

/// The lines that hold a text.
std::vector<std::string> linesWith(std::vector<std::string> const& lines, std::string_view text) {
    std::vector<std::string> found;
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(found),
                 [text](std::string const& line) { return line.find(text) != std::string::npos; });
    return found;
}

bool mentions(std::vector<std::string> const& lines, std::string_view text) {
    return !linesWith(lines, text).empty();
}

/// The words of a line.
std::vector<std::string> wordsOf(std::string const& line) {
    std::istringstream stream(line);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    return words;
}

class Hardening : public testing::TestWithParam<BuiltObject> {
protected:
    void SetUp() override {
        if (!tests::findProgram("readelf")) {
            GTEST_SKIP() << "readelf is not installed";
        }
        path = GetParam().path;
        ASSERT_TRUE(std::filesystem::exists(path)) << path;
        segments = readelf("-l", path);
        dynamic = readelf("-d", path);
        ASSERT_TRUE(mentions(segments, "LOAD") && mentions(dynamic, "NEEDED")) << "readelf says something";
    }

    std::string path;
    std::vector<std::string> segments;
    std::vector<std::string> dynamic;
};

TEST_P(Hardening, WhatTheLoaderFillsInIsReadOnlyAfterwards) {
    EXPECT_TRUE(mentions(segments, "GNU_RELRO"));
    EXPECT_TRUE(mentions(linesWith(dynamic, "(FLAGS)"), "BIND_NOW"));
    EXPECT_TRUE(mentions(linesWith(dynamic, "(FLAGS_1)"), "NOW"));
}

TEST_P(Hardening, NothingCanBeBothWrittenAndExecuted) {
    auto const stacks = linesWith(segments, "GNU_STACK");
    ASSERT_EQ(stacks.size(), 1U) << "without this segment the stack may be executed";
    for (std::string const& line : linesWith(segments, " 0x")) {
        EXPECT_EQ(line.find("RWE"), std::string::npos) << line;
    }
    EXPECT_EQ(stacks[0].find(" E "), std::string::npos) << stacks[0];
}

TEST_P(Hardening, CodeIsNotChangedWhenItIsLoaded) {
    EXPECT_FALSE(mentions(dynamic, "TEXTREL"));
}

TEST_P(Hardening, LibrariesAreLookedForBesideTheObjectOnly) {
    for (std::string const& line : linesWith(dynamic, "PATH)")) {
        std::string const list = line.substr(line.find('[') + 1, line.rfind(']') - line.find('[') - 1);
        EXPECT_FALSE(list.empty() || list.starts_with(':') || list.ends_with(':') ||
                     list.find("::") != std::string::npos)
            << "an empty entry is the current directory: " << line;
        std::istringstream entries(list);
        for (std::string entry; std::getline(entries, entry, ':');) {
            EXPECT_TRUE(entry.starts_with("$ORIGIN")) << line;
        }
    }
}

TEST_P(Hardening, LoadsAtAnyAddress) {
    auto const header = linesWith(readelf("-h", path), "Type:");
    ASSERT_EQ(header.size(), 1U);
    EXPECT_NE(header[0].find("DYN"), std::string::npos) << header[0];
    EXPECT_EQ(mentions(linesWith(dynamic, "(FLAGS_1)"), "PIE"), !GetParam().isLibrary);
}

TEST_P(Hardening, FramesAreGuarded) {
    EXPECT_TRUE(mentions(readelf("--dyn-syms", path), "__stack_chk_fail"));
}

TEST_P(Hardening, IsMarkedForAShadowStack) {
#if !defined(__x86_64__)
    GTEST_SKIP() << "only x86-64 has the mark";
#endif
    EXPECT_TRUE(mentions(linesWith(readelf("-n", path), "x86 feature"), "SHSTK"));
}

INSTANTIATE_TEST_SUITE_P(Objects, Hardening,
                         testing::Values(BuiltObject{"mortar", tests::libraryFile(kMortar), true},
                                         BuiltObject{"fsparser", tests::libraryFile(kFsparser), true},
                                         BuiltObject{"command", FSPARSER_COMMAND, false}),
                         [](auto const& instance) { return instance.param.title; });

class LibraryHardening : public testing::TestWithParam<char const*> {
protected:
    void SetUp() override {
        if (!tests::findProgram("readelf")) {
            GTEST_SKIP() << "readelf is not installed";
        }
        path = tests::libraryFile(GetParam());
    }

    std::string path;
};

struct CloseLibrary {
    void operator()(void* library) const { ::dlclose(library); }
};

TEST_P(LibraryHardening, EveryExportedFunctionMayBeBranchedTo) {
#if !defined(__x86_64__)
    GTEST_SKIP() << "only x86-64 has the instruction";
#endif
    if (tests::kIsSanitized) {
        GTEST_SKIP() << "the sanitizer's own marks stand where functions begin";
    }
    constexpr std::array<unsigned char, 4> kEndBranch{0xF3, 0x0F, 0x1E, 0xFA};
    std::unique_ptr<void, CloseLibrary> const library(::dlopen(path.c_str(), RTLD_NOW));
    ASSERT_TRUE(library) << path;
    std::size_t functions = 0;
    for (std::string const& line : readelf("--dyn-syms", path)) {
        auto const words = wordsOf(line); // number, address, size, kind, binding, visibility, section, name
        if (words.size() < 8 || words[3] != "FUNC" || words[6] == "UND") {
            continue;
        }
        void const* const code = ::dlsym(library.get(), words[7].c_str());
        ASSERT_NE(code, nullptr) << words[7];
        EXPECT_EQ(std::memcmp(code, kEndBranch.data(), kEndBranch.size()), 0) << words[7];
        ++functions;
    }
    EXPECT_GT(functions, 5U);
}

/// Numbers of the sections whose bytes stay writable.
std::set<std::string> writableSections(std::string const& path) {
    std::set<std::string> numbers;
    for (std::string const& line : readelf("-S", path)) {
        for (char const* const name : {" .data ", " .bss ", " .tdata ", " .tbss "}) {
            if (line.find(name) != std::string::npos) {
                std::string const number = line.substr(line.find('[') + 1, line.find(']') - line.find('[') - 1);
                numbers.insert(wordsOf(number).at(0));
            }
        }
    }
    return numbers;
}

/// Whether something writable may be there: none of it is a state of the library's own.
bool isAllowedToBeWritable(std::string const& name) {
    static std::set<std::string> const kStartFiles{"__dso_handle", "__TMC_END__", "completed.0"};
    // The separator of NTFS paths: a constant of the interface whose type is made when the library is loaded.
    bool const isSeparator = name == "_ZN5agent4core2fs9SEPARATORB5cxx11E";
    // Pointers through which exception tables name types and the routine that reads them; the loader sets them.
    bool const isOfExceptionTables = name.starts_with("DW.ref.");
    return kStartFiles.contains(name) || isSeparator || isOfExceptionTables;
}

TEST_P(LibraryHardening, KeepsNoStateOfItsOwn) {
    if (tests::isSanitized()) {
        GTEST_SKIP() << "the sanitizer keeps a state for every object";
    }
    auto const sections = writableSections(path);
    EXPECT_FALSE(sections.empty()) << "the start files have some";
    std::size_t symbols = 0;
    for (std::string const& line : readelf("-s", path)) {
        auto const words = wordsOf(line);
        if (words.size() < 8 || words[3] == "SECTION" || !sections.contains(words[6])) {
            continue;
        }
        EXPECT_TRUE(isAllowedToBeWritable(words[7])) << line;
        EXPECT_NE(words[3], "TLS") << line;
        ++symbols;
    }
    if (symbols == 0) {
        GTEST_SKIP() << "the library is stripped";
    }
}

TEST_P(LibraryHardening, CanBeUnloaded) {
    // A symbol of this kind would keep the library in the process for ever.
    EXPECT_FALSE(mentions(readelf("--dyn-syms", path), " UNIQUE "));
}

INSTANTIATE_TEST_SUITE_P(Libraries, LibraryHardening, testing::Values(kMortar, kFsparser),
                         [](auto const& instance) { return instance.param == kMortar ? "mortar" : "fsparser"; });

/// The compiler's calls, by source file.
nlohmann::json compilations() {
    std::ifstream file(std::string(FSPARSER_LIBRARY_DIR) + "/../compile_commands.json");
    return nlohmann::json::parse(file, nullptr, false);
}

bool isOfTheProduct(std::string const& file) {
    constexpr std::array<char const*, 5> kFolders{"/mortar/", "/fsparser/", "/backup/", "/imaging/", "/cli/"};
    return std::any_of(kFolders.begin(), kFolders.end(), [&file](char const* folder) {
        return file.starts_with(std::string(FSPARSER_SOURCE_DIR) + folder);
    });
}

TEST(Compilation, OfEverySourceFileOfTheProductIsHardened) {
    auto const calls = compilations();
    if (!calls.is_array()) {
        GTEST_SKIP() << "this build does not list the compiler's calls";
    }
    std::vector<std::string> wanted{"-fstack-protector-strong", "-fcf-protection", "-fstack-clash-protection"};
    if (!tests::isSanitized()) {
        wanted.emplace_back("-D_FORTIFY_SOURCE=2");
    }
    std::size_t files = 0;
    for (auto const& call : calls) {
        std::string const command = call["command"];
        bool const isOfTests =
            command.find(" -o tests/") != std::string::npos; // compiled in again, to be looked at alone
        if (!isOfTheProduct(call["file"]) || isOfTests) {
            continue;
        }
        auto const words = wordsOf(command);
        for (std::string const& option : wanted) {
            EXPECT_NE(std::find(words.begin(), words.end(), option), words.end()) << call["file"] << ' ' << option;
        }
        bool const isPositionIndependent = std::find(words.begin(), words.end(), "-fPIC") != words.end() ||
                                           std::find(words.begin(), words.end(), "-fPIE") != words.end();
        EXPECT_TRUE(isPositionIndependent) << call["file"];
        ++files;
    }
    EXPECT_GT(files, 50U);
}

TEST(CommandHardening, CallsOfTheCLibraryAreCheckedWhereTheirRoomIsKnown) {
    if (!tests::findProgram("readelf")) {
        GTEST_SKIP() << "readelf is not installed";
    }
    if (tests::isSanitized()) {
        GTEST_SKIP() << "the sanitizer checks these calls itself";
    }
    EXPECT_TRUE(mentions(readelf("--dyn-syms", FSPARSER_COMMAND), "_chk@"));
}

} // namespace
