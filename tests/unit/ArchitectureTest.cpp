// The house's one rule: includes point down only, and the file systems never include each other.
#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr std::array<std::string_view, 5> kFloors{"mortar", "fsparser", "backup", "imaging", "cli"};

/// The file systems: the name of their folder, and how the names of their public headers begin.
struct FileSystem {
    std::string_view folder;
    std::string_view header;
};
constexpr std::array<FileSystem, 5> kFileSystems{{
    {"ntfs", "NTFS"},
    {"ext", "EXT"},
    {"fat", "FAT"},
    {"hfs", "HFS"},
    {"xfs", "XFS"},
}};

constexpr std::string_view kMortarHeaders = "mortar/include/";
constexpr std::string_view kParserHeaders = "fsparser/include/";

bool isBelow(std::string_view path, std::string_view folder) {
    return path.starts_with(folder);
}

bool isExported(std::string_view path) {
    return isBelow(path, kMortarHeaders) || isBelow(path, kParserHeaders);
}

/// The one file system that a file belongs to by its folder or, for a public header, by its name.
std::optional<FileSystem> fileSystemOf(std::string_view path) {
    for (FileSystem const& system : kFileSystems) {
        std::string const folder = "/" + std::string(system.folder) + "/";
        std::string const header = "/agent/core/fs/" + std::string(system.header);
        if (path.find(folder) != std::string_view::npos || path.find(header) != std::string_view::npos) {
            return system;
        }
    }
    return std::nullopt;
}

bool belongsToAnother(std::string_view from, std::string_view to) {
    auto const own = fileSystemOf(from);
    auto const other = fileSystemOf(to);
    return own && other && own->folder != other->folder;
}

/// Whether a file may include another; both are paths from the top of the source tree.
bool isAllowed(std::string_view from, std::string_view to) {
    if (belongsToAnother(from, to)) {
        return false;
    }
    if (isBelow(from, "mortar/")) {
        return isBelow(to, isBelow(from, kMortarHeaders) ? kMortarHeaders : "mortar/");
    }
    if (isBelow(from, kParserHeaders)) {
        return isExported(to);
    }
    if (isBelow(from, "fsparser/src/")) {
        bool const isOwnFolder = fileSystemOf(from) && isBelow(to, "fsparser/src/");
        bool const isFramework = isBelow(to, "fsparser/src/") && !fileSystemOf(to);
        return isExported(to) || isOwnFolder || isFramework;
    }
    if (isBelow(from, "backup/")) {
        return isExported(to);
    }
    if (isBelow(from, "imaging/")) {
        return isExported(to) || isBelow(to, "imaging/");
    }
    return isBelow(from, "cli/") && (isExported(to) || isBelow(to, "imaging/") || isBelow(to, "cli/"));
}

fs::path const& sourceTree() {
    static fs::path const path(FSPARSER_SOURCE_DIR);
    return path;
}

bool isSource(fs::path const& path) {
    return path.extension() == ".h" || path.extension() == ".cpp";
}

