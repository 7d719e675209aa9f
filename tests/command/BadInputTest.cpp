// Volumes that are none: one line that names the path and the reason, the right exit code, no data, nothing written.
#include "command/Fsparser.h"
#include "support/Sanitized.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace tests;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;

/// The most resident memory that a bad volume may cost.
constexpr std::uint64_t kMostMemory = std::uint64_t{200} << 20;

/// Every verb, with what makes it print.
std::vector<std::vector<std::string>> everyVerb(TempDirectory const& directory, std::string const& path) {
    return {{"detect", path},
            {"detect", "--json", path},
            {"info", path},
            {"info", "--json", path},
            {"map", path},
            {"map", "--json", path},
            {"ranges", path},
            {"bitmap", path},
            {"bitmap", "-o", directory.file("out"), path}};
}

/// The verbs that read the map.
std::vector<std::vector<std::string>> everyMapVerb(TempDirectory const& directory, std::string const& path) {
    auto verbs = everyVerb(directory, path);
    std::erase_if(verbs, [](auto const& arguments) { return arguments[0] == "detect"; });
    return verbs;
}

/// Runs the verbs, each of which must refuse the path with this sentence and leave nothing behind.
void expectRefusal(TempDirectory const& directory, std::vector<std::vector<std::string>> const& verbs, int exitCode,
                   testing::Matcher<std::string const&> const& sentence) {
    auto const names = namesIn(directory);
    for (auto const& arguments : verbs) {
        CommandResult const result = fsparser(arguments);
        std::string const name = testing::PrintToString(arguments);
        EXPECT_EQ(result.exitCode, exitCode) << name << ": " << result;
        EXPECT_EQ(result.output, "") << name;
        EXPECT_EQ(std::count(result.error.begin(), result.error.end(), '\n'), 1) << name << ": " << result;
        EXPECT_THAT(result.error, AllOf(EndsWith("\n"), sentence)) << name;
        EXPECT_EQ(namesIn(directory), names) << name;
        if (!kIsSanitized) {
            EXPECT_LT(result.peakBytes, kMostMemory) << name;
        }
    }
}

/// The whole line that begins with the path.
testing::Matcher<std::string const&> line(std::string const& path, std::string const& reason) {
    return testing::Eq("fsparser: " + path + ": " + reason + "\n");
}

TEST(CommandOnBadInput, AMissingPathIsNotFound) {
    TempDirectory const directory;
    std::string const path = directory.file("missing");
    expectRefusal(directory, everyVerb(directory, path), 3, line(path, "cannot be opened: No such file or directory"));
}

TEST(CommandOnBadInput, ADirectoryIsNoVolume) {
    TempDirectory const directory;
    std::string const path = directory.file("folder");
    std::filesystem::create_directory(path);
    expectRefusal(directory, everyVerb(directory, path), 3,
                  line(path, "is a directory, not an image file or a block device"));
}

TEST(CommandOnBadInput, ACharacterDeviceIsNoVolume) {
    TempDirectory const directory;
    for (std::string const path : {"/dev/null", "/dev/zero"}) {
        expectRefusal(directory, everyVerb(directory, path), 3,
                      line(path, "is neither an image file nor a block device"));
    }
}

TEST(CommandOnBadInput, AFifoIsNoVolumeAndNobodyWaitsForIt) {
    TempDirectory const directory;
    std::string const path = directory.file("fifo");
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    expectRefusal(directory, everyVerb(directory, path), 3, line(path, "is neither an image file nor a block device"));
}

