// The order of the virtual tables in the built libraries: callers that were compiled before depend on it.
#include "LibraryFile.h"

#include "agent/core/fs/EXTParser.h"
#include "agent/core/fs/FATParser.h"
#include "agent/core/fs/HFSParser.h"
#include "agent/core/fs/IBlockBitmapChunkProvider.h"
#include "agent/core/fs/NTFSParser.h"
#include "agent/core/fs/XFSParser.h"

#include <algorithm>
#include <cstdlib>
#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>
#include <link.h>
#include <memory>
#include <ostream>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using tests::kFsparser;
using tests::kMortar;

/// The offset to the top and the type information stand before the slots.
constexpr std::size_t kWordsBeforeTheSlots = 2;

/// A class, the library that holds its table, and what its slots lead to.
struct Table {
    char const* title;
    char const* library;
    char const* mangledClass; ///< as it stands in mangled names, without "_Z"
    std::vector<std::string> slots;
};

std::ostream& operator<<(std::ostream& out, Table const& table) {
    return out << table.title;
}

std::string demangled(char const* name) {
    std::unique_ptr<char, decltype(&std::free)> const text(abi::__cxa_demangle(name, nullptr, nullptr, nullptr),
                                                           std::free);
    return text ? text.get() : name;
}

/// What a slot leads to, in few words: the two kinds of destructor are told apart by their mangled names.
std::string describe(void const* function) {
    if (function == nullptr) {
        return "null";
    }
    Dl_info info{};
    if (::dladdr(function, &info) == 0 || info.dli_sname == nullptr) {
        return "nothing that is exported";
    }
    std::string const mangled = info.dli_sname;
    std::string name = demangled(info.dli_sname);
    std::string scope = name.substr(0, name.find('('));
    if (mangled == "__cxa_pure_virtual") {
        return "pure";
    }
    if (mangled.ends_with("D0Ev")) {
        return "delete " + scope;
    }
    if (mangled.ends_with("D1Ev") || mangled.ends_with("D2Ev")) {
        return scope;
    }
    return name;
}

struct CloseLibrary {
    void operator()(void* library) const { ::dlclose(library); }
};

/// An abstract class is never destroyed through its own table: some compilers leave null where its destructors stand.
void nameDestructorsOfAbstractClass(Table const& table, std::vector<std::string>& slots) {
    bool const isAbstract = std::find(slots.begin(), slots.end(), "pure") != slots.end();
    for (std::size_t i = 0; isAbstract && i < 2 && i < slots.size(); ++i) {
        if (slots[i] == "null") {
            slots[i] = table.slots.at(i);
        }
    }
}

/// The number of slots, from the size of the table; instrumentation pads it, so there as many as are expected.
std::size_t countSlots(Table const& table, ElfW(Sym) const& symbol) {
    return tests::isSanitized() ? table.slots.size() : symbol.st_size / sizeof(void*) - kWordsBeforeTheSlots;
}

/// Whether a slot holds the class's own destructor. One that does the same as its base's may share that one's code, and
/// is then found under either name.
bool isOwnDestructor(void* library, Table const& table, void const* slot) {
    std::string scope = "_Z" + std::string(table.mangledClass);
    scope.pop_back(); // the end of the nested name comes after the destructor
    return slot != nullptr &&
           (::dlsym(library, (scope + "D1Ev").c_str()) == slot || ::dlsym(library, (scope + "D2Ev").c_str()) == slot);
}

