// The verbs `verify` and `digest`: what counts as a difference, and what does not.
#include "command/Fsparser.h"
#include "support/FatBuilder.h"
#include "support/HfsBuilder.h"
#include "support/NtfsBuilder.h"
#include "support/VolumeFiles.h"
#include "support/XfsBuilder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <unistd.h>

namespace {

using namespace tests;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

/// 1000 blocks of 4 KiB of which 0 to 99, 500 to 599 and 650 are used, 300 bytes behind them, and a copy.
class CommandVerify : public testing::Test {
protected:
    void SetUp() override {
        ExtBuilder builder = makeThousandBlocks();
        std::vector<std::uint8_t> bytes = builder.setSuper16(0x3A, 1).setSuper32(0x64, 1).bytes;
        bytes.resize(1000 * 4096 + 300);
        for (std::uint64_t i = 3 * 4096; i < bytes.size(); ++i) {
            bytes[i] = patternByte(static_cast<long>(i));
        }
        writeFile(path, bytes);
        ASSERT_EQ(fsparser({"copy", "-q", path, image}).exitCode, 0);
    }

    CommandResult verify() const { return fsparser({"verify", path, image}); }

    /// Turns a byte of the copy over.
    void change(std::uint64_t offset) {
        std::fstream file(image, std::ios::in | std::ios::out | std::ios::binary);
        file.seekg(static_cast<std::streamoff>(offset));
        int const byte = file.get();
        file.seekp(static_cast<std::streamoff>(offset));
        file.put(static_cast<char>(byte ^ 0xFF));
    }

    /// Expects a difference with these words of where and what.
    void expectDifference(std::string const& where) {
        CommandResult const result = verify();
        EXPECT_EQ(result.exitCode, 5) << result;
        EXPECT_EQ(result.output, "");
        EXPECT_EQ(result.error, "fsparser: " + image + ": differs from " + path + " at " + where + "\n");
    }

    TempDirectory directory;
    std::string path = directory.file("volume");
    std::string image = directory.file("image");
};

TEST_F(CommandVerify, ACopyIsEqual) {
    CommandResult const result = verify();
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.output, "equal: 823596 bytes in use or kept, 3272704 bytes of free space not compared\n");
    EXPECT_EQ(result.error, "");
}

TEST_F(CommandVerify, FreeSpaceMayHoldAnything) {
    for (std::uint64_t const block : {100U, 499U, 600U, 649U, 651U, 999U}) {
        change(block * 4096);
        change(block * 4096 + 4095);
    }
    EXPECT_EQ(verify().exitCode, 0);
}

TEST_F(CommandVerify, TheFirstDifferenceInAUsedUnitIsNamed) {
    change(650 * 4096 + 4095);
    ASSERT_EQ(patternByte(2666495), 0x7B);
    expectDifference("byte 2666495 (unit 650): the volume holds 0x7b, the image 0x84");
    change(500 * 4096);
    EXPECT_THAT(verify().error, HasSubstr(" at byte 2048000 (unit 500): "));
    change(0);
    expectDifference("byte 0 (unit 0): the volume holds 0x00, the image 0xff");
}

TEST_F(CommandVerify, ADifferenceBehindTheLastUnitIsNamed) {
    change(1000 * 4096 + 299);
    EXPECT_THAT(verify().error, HasSubstr(" at byte 4096299 (in no unit): the volume holds 0x"));
    EXPECT_EQ(verify().exitCode, 5);
}

TEST_F(CommandVerify, AnImageThatEndsEarlierIsNamed) {
    ASSERT_EQ(::truncate(image.c_str(), 1000 * 4096 + 10), 0);
    expectDifference("byte 4096010 (in no unit): the image ends there");
    ASSERT_EQ(::truncate(image.c_str(), 600 * 4096), 0);
    EXPECT_THAT(verify().error, HasSubstr(" at byte 2662400 (unit 650): the image ends there"));
    ASSERT_EQ(::truncate(image.c_str(), 550 * 4096 + 1), 0);
    expectDifference("byte 2252801 (unit 550): the image ends there");
}

