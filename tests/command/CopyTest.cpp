// The verb `copy`: what arrives at files and streams, and which destinations are refused.
#include "command/Fsparser.h"
#include "support/VolumeFiles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace tests;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

constexpr std::uint64_t kExtState = 0x3A;
constexpr std::uint64_t kBlock = 4096;

/// 1000 blocks of 4 KiB of noise, of which 0 to 99, 500 to 599 and 650 are used.
struct NoisyBlocks {
    NoisyBlocks() {
        ExtBuilder builder = makeThousandBlocks();
        bytes = builder.setSuper16(kExtState, 1).bytes;
        bytes.resize(1000 * kBlock);
        for (std::uint64_t i = 3 * kBlock; i < bytes.size(); ++i) {
            bytes[i] = patternByte(static_cast<long>(i));
        }
        writeFile(path, bytes);
    }

    /// The volume with zeros in its free space.
    std::vector<std::uint8_t> expected() const {
        std::vector<std::uint8_t> result = bytes;
        std::vector<bool> const map = makeThousandBlocks().map();
        for (std::uint64_t i = 0; i < result.size(); ++i) {
            result[i] = map[i / kBlock] ? result[i] : std::uint8_t{0};
        }
        return result;
    }

    std::string file(std::string const& name) const { return directory.file(name); }

    TempDirectory directory;
    std::string path = directory.file("volume");
    std::vector<std::uint8_t> bytes;
};

TEST(CommandCopy, AFileHoldsTheUsedUnitsAndHolesInFreeSpace) {
    NoisyBlocks const volume;
    CommandResult const result = fsparser({"copy", volume.path, volume.file("copy")});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.error, "");
    EXPECT_TRUE(readFile(volume.file("copy")) == volume.expected());
    struct stat facts {};
    ASSERT_EQ(::stat(volume.file("copy").c_str(), &facts), 0);
    EXPECT_LE(facts.st_blocks * 512, 300 * static_cast<long>(kBlock)) << "free space takes room";
    EXPECT_THAT(namesIn(volume.directory), ElementsAre("copy", "volume"));
    EXPECT_EQ(result.output, "volume          4096000 bytes (3.91 MiB)\n"
                             "used            823296 bytes (804 KiB)\n"
                             "kept beyond it  0 bytes (0 bytes)\n"
                             "left out        3272704 bytes (3.12 MiB)\n"
                             "copied          823296 bytes (804 KiB)\n"
                             "zero            0 bytes (0 bytes)\n");
    EXPECT_TRUE(readFile(volume.path) == volume.bytes) << "the volume was changed";
}

TEST(CommandCopy, AStreamIsTheImageWithZerosInFreeSpace) {
    NoisyBlocks const volume;
    CommandResult const result = fsparser({"copy", volume.path, "-"});
    EXPECT_EQ(result.exitCode, 0) << result.error;
    std::vector<std::uint8_t> const expected = volume.expected();
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), result.output.begin(), result.output.end(),
                           [](std::uint8_t a, char b) { return a == static_cast<std::uint8_t>(b); }));
    EXPECT_THAT(result.error, HasSubstr("copied          823296 bytes"));
    EXPECT_EQ(fsparser({"copy", "-q", volume.path, "-"}).error, "");
}

TEST(CommandCopy, AStreamThroughAPipeIsTheSame) {
    NoisyBlocks const volume;
    CommandResult const result = runCommand({"bash", "-c", "\"$1\" copy -q \"$2\" - | cat > \"$3\"", "bash",
                                             FSPARSER_COMMAND, volume.path, volume.file("copy")});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_TRUE(readFile(volume.file("copy")) == volume.expected());
}

TEST(CommandCopy, AStreamThatNobodyCanTakeIsAnError) {
    NoisyBlocks const volume;
    CommandOptions options = plainOptions();
    options.outputPath = "/dev/full";
    CommandResult const result = fsparser({"copy", volume.path, "-"}, options);
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_EQ(result.error, "fsparser: standard output: cannot be written: No space left on device\n");
}

TEST(CommandCopy, JsonTellsTheSums) {
    NoisyBlocks const volume;
    ASSERT_EQ(::truncate(volume.path.c_str(), 1000 * 4096 + 777), 0);
    CommandResult const result = fsparser({"copy", "--json", volume.path, volume.file("copy")});
    EXPECT_EQ(result.exitCode, 0) << result;
    Json const document = Json::parse(result.output);
    EXPECT_THAT(keysOf(document), ElementsAre("schema", "file_system", "unit_size", "units", "size",
                                              "first_unit_offset", "destination", "used_bytes", "kept_bytes",
                                              "left_out_bytes", "copied_bytes", "zero_bytes", "unreadable_bytes"));
    EXPECT_EQ(document["schema"], "fsparser.copy/1");
    EXPECT_EQ(document["destination"], volume.file("copy"));
    EXPECT_EQ(document["used_bytes"], 201 * 4096);
    EXPECT_EQ(document["kept_bytes"], 777);
    EXPECT_EQ(document["left_out_bytes"], 799 * 4096);
    EXPECT_EQ(document["unreadable_bytes"], 0);
    auto const number = [&](char const* key) { return document[key].get<std::uint64_t>(); };
    EXPECT_EQ(number("used_bytes") + number("kept_bytes") + number("left_out_bytes"), number("size"));
    EXPECT_EQ(number("copied_bytes") + number("zero_bytes"), number("used_bytes") + number("kept_bytes"));
}

