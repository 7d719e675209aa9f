// Copies of volumes that contradict themselves, and copies that are stopped while they wait.
#include "command/Fsparser.h"
#include "support/XfsBuilder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace tests;
using testing::EndsWith;
using testing::HasSubstr;

TEST(CommandCopyDoubt, AnUninitialisedGroupOnAVolumeWithoutTheFeatureTakesNothingAway) {
    TempDirectory const directory;
    ExtBuilder builder = makeThousandBlocks();
    builder.setSuper32(ext_super::kReadOnlyFeatures, 0);
    std::string const path = writeExtVolume(directory.file("volume"), builder);
    EXPECT_EQ(fsparser({"ranges", path}).exitCode, 0) << "without the flag it is sound";
    std::uint64_t const flags = builder.geometry().descriptorOffset(0) + ext_group::kFlags;
    builder.bytes[flags] = ext_group::kBlocksUninitialised;
    writeExtVolume(path, builder);
    CommandResult const ranges = fsparser({"ranges", path});
    EXPECT_EQ(ranges.exitCode, 4) << ranges;
    EXPECT_EQ(ranges.output, "0 1000\n");
    EXPECT_THAT(ranges.error,
                HasSubstr("the descriptor of group 0 says that its block bitmap is not initialised (0x2), "
                          "and the volume has no feature for that"));
}

/// Two groups of 500 blocks; the header of the second one counts a block less than its tree has.
XfsBuilder makeDoubtful() {
    XfsGeometry geometry;
    geometry.totalBlocks = 1000;
    XfsBuilder builder(geometry);
    builder.plantTree(0, {{100, 100}});
    builder.plantTree(1, {{20, 20}});
    return builder.setHeader32(1, xfs_header::kFreeBlocks, 19);
}

TEST(CommandCopyDoubt, WhatACopyOfADoubtfulVolumeTookIsVerifiedAsWell) {
    TempDirectory const directory;
    XfsBuilder const builder = makeDoubtful();
    std::string const path = writeFile(directory.file("volume"), builder.bytes);
    std::string const copy = directory.file("copy");
    ASSERT_EQ(fsparser({"copy", path, copy}).exitCode, 4);
    CommandResult const equal = fsparser({"verify", path, copy});
    EXPECT_EQ(equal.exitCode, 4) << equal;
    EXPECT_THAT(equal.error, HasSubstr(": everything is compared\n"));
    std::vector<std::uint8_t> bytes = readFile(copy);
    bytes[150 * 512] ^= 1; // in a block that the map calls free
    writeFile(copy, bytes);
    CommandResult const different = fsparser({"verify", path, copy});
    EXPECT_EQ(different.exitCode, 5) << different;
    EXPECT_THAT(different.error, HasSubstr("at byte 76800 (unit 150)"));
}

TEST(CommandCopyDoubt, TheBlocksOfAFreeListAreKept) {
    TempDirectory const directory;
    XfsGeometry geometry;
    geometry.totalBlocks = 1000;
    XfsBuilder builder(geometry);
    builder.plantTree(0, {{100, 100}});
    builder.setFreeList(0, 3, {300, 301});
    std::fill_n(builder.bytes.begin() + 300 * 512, 1024, std::uint8_t{0x77});
    std::fill_n(builder.bytes.begin() + 150 * 512, 1024, std::uint8_t{0x77});
    std::string const path = writeFile(directory.file("volume"), builder.bytes);
    std::string const copy = directory.file("copy");
    CommandResult const result = fsparser({"copy", "--json", path, copy});
    EXPECT_EQ(Json::parse(result.output)["kept_bytes"], 1024) << result;
    std::vector<std::uint8_t> const bytes = readFile(copy);
    EXPECT_EQ(bytes[300 * 512], 0x77) << "free in the map, and kept";
    EXPECT_EQ(bytes[150 * 512], 0) << "free, and left out";
}

TEST(CommandCopyDoubt, ACopyWithoutANameIsAMistake) {
    ThousandBlocks const volume;
    CommandResult const result = fsparser({"copy", volume.path, ""});
    EXPECT_EQ(result.exitCode, 2) << result;
}

TEST(CommandCopyDoubt, TheListOfUnreadablePlacesBesideADeviceNeedsAName) {
    ThousandBlocks const volume;
    CommandResult const result = fsparser({"copy", "--to-device", "--skip-unreadable", volume.path, "/dev/null"});
    EXPECT_EQ(result.exitCode, 2) << result;
    EXPECT_THAT(result.error, HasSubstr("--rescue-map"));
}

TEST(CommandCopyDoubt, AnInterruptStopsACopyIntoAPipeThatNobodyReads) {
    TempDirectory const directory;
    std::string const path = writeFile(directory.file("volume"), std::vector<std::uint8_t>(32 << 20, 0x11));
    std::string const fifo = directory.file("pipe");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    int const reader = ::open(fifo.c_str(), O_RDWR); // so that the writer need not wait for one
    ASSERT_NE(reader, -1);
    CommandOptions options = plainOptions();
    options.outputPath = fifo;
    Process copy({FSPARSER_COMMAND, "copy", path, "-"}, options);
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    copy.send(SIGINT);
    CommandResult const result = copy.wait();
    ::close(reader);
    EXPECT_EQ(result.exitCode, 130) << result;
    EXPECT_THAT(result.error, EndsWith("fsparser: interrupted\n"));
    EXPECT_FALSE(result.timedOut);
}

} // namespace
