// What the verb `copy` leaves behind when it does not end well: full disks, signals, places that cannot be read.
#include "command/Fsparser.h"
#include "support/VolumeFiles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace tests;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::uint64_t kMiB = std::uint64_t{1} << 20;

/// A volume in which nothing is recognised, so that all of it is copied.
std::string writePlainVolume(std::string const& path, std::uint64_t size) {
    std::vector<std::uint8_t> bytes(size);
    for (std::uint64_t i = 0; i < size; ++i) {
        bytes[i] = patternByte(static_cast<long>(i));
    }
    return writeFile(path, bytes);
}

/// A file system in memory of a given size, for as long as this lives.
class SmallMount {
public:
    SmallMount(std::string directory, std::string const& options) : directory_(std::move(directory)) {
        std::filesystem::create_directory(directory_);
        isMounted_ = ::mount("tmpfs", directory_.c_str(), "tmpfs", 0, options.c_str()) == 0;
    }
    SmallMount(SmallMount const&) = delete;
    SmallMount& operator=(SmallMount const&) = delete;
    ~SmallMount() {
        if (isMounted_) {
            ::umount2(directory_.c_str(), MNT_DETACH);
        }
    }

    bool isMounted() const { return isMounted_; }

private:
    std::string directory_;
    bool isMounted_ = false;
};

TEST(CommandCopyTrouble, AFullDiskLeavesNoFile) {
    TempDirectory const directory;
    SmallMount const disk(directory.file("disk"), "size=1m");
    if (!disk.isMounted()) {
        GTEST_SKIP() << "a small file system cannot be mounted here";
    }
    std::string const path = writePlainVolume(directory.file("volume"), 10 * kMiB);
    std::string const copy = directory.file("disk/copy");
    CommandResult const result = fsparser({"copy", "-q", path, copy});
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_EQ(result.error, "fsparser: " + copy + ": cannot be written: No space left on device\n");
    EXPECT_EQ(result.output, "");
    EXPECT_TRUE(std::filesystem::is_empty(directory.file("disk")));
    // An old copy stays.
    writeFile(copy, {1, 2, 3});
    EXPECT_EQ(fsparser({"copy", "--force", path, copy}).exitCode, 1);
    EXPECT_EQ(readFile(copy), (std::vector<std::uint8_t>{1, 2, 3}));
}

TEST(CommandCopyTrouble, ASparseCopyFitsADiskThatIsSmallerThanTheVolume) {
    TempDirectory const directory;
    SmallMount const disk(directory.file("disk"), "size=2m");
    if (!disk.isMounted()) {
        GTEST_SKIP() << "a small file system cannot be mounted here";
    }
    ExtBuilder builder = makeThousandBlocks();
    std::string const path = writeExtVolume(directory.file("volume"), builder.setSuper16(0x3A, 1).resize(1000 * 4096));
    std::filesystem::resize_file(path, 0);
    std::vector<std::uint8_t> bytes = builder.bytes;
    std::fill(bytes.begin() + 4 * 4096, bytes.end(), std::uint8_t{7});
    writeFile(path, bytes); // nearly four MiB, of which less than one is in use
    CommandResult const result = fsparser({"copy", path, directory.file("disk/copy")});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(fsparser({"verify", path, directory.file("disk/copy")}).exitCode, 0);
}

TEST(CommandCopyTrouble, AFileThatMayNotBeAsLongAsTheVolumeIsNotBegun) {
    TempDirectory const directory;
    std::string const path = writePlainVolume(directory.file("volume"), 10 * kMiB);
    std::string const copy = directory.file("copy");
    CommandResult const result = runCommand(
        {"bash", "-c", "trap '' XFSZ; ulimit -f 1024; exec \"$@\"", "bash", FSPARSER_COMMAND, "copy", path, copy},
        plainOptions());
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_THAT(result.error,
                HasSubstr("fsparser: " + copy + ": cannot be made as long as the volume: File too large\n"));
    EXPECT_THAT(namesIn(directory), ElementsAre("volume"));
}