/// A copy that must fail with one sentence, and leave everything as it was.
void expectRefusal(NoisyBlocks const& volume, std::vector<std::string> arguments, std::string const& sentence) {
    auto const names = namesIn(volume.directory);
    arguments.insert(arguments.begin(), "copy");
    CommandResult const result = fsparser(arguments);
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.error, "fsparser: " + sentence + "\n");
    EXPECT_EQ(namesIn(volume.directory), names);
    EXPECT_TRUE(readFile(volume.path) == volume.bytes);
}

TEST(CommandCopy, AnExistingFileIsOnlyReplacedWhenAskedTo) {
    NoisyBlocks const volume;
    std::string const copy = writeFile(volume.file("copy"), {1, 2, 3});
    expectRefusal(volume, {volume.path, copy}, copy + ": exists, and is left alone without --force");
    EXPECT_EQ(readFile(copy), (std::vector<std::uint8_t>{1, 2, 3}));
    EXPECT_EQ(fsparser({"copy", "--force", volume.path, copy}).exitCode, 0);
    EXPECT_TRUE(readFile(copy) == volume.expected());
}

TEST(CommandCopy, AnExistingFileStaysWhenTheCopyFails) {
    TempDirectory const directory;
    std::string const path = writeBrokenVolume(directory.file("volume"));
    std::string const copy = writeFile(directory.file("copy"), {1, 2, 3});
    CommandResult const result = fsparser({"copy", "--force", path, copy});
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_EQ(readFile(copy), (std::vector<std::uint8_t>{1, 2, 3}));
    EXPECT_THAT(namesIn(directory), ElementsAre("copy", "volume"));
}

TEST(CommandCopy, TheVolumeItselfIsNeverADestination) {
    NoisyBlocks const volume;
    std::filesystem::create_symlink(volume.path, volume.file("symbolic"));
    std::filesystem::create_hard_link(volume.path, volume.file("hard"));
    for (std::string const& output : {volume.path, volume.file("symbolic"), volume.file("hard")}) {
        expectRefusal(volume, {volume.path, output}, output + ": is the volume itself; it is left alone");
        expectRefusal(volume, {"--force", volume.path, output}, output + ": is the volume itself; it is left alone");
    }
}

TEST(CommandCopy, ADestinationThatIsNoFileIsLeftAlone) {
    NoisyBlocks const volume;
    std::string const directory = volume.directory.path().string();
    for (std::vector<std::string> const& force : std::vector<std::vector<std::string>>{{}, {"--force"}}) {
        std::vector<std::string> arguments = force;
        arguments.insert(arguments.end(), {volume.path, directory});
        expectRefusal(volume, arguments, directory + ": exists and is not a regular file; it is left alone");
    }
    std::string const missing = volume.file("missing/copy");
    expectRefusal(volume, {volume.path, missing}, missing + ": cannot be created: No such file or directory");
}

TEST(CommandCopy, OnlyABlockDeviceIsADevice) {
    NoisyBlocks const volume;
    std::string const copy = writeFile(volume.file("copy"), {1, 2, 3});
    expectRefusal(volume, {"--to-device", volume.path, copy}, copy + ": is no block device");
    expectRefusal(volume, {"--to-device", "--force", volume.path, "/dev/null"}, "/dev/null: is no block device");
    std::string const missing = volume.file("missing");
    expectRefusal(volume, {"--to-device", volume.path, missing},
                  missing + ": cannot be opened: No such file or directory");
    EXPECT_EQ(readFile(copy), (std::vector<std::uint8_t>{1, 2, 3}));
}

