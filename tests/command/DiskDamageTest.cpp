// Disks whose table is not where it should be, or whose sectors are longer than those of most.
#include "command/Fsparser.h"
#include "support/LoopDevice.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

namespace {

using namespace tests;
using testing::HasSubstr;
using testing::StartsWith;

constexpr std::uint64_t kDiskBytes = 64 << 20;

/// A GPT and the volume of makeThousandBlocks() in its first partition.
class CommandOnOddDisk : public testing::Test {
protected:
    void SetUp() override {
        if (!findProgram("sfdisk")) {
            GTEST_SKIP() << "there is no sfdisk to make a partition table";
        }
        writeFile(disk, {});
        std::filesystem::resize_file(disk, kDiskBytes);
    }

    /// @param start  byte of the first partition
    /// @param target  the disk's file, or a device of it
    void partition(std::uint64_t start, std::uint64_t sector, std::string const& target) const {
        CommandOptions options;
        options.input =
            "label: gpt\nstart=" + std::to_string(start / sector) + ", size=" + std::to_string(4096000 / sector) + "\n";
        ASSERT_EQ(runCommand({"sfdisk", "-q", "--no-reread", "--no-tell-kernel", target}, options).exitCode, 0);
        std::vector<std::uint8_t> const volume = makeThousandBlocks().setSuper16(0x3A, 1).bytes;
        std::fstream file(target, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(start));
        file.write(reinterpret_cast<char const*>(volume.data()), static_cast<std::streamsize>(volume.size()));
        ASSERT_TRUE(file.flush());
    }

    void expectMapped() const {
        CommandResult const result = fsparser({"ranges", "--partition", "1", disk});
        EXPECT_EQ(result.exitCode, 0) << result;
        EXPECT_EQ(result.output, "0 100\n500 100\n650 1\n");
    }

    TempDirectory directory;
    std::string disk = directory.file("disk");
};

TEST_F(CommandOnOddDisk, SectorsOf4096BytesAreFoundInAnImage) {
    if (!Loop::isPossible()) {
        GTEST_SKIP() << "a device with sectors of 4096 bytes needs root and losetup";
    }
    {
        Loop const device(disk, {"-b", "4096"});
        if (device.path().empty()) {
            GTEST_SKIP() << "no loop device with sectors of 4096 bytes can be made here";
        }
        partition(300 * 4096, 4096, device.path());
        EXPECT_EQ(fsparser({"ranges", "--partition", "1", device.path()}).output, "0 100\n500 100\n650 1\n");
    }
    CommandResult const result = fsparser({"detect", disk});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_THAT(result.output, StartsWith("gpt partition table, 1 partitions\n"
                                          "  1  ext           from byte 1228800 (2400s), 4096000 bytes"));
    Json const document = Json::parse(fsparser({"detect", "--json", disk}).output);
    EXPECT_EQ(document["sector_size"], 4096);
    EXPECT_EQ(document["partitions"][0]["offset"], 1228800);
    EXPECT_EQ(fsparser({"ranges", "--offset", "2400s", disk}).output, "0 100\n500 100\n650 1\n");
    expectMapped();
}

TEST_F(CommandOnOddDisk, SectorsOf512BytesAreFoundOnADeviceOfLongerOnes) {
    partition(2049 * 512, 512, disk);
    if (!Loop::isPossible()) {
        GTEST_SKIP() << "a device with sectors of 4096 bytes needs root and losetup";
    }
    Loop const device(disk, {"-b", "4096"});
    if (device.path().empty()) {
        GTEST_SKIP() << "no loop device with sectors of 4096 bytes can be made here";
    }
    Json const document = Json::parse(fsparser({"detect", "--json", device.path()}).output);
    EXPECT_EQ(document["sector_size"], 512);
    EXPECT_EQ(document["partitions"][0]["offset"], 2049 * 512);
}

TEST_F(CommandOnOddDisk, TheTableAtTheBeginningIsEnoughWhileTheDiskIsAsLongAsItSays) {
    partition(2048 * 512, 512, disk);
    std::filesystem::resize_file(disk, kDiskBytes - 33 * 512);
    std::filesystem::resize_file(disk, kDiskBytes);
    expectMapped();
    std::filesystem::resize_file(disk, kDiskBytes - 33 * 512);
    expectMapped();
}

TEST_F(CommandOnOddDisk, TheTableAtTheEndIsEnough) {
    partition(2048 * 512, 512, disk);
    std::fstream file(disk, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(512).write(std::string(512, '\0').data(), 512);
    ASSERT_TRUE(file.flush());
    expectMapped();
}

TEST_F(CommandOnOddDisk, AGptThatIsCutOffIsSaidToBeUnreadable) {
    partition(2048 * 512, 512, disk);
    std::filesystem::resize_file(disk, kDiskBytes / 2);
    std::string const sentence = disk +
                                 ": has the protective MBR of a GPT, but the GPT cannot be read; an image may be cut "
                                 "off; --offset takes a volume where it begins";
    CommandResult const detect = fsparser({"detect", disk});
    EXPECT_EQ(detect.exitCode, 3) << detect;
    EXPECT_EQ(detect.output, "unrecognized\n");
    EXPECT_EQ(detect.error, "fsparser: " + sentence + "\n");
    CommandResult const info = fsparser({"info", "--partition", "1", disk});
    EXPECT_EQ(info.exitCode, 3) << info;
    EXPECT_EQ(info.error, "fsparser: " + sentence + "\n");
    CommandResult const ranges = fsparser({"ranges", disk});
    EXPECT_EQ(ranges.exitCode, 0) << ranges;
    EXPECT_EQ(ranges.output, "0 8192\n");
    EXPECT_EQ(ranges.error, "fsparser: note: " + sentence + "; every unit counts as used\n");
    EXPECT_EQ(fsparser({"ranges", "--offset", "2048s", disk}).output, "0 100\n500 100\n650 1\n");
}

} // namespace
