// Ext volumes on block devices and on file systems without direct I/O. Needs root, and leaves no device or mount
// behind.
#include "support/TempDirectory.h"
#include "volumes/ExtRecipe.h"
#include "volumes/VolumeAnswers.h"

#include "agent/core/backup/VolumeReader.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <unistd.h>

namespace tests {

namespace {

/// Why devices cannot be made here.
std::optional<std::string> missingRight() {
    if (::geteuid() != 0) {
        return "making loop devices and mounts needs root";
    }
    return missingProgram({"mke2fs", "debugfs", "dumpe2fs", "losetup"});
}

/// Whether the reader of a path got direct I/O.
bool hasDirectIo(std::string const& path) {
    RecordingLogger logger;
    agent::core::backup::VolumeReader reader(logger, path);
    if (!reader.open()) {
        throw std::runtime_error("cannot open " + path);
    }
    int const flags = ::fcntl(reader.getHandle(), F_GETFL);
    if (flags == -1) {
        throw std::runtime_error("no flags of " + path);
    }
    return (flags & O_DIRECT) != 0;
}

/// A file as a block device, for as long as this lives.
class LoopDevice {
public:
    LoopDevice(std::string const& file, unsigned sectorBytes) {
        CommandResult const result =
            runTool({"losetup", "--sector-size", std::to_string(sectorBytes), "--read-only", "-f", "--show", file});
        problem_ = result.succeeded() ? "" : "losetup: " + result.error;
        path_ = result.output.substr(0, result.output.find('\n'));
    }
    LoopDevice(LoopDevice const&) = delete;
    LoopDevice& operator=(LoopDevice const&) = delete;
    ~LoopDevice() {
        if (problem_.empty()) {
            runTool({"losetup", "-d", path_});
        }
    }

    std::string const& path() const { return path_; }

    /// Why there is none, or empty.
    std::string const& problem() const { return problem_; }

private:
    std::string path_;
    std::string problem_;
};

/// A file system in memory that refuses direct I/O, mounted for as long as this lives.
class RamMount {
public:
    explicit RamMount(std::string directory)
        : directory_(std::move(directory)), mounted_(::mount("ramfs", directory_.c_str(), "ramfs", 0, nullptr) == 0) {}
    RamMount(RamMount const&) = delete;
    RamMount& operator=(RamMount const&) = delete;
    ~RamMount() {
        if (mounted_) {
            ::umount2(directory_.c_str(), MNT_DETACH);
        }
    }

    bool mounted() const { return mounted_; }

private:
    std::string directory_;
    bool mounted_;
};

struct DeviceCase {
    char const* name;
    unsigned sectorBytes;
    std::vector<std::string> options;
};

void PrintTo(DeviceCase const& device, std::ostream* out) {
    *out << device.name;
}

class ExtOnLoopDevice : public testing::TestWithParam<DeviceCase> {
protected:
    void SetUp() override {
        if (auto const reason = missingRight()) {
            GTEST_SKIP() << *reason;
        }
        std::string const image = makeExtVolume({"", GetParam().options, kKibibytes, Fill::Holes}, directory.path());
        expected = withKeptDifferences(dumpVolume(image));
        device.emplace(image, GetParam().sectorBytes);
        if (!device->problem().empty()) {
            GTEST_SKIP() << device->problem();
        }
    }

    static constexpr std::uint64_t kKibibytes = 24576;

    TempDirectory directory;
    std::optional<LoopDevice> device; ///< after the directory, so that it is detached before its file goes
    BlockMap expected;
};

TEST_P(ExtOnLoopDevice, IsReadWithDirectIo) {
    EXPECT_TRUE(hasDirectIo(device->path()));
}

TEST_P(ExtOnLoopDevice, IsMappedAsDumpe2fsSays) {
    LibraryMap const map = readMap(device->path());
    EXPECT_EQ(differences(map.used, expected), "");
    EXPECT_THAT(map.totals.warnings, testing::IsEmpty());
    EXPECT_EQ(map.bytesPastLastUnit, 0U);
}

TEST_P(ExtOnLoopDevice, IsListedByTheCommandAsDumpe2fsSays) {
    CommandResult const result = runFsparser({"ranges", "--json", device->path()});
    ASSERT_EQ(result.exitCode, 0) << result;
    auto const document = nlohmann::json::parse(result.output);
    EXPECT_EQ(document.at("size"), kKibibytes * 1024);
    EXPECT_EQ(differences(mapFromRanges(document), expected), "");
}

TEST_P(ExtOnLoopDevice, TakesALargerAlignment) {
    EXPECT_EQ(differences(readMap(device->path(), 65536).used, expected), "");
}

// Whether the kernel accepts it is its business; an answer that is given must be right, a failure must have its reason.
TEST_P(ExtOnLoopDevice, FailsClearlyOrAnswersRightWithATooSmallAlignment) {
    for (unsigned alignment = GetParam().sectorBytes / 2; alignment != 0; alignment /= 8) {
        CommandResult const result =
            runFsparser({"ranges", "--json", "--align", std::to_string(alignment), device->path()});
        if (result.exitCode == 0) {
            EXPECT_EQ(differences(mapFromRanges(nlohmann::json::parse(result.output)), expected), "");
            continue;
        }
        EXPECT_EQ(result.exitCode, 1) << result;
        EXPECT_TRUE(nlohmann::json::parse(result.output, nullptr, false).is_discarded());
        EXPECT_THAT(result.error, testing::StartsWith("fsparser: " + device->path() + ": "));
        EXPECT_THAT(result.error,
                    testing::AnyOf(testing::HasSubstr("err: 22"), testing::HasSubstr("Invalid argument")));
        EXPECT_EQ(std::count(result.error.begin(), result.error.end(), '\n'), 1) << result.error;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Made, ExtOnLoopDevice,
    testing::Values(DeviceCase{"Sectors512Blocks1024", 512, {"-t", "ext4", "-b", "1024"}},
                    DeviceCase{"Sectors512Blocks4096", 512, {"-t", "ext2", "-b", "4096"}},
                    DeviceCase{"Sectors4096Blocks1024", 4096, {"-t", "ext3", "-b", "1024"}},
                    DeviceCase{"Sectors4096Blocks4096", 4096, {"-t", "ext4", "-b", "4096", "-g", "1024"}}),
    [](testing::TestParamInfo<DeviceCase> const& parameter) { return parameter.param.name; });

TEST(ExtWithoutDirectIo, IsMappedAsDumpe2fsSays) {
    if (auto const reason = missingRight()) {
        GTEST_SKIP() << *reason;
    }
    TempDirectory const directory;
    RamMount const mount(directory.path().string());
    if (!mount.mounted()) {
        GTEST_SKIP() << "ramfs cannot be mounted here";
    }
    std::string const volume = makeExtVolume({"", {"-t", "ext4", "-b", "1024"}, 24576, Fill::Holes}, directory.path());
    ASSERT_FALSE(hasDirectIo(volume));
    BlockMap const expected = withKeptDifferences(dumpVolume(volume));
    EXPECT_EQ(differences(readMap(volume).used, expected), "");
    EXPECT_EQ(differences(readMap(volume, 1).used, expected), ""); // no alignment at all is asked for here
    CommandResult const result = runFsparser({"ranges", "--json", volume});
    ASSERT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(differences(mapFromRanges(nlohmann::json::parse(result.output)), expected), "");
}

} // namespace

} // namespace tests
