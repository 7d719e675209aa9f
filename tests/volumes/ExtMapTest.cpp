// The maps of real ext volumes, block by block against what independent tools say.
#include "support/TempDirectory.h"
#include "volumes/ExtRecipe.h"
#include "volumes/VolumeAnswers.h"

#include <algorithm>
#include <gmock/gmock.h>

namespace tests {

namespace {

/// Volumes whose bitmaps the library reads: each differs from the others in something that could shift or hide blocks.
std::vector<ExtRecipe> const& readableVolumes() {
    static std::vector<ExtRecipe> const recipes{
        {"Ext2With1KiBBlocks", {"-t", "ext2", "-b", "1024"}, 24576, Fill::Holes, {}, {"has_journal", "extent"}},
        {"Ext2With2KiBBlocks", {"-t", "ext2", "-b", "2048"}, 81920, Fill::Tree, {}, {"has_journal", "extent"}},
        {"Ext2With4KiBBlocks", {"-t", "ext2", "-b", "4096"}, 32768, Fill::Holes, {}, {"has_journal", "extent"}},
        {"Ext3With1KiBBlocks", {"-t", "ext3", "-b", "1024"}, 24576, Fill::Tree, {"has_journal"}, {"extent"}},
        {"Ext3With2KiBBlocks", {"-t", "ext3", "-b", "2048"}, 81920, Fill::Holes, {"has_journal"}, {"extent"}},
        {"Ext3With4KiBBlocks", {"-t", "ext3", "-b", "4096", "-g", "2048"}, 32768, Fill::Tree, {"has_journal"}, {}},
        {"Ext4With1KiBBlocks", {"-t", "ext4", "-b", "1024"}, 49152, Fill::Holes, {"extent", "64bit"}, {}, true},
        {"Ext4With2KiBBlocks", {"-t", "ext4", "-b", "2048", "-g", "4096"}, 65536, Fill::Holes, {"extent"}, {}, true},
        {"Ext4With4KiBBlocks", {"-t", "ext4", "-b", "4096", "-g", "2048"}, 49152, Fill::Tree, {"extent"}, {}, true},
        {"SixtyFourKiBBlocks", {"-t", "ext4", "-b", "65536"}, 65536, Fill::Holes, {"extent"}, {}},
        {"With64Bit", {"-t", "ext4", "-b", "1024", "-O", "64bit"}, 32768, Fill::Tree, {"64bit"}, {}, true},
        {"Without64Bit", {"-t", "ext4", "-b", "1024", "-O", "^64bit"}, 32768, Fill::Holes, {"extent"}, {"64bit"}, true},
        {"WithoutFlexBg", {"-t", "ext4", "-b", "1024", "-O", "^flex_bg"}, 32768, Fill::Holes, {}, {"flex_bg"}, true},
        {"LargeFlexGroups",
         {"-t", "ext4", "-b", "1024", "-g", "1024", "-G", "64", "-O", "^resize_inode"},
         65536,
         Fill::Holes,
         {"flex_bg"},
         {"meta_bg"},
         true},
        {"SparseSuper2",
         {"-t", "ext4", "-b", "1024", "-O", "sparse_super2,^resize_inode", "-E", "num_backup_sb=1"},
         32768,
         Fill::Tree,
         {"sparse_super2"},
         {},
         true},
        {"SuperblockInEveryGroup",
         {"-t", "ext4", "-b", "1024", "-O", "^sparse_super,^resize_inode"},
         49152,
         Fill::Holes,
         {},
         {"sparse_super"},
         true},
        {"UninitBgWithoutMetadataCsum",
         {"-t", "ext4", "-b", "1024", "-O", "^metadata_csum,uninit_bg"},
         65536,
         Fill::Holes,
         {"uninit_bg"},
         {"metadata_csum"},
         true},
        {"WithoutAnyChecksum",
         {"-t", "ext4", "-b", "1024", "-O", "^metadata_csum,^uninit_bg"},
         65536,
         Fill::Holes,
         {},
         {"metadata_csum", "uninit_bg"}},
        {"LastGroupShort", {"-t", "ext4", "-b", "1024"}, 20483, Fill::Holes, {}, {}},
        {"LastGroupShortWithoutFlexBg",
         {"-t", "ext4", "-b", "4096", "-g", "1024", "-O", "^flex_bg"},
         30004,
         Fill::Tree,
         {},
         {"flex_bg"},
         true},
        {"ManySmallGroups",
         {"-t", "ext4", "-b", "1024", "-g", "256", "-O", "^meta_bg,^resize_inode"},
         16384,
         Fill::Holes,
         {"flex_bg"},
         {"meta_bg"},
         true},
        {"ManySmallGroupsWithoutFlexBg",
         {"-t", "ext4", "-b", "1024", "-g", "256", "-N", "4096", "-O", "^flex_bg,^meta_bg,^resize_inode,^64bit"},
         16384,
         Fill::Holes,
         {},
         {"meta_bg", "flex_bg", "64bit"},
         true},
        {"FirstRevision", {"-t", "ext2", "-b", "1024", "-r", "0", "-O", "none"}, 16384, Fill::Tree, {}, {"filetype"}},
        {"SmallInodes", {"-t", "ext4", "-b", "1024", "-I", "128"}, 32768, Fill::Tree, {"extent"}, {}, true},
        {"InlineData",
         {"-t", "ext4", "-b", "1024", "-O", "inline_data"},
         32768,
         Fill::Holes,
         {"inline_data"},
         {},
         true},
        {"SeededChecksums",
         {"-t", "ext4", "-b", "1024", "-O", "metadata_csum_seed"},
         32768,
         Fill::Holes,
         {"metadata_csum_seed"},
         {},
         true},
        {"MountProtection",
         {"-t", "ext4", "-b", "1024", "-O", "mmp", "-E", "mmp_update_interval=1"},
         32768,
         Fill::Tree,
         {"mmp"},
         {},
         true},
        {"RareFeatures",
         {"-t", "ext4", "-b", "1024", "-O", "encrypt,casefold,verity,large_dir,ea_inode,orphan_file"},
         32768,
         Fill::Tree,
         {"encrypt", "casefold", "large_dir", "ea_inode", "orphan_file"},
         {},
         true},
        {"NothingInIt", {"-t", "ext4", "-b", "4096"}, 8192, Fill::Nothing, {"extent"}, {}},
    };
    return recipes;
}

class RealExtVolume : public testing::TestWithParam<ExtRecipe> {
protected:
    /// Makes the volume, and makes sure that it is what the recipe wanted.
    void SetUp() override {
        if (auto const reason = missingProgram({"mke2fs", "debugfs", "dumpe2fs", "e2fsck"})) {
            GTEST_SKIP() << *reason;
        }
        volume = makeExtVolume(GetParam(), directory.path());
        ASSERT_EQ(checkWithE2fsck(volume), 0);
        dumped = dumpVolume(volume);
        EXPECT_THAT(dumped.features, testing::IsSupersetOf(GetParam().features));
        for (std::string const& feature : GetParam().missing) {
            EXPECT_FALSE(dumped.features.contains(feature)) << feature;
        }
        ASSERT_EQ(dumped.uninitialisedGroups() > 0, GetParam().hasUninitialised);
    }

