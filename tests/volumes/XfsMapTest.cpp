// The maps of real XFS volumes, block by block against what independent tools say.
#include "support/TempDirectory.h"
#include "volumes/ExtRecipe.h"
#include "volumes/VolumeAnswers.h"
#include "volumes/XfsOracles.h"
#include "volumes/XfsVolume.h"

#include <algorithm>
#include <fstream>
#include <gmock/gmock.h>
#include <unistd.h>

namespace tests {

namespace {

/// Volumes of both versions with blocks and sectors of every usual size, filled without mounting. Their groups' trees
/// have up to three levels.
std::vector<XfsRecipe> const& xfsVolumes() {
    static std::vector<XfsRecipe> const recipes{
        {"Version4Blocks512", {"-m", "crc=0", "-b", "size=512", "-d", "agsize=16m"}, 40960, 6000, 3},
        {"Version4Blocks512LastGroupShort", {"-m", "crc=0", "-b", "size=512", "-d", "agsize=16m"}, 37003, 800, 2},
        {"Version4Blocks1024", {"-m", "crc=0", "-b", "size=1024", "-d", "agsize=16m"}, 65536, 2000, 2},
        {"Version4Blocks4096", {"-m", "crc=0", "-b", "size=4096", "-d", "agsize=16m"}, 65536, 2000, 2},
        {"Version4Sectors4096", {"-m", "crc=0", "-b", "size=4096", "-s", "size=4096"}, 65536, 2000, 1},
        {"Version4OldFeatures",
         {"-m", "crc=0,finobt=0", "-n", "ftype=0", "-i", "size=256,attr=2", "-l", "lazy-count=0"},
         65536,
         1000},
        {"Version5Blocks1024", {"-b", "size=1024", "-d", "agsize=32m"}, 65536, 2000, 2},
        {"Version5Blocks2048", {"-b", "size=2048", "-d", "agsize=32m"}, 98304, 3000, 2},
        {"Version5Blocks4096", {"-b", "size=4096", "-d", "agsize=32m"}, 98304, 3000, 2},
        {"Version5Sectors4096", {"-b", "size=4096", "-s", "size=4096"}, 65536, 3000, 1},
        {"Version5Blocks65536", {"-b", "size=65536"}, 524288, 300},
        {"ReverseMapReflinkBigtime",
         {"-m", "rmapbt=1,reflink=1,bigtime=1,inobtcount=1", "-b", "size=1024", "-d", "agsize=32m"},
         98304,
         3000,
         2},
        {"WithoutReflinkAndFinobt", {"-m", "reflink=0,finobt=0,rmapbt=0", "-d", "agsize=32m"}, 98304, 3000, 2},
        {"ManyGroups", {"-d", "agsize=16m"}, 327680, 2000, 1},
        {"LastGroupShort", {"-b", "size=1024", "-d", "agsize=16m"}, 53251, 1500, 2},
        {"LargeInodesSparse", {"-i", "size=2048,sparse=1", "-d", "agsize=32m"}, 98304, 1000, 1},
        {"JournalInTheLastGroup", {"-d", "agsize=32m", "-l", "agnum=2"}, 98304, 500, 1},
        {"Striped", {"-d", "su=64k,sw=4"}, 131072, 1000, 1},
    };
    return recipes;
}

/// The map through the library and through the command, and the journal, as xfs_db has them.
void expectMapOfXfsDb(std::string const& volume, XfsAnswers const& answers, std::uint64_t fileBytes) {
    LibraryMap const map = readMap(volume);
    BlockMap const expected = withKeptXfsDifferences(answers);
    EXPECT_EQ(map.geometry.unitSize, answers.blockSize);
    EXPECT_EQ(map.geometry.units, answers.blocks);
    EXPECT_EQ(differences(map.used, expected), "");
    EXPECT_THAT(map.totals.warnings, testing::IsEmpty());
    EXPECT_EQ(map.totals.used, static_cast<std::uint64_t>(std::count(map.used.begin(), map.used.end(), true)));
    EXPECT_EQ(map.totals.used + map.totals.free, answers.blocks);
    EXPECT_EQ(map.bytesPastLastUnit, fileBytes - answers.blocks * answers.blockSize);

    CommandResult const ranges = runFsparser({"ranges", "--json", volume});
    ASSERT_EQ(ranges.exitCode, 0) << ranges;
    auto const document = nlohmann::json::parse(ranges.output);
    EXPECT_EQ(document.at("file_system"), "xfs");
    EXPECT_EQ(differences(mapFromRanges(document), expected), "");
    CommandResult const bitmap = runFsparser({"bitmap", volume});
    ASSERT_EQ(bitmap.exitCode, 0) << bitmap;
    EXPECT_TRUE(bitmap.output == bitmapOf(expected));

    CommandResult const info = runFsparser({"info", "--json", volume});
    ASSERT_EQ(info.exitCode, 0) << info;
    auto const journal = nlohmann::json::parse(info.output).at("journal");
    EXPECT_EQ(journal.at("external"), false);
    EXPECT_EQ(journal.at("first"), answers.logStart);
    EXPECT_EQ(journal.at("count"), answers.logBlocks);
    for (std::uint64_t i = 0; i < answers.logBlocks; ++i) {
        ASSERT_TRUE(map.used.at(answers.logStart + i)) << "block " << i << " of the journal is not used";
    }
}

void expectMapOfPartclone(std::string const& volume, std::string const& domainFile, XfsAnswers const& answers) {
    XfsAnswers other = answers;
    other.used = mapFromPartcloneXfs(volume, domainFile, answers);
    EXPECT_EQ(differences(readMap(volume).used, withKeptXfsDifferences(other)), "");
}

class RealXfsVolume : public testing::TestWithParam<XfsRecipe> {
protected:
    /// Makes the volume, with holes in it, and makes sure that its trees are what the recipe wanted.
    void SetUp() override {
        if (auto const reason = missingProgram({"mkfs.xfs", "xfs_db", "xfs_repair"})) {
            GTEST_SKIP() << *reason;
        }
        volume = makeXfsVolume(GetParam(), directory.path());
        punchHolesIntoXfs(volume);
        answers = askXfsDb(volume);
        ASSERT_GE(answers.mostLevels(), GetParam().leastLevels);
    }

