// Real XFS volumes that are not all in one place, or of a kind that is not known: what is said of them.
#include "support/TempDirectory.h"
#include "volumes/ExtRecipe.h"
#include "volumes/VolumeAnswers.h"
#include "volumes/XfsOracles.h"
#include "volumes/XfsVolume.h"

#include <fstream>
#include <gmock/gmock.h>

namespace tests {

namespace {

constexpr std::uint64_t kKibibytes = 49152;
constexpr std::uint64_t kBlocks = kKibibytes * 1024 / 4096;

class XfsBesideAnotherDevice : public testing::Test {
protected:
    void SetUp() override {
        if (auto const reason = missingProgram({"mkfs.xfs", "xfs_db"})) {
            GTEST_SKIP() << *reason;
        }
    }

    /// A volume with something on another device, which is a file here.
    std::string make(std::string const& option, std::string const& suboption) {
        std::string const other = directory.file("other.img");
        std::ofstream(other).put('\0');
        std::filesystem::resize_file(other, std::uint64_t{20} << 20);
        return makeXfsVolume({"", {"-d", "agsize=16m", option, suboption + "=" + other}, kKibibytes}, directory.path());
    }

    TempDirectory directory{TempDirectory::Place::Memory};
};

TEST_F(XfsBesideAnotherDevice, ExternalJournalIsSaidAndChangesNothing) {
    std::string const volume = make("-l", "size=16m,logdev");
    LibraryMap const map = readMap(volume);
    EXPECT_EQ(differences(map.used, withKeptXfsDifferences(askXfsDb(volume))), "");
    CommandResult const info = runFsparser({"info", "--json", volume});
    EXPECT_EQ(info.exitCode, 0) << info;
    EXPECT_EQ(info.error, "");
    EXPECT_EQ(nlohmann::json::parse(info.output).at("journal"), nlohmann::json({{"external", true}}));
    CommandResult const text = runFsparser({"info", volume});
    EXPECT_THAT(text.output, testing::HasSubstr("on another device"));
}

/// Everything counts as used, with the reason, whatever the verb.
void expectAllUsed(std::string const& volume, std::string const& reason, std::uint64_t blocks) {
    std::string const warning = volume + ": " + reason + "; every unit counts as used";
    LibraryMap const map = readMap(volume);
    EXPECT_EQ(differences(map.used, BlockMap(blocks, true)), "");
    EXPECT_THAT(map.totals.warnings, testing::ElementsAre(warning));
    CommandResult const ranges = runFsparser({"ranges", "--json", volume});
    EXPECT_EQ(ranges.exitCode, 4) << ranges;
    EXPECT_EQ(ranges.error, "fsparser: warning: " + warning + "\n");
    EXPECT_EQ(nlohmann::json::parse(ranges.output).at("ranges"),
              nlohmann::json::array({{{"first", 0}, {"count", blocks}}}));
    CommandResult const bitmap = runFsparser({"bitmap", volume});
    EXPECT_EQ(bitmap.exitCode, 4) << bitmap;
    EXPECT_TRUE(bitmap.output == bitmapOf(BlockMap(blocks, true)));
}

TEST_F(XfsBesideAnotherDevice, RealtimeSectionMakesEverythingUsed) {
    std::string const volume = make("-r", "rtdev");
    expectAllUsed(volume, "sb_rblocks is 5120: the volume has a realtime section, whose space the map does not cover",
                  kBlocks);
}

struct XfsFeature {
    char const* name;
    std::uint64_t byte; ///< of the superblock
    std::uint8_t value;
    char const* sentence;
};

class XfsWithFeature : public testing::TestWithParam<XfsFeature> {};

TEST_P(XfsWithFeature, CountsAsUsed) {
    if (auto const reason = missingProgram({"mkfs.xfs"})) {
        GTEST_SKIP() << *reason;
    }
    TempDirectory const directory(TempDirectory::Place::Memory);
    XfsRecipe const recipe{"", {"-m", "bigtime=1,reflink=1,rmapbt=0", "-d", "agsize=16m"}, kKibibytes};
    std::string const volume = makeXfsVolume(recipe, directory.path());
    changeField(volume, GetParam().byte, GetParam().value, 1);
    expectAllUsed(volume, GetParam().sentence, kBlocks);
}

INSTANTIATE_TEST_SUITE_P(
    Patched, XfsWithFeature,
    testing::Values(XfsFeature{"Unknown", 0xD8, 0x80,
                               "sb_features_incompat 0x8000000b has a feature that is not known here (0x80000000): "
                               "free space may be kept elsewhere"},
                    XfsFeature{"NeedsRepair", 0xDB, 0x1B,
                               "sb_features_incompat 0x1b says that the volume needs repair (0x10): its free space "
                               "cannot be told"},
                    XfsFeature{"NeverFinished", 0x7E, 1, "sb_inprogress is 1: the volume was never made whole"}),
    [](auto const& instance) { return std::string(instance.param.name); });

} // namespace

} // namespace tests