/// Waits until something holds, for half a minute at most.
bool waitUntil(std::function<bool()> const& holds) {
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < deadline) {
        if (holds()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

TEST(CommandCopyTrouble, AnInterruptWhileTheMapIsReadLeavesNothing) {
    for (int const signal : {SIGINT, SIGTERM}) {
        TempDirectory const directory(TempDirectory::Place::Memory);
        std::string const path = writeSlowVolume(directory.file("volume"));
        Process process({FSPARSER_COMMAND, "copy", path, directory.file("copy")});
        ASSERT_TRUE(waitUntil([&] { return namesIn(directory).size() == 2; })) << "the temporary file never appeared";
        process.send(signal);
        CommandResult const result = process.wait();
        EXPECT_EQ(result.exitCode, 130) << result;
        EXPECT_EQ(result.error, "fsparser: interrupted\n");
        EXPECT_THAT(namesIn(directory), ElementsAre("volume"));
    }
}

/// Whether a temporary file holds something already.
bool hasBegun(TempDirectory const& directory) {
    for (std::string const& name : namesIn(directory)) {
        struct stat facts {};
        if (name.starts_with(".fsparser.") && ::stat(directory.file(name).c_str(), &facts) == 0 &&
            facts.st_blocks > 0) {
            return true;
        }
    }
    return false;
}

TEST(CommandCopyTrouble, AnInterruptInTheMiddleOfTheCopyLeavesTheOldFileAndNoOther) {
    TempDirectory const directory(TempDirectory::Place::Memory);
    std::string const path = writePlainVolume(directory.file("volume"), 400 * kMiB);
    std::string const copy = writeFile(directory.file("old"), {1, 2, 3});
    Process process({FSPARSER_COMMAND, "copy", "--force", "-q", path, copy});
    ASSERT_TRUE(waitUntil([&] { return hasBegun(directory); }));
    process.send(SIGSTOP); // so that it cannot come to its end before the interrupt
    ASSERT_EQ(readFile(copy).size(), 3U) << "the copy was too quick";
    process.send(SIGINT);
    process.send(SIGCONT);
    CommandResult const result = process.wait();
    EXPECT_EQ(result.exitCode, 130) << result;
    EXPECT_EQ(result.error, "fsparser: interrupted\n");
    EXPECT_EQ(readFile(copy), (std::vector<std::uint8_t>{1, 2, 3}));
    EXPECT_THAT(namesIn(directory), ElementsAre("old", "volume"));
}

TEST(CommandCopyTrouble, AReaderThatGoesAwayEndsAStream) {
    TempDirectory const directory;
    std::string const path = writePlainVolume(directory.file("volume"), 20 * kMiB);
    CommandResult const result = runCommand({"bash", "-c", "\"$@\" | head -c 5 >&2; exit ${PIPESTATUS[0]}", "bash",
                                             FSPARSER_COMMAND, "copy", "-q", path, "-"},
                                            plainOptions());
    EXPECT_FALSE(result.timedOut);
    EXPECT_NE(result.exitCode, 0) << result;
}

/// A library that makes reads of a file fail where they touch some bytes.
constexpr char kFailingReads[] = R"(
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
ssize_t pread(int descriptor, void* buffer, size_t size, off_t offset) {
    char link[64], name[4096];
    snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
    ssize_t length = readlink(link, name, sizeof name - 1);
    name[length < 0 ? 0 : length] = 0;
    off_t begin = atoll(getenv("BAD_BEGIN")), end = atoll(getenv("BAD_END"));
    if (strcmp(name, getenv("BAD_FILE")) == 0 && offset < end && begin < offset + (off_t)size) {
        errno = EIO;
        return -1;
    }
    return ((ssize_t(*)(int, void*, size_t, off_t))dlsym(RTLD_NEXT, "pread"))(descriptor, buffer, size, offset);
}
)";

/// A plain volume of 10 MiB and a bit in which some bytes cannot be read.
class CommandCopyUnreadable : public testing::Test {
protected:
    void SetUp() override {
        std::string const text = kFailingReads;
        std::string const code = writeFile(directory.file("reads.c"), {text.begin(), text.end()});
        std::string const library = directory.file("reads.so");
        if (!findProgram("cc") || !runCommand({"cc", "-shared", "-fPIC", "-o", library, code}).succeeded()) {
            GTEST_SKIP() << "there is no C compiler here that makes a library";
        }
        options.environment["LD_PRELOAD"] = library;
        options.environment["BAD_FILE"] = std::filesystem::canonical(path).string();
        options.environment["ASAN_OPTIONS"] = "verify_asan_link_order=0";
        setBad(3'000'000, 3'000'001);
    }

    void setBad(std::uint64_t begin, std::uint64_t end) {
        options.environment["BAD_BEGIN"] = std::to_string(begin);
        options.environment["BAD_END"] = std::to_string(end);
    }

    CommandResult copy(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {"copy", "-q"});
        return fsparser(arguments, options);
    }

    /// The lines of a mapfile that are no comments.
    std::vector<std::string> linesOf(std::string const& mapPath) const {
        std::vector<std::uint8_t> const bytes = readFile(mapPath);
        std::istringstream text(std::string(bytes.begin(), bytes.end()));
        std::vector<std::string> lines;
        for (std::string line; std::getline(text, line);) {
            if (!line.starts_with("#")) {
                lines.push_back(line);
            }
        }
        return lines;
    }

    static constexpr std::uint64_t kSize = 10 * kMiB + 1000;

    TempDirectory directory;
    std::string path = writePlainVolume(directory.file("volume"), kSize);
    CommandOptions options = plainOptions();
};

