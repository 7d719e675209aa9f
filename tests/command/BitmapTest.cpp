// The verb `bitmap`: its bytes, where they go, and that nothing is left behind when it does not end well.
#include "command/Fsparser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace tests;
using testing::ElementsAre;

/// The bitmap of a map, one bit at a time.
std::vector<std::uint8_t> bitmapOf(std::vector<bool> const& units) {
    std::vector<std::uint8_t> bytes((units.size() + 7) / 8);
    for (std::size_t unit = 0; unit < units.size(); ++unit) {
        unsigned const bit = units[unit] ? 1U << (unit % 8) : 0U;
        bytes[unit / 8] = static_cast<std::uint8_t>(bytes[unit / 8] | bit);
    }
    return bytes;
}

std::vector<std::uint8_t> bytesOf(std::string const& text) {
    return {text.begin(), text.end()};
}

TEST(CommandBitmap, WritesOneBitAUnitToAFile) {
    ThousandBlocks const volume;
    std::string const output = volume.directory.file("used.bin");
    CommandResult const result = fsparser({"bitmap", "-o", output, volume.path});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(readFile(output), bitmapOf(makeThousandBlocks().map()));
    EXPECT_THAT(namesIn(volume.directory), ElementsAre("used.bin", "volume"));
}

TEST(CommandBitmap, WritesTheSameBytesToStandardOutput) {
    ThousandBlocks const volume;
    std::vector<std::uint8_t> const expected = bitmapOf(makeThousandBlocks().map());
    for (auto const& arguments : std::vector<std::vector<std::string>>{
             {"bitmap", volume.path}, {"bitmap", "-o", "-", volume.path}, {"bitmap", "--output=-", volume.path}}) {
        CommandResult const result = fsparser(arguments);
        EXPECT_EQ(result.exitCode, 0) << result.error;
        EXPECT_EQ(bytesOf(result.output), expected);
        EXPECT_EQ(result.error, "");
    }
}

TEST(CommandBitmap, BitsPastTheLastUnitAreClear) {
    TempDirectory const directory;
    ExtBuilder builder = makeSoundExtVolume(ExtGeometry::with4KiBBlocks(1003));
    builder.setUsedFrom(0, 1003);
    std::string const path = writeExtVolume(directory.file("volume"), builder);
    std::vector<std::uint8_t> const bytes = bytesOf(fsparser({"bitmap", path}).output);
    ASSERT_EQ(bytes.size(), 126U);
    EXPECT_EQ(bytes.back(), 0x07);
}

TEST(CommandBitmap, RandomBitmapsOfManyGroupsAreExact) {
    TempDirectory const directory;
    // More than two of the writer's buffers, and a last group that is short.
    ExtBuilder const builder =
        makeSoundExtVolume(ExtGeometry::with4KiBBlocks(5'000'003)).fillBitmapsAtRandom(12).markOwnBlocks();
    std::string const path = writeExtVolume(directory.file("volume"), builder);
    std::vector<std::uint8_t> const expected = bitmapOf(builder.map());
    EXPECT_TRUE(bytesOf(fsparser({"bitmap", path}).output) == expected);
    std::string const output = directory.file("used.bin");
    EXPECT_EQ(fsparser({"bitmap", "-o", output, path}).exitCode, 0);
    EXPECT_TRUE(readFile(output) == expected);
}

TEST(CommandBitmap, JsonTellsWhatWasWritten) {
    ThousandBlocks const volume;
    std::string const output = volume.directory.file("used.bin");
    CommandResult const result = fsparser({"bitmap", "--json", "-o", output, volume.path});
    EXPECT_EQ(result.exitCode, 0) << result;
    Json const document = Json::parse(result.output);
    EXPECT_THAT(keysOf(document),
                ElementsAre("schema", "file_system", "unit_size", "units", "size", "first_unit_offset", "used", "free",
                            "output", "output_bytes", "bit_order"));
    EXPECT_EQ(document["used"], 201);
    EXPECT_EQ(document["free"], 799);
    EXPECT_EQ(document["output"], output);
    EXPECT_EQ(document["output_bytes"], 125);
    EXPECT_EQ(document["bit_order"], "least-significant-first");
    EXPECT_EQ(readFile(output).size(), 125U);
}

TEST(CommandBitmap, JsonAndTheBitmapDoNotShareStandardOutput) {
    ThousandBlocks const volume;
    CommandResult const result = fsparser({"bitmap", "--json", volume.path});
    EXPECT_EQ(result.exitCode, 2) << result;
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.error, testing::HasSubstr("needs -o FILE"));
}

TEST(CommandBitmap, ReplacesAnOldFile) {
    ThousandBlocks const volume;
    std::string const output = writeFile(volume.directory.file("used.bin"), std::vector<std::uint8_t>(5000, 1));
    EXPECT_EQ(fsparser({"bitmap", "-o", output, volume.path}).exitCode, 0);
    EXPECT_EQ(readFile(output).size(), 125U);
}

/// A run that must fail with one sentence and leave the directory as it was.
void expectRefusal(ThousandBlocks const& volume, std::string const& output, std::string const& sentence) {
    auto const names = namesIn(volume.directory);
    auto const content = readFile(volume.path);
    CommandResult const result = fsparser({"bitmap", "-o", output, volume.path});
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.error, "fsparser: " + output + ": " + sentence + "\n");
    EXPECT_EQ(namesIn(volume.directory), names);
    EXPECT_TRUE(readFile(volume.path) == content);
}

TEST(CommandBitmap, TheVolumeItselfIsNeverOverwritten) {
    ThousandBlocks const volume;
    std::filesystem::create_symlink(volume.path, volume.directory.file("symbolic"));
    std::filesystem::create_hard_link(volume.path, volume.directory.file("hard"));
    for (std::string const& output : {volume.path, volume.directory.file("symbolic"), volume.directory.file("hard")}) {
        expectRefusal(volume, output, "is the volume itself; it is left alone");
    }
}

TEST(CommandBitmap, ADestinationThatIsNoFileIsLeftAlone) {
    ThousandBlocks const volume;
    expectRefusal(volume, volume.directory.path().string(), "exists and is not a regular file; it is left alone");
    expectRefusal(volume, "/dev/null", "exists and is not a regular file; it is left alone");
    expectRefusal(volume, volume.directory.file("missing/used.bin"), "cannot be created: No such file or directory");
}

TEST(CommandBitmap, AWalkThatFailsLeavesTheOldFileAndNoTemporaryOne) {
    TempDirectory const directory;
    std::string const path = writeBrokenVolume(directory.file("volume"));
    std::string const output = writeFile(directory.file("used.bin"), {1, 2, 3});
    CommandResult const result = fsparser({"bitmap", "-o", output, path});
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_EQ(readFile(output), (std::vector<std::uint8_t>{1, 2, 3}));
    EXPECT_THAT(namesIn(directory), ElementsAre("used.bin", "volume"));
}

} // namespace
