// The command on XFS volumes: what each verb says of a sound one, and what of one that is not to be believed.
#include "command/Fsparser.h"
#include "support/XfsBuilder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

using namespace tests;
using testing::HasSubstr;

constexpr std::uint64_t kRealtimeBlocks = 0x10;
constexpr std::uint64_t kInProgress = 0x7E;
constexpr std::uint64_t kIncompatible = 0xD8;

/// Three groups of 500, 500 and 300 blocks of 512 bytes. Free are blocks 100 to 199 of group 0, 20 to 39 of group 1 and
/// 290 to 299 of group 2: 130 in all. The journal is the 50 blocks from block 800 on.
XfsBuilder makeThreeGroups(bool hasChecksums = false) {
    XfsGeometry geometry;
    geometry.hasChecksums = hasChecksums;
    geometry.logStart = (1 << 9) + 300; // group 1; 512 is the first power of two from 500 on
    geometry.logBlocks = 50;
    XfsBuilder builder(geometry);
    builder.plantTree(0, {{100, 100}});
    builder.plantTree(1, {{20, 20}});
    builder.plantTree(2, {{290, 10}});
    return builder;
}

struct XfsFile {
    explicit XfsFile(XfsBuilder const& builder) : path(writeFile(directory.file("volume"), builder.bytes)) {}

    TempDirectory directory;
    std::string path;
};

class CommandXfs : public testing::TestWithParam<bool> {
protected:
    XfsFile const volume{makeThreeGroups(GetParam())};
};

TEST_P(CommandXfs, DetectNamesIt) {
    CommandResult const result = fsparser({"detect", volume.path});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.output, "xfs\n");
    EXPECT_EQ(result.error, "");
}

TEST_P(CommandXfs, InfoSumsItUp) {
    CommandResult const result = fsparser({"info", volume.path});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.error, "");
    EXPECT_THAT(result.output, HasSubstr("file system     xfs\n"));
    EXPECT_THAT(result.output, HasSubstr("units           1300 ("));
    EXPECT_THAT(result.output, HasSubstr("used            1170 units ("));
    EXPECT_THAT(result.output, HasSubstr("journal         50 units from unit 800 ("));
}

TEST_P(CommandXfs, InfoHasTheJournalInItsDocument) {
    CommandResult const result = fsparser({"info", "--json", volume.path});
    EXPECT_EQ(result.exitCode, 0) << result;
    Json const document = Json::parse(result.output);
    EXPECT_EQ(document.at("file_system"), "xfs");
    EXPECT_EQ(document.at("unit_size"), 512);
    EXPECT_EQ(document.at("units"), 1300);
    EXPECT_EQ(document.at("used"), 1170);
    EXPECT_EQ(document.at("free"), 130);
    EXPECT_EQ(document.at("past_last_unit"), 0);
    EXPECT_EQ(document.at("journal"), Json({{"external", false}, {"first", 800}, {"count", 50}}));
}

TEST_P(CommandXfs, RangesListsItsRuns) {
    CommandResult const result = fsparser({"ranges", volume.path});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.output, "0 100\n200 320\n540 750\n");
}

TEST_P(CommandXfs, BitmapIsTheMap) {
    CommandResult const result = fsparser({"bitmap", volume.path});
    EXPECT_EQ(result.exitCode, 0) << result;
    std::vector<bool> const map = makeThreeGroups(GetParam()).map();
    std::string expected((map.size() + 7) / 8, '\0');
    for (std::size_t block = 0; block < map.size(); ++block) {
        if (map[block]) {
            expected[block / 8] = static_cast<char>(expected[block / 8] | (1 << (block % 8)));
        }
    }
    EXPECT_TRUE(result.output == expected);
}

TEST_P(CommandXfs, MapDrawsIt) {
    CommandResult const result = fsparser({"map", "--ascii", "--width", "13", "--height", "1", volume.path});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_THAT(result.output, HasSubstr("\n#.###%######%\n"));
}

INSTANTIATE_TEST_SUITE_P(Versions, CommandXfs, testing::Bool(),
                         [](auto const& instance) { return instance.param ? "WithChecksums" : "Plain"; });

TEST(CommandXfsJournal, OnAnotherDeviceIsSaidAndNotFailed) {
    XfsFile const volume(makeThreeGroups().setSuper(xfs_super::kLogStart, 0, 8));
    CommandResult const result = fsparser({"info", volume.path});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.error, "");
    EXPECT_THAT(result.output, HasSubstr("journal         on another device\n"));
    CommandResult const document = fsparser({"info", "--json", volume.path});
    EXPECT_EQ(Json::parse(document.output).at("journal"), Json({{"external", true}}));
    EXPECT_EQ(Json::parse(document.output).at("free"), 130);
}

