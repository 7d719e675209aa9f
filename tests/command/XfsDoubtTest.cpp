// The command on XFS volumes whose trees and headers contradict each other: nothing in use is left out.
#include "command/Fsparser.h"
#include "support/XfsBuilder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using namespace tests;
using testing::HasSubstr;

/// Two groups of 500 blocks of 512 bytes; free are blocks 100 to 199 of group 0 and 20 to 39 of group 1.
XfsBuilder makeTwoGroups() {
    XfsGeometry geometry;
    geometry.totalBlocks = 1000;
    XfsBuilder builder(geometry);
    builder.plantTree(0, {{100, 100}});
    builder.plantTree(1, {{20, 20}});
    return builder;
}

struct Volume {
    explicit Volume(XfsBuilder const& builder) : path(writeFile(directory.file("volume"), builder.bytes)) {}

    TempDirectory directory;
    std::string path;
};

void expectAllUsed(XfsBuilder const& builder, std::string const& reason) {
    Volume const volume(builder);
    CommandResult const ranges = fsparser({"ranges", volume.path});
    EXPECT_EQ(ranges.exitCode, 4) << ranges;
    EXPECT_EQ(ranges.output, "0 1000\n");
    EXPECT_EQ(ranges.error, "fsparser: warning: " + volume.path + ": " + reason + "; every unit counts as used\n");
}

TEST(CommandXfsDoubt, TheVolumeItselfIsSound) {
    Volume const volume(makeTwoGroups());
    CommandResult const ranges = fsparser({"ranges", volume.path});
    EXPECT_EQ(ranges.exitCode, 0) << ranges;
    EXPECT_EQ(ranges.output, "0 100\n200 320\n540 460\n");
}

TEST(CommandXfsDoubt, AnEmptyFreeListWhoseEndsSpanItAllIsNotTaken) {
    // Nothing says that its 128 entries are old but the count.
    XfsBuilder builder = makeTwoGroups();
    builder.setHeader32(0, xfs_header::kListFirst, 0).setHeader32(0, xfs_header::kListLast, 127);
    ASSERT_EQ(builder.get(builder.geometry().headerOffset(0) + xfs_header::kListCount, 4), 0U);
    expectAllUsed(builder, "the free-space header of group 0 counts 0 blocks in its free list from entry 0 to entry "
                           "127: the parser would take old entries for free blocks");
}

TEST(CommandXfsDoubt, AHeaderOfAnotherGroupIsNotTaken) {
    XfsBuilder builder = makeTwoGroups();
    builder.setHeader32(1, 8, 0);
    expectAllUsed(builder, "the free-space header of group 1 says that it is that of group 0");
}

TEST(CommandXfsDoubt, AGroupOfAnotherLengthIsNotTaken) {
    XfsBuilder builder = makeTwoGroups();
    builder.setHeader32(1, 12, 499);
    expectAllUsed(builder, "the free-space header of group 1 says that the group has 499 blocks, and it has 500");
}

TEST(CommandXfsDoubt, ARunThatReachesPastItsGroupLeavesTheNextGroupsHeaderUsed) {
    XfsBuilder builder = makeTwoGroups();
    builder.plantTree(0, {{100, 420}}); // the last 20 are the first of group 1
    Volume const volume(builder);
    CommandResult const ranges = fsparser({"ranges", volume.path});
    EXPECT_EQ(ranges.exitCode, 4) << ranges;
    EXPECT_EQ(ranges.output, "0 100\n500 5\n540 460\n");
    EXPECT_THAT(ranges.error, HasSubstr("the map calls unit 500 free, which holds the file system's own structures; "
                                        "those count as used, and the rest of the map is not to be trusted\n"));
}

TEST(CommandXfsDoubt, MoreFreeBlocksThanTheHeaderCountsAreSaid) {
    XfsBuilder builder = makeTwoGroups();
    builder.setHeader32(1, xfs_header::kFreeBlocks, 19);
    Volume const volume(builder);
    CommandResult const info = fsparser({"info", "--json", volume.path});
    EXPECT_EQ(info.exitCode, 4) << info;
    EXPECT_EQ(info.error, "fsparser: warning: " + volume.path +
                              ": the map has 20 free units in group 1, and the group's own header counts 19: the map "
                              "is not to be trusted\n");
}

TEST(CommandXfsDoubt, ACopyOfADoubtfulVolumeTakesEverything) {
    XfsBuilder builder = makeTwoGroups();
    builder.setHeader32(1, xfs_header::kFreeBlocks, 19);
    for (std::size_t at = 120 * 512; at < 180 * 512; ++at) {
        builder.bytes[at] = 0x5A; // in free space
    }
    Volume const volume(builder);
    CommandResult const copy = fsparser({"copy", "--json", volume.path, volume.directory.file("copy")});
    EXPECT_EQ(copy.exitCode, 4) << copy;
    EXPECT_THAT(copy.error, HasSubstr(volume.path + ": everything is copied\n"));
    Json const document = Json::parse(copy.output);
    EXPECT_EQ(document["left_out_bytes"], 0);
    EXPECT_EQ(document["used_bytes"], 512000);
    EXPECT_EQ(readFile(volume.directory.file("copy")), builder.bytes);
}

} // namespace
