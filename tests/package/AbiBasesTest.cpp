// The base classes of the exported classes in the built libraries: what a caller catches, or passes as an interface,
// was decided when it was compiled.
#include "LibraryFile.h"

#include "agent/PosixError.h"
#include "agent/core/backup/VolumeReader.h"
#include "agent/core/fs/EXTParser.h"
#include "agent/core/fs/FATParser.h"
#include "agent/core/fs/FileSystemType.h"
#include "agent/core/fs/HFSParser.h"
#include "agent/core/fs/NTFSParser.h"
#include "agent/core/fs/UnrecognizedParser.h"
#include "agent/core/fs/XFSParser.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <memory>
#include <ostream>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <vector>

namespace {

using tests::kFsparser;
using tests::kMortar;

/// A class and its bases, from the nearest to the root, by the names of their type information.
struct Chain {
    char const* title;
    char const* library;
    std::vector<std::string> classes;
};

std::ostream& operator<<(std::ostream& out, Chain const& chain) {
    return out << chain.title;
}

struct CloseLibrary {
    void operator()(void* library) const { ::dlclose(library); }
};

/// The names from a class on. A class with one base, which is public and begins where the class begins, has type
/// information of its own kind; every other kind of inheritance ends the chain in other words.
std::vector<std::string> namesFrom(std::type_info const* type) {
    std::vector<std::string> names;
    while (auto const* const single = dynamic_cast<abi::__si_class_type_info const*>(type)) {
        names.emplace_back(single->name());
        type = single->__base_type;
    }
    bool const isRoot = typeid(*type) == typeid(abi::__class_type_info);
    names.push_back(isRoot ? type->name() : std::string("several or hidden bases: ") + type->name());
    return names;
}

class Bases : public testing::TestWithParam<Chain> {};

TEST_P(Bases, AreInThisOrder) {
    Chain const& chain = GetParam();
    std::unique_ptr<void, CloseLibrary> const library(::dlopen(tests::libraryFile(chain.library).c_str(), RTLD_NOW));
    ASSERT_NE(library, nullptr) << chain.library;
    void const* const type = ::dlsym(library.get(), ("_ZTI" + chain.classes.front()).c_str());
    ASSERT_NE(type, nullptr) << "no type information of " << chain.classes.front();
    EXPECT_EQ(namesFrom(static_cast<std::type_info const*>(type)), chain.classes);
}

std::string titleOf(testing::TestParamInfo<Chain> const& instance) {
    return instance.param.title;
}

std::string const kProvider = "N5agent4core2fs25IBlockBitmapChunkProviderE";

INSTANTIATE_TEST_SUITE_P(
    Parsers, Bases,
    testing::Values(Chain{"Provider", kFsparser, {kProvider}},
                    Chain{"Ntfs", kFsparser, {"N5agent4core2fs10NTFSParserE", kProvider}},
                    Chain{"Fat", kFsparser, {"N5agent4core2fs9FATParserE", kProvider}},
                    Chain{"Ext", kFsparser, {"N5agent4core2fs9EXTParserE", kProvider}},
                    Chain{"Hfs", kFsparser, {"N5agent4core2fs9HFSParserE", kProvider}},
                    Chain{"Xfs", kFsparser, {"N5agent4core2fs9XFSParserE", kProvider}},
                    Chain{"XfsNode", kFsparser, {"N5agent4core2fs9XFSParser12XFSBTreeNodeE"}},
                    Chain{"Unrecognized", kFsparser, {"N5agent4core2fs18UnrecognizedParserE", kProvider}}),
    titleOf);

INSTANTIATE_TEST_SUITE_P(
    Framework, Bases,
    testing::Values(
        Chain{"Detector", kFsparser, {"N5agent4core2fs14FileSystemTypeE", "N5agent4core2fs15IFileSystemTypeE"}},
        Chain{"VolumeReader",
              kFsparser,
              {"N5agent4core6backup12VolumeReaderE", "N5agent4core13IVolumeDeviceE", "N5agent4core13IVolumeReaderE"}},
        Chain{"Logger", kMortar, {"N5agent4info6LoggerE"}}, Chain{"Config", kMortar, {"N5agent7IConfigE"}}),
    titleOf);

INSTANTIATE_TEST_SUITE_P(Errors, Bases,
                         testing::Values(Chain{"PosixError",
                                               kFsparser,
                                               {"N5agent10PosixErrorE", "N5agent9exception21generic_library_errorIiEE",
                                                "N5agent9exception13library_errorE", typeid(std::runtime_error).name(),
                                                typeid(std::exception).name()}}),
                         titleOf);

// The same of the headers, which a program is compiled with.

template <typename Base, typename Derived>
constexpr bool kIs = std::is_convertible_v<Derived*, Base*>; // and not ambiguous, nor private

static_assert(kIs<agent::core::IVolumeReader, agent::core::IVolumeDevice>);
static_assert(kIs<agent::core::IVolumeDevice, agent::core::backup::VolumeReader>);
static_assert(kIs<std::runtime_error, agent::exception::library_error>);
static_assert(kIs<agent::exception::library_error, agent::exception::generic_library_error<int>>);
static_assert(kIs<agent::exception::generic_library_error<int>, agent::PosixError>);
static_assert(kIs<agent::core::fs::IFileSystemType, agent::core::fs::FileSystemType>);
static_assert(kIs<agent::core::fs::IBlockBitmapChunkProvider, agent::core::fs::UnrecognizedParser>);
static_assert(kIs<agent::core::fs::IBlockBitmapChunkProvider, agent::core::fs::NTFSParser>);
static_assert(kIs<agent::core::fs::IBlockBitmapChunkProvider, agent::core::fs::FATParser>);
static_assert(kIs<agent::core::fs::IBlockBitmapChunkProvider, agent::core::fs::EXTParser>);
static_assert(kIs<agent::core::fs::IBlockBitmapChunkProvider, agent::core::fs::HFSParser>);
static_assert(kIs<agent::core::fs::IBlockBitmapChunkProvider, agent::core::fs::XFSParser>);
static_assert(std::is_abstract_v<agent::core::fs::IBlockBitmapChunkProvider>);
static_assert(std::is_abstract_v<agent::core::fs::IFileSystemType>);
static_assert(std::is_abstract_v<agent::core::IVolumeReader>);

} // namespace
