// Real ext volumes whose bitmaps the library cannot interpret: everything counts as used, and one sentence says why.
#include "support/ExtBuilder.h"
#include "support/TempDirectory.h"
#include "volumes/ExtRecipe.h"
#include "volumes/VolumeAnswers.h"

#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <gmock/gmock.h>

namespace tests {

namespace {

constexpr std::uint64_t kReadOnlyCompatibleFeatures = 0x64;

/// A field of the superblock that is set after the volume was made.
struct FieldChange {
    std::uint64_t field = 0;
    std::uint64_t value = 0;
};

struct LimitedVolume {
    ExtRecipe recipe;
    std::optional<FieldChange> change;
    std::uint64_t shownField; ///< whose value, as it stands on the volume, is part of the sentence
    char const* sentence;     ///< what follows the path; {0} is the value
};

void PrintTo(LimitedVolume const& limited, std::ostream* out) {
    *out << limited.recipe.name;
}

std::vector<LimitedVolume> limitedVolumes() {
    std::vector<std::string> const plain{"-t", "ext4", "-b", "1024"};
    return {
        {{"MetaBg",
          {"-t", "ext4", "-b", "1024", "-O", "meta_bg,^resize_inode"},
          32771,
          Fill::Tree,
          {"meta_bg"},
          {},
          true},
         {},
         ext_super::kIncompatibleFeatures,
         "s_feature_incompat {0:#x} has meta_bg (0x10): the group descriptors do not stand in one table"},
        {{"Bigalloc", {"-t", "ext4", "-b", "4096", "-O", "bigalloc", "-C", "65536"}, 32768, Fill::Tree, {"bigalloc"}},
         {},
         kReadOnlyCompatibleFeatures,
         "s_feature_ro_compat {0:#x} has bigalloc (0x200): a bit of the bitmaps stands for a cluster of several "
         "blocks"},
        {{"JournalDevice", {"-b", "4096", "-O", "journal_dev"}, 16384, Fill::Nothing, {"journal_dev"}},
         {},
         ext_super::kIncompatibleFeatures,
         "s_feature_incompat {0:#x} has journal_dev (0x8): this is a journal device, which has no block bitmaps"},
        {{"UnknownFeature", plain, 16384, Fill::Tree},
         FieldChange{ext_super::kIncompatibleFeatures, 0x800002C2},
         ext_super::kIncompatibleFeatures,
         "s_feature_incompat {0:#x} has a feature that is not known here (0x80000000): the bitmaps may lie elsewhere "
         "or "
         "mean something else"},
        {{"TooLargeGroups", plain, 16384, Fill::Tree},
         FieldChange{ext_super::kBlocksPerGroup, 8200},
         ext_super::kBlocksPerGroup,
         "s_blocks_per_group {0} is more than the 8192 bits that a bitmap block holds"},
    };
}

class LimitedExtVolume : public testing::TestWithParam<LimitedVolume> {
protected:
    void SetUp() override {
        if (auto const reason = missingProgram({"mke2fs", "dumpe2fs"})) {
            GTEST_SKIP() << *reason;
        }
        volume = makeExtVolume(GetParam().recipe, directory.path());
        std::string const header = runTool({"dumpe2fs", "-h", volume}).output;
        for (std::string const& feature : GetParam().recipe.features) {
            ASSERT_THAT(header, testing::HasSubstr(feature));
        }
        if (auto const& change = GetParam().change) {
            changeField(volume, kExtSuperBlockOffset + change->field, change->value, 4);
        }
        blocks = readField(volume, kExtSuperBlockOffset + ext_super::kBlocksCountLow, 4);
        std::uint64_t const value = readField(volume, kExtSuperBlockOffset + GetParam().shownField, 4);
        warning = volume + ": " + fmt::format(fmt::runtime(GetParam().sentence), value) + "; every unit counts as used";
    }