    TempDirectory directory{TempDirectory::Place::Memory}; ///< the tools sync each change
    std::string volume;
    DumpedVolume dumped;
};

TEST_P(RealExtVolume, IsMappedAsDumpe2fsSays) {
    LibraryMap const map = readMap(volume);
    EXPECT_EQ(differences(map.used, withKeptDifferences(dumped)), "");
    EXPECT_THAT(map.totals.warnings, testing::IsEmpty());
    EXPECT_EQ(map.geometry.unitSize, dumped.blockSize);
    EXPECT_EQ(map.geometry.units, dumped.blocks);
    EXPECT_EQ(map.totals.used, static_cast<std::uint64_t>(std::count(map.used.begin(), map.used.end(), true)));
    EXPECT_EQ(map.totals.used + map.totals.free, dumped.blocks);
    EXPECT_EQ(map.bytesPastLastUnit, GetParam().kibibytes * 1024 - dumped.blocks * dumped.blockSize);
}

TEST_P(RealExtVolume, IsMappedAsDebugfsSays) {
    DumpedVolume answers = dumped;
    answers.used = mapFromDebugfs(volume, dumped);
    EXPECT_EQ(differences(readMap(volume).used, withKeptDifferences(answers)), "");
}

// This tool, too, takes groups without an initialised bitmap as free: only block 0 differs.
TEST_P(RealExtVolume, IsMappedAsBlklsSays) {
    if (auto const reason = missingProgram({"blkls"})) {
        GTEST_SKIP() << *reason;
    }
    BlockMap expected = mapFromBlkls(volume, dumped);
    if (dumped.firstBlock == 1) {
        expected.at(0) = false;
    }
    EXPECT_EQ(differences(readMap(volume).used, expected), "");
}

TEST_P(RealExtVolume, IsListedByTheCommandAsDumpe2fsSays) {
    CommandResult const result = runFsparser({"ranges", "--json", volume});
    ASSERT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.error, "");
    auto const document = nlohmann::json::parse(result.output);
    EXPECT_EQ(document.at("file_system"), "ext");
    EXPECT_EQ(document.at("unit_size"), dumped.blockSize);
    EXPECT_EQ(document.at("units"), dumped.blocks);
    EXPECT_EQ(document.at("size"), GetParam().kibibytes * 1024);
    EXPECT_EQ(differences(mapFromRanges(document), withKeptDifferences(dumped)), "");
}

TEST_P(RealExtVolume, GivesTheBitmapThatDumpe2fsImplies) {
    std::string const output = directory.file("used.bin");
    CommandResult const result = runFsparser({"bitmap", "-o", output, volume});
    ASSERT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.error, "");
    std::string const bitmap = contentOfFile(output);
    EXPECT_EQ(bitmap.size(), (dumped.blocks + 7) / 8);
    if (dumped.blocks % 8 != 0) {
        EXPECT_EQ(static_cast<unsigned char>(bitmap.back()) >> (dumped.blocks % 8), 0);
    }
    EXPECT_TRUE(bitmap == bitmapOf(withKeptDifferences(dumped)));
}