TEST_F(CommandVerify, AnImageThatGoesOnIsEqual) {
    ASSERT_EQ(::truncate(image.c_str(), 1000 * 4096 + 100'000), 0); // restored to a larger device
    EXPECT_EQ(verify().exitCode, 0);
}

TEST_F(CommandVerify, JsonTellsTheDifference) {
    Json document = Json::parse(fsparser({"verify", "--json", path, image}).output);
    EXPECT_THAT(keysOf(document), ElementsAre("schema", "file_system", "unit_size", "units", "size",
                                              "first_unit_offset", "compared_bytes", "equal"));
    EXPECT_EQ(document["equal"], true);
    EXPECT_EQ(document["compared_bytes"], 201 * 4096 + 300);
    change(500 * 4096 + 3);
    CommandResult const result = fsparser({"verify", "--json", path, image});
    EXPECT_EQ(result.exitCode, 5) << result;
    document = Json::parse(result.output);
    EXPECT_EQ(document["equal"], false);
    EXPECT_THAT(keysOf(document["difference"]), ElementsAre("offset", "unit", "expected", "found"));
    EXPECT_EQ(document["difference"]["offset"], 2048003);
    EXPECT_EQ(document["difference"]["unit"], 500);
    EXPECT_EQ(document["difference"]["expected"], patternByte(2048003));
    EXPECT_EQ(document["difference"]["found"], patternByte(2048003) ^ 0xFF);
}

TEST_F(CommandVerify, AVolumeThatIsNotBelievedIsComparedWholeAndTold) {
    for (std::string const& file : {path, image}) {
        std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
        stream.seekp(1024 + 0x60).put(0x10); // meta_bg
    }
    EXPECT_EQ(verify().exitCode, 5) << "free space of the copy is empty";
    std::filesystem::copy_file(path, image, std::filesystem::copy_options::overwrite_existing);
    CommandResult const result = verify();
    EXPECT_EQ(result.exitCode, 4) << result;
    EXPECT_THAT(result.output, StartsWith("equal: 4096300 bytes"));
}

TEST_F(CommandVerify, AnImageThatIsNotThereIsAnError) {
    CommandResult const result = fsparser({"verify", path, directory.file("missing")});
    EXPECT_EQ(result.exitCode, 3) << result;
    EXPECT_EQ(fsparser({"verify", path}).exitCode, 2);
}

/// The kept copy of a superblock is compared although the map calls it free.
TEST(CommandVerifyKept, ADifferenceInAKeptUnitIsNamed) {
    TempDirectory const directory;
    ExtBuilder builder = makeSoundExtVolume();
    builder.setSuper16(0x3A, 1).setSuper32(0x64, 1).setUsedFrom(1, 6); // sparse superblocks
    std::string const path = writeExtVolume(directory.file("volume"), builder);
    std::string const image = directory.file("image");
    ASSERT_EQ(fsparser({"copy", "-q", path, image}).exitCode, 0);
    std::fstream(image, std::ios::in | std::ios::out | std::ios::binary).seekp(8193 * 1024 + 5).put(1);
    CommandResult const result = fsparser({"verify", path, image});
    EXPECT_EQ(result.exitCode, 5) << result;
    EXPECT_THAT(result.error, HasSubstr(" at byte 8389637 (unit 8193): the volume holds 0x00, the image 0x01"));
}

/// The number of a volume that is sound.
std::string digestOf(std::string const& path, std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.begin(), "digest");
    arguments.push_back(path);
    CommandResult const result = fsparser(arguments);
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(result.output.substr(std::min<std::size_t>(result.output.size(), 64)), "  " + path + "\n");
    return result.output.substr(0, 64);
}

/// A volume of each kind with noise in its free space.
std::vector<std::uint8_t> volumeOf(std::string const& kind) {
    if (kind == "ntfs") {
        return NtfsBuilder::standard().bytes;
    }
    if (kind == "fat") {
        FatBuilder builder(FatGeometry::tiny());
        return builder.setEntry(50, fat_entry::kEndOfChain).resize(builder.geometry().totalBytes()).bytes;
    }
    if (kind == "hfs") {
        return HfsBuilder().useBlocksAtRandom(3).setUsedFrom(0, 3).image();
    }
    if (kind == "xfs") {
        XfsGeometry geometry;
        geometry.logStart = 100;
        geometry.logBlocks = 50;
        XfsBuilder builder(geometry);
        builder.plantTree(0, {{200, 100}});
        builder.plantTree(1, {{50, 100}});
        return builder.bytes;
    }
    ExtBuilder builder = makeThousandBlocks();
    return builder.setSuper16(0x3A, 1).resize(1000 * 4096).bytes;
}

class CommandDigest : public testing::TestWithParam<std::string> {
protected:
    TempDirectory directory;
    std::string path = writeFile(directory.file("volume"), volumeOf(GetParam()));
};

TEST_P(CommandDigest, IsThatOfTheCopyAndStandsWhateverTheAlignment) {
    std::string const digest = digestOf(path);
    EXPECT_THAT(digest, testing::MatchesRegex("[0-9a-f]{64}"));
    for (char const* const alignment : {"1", "512", "4096", "65536"}) {
        EXPECT_EQ(digestOf(path, {"--align", alignment}), digest) << alignment;
    }
    ASSERT_EQ(fsparser({"copy", "-q", path, directory.file("copy")}).exitCode, 0);
    EXPECT_EQ(digestOf(directory.file("copy")), digest);
    EXPECT_EQ(Json::parse(fsparser({"digest", "--json", path}).output)["sha256"], digest);
}

TEST_P(CommandDigest, IsThatOfAFullCopyAndOfOneWithOtherFreeSpace) {
    std::string const digest = digestOf(path);
    Json const map = Json::parse(fsparser({"ranges", "--json", path}).output);
    std::uint64_t const unit = map["unit_size"];
    std::vector<std::uint8_t> bytes = readFile(path);
    std::vector<bool> used(map["units"].get<std::uint64_t>());
    for (auto const& range : map["ranges"]) {
        for (std::uint64_t i = 0; i < range["count"]; ++i) {
            used.at(range["first"].get<std::uint64_t>() + i) = true;
        }
    }
    unsigned changed = 0;
    for (std::uint64_t i = 0; i < used.size(); ++i) {
        for (std::uint64_t at = i * unit; !used[i] && at < (i + 1) * unit && at < bytes.size(); at += 97, ++changed) {
            bytes[at] = static_cast<std::uint8_t>(bytes[at] ^ 0x5A);
        }
    }
    ASSERT_GT(changed, 100U);
    bytes.insert(bytes.end(), 5000, 0x77); // restored to a larger device
    EXPECT_EQ(digestOf(writeFile(directory.file("other"), bytes)), digest);
}

TEST_P(CommandDigest, ChangesWithAUsedByte) {
    std::string const digest = digestOf(path);
    std::vector<std::uint8_t> bytes = readFile(path);
    bytes[16] = static_cast<std::uint8_t>(bytes[16] ^ 1); // no field that any of them looks at
    writeFile(path, bytes);
    std::string const other = fsparser({"digest", path}).output.substr(0, 64);
    EXPECT_EQ(other.size(), 64U);
    EXPECT_NE(other, digest);
}

INSTANTIATE_TEST_SUITE_P(FileSystems, CommandDigest, testing::Values("ext", "ntfs", "fat", "hfs", "xfs"),
                         [](auto const& parameter) { return parameter.param; });

TEST(CommandDigestOfExt, ChangesWithTheMapAlone) {
    TempDirectory const directory;
    ExtBuilder builder = makeThousandBlocks();
    std::string const path = writeExtVolume(directory.file("volume"), builder.setSuper16(0x3A, 1));
    std::string const digest = digestOf(path);
    ExtBuilder more = builder;
    writeExtVolume(path, more.setUsed(900));
    EXPECT_NE(digestOf(path), digest);
    writeExtVolume(path, builder);
    EXPECT_EQ(digestOf(path), digest);
}

TEST(CommandDigestOfExt, OfAMapThatCannotBeReadIsAnError) {
    TempDirectory const directory;
    std::string const path = writeBrokenVolume(directory.file("volume"));
    CommandResult const result = fsparser({"digest", path});
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.error, brokenVolumeSentence(path));
}

} // namespace