    TempDirectory directory{TempDirectory::Place::Memory};
    std::string volume;
    std::uint64_t blocks = 0;
    std::string warning;
};

TEST_P(LimitedExtVolume, CountsAsUsedThroughout) {
    LibraryMap const map = readMap(volume);
    EXPECT_EQ(differences(map.used, BlockMap(blocks, true)), "");
    EXPECT_EQ(map.totals.used, blocks);
    EXPECT_EQ(map.totals.free, 0U);
    EXPECT_THAT(map.totals.warnings, testing::ElementsAre(warning));
}

TEST_P(LimitedExtVolume, IsListedAsOneRunWithTheReason) {
    CommandResult const result = runFsparser({"ranges", "--json", volume});
    EXPECT_EQ(result.exitCode, 4) << result;
    EXPECT_EQ(result.error, "fsparser: warning: " + warning + "\n");
    auto const document = nlohmann::json::parse(result.output);
    EXPECT_EQ(document.at("warnings"), nlohmann::json::array({warning}));
    EXPECT_EQ(document.at("ranges"), nlohmann::json::array({{{"first", 0}, {"count", blocks}}}));
}

TEST_P(LimitedExtVolume, IsSummarisedWithTheReason) {
    CommandResult const result = runFsparser({"info", "--json", volume});
    EXPECT_EQ(result.exitCode, 4) << result;
    EXPECT_EQ(result.error, "fsparser: warning: " + warning + "\n");
    auto const document = nlohmann::json::parse(result.output);
    EXPECT_EQ(document.at("warnings"), nlohmann::json::array({warning}));
    EXPECT_EQ(document.at("used"), blocks);
    EXPECT_EQ(document.at("free"), 0);
}

TEST_P(LimitedExtVolume, GivesABitmapOfSetBits) {
    std::string const output = directory.file("used.bin");
    CommandResult const result = runFsparser({"bitmap", "-o", output, volume});
    EXPECT_EQ(result.exitCode, 4) << result;
    EXPECT_EQ(result.error, "fsparser: warning: " + warning + "\n");
    EXPECT_TRUE(contentOfFile(output) == bitmapOf(BlockMap(blocks, true)));
}

INSTANTIATE_TEST_SUITE_P(Made, LimitedExtVolume, testing::ValuesIn(limitedVolumes()),
                         [](testing::TestParamInfo<LimitedVolume> const& parameter) {
                             return parameter.param.recipe.name;
                         });

/// Makes a file of this size, if the place can hold it.
bool canHold(TempDirectory const& directory, std::uint64_t bytes) {
    constexpr std::uint64_t kRoomForMetadata = std::uint64_t{1} << 30;
    std::error_code error;
    std::string const path = directory.file("trial");
    std::ofstream(path).put('\0');
    std::filesystem::resize_file(path, bytes, error);
    std::filesystem::remove(path);
    return !error && std::filesystem::space(directory.path()).available >= kRoomForMetadata;
}

TEST(HugeExtVolume, CountsAsUsedThroughout) {
    constexpr std::uint64_t kBlocks = std::uint64_t{17} << 28; // 17 TiB of 4 KiB
    if (auto const reason = missingProgram({"mke2fs"})) {
        GTEST_SKIP() << *reason;
    }
    TempDirectory const directory(TempDirectory::Place::Memory);
    if (!canHold(directory, kBlocks * 4096)) {
        GTEST_SKIP() << directory.path() << " cannot hold a sparse file of 17 TiB with 1 GiB of data";
    }
    ExtRecipe const recipe{"",
                           {"-t", "ext4", "-b", "4096", "-O", "64bit,^has_journal,^resize_inode", "-G", "4096", "-N",
                            "1024", "-E", "lazy_itable_init=1,nodiscard"},
                           kBlocks * 4};
    std::string const volume = makeExtVolume(recipe, directory.path());
    CommandResult const result = runFsparser({"ranges", "--json", volume});
    EXPECT_EQ(result.exitCode, 4) << result;
    std::string const warning = volume + ": s_blocks_count 4563402752 is more than the 4294967295 blocks that the map "
                                         "can number; every unit counts as used";
    EXPECT_EQ(result.error, "fsparser: warning: " + warning + "\n");
    auto const document = nlohmann::json::parse(result.output);
    EXPECT_EQ(document.at("units"), kBlocks);
    EXPECT_EQ(document.at("warnings"), nlohmann::json::array({warning}));
    EXPECT_EQ(document.at("ranges"), nlohmann::json::array({{{"first", 0}, {"count", kBlocks}}}));
}

} // namespace

} // namespace tests