/// The slots of a table.
std::vector<std::string> slotsOf(Table const& table) {
    std::unique_ptr<void, CloseLibrary> const library(::dlopen(tests::libraryFile(table.library).c_str(), RTLD_NOW));
    if (!library) {
        return {"the library cannot be loaded"};
    }
    void* const place = ::dlsym(library.get(), ("_ZTV" + std::string(table.mangledClass)).c_str());
    Dl_info info{};
    void* symbol = nullptr;
    if (place == nullptr || ::dladdr1(place, &info, &symbol, RTLD_DL_SYMENT) == 0 || symbol == nullptr) {
        return {"the table is not exported"};
    }
    std::size_t const count = countSlots(table, *static_cast<ElfW(Sym) const*>(symbol));
    auto const* const entries = static_cast<void* const*>(place) + kWordsBeforeTheSlots;
    std::vector<std::string> slots;
    for (std::size_t i = 0; i < count; ++i) {
        bool const isShared = i == 0 && isOwnDestructor(library.get(), table, entries[i]);
        slots.push_back(isShared ? table.slots.front() : describe(entries[i]));
    }
    nameDestructorsOfAbstractClass(table, slots);
    return slots;
}

class VirtualTables : public testing::TestWithParam<Table> {};

TEST_P(VirtualTables, HoldTheirSlotsInOrder) {
    EXPECT_EQ(slotsOf(GetParam()), GetParam().slots);
}

std::string titleOf(testing::TestParamInfo<Table> const& instance) {
    return instance.param.title;
}

INSTANTIATE_TEST_SUITE_P(
    Interfaces, VirtualTables,
    testing::Values(
        Table{"Logger",
              kMortar,
              "N5agent4info6LoggerE",
              {"agent::info::Logger::~Logger", "delete agent::info::Logger::~Logger",
               "agent::info::Logger::isEnabled(agent::info::Level) const", "pure"}},
        Table{"IConfig",
              kMortar,
              "N5agent7IConfigE",
              {"agent::IConfig::~IConfig", "delete agent::IConfig::~IConfig", "pure"}},
        Table{"IBlockBitmapChunkProvider",
              kFsparser,
              "N5agent4core2fs25IBlockBitmapChunkProviderE",
              {"agent::core::fs::IBlockBitmapChunkProvider::~IBlockBitmapChunkProvider",
               "delete agent::core::fs::IBlockBitmapChunkProvider::~IBlockBitmapChunkProvider", "pure",
               "agent::core::fs::IBlockBitmapChunkProvider::isMostSignificantBitFirst() const"}},
        Table{"UnrecognizedParser",
              kFsparser,
              "N5agent4core2fs18UnrecognizedParserE",
              {"agent::core::fs::UnrecognizedParser::~UnrecognizedParser",
               "delete agent::core::fs::UnrecognizedParser::~UnrecognizedParser",
               "agent::core::fs::UnrecognizedParser::getChunk(unsigned long, char*, unsigned long) const",
               "agent::core::fs::IBlockBitmapChunkProvider::isMostSignificantBitFirst() const"}},
        Table{"IFileSystemType",
              kFsparser,
              "N5agent4core2fs15IFileSystemTypeE",
              {"agent::core::fs::IFileSystemType::~IFileSystemType",
               "delete agent::core::fs::IFileSystemType::~IFileSystemType", "pure"}},
        Table{"FileSystemType",
              kFsparser,
              "N5agent4core2fs14FileSystemTypeE",
              {"agent::core::fs::FileSystemType::~FileSystemType",
               "delete agent::core::fs::FileSystemType::~FileSystemType",
               "agent::core::fs::FileSystemType::getFileSystemType(void*) const"}},
        Table{"IVolumeReader",
              kFsparser,
              "N5agent4core13IVolumeReaderE",
              {"agent::core::IVolumeReader::~IVolumeReader", "delete agent::core::IVolumeReader::~IVolumeReader",
               "agent::core::IVolumeReader::getVolumePath[abi:cxx11]() const", "pure", "pure",
               "agent::core::IVolumeReader::getHandle() const", "agent::core::IVolumeReader::getLastError() const",
               "agent::core::IVolumeReader::open()", "agent::core::IVolumeReader::size()"}},
        Table{"IVolumeDevice",
              kFsparser,
              "N5agent4core13IVolumeDeviceE",
              {"agent::core::IVolumeDevice::~IVolumeDevice", "delete agent::core::IVolumeDevice::~IVolumeDevice",
               "pure", "pure", "pure", "pure", "pure", "pure", "pure"}},
        Table{"VolumeReader",
              kFsparser,
              "N5agent4core6backup12VolumeReaderE",
              {"agent::core::backup::VolumeReader::~VolumeReader",
               "delete agent::core::backup::VolumeReader::~VolumeReader",
               "agent::core::backup::VolumeReader::getVolumePath[abi:cxx11]() const",
               "agent::core::backup::VolumeReader::read(void*, long) const",
               "agent::core::backup::VolumeReader::seek(long, int) const",
               "agent::core::backup::VolumeReader::getHandle() const",
               "agent::core::backup::VolumeReader::getLastError() const", "agent::core::backup::VolumeReader::open()",
               "agent::core::backup::VolumeReader::size()"}},
        Table{"XFSBTreeNode",
              kFsparser,
              "N5agent4core2fs9XFSParser12XFSBTreeNodeE",
              {"agent::core::fs::XFSParser::XFSBTreeNode::~XFSBTreeNode",
               "delete agent::core::fs::XFSParser::XFSBTreeNode::~XFSBTreeNode"}}),
    titleOf);

