// What the shared libraries show to the outside: their names, what they need, and the symbols that leave them.
#include "AbiHeaders.h"
#include "LibraryFile.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace {

using tests::kFsparser;
using tests::kMortar;

/// One symbol that a library defines for others.
struct Symbol {
    char kind; ///< the letter of nm
    std::string name;

    bool isWeak() const { return kind == 'W' || kind == 'V' || kind == 'u'; }
};

std::vector<Symbol> exportedBy(char const* library) {
    std::vector<Symbol> symbols;
    for (std::string const& line : tests::linesOf({"nm", "-D", "--defined-only", "-C", tests::libraryFile(library)})) {
        constexpr std::size_t kAddressWidth = 17; // sixteen digits and a blank
        if (line.size() > kAddressWidth + 2) {
            symbols.push_back({line[kAddressWidth], line.substr(kAddressWidth + 2)});
        }
    }
    return symbols;
}

/// The name without what the compiler says of it ("vtable for ", a return type of a template).
std::string_view subjectOf(std::string_view name) {
    for (std::string_view const prefix : {"vtable for ", "typeinfo name for ", "typeinfo for ", "VTT for "}) {
        if (name.starts_with(prefix)) {
            return name.substr(prefix.size());
        }
    }
    return name;
}

/// Types of the standard library that the compiler describes wherever they are used.
bool isTypeinfoOfTheStandardLibrary(Symbol const& symbol) {
    return symbol.isWeak() && symbol.name.starts_with("typeinfo") && subjectOf(symbol.name).starts_with("std::");
}

/// Instrumented builds keep every inline function of the standard library, and describe function types.
bool isLeftByInstrumentation(Symbol const& symbol) {
    return tests::isSanitized() && symbol.isWeak() && !subjectOf(symbol.name).starts_with("agent::");
}

bool hasSymbol(std::vector<Symbol> const& symbols, std::string_view name) {
    return std::any_of(symbols.begin(), symbols.end(), [name](Symbol const& symbol) { return symbol.name == name; });
}

class Symbols : public testing::TestWithParam<char const*> {
protected:
    void SetUp() override {
        if (!tests::findProgram("nm") || !tests::findProgram("readelf")) {
            GTEST_SKIP() << "nm or readelf is not installed";
        }
        symbols = exportedBy(GetParam());
        ASSERT_FALSE(symbols.empty()) << tests::libraryFile(GetParam());
    }

    std::vector<Symbol> symbols;
};

TEST_P(Symbols, OnlyTheNamespaceOfTheLibrariesLeavesThem) {
    for (Symbol const& symbol : symbols) {
        bool const isOurs = subjectOf(symbol.name).starts_with("agent::");
        EXPECT_TRUE(isOurs || isTypeinfoOfTheStandardLibrary(symbol) || isLeftByInstrumentation(symbol))
            << symbol.kind << ' ' << symbol.name;
    }
}

TEST_P(Symbols, NoPrivateHelperLeavesThem) {
    for (Symbol const& symbol : symbols) {
        if (isLeftByInstrumentation(symbol)) {
            continue;
        }
        for (char const* const helper : {"::Impl",
                                         "anonymous namespace",
                                         "mapAligned",
                                         "logFailedAllocation",
                                         "ZeroedBuffer",
                                         "LittleEndian",
                                         "BigEndian",
                                         "mergeBits",
                                         "mergeGroups",
                                         "readDescriptorTable",
                                         "EXTParser::fail",
                                         "EXTParser::blockSize",
                                         "EXTParser::descriptorSize",
                                         "makeBounceBuffer",
                                         "OverflowSearch",
                                         "TreeWalk",
                                         "Walks",
                                         "PreparedKey",
                                         "IndexNode",
                                         "::Request",
                                         "::Stretch",
                                         "::Chunk",
                                         "::Position"}) {
            EXPECT_EQ(symbol.name.find(helper), std::string::npos) << symbol.name;
        }
    }
}

TEST_P(Symbols, WhatTheHeadersHideDoesNotLeaveThem) {
    auto const hidden = tests::hiddenNamesOfExportedHeaders();
    ASSERT_TRUE(hidden.contains("NTFSParser::PreparedKey") && hidden.contains("EXTParser::fail"));
    for (Symbol const& symbol : symbols) {
        for (std::string const& name : hidden) {
            for (char const* const end : {"(", "<", "::"}) {
                EXPECT_EQ(symbol.name.find("::" + name + end), std::string::npos) << symbol.name;
            }
        }
    }
}

TEST_P(Symbols, TheLibraryGoesByItsNameAndMajorVersion) {
    std::vector<std::string> names;
    for (std::string const& line : tests::linesOf({"readelf", "-d", "-W", tests::libraryFile(GetParam())})) {
        if (line.find("(SONAME)") != std::string::npos) {
            names.push_back(line.substr(line.find('[')));
        }
    }
    EXPECT_EQ(names, std::vector{"[" + std::string(GetParam()) + "]"});
}