/// Every source file of the product, as a path from the top of the source tree.
std::vector<std::string> sourceFiles() {
    std::vector<std::string> files;
    for (std::string_view const floor : kFloors) {
        for (auto const& entry : fs::recursive_directory_iterator(sourceTree() / floor)) {
            if (entry.is_regular_file() && isSource(entry.path())) {
                files.push_back(fs::relative(entry.path(), sourceTree()).generic_string());
            }
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::string contentOf(std::string const& file) {
    std::ifstream stream(sourceTree() / file, std::ios::binary);
    std::ostringstream content;
    content << stream.rdbuf();
    return content.str();
}

struct Include {
    std::string name;
    bool isQuoted;
};

std::vector<Include> includesIn(std::string const& content) {
    static std::regex const pattern(R"re((?:^|\n)[ \t]*#[ \t]*include[ \t]*(["<])([^">\n]+)[">])re");
    std::vector<Include> includes;
    for (std::sregex_iterator match(content.begin(), content.end(), pattern), end; match != end; ++match) {
        includes.push_back({(*match)[2], (*match)[1] == "\""});
    }
    return includes;
}

/// The file of the source tree that an include names, if it is one of ours.
std::optional<std::string> resolve(std::string const& from, std::string const& name) {
    fs::path const ownFolder = fs::path(from).parent_path();
    for (fs::path const& folder :
         {ownFolder, fs::path(kMortarHeaders), fs::path(kParserHeaders), fs::path("fsparser/src"), fs::path(".")}) {
        fs::path const candidate = (folder / name).lexically_normal();
        if (fs::is_regular_file(sourceTree() / candidate)) {
            return candidate.generic_string();
        }
    }
    return std::nullopt;
}

/// What is wrong with an include; nothing when it is a downward arrow or a header of the system.
std::optional<std::string> objectionTo(std::string const& from, Include const& include) {
    auto const target = resolve(from, include.name);
    if (!target) {
        bool const isOurs = include.isQuoted || include.name.starts_with("agent/");
        return isOurs ? std::optional("names no file of the source tree: " + include.name) : std::nullopt;
    }
    if (!isAllowed(from, *target)) {
        return "must not include " + *target;
    }
    return std::nullopt;
}

TEST(Architecture, EveryFloorHasFilesAndTheirIncludesAreFound) {
    auto const files = sourceFiles();
    for (std::string_view const floor : kFloors) {
        EXPECT_TRUE(std::any_of(files.begin(), files.end(), [floor](std::string const& file) {
            return file.starts_with(std::string(floor) + "/");
        })) << floor;
    }
    auto const includes = includesIn(contentOf("backup/VolumeReader.cpp"));
    EXPECT_TRUE(std::any_of(includes.begin(), includes.end(), [](Include const& include) {
        return include.name == "agent/core/backup/VolumeReader.h" && include.isQuoted;
    }));
}

TEST(Architecture, EveryIncludePointsDown) {
    for (std::string const& file : sourceFiles()) {
        for (Include const& include : includesIn(contentOf(file))) {
            auto const objection = objectionTo(file, include);
            EXPECT_FALSE(objection) << file << ' ' << objection.value_or("");
        }
    }
}

TEST(Architecture, NoFileMentionsAFileOfAnotherFileSystem) {
    for (std::string const& file : sourceFiles()) {
        auto const own = fileSystemOf(file);
        std::string const content = contentOf(file);
        for (FileSystem const& system : kFileSystems) {
            bool const mayMention = own ? own->folder == system.folder : true;
            std::regex const mention("(^|[^A-Za-z0-9_])" + std::string(system.folder) + R"(/\w+\.(h|cpp)\b)");
            EXPECT_TRUE(mayMention || !std::regex_search(content, mention)) << file << " mentions " << system.folder;
        }
    }
}

TEST(Architecture, TheSupportLibraryKnowsNoFileSystem) {
    std::regex const names(R"(\b(ntfs|NTFS|EXTParser|FATParser|HFSParser|XFSParser|superblock|bitmap)\b)");
    for (std::string const& file : sourceFiles()) {
        if (!file.starts_with("mortar/src/")) {
            continue;
        }
        EXPECT_FALSE(std::regex_search(contentOf(file), names)) << file;
    }
}

TEST(ArchitectureRule, AllowsTheArrowsThatPointDown) {
    EXPECT_TRUE(isAllowed("mortar/src/Path.cpp", "mortar/include/agent/Path.h"));
    EXPECT_TRUE(isAllowed("fsparser/src/FSUtil.cpp", "mortar/include/agent/AlignedAllocator.h"));
    EXPECT_TRUE(isAllowed("fsparser/src/FSUtil.cpp", "fsparser/src/AllocationLog.h"));
    EXPECT_TRUE(isAllowed("fsparser/src/FileSystemType.cpp", "fsparser/include/agent/core/fs/XFSParser.h"));
    EXPECT_TRUE(isAllowed("fsparser/src/ext/EXTParser.cpp", "fsparser/src/ext/GroupBits.h"));
    EXPECT_TRUE(isAllowed("fsparser/src/ext/EXTParser.cpp", "fsparser/src/Endian.h"));
    EXPECT_TRUE(isAllowed("fsparser/src/ntfs/Security.cpp", "fsparser/include/agent/core/fs/NTFSTypes.h"));
    EXPECT_TRUE(isAllowed("backup/VolumeReader.cpp", "fsparser/include/agent/core/backup/VolumeReader.h"));
    EXPECT_TRUE(isAllowed("imaging/Volume.cpp", "imaging/ext/ExtGeometry.h"));
    EXPECT_TRUE(isAllowed("imaging/Volume.cpp", "fsparser/include/agent/core/fs/EXTParser.h"));
    EXPECT_TRUE(isAllowed("cli/main.cpp", "imaging/Volume.h"));
}

TEST(ArchitectureRule, RefusesTheArrowsThatPointUp) {
    EXPECT_FALSE(isAllowed("mortar/src/Path.cpp", "fsparser/include/agent/core/IVolumeReader.h"));
    EXPECT_FALSE(isAllowed("mortar/include/agent/Path.h", "mortar/src/Inner.h"));
    EXPECT_FALSE(isAllowed("fsparser/include/agent/core/fs/FSUtil.h", "fsparser/src/AllocationLog.h"));
    EXPECT_FALSE(isAllowed("fsparser/src/FSUtil.cpp", "imaging/Volume.h"));
    EXPECT_FALSE(isAllowed("fsparser/src/ext/EXTParser.cpp", "cli/Console.h"));
    EXPECT_FALSE(isAllowed("backup/VolumeReader.cpp", "fsparser/src/Endian.h"));
    EXPECT_FALSE(isAllowed("backup/VolumeReader.cpp", "imaging/Error.h"));
    EXPECT_FALSE(isAllowed("imaging/Volume.cpp", "fsparser/src/Endian.h"));
    EXPECT_FALSE(isAllowed("imaging/Volume.cpp", "cli/Console.h"));
    EXPECT_FALSE(isAllowed("cli/main.cpp", "fsparser/src/FSUtil.h"));
    EXPECT_FALSE(isAllowed("cli/main.cpp", "tests/support/Readers.h"));
}

TEST(ArchitectureRule, RefusesTheArrowsThatRunAcross) {
    EXPECT_FALSE(isAllowed("fsparser/src/ext/EXTParser.cpp", "fsparser/src/fat/FatLayout.h"));
    EXPECT_FALSE(isAllowed("fsparser/src/ext/EXTParser.cpp", "fsparser/include/agent/core/fs/NTFSParser.h"));
    EXPECT_FALSE(isAllowed("fsparser/include/agent/core/fs/HFSParser.h", "fsparser/include/agent/core/fs/XFSParser.h"));
    EXPECT_FALSE(isAllowed("imaging/ext/ExtGeometry.cpp", "imaging/xfs/XfsGeometry.h"));
    EXPECT_FALSE(isAllowed("fsparser/src/FileSystemType.cpp", "fsparser/src/fat/FatLayout.h"))
        << "the framework looks into no file system's folder";
}

TEST(ArchitectureRule, SeesEveryFormOfAnInclude) {
    auto const includes =
        includesIn("#include \"a.h\"\n  #  include <b>\n// #include \"no.h\"\n#include\t\"c/d.h\" // x\n");
    ASSERT_EQ(includes.size(), 3U);
    EXPECT_EQ(includes[0].name, "a.h");
    EXPECT_EQ(includes[1].name, "b");
    EXPECT_FALSE(includes[1].isQuoted);
    EXPECT_EQ(includes[2].name, "c/d.h");
}

TEST(ArchitectureRule, ObjectsToAnArrowInWhicheverWayItIsWritten) {
    EXPECT_TRUE(objectionTo("fsparser/src/ext/EXTParser.cpp", {"fat/FatLayout.h", true}));
    EXPECT_TRUE(objectionTo("fsparser/src/ext/EXTParser.cpp", {"../fat/FatLayout.h", true}));
    EXPECT_TRUE(objectionTo("fsparser/src/ext/EXTParser.cpp", {"agent/core/fs/FATParser.h", false}));
    EXPECT_TRUE(objectionTo("mortar/src/Path.cpp", {"agent/core/IVolumeReader.h", true}));
    EXPECT_TRUE(objectionTo("mortar/src/Path.cpp", {"agent/Missing.h", true}));
    EXPECT_FALSE(objectionTo("mortar/src/Path.cpp", {"agent/Path.h", true}));
    EXPECT_FALSE(objectionTo("mortar/src/Path.cpp", {"vector", false}));
}

} // namespace