INSTANTIATE_TEST_SUITE_P(
    Errors, VirtualTables,
    testing::Values(Table{"library_error",
                          kFsparser,
                          "N5agent9exception13library_errorE",
                          {"agent::exception::library_error::~library_error",
                           "delete agent::exception::library_error::~library_error",
                           "std::runtime_error::what() const"}},
                    Table{"generic_library_error",
                          kFsparser,
                          "N5agent9exception21generic_library_errorIiEE",
                          {"agent::exception::generic_library_error<int>::~generic_library_error",
                           "delete agent::exception::generic_library_error<int>::~generic_library_error",
                           "std::runtime_error::what() const"}},
                    Table{"PosixError",
                          kFsparser,
                          "N5agent10PosixErrorE",
                          {"agent::PosixError::~PosixError", "delete agent::PosixError::~PosixError",
                           "std::runtime_error::what() const"}}),
    titleOf);

/// Checks the table of a parser that serves bitmaps: the interface's slots and no others.
template <typename Parser>
void expectProviderTable(char const* mangledClass, std::string const& name, bool overridesBitOrder) {
    static_assert(std::is_base_of_v<agent::core::fs::IBlockBitmapChunkProvider, Parser>);
    std::string const scope = "agent::core::fs::" + name + "::";
    std::string const orderOwner = overridesBitOrder ? scope : "agent::core::fs::IBlockBitmapChunkProvider::";
    Table const table{name.c_str(),
                      kFsparser,
                      mangledClass,
                      {scope + "~" + name, "delete " + scope + "~" + name,
                       scope + "getChunk(unsigned long, char*, unsigned long) const",
                       orderOwner + "isMostSignificantBitFirst() const"}};
    EXPECT_EQ(slotsOf(table), table.slots);
}

TEST(ParserTables, ExtHasTheSlotsOfTheProvider) {
    expectProviderTable<agent::core::fs::EXTParser>("N5agent4core2fs9EXTParserE", "EXTParser", false);
}

TEST(ParserTables, NtfsHasTheSlotsOfTheProvider) {
    expectProviderTable<agent::core::fs::NTFSParser>("N5agent4core2fs10NTFSParserE", "NTFSParser", false);
}

TEST(ParserTables, FatHasTheSlotsOfTheProvider) {
    expectProviderTable<agent::core::fs::FATParser>("N5agent4core2fs9FATParserE", "FATParser", false);
}

TEST(ParserTables, HfsHasTheSlotsOfTheProviderAndItsOwnBitOrder) {
    expectProviderTable<agent::core::fs::HFSParser>("N5agent4core2fs9HFSParserE", "HFSParser", true);
}

TEST(ParserTables, XfsHasTheSlotsOfTheProvider) {
    expectProviderTable<agent::core::fs::XFSParser>("N5agent4core2fs9XFSParserE", "XFSParser", false);
}

} // namespace
