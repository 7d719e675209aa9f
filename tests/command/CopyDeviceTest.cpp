// Copies to and from block devices, which are loop devices here. Needs root, and leaves no device behind.
#include "command/Fsparser.h"
#include "support/LoopDevice.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/mount.h>
#include <unistd.h>

namespace {

using namespace tests;
using testing::AllOf;
using testing::HasSubstr;

/// A volume of 1000 blocks of 4 KiB and a device of noise.
class CommandCopyDevice : public testing::Test {
protected:
    void SetUp() override {
        if (!Loop::isPossible()) {
            GTEST_SKIP() << "loop devices need root and losetup";
        }
        ExtBuilder builder = makeThousandBlocks();
        writeExtVolume(path, builder.setSuper16(0x3A, 1));
        useDevice(1000 * 4096 + 65536);
        if (device->path().empty()) {
            GTEST_SKIP() << "no loop device can be made here";
        }
    }

    /// Puts a file of noise behind the device.
    void useDevice(std::uint64_t size) {
        device.reset();
        writeFile(backing, std::vector<std::uint8_t>(size, 0xA5));
        device = std::make_unique<Loop>(backing);
    }

    /// Expects that nothing was written.
    void expectUntouched() const {
        ::sync();
        std::vector<std::uint8_t> const bytes = readFile(backing);
        EXPECT_EQ(std::count(bytes.begin(), bytes.end(), 0xA5), static_cast<long>(bytes.size()));
    }

    TempDirectory directory;
    std::string path = directory.file("volume");
    std::string backing = directory.file("backing");
    std::unique_ptr<Loop> device;
};

TEST_F(CommandCopyDevice, ADeviceIsRefusedWithAHintWhereNobodyAskedForOne) {
    for (std::vector<std::string> const& force : std::vector<std::vector<std::string>>{{}, {"--force"}}) {
        std::vector<std::string> arguments{"copy"};
        arguments.insert(arguments.end(), force.begin(), force.end());
        arguments.insert(arguments.end(), {path, device->path()});
        CommandResult const result = fsparser(arguments);
        EXPECT_THAT(result.exitCode, testing::AnyOf(1, 2)) << result;
        EXPECT_THAT(result.error, AllOf(HasSubstr(device->path() + ": "), HasSubstr("--to-device"))) << result;
    }
    expectUntouched();
}

TEST_F(CommandCopyDevice, ADeviceTakesTheCopyAndKeepsWhatLiesElsewhere) {
    CommandResult const result = fsparser({"copy", "--to-device", path, device->path()});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(fsparser({"verify", path, device->path()}).exitCode, 0);
    std::string const digest = fsparser({"digest", path}).output.substr(0, 64);
    EXPECT_EQ(fsparser({"digest", device->path()}).output.substr(0, 64), digest);
    EXPECT_EQ(fsparser({"copy", "-q", device->path(), directory.file("copy")}).exitCode, 0) << "and back";
    EXPECT_EQ(fsparser({"digest", directory.file("copy")}).output.substr(0, 64), digest);
    device.reset();
    std::vector<std::uint8_t> const bytes = readFile(backing);
    EXPECT_EQ(std::count(bytes.begin() + 101 * 4096, bytes.begin() + 500 * 4096, 0xA5), 399 * 4096) << "free space";
    EXPECT_EQ(std::count(bytes.end() - 65536, bytes.end(), 0xA5), 65536) << "behind the volume";
    EXPECT_EQ(std::count(bytes.begin() + 550 * 4096, bytes.begin() + 551 * 4096, 0), 4096) << "a used hole is zeros";
}

TEST_F(CommandCopyDevice, ADeviceThatIsTooSmallIsLeftAlone) {
    useDevice(1000 * 4096 - 4096);
    CommandResult const result = fsparser({"copy", "--to-device", path, device->path()});
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_EQ(result.error,
              "fsparser: " + device->path() + ": has 4091904 bytes, and the volume 4096000; it is left alone\n");
    expectUntouched();
}

TEST_F(CommandCopyDevice, TheVolumeItselfIsLeftAlone) {
    CommandResult const result = fsparser({"copy", "--to-device", device->path(), device->path()});
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_EQ(result.error.substr(result.error.rfind("fsparser: ")),
              "fsparser: " + device->path() + ": is the volume itself; it is left alone\n");
    expectUntouched();
}

TEST_F(CommandCopyDevice, TheFileBehindADeviceIsTheVolumeItselfAsWell) {
    Loop const volume(path);
    std::vector<std::uint8_t> const before = readFile(path);
    CommandResult const result = fsparser({"copy", "--to-device", path, volume.path()});
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_THAT(result.error, HasSubstr("is the volume itself; it is left alone"));
    EXPECT_TRUE(readFile(path) == before);
}

TEST_F(CommandCopyDevice, AMountedDeviceIsLeftAlone) {
    std::string const mounted = directory.file("mounted");
    std::filesystem::create_directory(mounted);
    useDevice(8 << 20);
    if (!findProgram("mke2fs") || !runCommand({"mke2fs", "-q", "-F", device->path()}).succeeded() ||
        ::mount(device->path().c_str(), mounted.c_str(), "ext4", 0, nullptr) != 0) {
        GTEST_SKIP() << "no volume can be mounted here";
    }
    CommandResult const result = fsparser({"copy", "--to-device", path, device->path()});
    ::umount2(mounted.c_str(), MNT_DETACH);
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_EQ(result.error, "fsparser: " + device->path() + ": is mounted or in use; it is left alone\n");
}

} // namespace