TEST_F(CommandCopyUnreadable, APlaceEndsTheCopyAndLeavesNoFile) {
    CommandResult const result = copy({path, directory.file("copy")});
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_EQ(result.error, "fsparser: " + path + ": cannot be read at byte 2998272: Input/output error\n");
    EXPECT_THAT(namesIn(directory), ElementsAre("reads.c", "reads.so", "volume"));
}

TEST_F(CommandCopyUnreadable, APlaceIsSkippedAndListedWhenAskedTo) {
    CommandResult const result = copy({"--skip-unreadable", "--json", path, directory.file("copy")});
    EXPECT_EQ(result.exitCode, 4) << result;
    std::vector<std::uint8_t> expected = readFile(path);
    std::fill_n(expected.begin() + 2998272, 4096, std::uint8_t{0});
    EXPECT_TRUE(readFile(directory.file("copy")) == expected);
    EXPECT_THAT(linesOf(directory.file("copy.map")),
                ElementsAre("0x00000000     +               1", "0x00000000  0x002DC000  +",
                            "0x002DC000  0x00001000  -",
                            "0x002DD000  0x007233E8  +")); // to byte 10486760, the last
    Json const document = Json::parse(result.output);
    EXPECT_EQ(document["unreadable_bytes"], 4096);
    EXPECT_EQ(document["copied_bytes"], kSize - 4096);
    EXPECT_EQ(document["warnings"][0], path + ": 4096 bytes in 1 places could not be read and are zeros in the copy; " +
                                           directory.file("copy.map") + " lists them");
}

TEST_F(CommandCopyUnreadable, ThePlacesAreListedWhereAskedTo) {
    setBad(kSize - 1, kSize);
    std::string const map = directory.file("places");
    EXPECT_EQ(copy({"--skip-unreadable", "--rescue-map", map, path, directory.file("copy")}).exitCode, 4);
    EXPECT_THAT(linesOf(map), ElementsAre("0x00000000     +               1", "0x00000000  0x00A00000  +",
                                          "0x00A00000  0x000003E8  -"));
    EXPECT_EQ(namesIn(directory), (std::vector<std::string>{"copy", "places", "reads.c", "reads.so", "volume"}));
}

TEST_F(CommandCopyUnreadable, AStreamHasZerosThere) {
    std::string const map = directory.file("places");
    CommandResult const result = copy({"--skip-unreadable", "--rescue-map", map, path, "-"});
    EXPECT_EQ(result.exitCode, 4) << result.error;
    ASSERT_EQ(result.output.size(), kSize);
    EXPECT_EQ(result.output.substr(2998272, 4096), std::string(4096, '\0'));
    EXPECT_EQ(static_cast<std::uint8_t>(result.output[2998272 + 4096]), patternByte(2998272 + 4096));
    EXPECT_EQ(linesOf(map).size(), 4U);
}

TEST_F(CommandCopyUnreadable, TheListNeverReplacesTheCopyOrTheVolume) {
    std::string const output = directory.file("copy");
    for (std::string const& map : {output, path}) {
        CommandResult const result = copy({"--force", "--skip-unreadable", "--rescue-map", map, path, output});
        EXPECT_NE(result.exitCode, 0) << map;
        EXPECT_NE(result.exitCode, 4) << map << " was taken for the list";
        EXPECT_EQ(std::filesystem::file_size(path), kSize);
        EXPECT_TRUE(!std::filesystem::exists(output) || std::filesystem::file_size(output) == kSize)
            << "the copy was replaced by the list";
    }
}

TEST_F(CommandCopyUnreadable, VerifyAndDigestEndWithAnError) {
    std::string const image = directory.file("image");
    std::filesystem::copy_file(path, image);
    for (std::vector<std::string> const& arguments :
         std::vector<std::vector<std::string>>{{"verify", path, image}, {"verify", image, path}, {"digest", path}}) {
        CommandResult const result = fsparser(arguments, options);
        EXPECT_EQ(result.exitCode, 1) << result;
        EXPECT_THAT(result.error, HasSubstr(path + ": cannot be read between byte "));
        EXPECT_EQ(result.output, "");
    }
}

} // namespace