INSTANTIATE_TEST_SUITE_P(Made, RealExtVolume, testing::ValuesIn(readableVolumes()), recipeName);

/// The same volumes again where a tool is too slow for all of them: it sleeps a second each time.
class RealExtVolumeAndPartclone : public RealExtVolume {};

TEST_P(RealExtVolumeAndPartclone, Agree) {
    if (auto const reason = missingProgram({"partclone.extfs"})) {
        GTEST_SKIP() << *reason;
    }
    DumpedVolume answers = dumped;
    answers.used = mapFromPartclone(volume, directory.file("domain"), dumped);
    EXPECT_EQ(differences(readMap(volume).used, withKeptDifferences(answers)), "");
}

std::vector<ExtRecipe> everyFourthVolume() {
    std::vector<ExtRecipe> chosen;
    for (std::size_t i = 0; i < readableVolumes().size(); i += 4) {
        chosen.push_back(readableVolumes().at(i));
    }
    return chosen;
}

INSTANTIATE_TEST_SUITE_P(Made, RealExtVolumeAndPartclone, testing::ValuesIn(everyFourthVolume()), recipeName);

TEST(RealExtVolumeFixture, IsTheSameEachTime) {
    if (auto const reason = missingProgram({"mke2fs", "debugfs"})) {
        GTEST_SKIP() << *reason;
    }
    ExtRecipe const recipe{"", {"-t", "ext4", "-b", "1024"}, 32768, Fill::Holes};
    TempDirectory const first(TempDirectory::Place::Memory);
    TempDirectory const second(TempDirectory::Place::Memory);
    EXPECT_TRUE(contentOfFile(makeExtVolume(recipe, first.path())) ==
                contentOfFile(makeExtVolume(recipe, second.path())));
}

TEST(RealExtVolumeFixture, HasItsFreeSpaceInManyPieces) {
    if (auto const reason = missingProgram({"mke2fs", "debugfs"})) {
        GTEST_SKIP() << *reason;
    }
    TempDirectory const directory;
    LibraryMap const map =
        readMap(makeExtVolume({"", {"-t", "ext4", "-b", "1024"}, 32768, Fill::Holes}, directory.path()));
    unsigned changes = 0;
    for (std::size_t block = 1; block < map.used.size(); ++block) {
        changes += map.used[block] != map.used[block - 1] ? 1U : 0U;
    }
    EXPECT_GT(changes, 250U);
}

} // namespace

} // namespace tests