    TempDirectory directory{TempDirectory::Place::Memory};
    std::string volume;
    XfsAnswers answers;
};

TEST_P(RealXfsVolume, IsMappedAsXfsDbSays) {
    expectMapOfXfsDb(volume, answers, GetParam().kibibytes * 1024);
}

TEST_P(RealXfsVolume, IsMappedTheSameByReadsOfAnyUnit) {
    BlockMap const expected = withKeptXfsDifferences(answers);
    for (std::uint64_t const alignment : {512U, 4096U, 65536U}) {
        EXPECT_EQ(differences(readMap(volume, alignment).used, expected), "") << alignment;
    }
}

INSTANTIATE_TEST_SUITE_P(Made, RealXfsVolume, testing::ValuesIn(xfsVolumes()), xfsRecipeName);

/// The same volumes again where a tool is too slow for all of them: it sleeps a second each time.
class RealXfsVolumeAndPartclone : public RealXfsVolume {};

TEST_P(RealXfsVolumeAndPartclone, Agree) {
    if (auto const reason = missingProgram({"partclone.xfs"})) {
        GTEST_SKIP() << *reason;
    }
    expectMapOfPartclone(volume, directory.file("domain"), answers);
}

std::vector<XfsRecipe> everyThirdXfsVolume() {
    std::vector<XfsRecipe> chosen;
    for (std::size_t i = 0; i < xfsVolumes().size(); i += 3) {
        chosen.push_back(xfsVolumes().at(i));
    }
    return chosen;
}

INSTANTIATE_TEST_SUITE_P(Made, RealXfsVolumeAndPartclone, testing::ValuesIn(everyThirdXfsVolume()), xfsRecipeName);

/// A volume fresh from mkfs.xfs.
TEST(RealXfsVolumeWithoutFiles, IsMappedAsXfsDbSays) {
    if (auto const reason = missingProgram({"mkfs.xfs", "xfs_db"})) {
        GTEST_SKIP() << *reason;
    }
    TempDirectory const directory(TempDirectory::Place::Memory);
    std::string const volume = makeXfsVolume({"", {"-d", "agsize=16m"}, 49152}, directory.path());
    expectMapOfXfsDb(volume, askXfsDb(volume), 49152 * 1024);
}

TEST(RealXfsVolumeWithAWrappedFreeList, KeepsItsBlocksUsed) {
    if (auto const reason = missingProgram({"mkfs.xfs", "xfs_db", "xfs_repair"})) {
        GTEST_SKIP() << *reason;
    }
    TempDirectory const directory(TempDirectory::Place::Memory);
    std::string const volume = makeXfsVolume({"", {"-d", "agsize=16m"}, 49152}, directory.path());
    XfsAnswers const before = askXfsDb(volume);
    auto const& list = before.groups.at(1).listEntries;
    ASSERT_EQ(list.size(), 4U);
    std::vector<std::string> commands{"agf 1", "write flfirst 117", "write fllast 1", "agfl 1"};
    for (std::size_t i = 0; i < list.size(); ++i) {
        commands.push_back("write bno[" + std::to_string((117 + i) % 119) + "] " + std::to_string(list[i]));
    }
    changeWithXfsDb(volume, commands);
    ASSERT_TRUE(isSoundXfs(volume));
    XfsAnswers const after = askXfsDb(volume);
    ASSERT_EQ(after.groups.at(1).listEntries, list);
    EXPECT_EQ(differences(after.used, before.used), "") << "to the tool nothing has changed";
    expectMapOfXfsDb(volume, after, 49152 * 1024);
    EXPECT_TRUE(readMap(volume).used.at(after.groupBlocks + list.front()));
}

/// Volumes that the kernel fills: only it leaves the free lists where use takes them.
class MountedXfsVolume : public testing::TestWithParam<XfsRecipe> {
protected:
    void SetUp() override {
        if (auto const reason = missingProgram({"mkfs.xfs", "xfs_db", "xfs_repair", "mount", "umount"})) {
            GTEST_SKIP() << *reason;
        }
        volume = makeXfsVolume(GetParam(), directory.path());
        std::filesystem::create_directory(directory.path() / "mount");
        XfsMount mount(volume, directory.path() / "mount");
        if (mount.refusal()) {
            GTEST_SKIP() << *mount.refusal();
        }
        fill(mount.path());
        mount.unmount();
        ASSERT_TRUE(isSoundXfs(volume));
        answers = askXfsDb(volume);
        ASSERT_GE(answers.mostLevels(), GetParam().leastLevels);
    }