TEST_P(Symbols, TheLibraryNeedsTheStandardLibrariesAndNothingElse) {
    std::set<std::string> allowed{"[libstdc++.so.6]", "[libm.so.6]", "[libgcc_s.so.1]", "[libc.so.6]"};
    if (GetParam() == std::string(kFsparser)) {
        allowed.insert("[" + std::string(kMortar) + "]");
    }
    bool needsAnything = false;
    for (std::string const& line : tests::linesOf({"readelf", "-d", "-W", tests::libraryFile(GetParam())})) {
        if (line.find("(NEEDED)") == std::string::npos) {
            continue;
        }
        std::string const needed = line.substr(line.find('['));
        bool const isSanitizer =
            tests::isSanitized() && (needed.starts_with("[libclang_rt.") || needed.find("san.so") != std::string::npos);
        EXPECT_TRUE(allowed.contains(needed) || isSanitizer) << needed;
        needsAnything = true;
    }
    EXPECT_TRUE(needsAnything);
}

TEST_P(Symbols, ItsCodeIsPositionIndependent) {
    for (std::string const& line : tests::linesOf({"readelf", "-d", "-W", tests::libraryFile(GetParam())})) {
        EXPECT_EQ(line.find("(TEXTREL)"), std::string::npos);
    }
}

INSTANTIATE_TEST_SUITE_P(Libraries, Symbols, testing::Values(kMortar, kFsparser),
                         [](auto const& instance) { return instance.param == kMortar ? "mortar" : "fsparser"; });

/// How the demangler writes std::string.
std::string const kString = "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >";

std::string const kReader = "agent::core::IVolumeReader const&";

TEST(MortarSymbols, HoldWhatCallersAreCompiledAgainst) {
    if (!tests::findProgram("nm")) {
        GTEST_SKIP() << "nm is not installed";
    }
    auto const symbols = exportedBy(kMortar);
    for (std::string const& name : std::vector<std::string>{
             "agent::PosixError::strerror[abi:cxx11](int)",
             "agent::StringUtils::StrToWStr(" + kString + " const&)",
             "agent::Path::concat(" + kString + ")",
             "agent::operator<(agent::BlockRange const&, agent::BlockRange const&)",
             "agent::info::Logger::Entry::Entry(agent::info::Logger&, agent::info::Level)",
             "agent::info::Logger::Entry::~Entry()",
             "agent::info::Logger::isEnabled(agent::info::Level) const",
             "vtable for agent::info::Logger",
             "typeinfo for agent::info::Logger",
             "vtable for agent::IConfig",
             "typeinfo for agent::IConfig",
             "agent::allocateAligned(unsigned long, unsigned long)",
             "agent::deallocateAligned(void*, unsigned long, unsigned long)",
         }) {
        EXPECT_TRUE(hasSymbol(symbols, name)) << name;
    }
}

TEST(FsparserSymbols, HoldWhatCallersAreCompiledAgainst) {
    if (!tests::findProgram("nm")) {
        GTEST_SKIP() << "nm is not installed";
    }
    auto const symbols = exportedBy(kFsparser);
    for (std::string const& name : std::vector<std::string>{
             "agent::core::fs::fs_seek_read_aligned(agent::info::Logger&, " + kReader +
                 ", unsigned long, unsigned long, void*, unsigned long, unsigned long*)",
             "agent::core::fs::fs_chunk_read(agent::core::IVolumeReader const&, void*, long, long*)",
             "agent::core::fs::FileSystemType::FileSystemType(agent::info::Logger&)",
             "agent::core::fs::FileSystemType::getFileSystemType(void*) const",
             "agent::core::fs::UnrecognizedParser::UnrecognizedParser(unsigned long)",
             "agent::core::fs::UnrecognizedParser::getChunk(unsigned long, char*, unsigned long) const",
             "agent::core::fs::NTFSParser::isNTFileSystem(void*, agent::info::Logger&)",
             "agent::core::fs::FATParser::isFATFileSystem(void*)",
             "agent::core::fs::FATParser::fat_get_type(agent::core::fs::fat_boot_sector*)",
             "agent::core::fs::EXTParser::isEXTFileSystem(void*)",
             "agent::core::fs::EXTParser::EXTParser(agent::info::Logger&, unsigned int, " + kReader + ")",
             "agent::core::fs::HFSParser::isHFSFileSystem(void*)",
             "agent::core::fs::XFSParser::isXFSFileSystem(void*)",
             "agent::core::backup::VolumeReader::VolumeReader(agent::info::Logger&, " + kString + " const&)",
             "agent::PosixError::PosixError(" + kString + " const&, int)",
             "typeinfo for agent::PosixError",
             "typeinfo for agent::exception::library_error",
             "typeinfo for agent::exception::generic_library_error<int>",
             "vtable for agent::core::fs::IBlockBitmapChunkProvider",
         }) {
        EXPECT_TRUE(hasSymbol(symbols, name)) << name;
    }
}

} // namespace