TEST(CommandCopy, ContradictionsAreUsageErrors) {
    NoisyBlocks const volume;
    std::vector<std::pair<std::vector<std::string>, std::string>> const cases{
        {{"--json", volume.path, "-"}, "needs a DEST other than -"},
        {{"--to-device", volume.path, "-"}, "- is standard output and no device"},
        {{"--skip-unreadable", volume.path, "-"}, "needs --rescue-map FILE when DEST is -"},
        {{"--rescue-map", "map", volume.path, "copy"}, "--rescue-map requires --skip-unreadable"},
        {{"--progress", "sometimes", volume.path, "copy"}, "it is auto, never or json, not sometimes"},
        {{"--unit", "100", volume.path, "copy"}, "a multiple of 512"},
        {{volume.path}, "DEST is required"},
        {{}, "VOLUME is required"},
        {{volume.path, "copy", "more"}, "more"},
    };
    for (auto const& [arguments, sentence] : cases) {
        std::vector<std::string> words{"copy"};
        words.insert(words.end(), arguments.begin(), arguments.end());
        CommandOptions options = plainOptions();
        options.workingDirectory = volume.directory.path().string();
        CommandResult const result = fsparser(words, options);
        EXPECT_EQ(result.exitCode, 2) << result;
        EXPECT_EQ(result.output, "");
        EXPECT_THAT(result.error, HasSubstr(sentence));
        EXPECT_THAT(namesIn(volume.directory), ElementsAre("volume"));
    }
}

TEST(CommandCopy, ATruncatedVolumeIsCopiedAsFarAsItGoesAndTold) {
    NoisyBlocks const volume;
    ASSERT_EQ(::truncate(volume.path.c_str(), 560 * 4096 + 100), 0);
    CommandResult const result = fsparser({"copy", volume.path, volume.file("copy")});
    EXPECT_EQ(result.exitCode, 4) << result;
    EXPECT_THAT(result.error, HasSubstr("ends at byte 2293860, 1802140 bytes before the end of its"));
    std::vector<std::uint8_t> expected = volume.expected();
    expected.resize(560 * 4096 + 100);
    EXPECT_TRUE(readFile(volume.file("copy")) == expected);
}

TEST(CommandCopy, AnUnrecognisedVolumeIsCopiedWhole) {
    TempDirectory const directory;
    std::string const path = directory.file("volume");
    writePatternFile(path, 1'000'003);
    CommandResult const result = fsparser({"copy", path, directory.file("copy")});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_THAT(result.error, StartsWith("fsparser: note: " + path + ": "));
    EXPECT_THAT(result.output, HasSubstr("left out        0 bytes (0 bytes)\n"));
    EXPECT_TRUE(readFile(directory.file("copy")) == readFile(path));
}

TEST(CommandCopy, AVolumeWhoseMapIsNotBelievedIsCopiedWholeAndTold) {
    NoisyBlocks volume;
    volume.bytes[1024 + 0x60] = 0x10; // meta_bg
    writeFile(volume.path, volume.bytes);
    CommandResult const result = fsparser({"copy", "--json", volume.path, volume.file("copy")});
    EXPECT_EQ(result.exitCode, 4) << result;
    EXPECT_TRUE(readFile(volume.file("copy")) == volume.bytes);
    Json const document = Json::parse(result.output);
    ASSERT_EQ(document["warnings"].size(), 1U);
    EXPECT_THAT(document["warnings"][0].get<std::string>(), HasSubstr("every unit counts as used"));
    EXPECT_THAT(result.error, StartsWith("fsparser: warning: "));
    EXPECT_EQ(document["left_out_bytes"], 0);
}

TEST(CommandCopy, AVolumeWhoseMapCannotBeReadGivesNoCopy) {
    TempDirectory const directory;
    std::string const path = writeBrokenVolume(directory.file("volume"));
    for (std::string const flag : {"--force", "--skip-unreadable", "--all-used-if-refused"}) {
        CommandResult const result = fsparser({"copy", flag, path, directory.file("copy")});
        EXPECT_EQ(result.exitCode, 1) << flag << result;
        EXPECT_EQ(result.error, brokenVolumeSentence(path)) << flag;
        EXPECT_EQ(result.output, "");
        EXPECT_THAT(namesIn(directory), ElementsAre("volume"));
    }
}

TEST(CommandCopy, HolesOfTheVolumeAreCountedAsZeroAndNotRead) {
    TempDirectory const directory;
    std::string const path = directory.file("volume");
    writePatternFile(path, 8192);
    std::filesystem::resize_file(path, std::uint64_t{1} << 40); // a TiB would take minutes to read
    CommandOptions options = plainOptions();
    options.timeout = std::chrono::milliseconds(20'000);
    CommandResult const result = fsparser({"copy", "--json", path, directory.file("copy")}, options);
    ASSERT_EQ(result.exitCode, 0) << result;
    Json const document = Json::parse(result.output);
    EXPECT_EQ(document["used_bytes"], std::uint64_t{1} << 40);
    EXPECT_LE(document["copied_bytes"].get<std::uint64_t>(), 65536U);
    EXPECT_EQ(document["copied_bytes"].get<std::uint64_t>() + document["zero_bytes"].get<std::uint64_t>(),
              std::uint64_t{1} << 40);
}

} // namespace