struct Disbelief {
    char const* name;
    std::uint64_t field;
    std::uint64_t value;
    unsigned width;
    char const* reason;
};

void PrintTo(Disbelief const& disbelief, std::ostream* out) {
    *out << disbelief.name;
}

class CommandXfsNotBelieved : public testing::TestWithParam<Disbelief> {};

TEST_P(CommandXfsNotBelieved, CountsAsUsedWithTheReason) {
    XfsBuilder builder = makeThreeGroups(true);
    ASSERT_NE(builder.get(GetParam().field, GetParam().width), GetParam().value);
    XfsFile const volume(builder.setSuper(GetParam().field, GetParam().value, GetParam().width));
    std::string const warning =
        "fsparser: warning: " + volume.path + ": " + GetParam().reason + "; every unit counts as used\n";
    CommandResult const ranges = fsparser({"ranges", volume.path});
    EXPECT_EQ(ranges.exitCode, 4) << ranges;
    EXPECT_EQ(ranges.output, "0 1300\n");
    EXPECT_EQ(ranges.error, warning);
    CommandResult const bitmap = fsparser({"bitmap", volume.path});
    EXPECT_EQ(bitmap.exitCode, 4) << bitmap;
    EXPECT_EQ(bitmap.output, std::string(162, '\xFF') + '\x0F');
    EXPECT_EQ(bitmap.error, warning);
    CommandResult const info = fsparser({"info", "--json", volume.path});
    EXPECT_EQ(info.exitCode, 4) << info;
    EXPECT_EQ(Json::parse(info.output).at("used"), 1300);
    EXPECT_EQ(fsparser({"detect", volume.path}).exitCode, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Fields, CommandXfsNotBelieved,
    testing::Values(
        Disbelief{"RealtimeSection", kRealtimeBlocks, 77, 8,
                  "sb_rblocks is 77: the volume has a realtime section, whose space the map does not cover"},
        Disbelief{"UnknownFeature", kIncompatible, 0x80000001, 4,
                  "sb_features_incompat 0x80000001 has a feature that is not known here (0x80000000): free space may "
                  "be kept elsewhere"},
        Disbelief{"NeedsRepair", kIncompatible, 0x13, 4,
                  "sb_features_incompat 0x13 says that the volume needs repair (0x10): its free space cannot be told"},
        Disbelief{"NeverFinished", kInProgress, 1, 1, "sb_inprogress is 1: the volume was never made whole"},
        Disbelief{"Version3", xfs_super::kVersion, 0xB4A3, 2,
                  "sb_versionnum is 0xb4a3, and versions 4 and 5 are known here"},
        Disbelief{"Version6", xfs_super::kVersion, 0xB4A6, 2,
                  "sb_versionnum is 0xb4a6, and versions 4 and 5 are known here"},
        Disbelief{"BlockLog", xfs_super::kBlockSizeLog, 10, 1, "sb_blocklog is 10, and sb_blocksize 512"},
        Disbelief{"BlockLogOf255", xfs_super::kBlockSizeLog, 255, 1, "sb_blocklog is 255, and sb_blocksize 512"},
        Disbelief{"SectorSizeOfNothing", xfs_super::kSectorSize, 0, 2,
                  "sb_sectsize is 0, with blocks of 512 bytes: the groups' headers cannot be found"},
        Disbelief{"SectorSizeOfMoreThanABlock", xfs_super::kSectorSize, 1024, 2,
                  "sb_sectsize is 1024, with blocks of 512 bytes: the groups' headers cannot be found"},
        Disbelief{"GroupBlocksOfNothing", xfs_super::kGroupBlocks, 0, 4,
                  "sb_dblocks 1300 is not filled by sb_agcount 3 groups of sb_agblocks 0"},
        Disbelief{"GroupBlocksOfOne", xfs_super::kGroupBlocks, 1, 4,
                  "sb_dblocks 1300 is not filled by sb_agcount 3 groups of sb_agblocks 1"},
        Disbelief{"GroupBlocksTooMany", xfs_super::kGroupBlocks, 0x80000000, 4,
                  "sb_dblocks 1300 is not filled by sb_agcount 3 groups of sb_agblocks 2147483648"},
        Disbelief{"GroupsOfNothing", xfs_super::kGroups, 0, 4,
                  "sb_dblocks 1300 is not filled by sb_agcount 0 groups of sb_agblocks 500"},
        Disbelief{"GroupsTooMany", xfs_super::kGroups, 0xFFFFFFFF, 4,
                  "sb_dblocks 1300 is not filled by sb_agcount 4294967295 groups of sb_agblocks 500"},
        Disbelief{"GroupBlocksLog", xfs_super::kGroupBlocksLog, 10, 1, "sb_agblklog is 10, and sb_agblocks 500"},
        Disbelief{"JournalOutside", xfs_super::kLogStart, (2 << 9) + 260, 8,
                  "the journal of 50 blocks begins at block 1260, where it cannot be (the volume has 1300 blocks)"}),
    [](auto const& instance) { return std::string(instance.param.name); });

struct NoVolume {
    char const* name;
    std::uint64_t field;
    std::uint64_t value;
    unsigned width;
    char const* reason;
};

class CommandXfsNotUnderstood : public testing::TestWithParam<NoVolume> {};

TEST_P(CommandXfsNotUnderstood, EndsWithTheFieldAndNoData) {
    XfsBuilder builder = makeThreeGroups();
    XfsFile const volume(builder.setSuper(GetParam().field, GetParam().value, GetParam().width));
    for (std::string const verb : {"info", "ranges", "bitmap", "map"}) {
        CommandResult const result = fsparser({verb, volume.path});
        EXPECT_EQ(result.exitCode, 3) << verb << ": " << result;
        EXPECT_EQ(result.output, "");
        EXPECT_EQ(result.error, "fsparser: " + volume.path +
                                    ": the XFS superblock at byte 0 describes no volume: " + GetParam().reason + "\n");
    }
}

INSTANTIATE_TEST_SUITE_P(
    Fields, CommandXfsNotUnderstood,
    testing::Values(NoVolume{"BlocksOf0", xfs_super::kBlockSize, 0, 4,
                             "sb_blocksize is 0, which must be a power of two from 512 to 65536"},
                    NoVolume{"BlocksOf256", xfs_super::kBlockSize, 256, 4,
                             "sb_blocksize is 256, which must be a power of two from 512 to 65536"},
                    NoVolume{"BlocksOf1000", xfs_super::kBlockSize, 1000, 4,
                             "sb_blocksize is 1000, which must be a power of two from 512 to 65536"},
                    NoVolume{"BlocksOf128KiB", xfs_super::kBlockSize, 131072, 4,
                             "sb_blocksize is 131072, which must be a power of two from 512 to 65536"},
                    NoVolume{"NoBlocks", xfs_super::kTotalBlocks, 0, 8, "sb_dblocks is 0"},
                    NoVolume{"TooManyBlocks", xfs_super::kTotalBlocks, std::uint64_t{1} << 63, 8,
                             "sb_dblocks is 9223372036854775808"}),
    [](auto const& instance) { return std::string(instance.param.name); });

TEST(CommandXfsDamaged, HeaderIsAnErrorWithItsReason) {
    XfsFile const volume(makeThreeGroups().setHeader32(1, xfs_header::kMagic, 0));
    for (std::string const verb : {"info", "ranges", "bitmap", "map"}) {
        CommandResult const result = fsparser({verb, volume.path});
        EXPECT_EQ(result.exitCode, 1) << verb << ": " << result;
        EXPECT_EQ(result.error, "fsparser: " + volume.path +
                                    ": the map cannot be read from unit 0 on: Invalid fsi magic number.; A logical "
                                    "error occurred while attempting to parse XFS bitmap, err: -1\n");
    }
}

TEST(CommandXfsDamaged, TreeInACycleIsAnErrorWithItsReason) {
    XfsBuilder builder = makeThreeGroups();
    builder.makeNode(2, 4, 1, 1).setChild(2, 4, 0, 4);
    XfsFile const volume(builder);
    CommandResult const result = fsparser({"ranges", volume.path});
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_THAT(result.error, HasSubstr("XFS: cannot read btree node header"));
}

TEST(CommandXfsTruncated, BehindTheLastNodeIsAWarning) {
    XfsFile const volume(makeThreeGroups());
    std::filesystem::resize_file(volume.path, 1200 * 512);
    CommandResult const result = fsparser({"ranges", volume.path});
    EXPECT_EQ(result.exitCode, 4) << result;
    EXPECT_EQ(result.output, "0 100\n200 320\n540 750\n");
    EXPECT_THAT(result.error, HasSubstr("ends at byte 614400, 51200 bytes before the end of its xfs file system"));
}

TEST(CommandXfsTruncated, BeforeAGroupIsAnError) {
    XfsFile const volume(makeThreeGroups());
    std::filesystem::resize_file(volume.path, 900 * 512);
    CommandResult const result = fsparser({"ranges", volume.path});
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_EQ(result.output, "") << "what is not there is never free";
    EXPECT_THAT(result.error, HasSubstr("cannot be read at byte 512512"));
}

} // namespace