    /// Small files one behind the other, every second taken out, and a large one that fills some of the holes.
    static void fill(std::filesystem::path const& root) {
        constexpr unsigned kFiles = 4000;
        for (unsigned i = 0; i < kFiles; ++i) {
            std::ofstream(root / ("f" + std::to_string(i))) << std::string(500 + i % 3 * 4000, 'x');
        }
        ::sync(); // or they would never have taken blocks
        for (unsigned i = 0; i < kFiles; i += 2) {
            std::filesystem::remove(root / ("f" + std::to_string(i)));
        }
        std::filesystem::create_directories(root / "a" / "b");
        std::ofstream(root / "a" / "b" / "large") << std::string(1500000, 'y');
    }

    TempDirectory directory;
    std::string volume;
    XfsAnswers answers;
};

TEST_P(MountedXfsVolume, IsMappedAsXfsDbSays) {
    expectMapOfXfsDb(volume, answers, GetParam().kibibytes * 1024);
}

TEST_P(MountedXfsVolume, IsMappedAsPartcloneSays) {
    if (auto const reason = missingProgram({"partclone.xfs"})) {
        GTEST_SKIP() << *reason;
    }
    expectMapOfPartclone(volume, directory.file("domain"), answers);
}

INSTANTIATE_TEST_SUITE_P(
    Made, MountedXfsVolume,
    testing::Values(XfsRecipe{"Blocks1024", {"-b", "size=1024", "-d", "agsize=64m"}, 131072, 0, 2},
                    XfsRecipe{"Blocks4096", {"-d", "agsize=64m"}, 131072, 0, 2},
                    XfsRecipe{"ReverseMap", {"-m", "rmapbt=1,reflink=1", "-d", "agsize=64m"}, 131072, 0, 2},
                    XfsRecipe{"Sectors4096", {"-s", "size=4096", "-d", "agsize=64m"}, 131072, 0, 2},
                    XfsRecipe{"Version4", {"-m", "crc=0", "-b", "size=512", "-d", "agsize=64m"}, 131072, 0, 2}),
    xfsRecipeName);

} // namespace

} // namespace tests