TEST(CommandOnBadInput, AFileThatMayNotBeReadSaysSo) {
    TempDirectory const directory;
    std::filesystem::permissions(directory.path(), std::filesystem::perms{0755});
    std::string const path = writeExtVolume(directory.file("volume"), makeThousandBlocks());
    std::filesystem::permissions(path, std::filesystem::perms::none);
    std::vector<std::string> command{FSPARSER_COMMAND, "detect", path};
    if (::geteuid() == 0) {
        if (!findProgram("setpriv")) {
            GTEST_SKIP() << "the superuser reads everything, and there is no setpriv to be somebody else";
        }
        command.insert(command.begin(), {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
        std::vector<std::string> probe = command;
        probe.back() = "/dev/null";
        if (runCommand(probe).exitCode != 3) {
            GTEST_SKIP() << "somebody else may not run the command where it was built";
        }
    }
    CommandResult const result = runCommand(command);
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.error, "fsparser: " + path + ": cannot be opened: Permission denied\n");
}

TEST(CommandOnBadInput, AFileWithoutAFirstSectorIsNoVolume) {
    TempDirectory const directory;
    for (std::size_t const size : {0U, 1U, 100U, 511U}) {
        std::string const path = writeFile(directory.file("volume"), std::vector<std::uint8_t>(size, 0x55));
        expectRefusal(
            directory, everyVerb(directory, path), 3,
            line(path, "ends at byte " + std::to_string(size) + ", before the end of a first sector (512 bytes)"));
    }
}

constexpr char const* kUnrecognized = "holds no file system that is understood: neither the first sector (byte 0) nor "
                                      "the header at byte 1024 is recognised";

/// What is not understood counts as used, in units of its own, with a note that says so.
void expectAllUsed(std::string const& path, std::uint64_t unitSize, std::string const& note) {
    std::uint64_t const size = std::filesystem::file_size(path);
    std::uint64_t const units = size / unitSize;
    CommandResult const ranges = fsparser({"ranges", path});
    EXPECT_EQ(ranges.exitCode, 0) << ranges;
    EXPECT_EQ(ranges.output, "0 " + std::to_string(units) + "\n");
    EXPECT_EQ(ranges.error, "fsparser: note: " + path + ": " + note + "; every unit counts as used\n");
    CommandResult const info = fsparser({"info", "--json", path});
    EXPECT_EQ(info.exitCode, 0) << info;
    Json const document = Json::parse(info.output);
    EXPECT_EQ(document["file_system"], "unrecognized");
    EXPECT_EQ(document["unit_size"], unitSize);
    EXPECT_EQ(document["used"], units);
    EXPECT_EQ(document["free"], 0);
    EXPECT_EQ(document["past_last_unit"], size - units * unitSize);
    CommandResult const bitmap = fsparser({"bitmap", "-q", path});
    EXPECT_EQ(bitmap.exitCode, 0) << bitmap;
    EXPECT_EQ(bitmap.error, "");
    EXPECT_EQ(bitmap.output.size(), (units + 7) / 8);
    EXPECT_EQ(fsparser({"map", path}).exitCode, 0);
    CommandResult const detect = fsparser({"detect", path});
    EXPECT_EQ(detect.exitCode, 3) << detect;
    EXPECT_EQ(detect.error, "fsparser: " + path + ": " + note + "\n");
}

TEST(CommandOnBadInput, AVolumeThatEndsInsideTheExtHeaderIsNotUnderstood) {
    TempDirectory const directory;
    ExtBuilder builder = makeThousandBlocks();
    std::string const path = writeFile(directory.file("volume"), builder.resize(1500).bytes);
    expectAllUsed(path, 512, kUnrecognized);
    writeFile(path, makeThousandBlocks().resize(1536).bytes);
    expectRefusal(directory, everyMapVerb(directory, path), 3,
                  line(path, "ends at byte 1536, inside the ext superblock (bytes 1024 to 2047)"));
}

TEST(CommandOnBadInput, RandomBytesCountAsUsed) {
    TempDirectory const directory;
    std::mt19937 generator(20);
    std::vector<std::uint8_t> bytes(1 << 20);
    std::generate(bytes.begin(), bytes.end(), [&generator] { return static_cast<std::uint8_t>(generator()); });
    std::string const path = writeFile(directory.file("volume"), bytes);
    expectAllUsed(path, 4096, kUnrecognized);
}

TEST(CommandOnBadInput, TheUnitOfWhatIsNotUnderstoodCanBeChosen) {
    TempDirectory const directory;
    std::string const path = writeFile(directory.file("volume"), std::vector<std::uint8_t>(10000));
    EXPECT_EQ(fsparser({"ranges", path}).output, "0 2\n");
    EXPECT_EQ(fsparser({"ranges", "--unit", "512", path}).output, "0 19\n");
    EXPECT_EQ(fsparser({"ranges", "--unit", "1536", path}).output, "0 6\n");
    expectRefusal(directory, {{"ranges", "--unit", "16384", path}}, 3,
                  line(path, "has 10000 bytes, less than one unit of 16384"));
    for (char const* const unit : {"0", "511", "-512", "1073742336", "x"}) {
        CommandResult const result = fsparser({"ranges", "--unit", unit, path});
        EXPECT_EQ(result.exitCode, 2) << unit << ": " << result;
        EXPECT_EQ(result.output, "") << unit;
    }
}

/// A thousand blocks with one thing changed, in a file of their size.
std::string writeChanged(TempDirectory const& directory, std::function<void(ExtBuilder&)> const& change) {
    ExtBuilder builder = makeThousandBlocks();
    change(builder);
    EXPECT_NE(builder.bytes, makeThousandBlocks().bytes) << "the change changes something";
    return writeExtVolume(directory.file("volume"), builder);
}

TEST(CommandOnBadInput, ASuperblockThatDescribesNoVolumeIsNotUnderstood) {
    TempDirectory const directory;
    std::string const where = "the ext superblock at byte 1024 describes no volume: ";
    std::string path = writeChanged(directory, [](ExtBuilder& b) { b.setSuper32(ext_super::kLogBlockSize, 7); });
    expectRefusal(directory, everyMapVerb(directory, path), 3,
                  line(path, where + "s_log_block_size is 7, and blocks go up to 6 (64 KiB)"));
    path = writeChanged(directory, [](ExtBuilder& b) { b.setSuper32(ext_super::kBlocksCountLow, 0); });
    expectRefusal(directory, everyMapVerb(directory, path), 3, line(path, where + "s_blocks_count is 0"));
}

TEST(CommandOnBadInput, GroupsOfNoBlocksAreAnErrorWithTheParsersReason) {
    TempDirectory const directory;
    std::string const path = writeChanged(directory, [](ExtBuilder& b) { setGroupSize(b, 0); });
    expectRefusal(directory, everyMapVerb(directory, path), 1,
                  line(path, "the map cannot be read from unit 0 on: Can't read bgd table; A logical error occurred "
                             "while attempting to parse the EXT bitmap, err: -1"));
}

TEST(CommandOnBadInput, ABitmapBehindTheEndIsAnErrorWithItsOffset) {
    TempDirectory const directory;
    std::string const path = writeBrokenVolume(directory.file("volume"));
    expectRefusal(directory, everyMapVerb(directory, path), 1, testing::Eq(brokenVolumeSentence(path)));
}

TEST(CommandOnBadInput, ABitmapInTheRestOfTheLastAlignedUnitIsNeverReadAsFree) {
    // 20001 blocks of 1 KiB end 1 KiB into a unit of 4 KiB; the bitmap is said to stand in the missing part of it.
    TempDirectory const directory;
    ExtGeometry geometry;
    geometry.blocksCount = 20001;
    ExtBuilder builder = makeSoundExtVolume(geometry);
    builder.setUsedFrom(1, 20000).setBitmapLocation(2, 20001);
    std::string const path = writeExtVolume(directory.file("volume"), builder);
    for (char const* const alignment : {"512", "1024", "4096", "65536"}) {
        CommandResult const result = fsparser({"ranges", "--align", alignment, path});
        EXPECT_EQ(result.exitCode, 4) << "alignment " << alignment << ": " << result;
        EXPECT_EQ(result.output, "0 20001\n");
        EXPECT_THAT(result.error, HasSubstr("the descriptor of group 2 puts its block bitmap at block 20001, where "
                                            "none can be"));
    }
}

TEST(CommandOnBadInput, AGeometryThatAsksForGigabytesIsRefusedInLittleMemory) {
    TempDirectory const directory;
    for (std::uint32_t const blocksPerGroup : {1U, 33U, 40U}) { // descriptor tables of 4, 3.9 and 3.2 GiB
        std::string const path = writeChanged(directory, [=](ExtBuilder& b) {
            setGroupSize(b.setSuper32(ext_super::kBlocksCountLow, 0xFFFFFFFF), blocksPerGroup);
            for (std::uint64_t at = 4096; at < b.bytes.size(); at += 32) {
                b.bytes[at] = 9; // bitmaps where they may be, as far as the volume goes
            }
        });
        // The first descriptor past the volume's own is zeros, or what is missing at its end.
        for (char const* const verb : {"info", "ranges"}) {
            CommandResult const result = fsparser({verb, path});
            EXPECT_THAT(result.exitCode, testing::AnyOf(1, 4)) << verb << ": " << result;
            EXPECT_THAT(result.error, HasSubstr(path + ": "));
            if (!kIsSanitized) {
                EXPECT_LT(result.peakBytes, kMostMemory) << verb;
            }
        }
    }
}

TEST(CommandOnBadInput, ATableOfGigabytesThatIsThereIsReadInLittleMemory) {
    // 4 TiB of hole with groups of 33 blocks: the table has 3.9 GiB and stands in the file, as zeros.
    TempDirectory const directory;
    std::string const path = writeChanged(
        directory, [](ExtBuilder& b) { setGroupSize(b.setSuper32(ext_super::kBlocksCountLow, 0x3FFFFFFF), 33); });
    std::filesystem::resize_file(path, std::uint64_t{0x3FFFFFFF} * 4096);
    CommandResult const result = fsparser({"info", path});
    EXPECT_EQ(result.exitCode, 4) << result;
    EXPECT_THAT(result.error, HasSubstr("puts its block bitmap at block 2, where none can be"));
    if (!kIsSanitized) {
        EXPECT_LT(result.peakBytes, kMostMemory);
    }
}

TEST(CommandOnBadInput, AMapThatCannotBeReadPrintsNoPartOfADocument) {
    TempDirectory const directory;
    std::string const path = writeBrokenVolume(directory.file("volume"));
    expectRefusal(directory, {{"ranges", "--json", path}}, 1, testing::Eq(brokenVolumeSentence(path)));
}

TEST(CommandOnBadInput, AReadThatTheSystemRefusesIsAnErrorWithItsReason) {
    // Direct I/O in units of a byte is refused by every disk that has direct I/O.
    TempDirectory const directory;
    std::string const path = writeExtVolume(directory.file("volume"), makeThousandBlocks());
    CommandResult const result = fsparser({"info", "--align", "1", path});
    if (result.exitCode == 0) {
        GTEST_SKIP() << "the file system of the temporary directory reads any byte directly";
    }
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_THAT(result.error, testing::StartsWith("fsparser: " + path + ": "));
    EXPECT_THAT(result.error, HasSubstr("Failed to read length")) << "what the volume's reader said";
}

/// Puts a name into the first sector that makes it look like NTFS, but for its fields.
void putNtfsName(ExtBuilder& builder) {
    constexpr std::string_view kName = "NTFS    ";
    std::copy(kName.begin(), kName.end(), builder.bytes.begin() + 3);
}

TEST(CommandOnBadInput, AReasonIsNotMixedWithWhatDetectionSaid) {
    TempDirectory const directory;
    std::string const path = writeChanged(directory, [](ExtBuilder& b) {
        putNtfsName(b);
        b.setBitmapLocation(0, 999);
    });
    std::filesystem::resize_file(path, std::uint64_t{999} * 4096);
    CommandResult const result = fsparser({"info", path});
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_EQ(result.error, brokenVolumeSentence(path));
}

TEST(CommandOnBadInput, WhatIsWrongWithAVolumeThatIsNearlyRecognisedIsSaid) {
    TempDirectory const directory;
    ExtBuilder builder = makeThousandBlocks();
    putNtfsName(builder);
    builder.setSuper16(ext_super::kMagic, 0);
    std::string const path = writeExtVolume(directory.file("volume"), builder);
    expectAllUsed(path, 4096, std::string(kUnrecognized) + " (Unexpected bytes per sector: 0x0)");
}

} // namespace
