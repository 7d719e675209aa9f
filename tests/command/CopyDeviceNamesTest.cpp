// A copy to a device that holds the volume under another name: nothing is written. Needs root.
#include "command/Fsparser.h"
#include "support/LoopDevice.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

namespace {

using namespace tests;
using testing::EndsWith;

constexpr std::uint64_t kVolumeBytes = 1000 * 4096;
constexpr std::uint64_t kStart = 2048 * 512;

/// A disk of noise whose only partition holds a volume of 1000 blocks of 4 KiB, and its file.
class CommandCopyDeviceName : public testing::Test {
protected:
    void SetUp() override {
        if (!Loop::isPossible() || !findProgram("sfdisk")) {
            GTEST_SKIP() << "disks of loop devices need root, losetup and sfdisk";
        }
        std::vector<std::uint8_t> bytes(16 << 20, 0xA5);
        std::vector<std::uint8_t> const volume = makeThousandBlocks().setSuper16(0x3A, 1).bytes;
        std::copy(volume.begin(), volume.end(), bytes.begin() + kStart);
        writeFile(disk, bytes);
        CommandOptions options;
        options.input = "label: dos\nstart=2048, size=8000\n";
        ASSERT_EQ(runCommand({"sfdisk", "-q", "--wipe", "never", disk}, options).exitCode, 0);
        before = readFile(disk);
        if (Loop(disk).path().empty()) {
            GTEST_SKIP() << "no loop device can be made here";
        }
    }

    /// Expects that the volume is told from no other, and that the disk is as it was.
    void expectRefused(std::vector<std::string> const& options, std::string const& source,
                       std::string const& target) const {
        std::vector<std::string> arguments{"copy", "--to-device"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        arguments.insert(arguments.end(), {source, target});
        CommandResult const result = fsparser(arguments);
        EXPECT_EQ(result.exitCode, 1) << result;
        EXPECT_THAT(result.error, EndsWith("fsparser: " + target + ": is the volume itself; it is left alone\n"));
        ::sync();
        EXPECT_TRUE(readFile(disk) == before) << "something was written";
    }

    TempDirectory directory;
    std::string disk = directory.file("disk");
    std::vector<std::uint8_t> before;
};

TEST_F(CommandCopyDeviceName, TheDiskOfAPartitionIsLeftAlone) {
    Loop const whole(disk);
    LoopPartition const partition(whole);
    if (partition.path().empty()) {
        GTEST_SKIP() << "no partition of a loop device can be made here";
    }
    expectRefused({}, partition.path(), whole.path());
    expectRefused({"--partition", "1"}, whole.path(), partition.path());
}

TEST_F(CommandCopyDeviceName, ASecondDeviceOfTheSameFileIsLeftAlone) {
    Loop const one(disk);
    Loop const other(disk);
    ASSERT_NE(other.path(), one.path());
    expectRefused({}, one.path(), other.path());
    expectRefused({"--partition", "1"}, one.path(), other.path());
}

TEST_F(CommandCopyDeviceName, ThePartitionOfADeviceOfTheImageIsLeftAlone) {
    Loop const whole(disk);
    LoopPartition const partition(whole);
    if (partition.path().empty()) {
        GTEST_SKIP() << "no partition of a loop device can be made here";
    }
    expectRefused({"--partition", "1"}, disk, partition.path());
}

TEST_F(CommandCopyDeviceName, ADeviceOfAPieceOfTheImageThatTheVolumeReachesIntoIsLeftAlone) {
    Loop const piece(disk, {"-o", std::to_string(kStart + kVolumeBytes - 512)});
    expectRefused({"--partition", "1"}, disk, piece.path());
}

TEST_F(CommandCopyDeviceName, AnotherPieceOfTheSameFileTakesTheCopy) {
    std::string const size = std::to_string(kVolumeBytes);
    Loop const volume(disk, {"-o", std::to_string(kStart), "--sizelimit", size});
    Loop const piece(disk, {"-o", std::to_string(kStart + kVolumeBytes), "--sizelimit", size});
    CommandResult const result = fsparser({"copy", "--to-device", volume.path(), piece.path()});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(fsparser({"verify", volume.path(), piece.path()}).exitCode, 0);
    ::sync();
    std::vector<std::uint8_t> const after = readFile(disk);
    constexpr auto kEnd = static_cast<long>(kStart + kVolumeBytes);
    EXPECT_TRUE(std::equal(before.begin(), before.begin() + kEnd, after.begin())) << "the volume and what lies before";
    EXPECT_FALSE(std::equal(before.begin() + kEnd, before.end(), after.begin() + kEnd)) << "the copy behind it";
}

} // namespace
