// `ranges --format`: what is listed, where it goes, and what is refused.
#include "command/Fsparser.h"
#include "support/VolumeFiles.h"
#include "support/XfsBuilder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace tests;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::uint64_t kExtState = 0x3A;
constexpr std::uint64_t kBlock = 4096;

/// 1000 blocks of 4 KiB, of which 0 to 99, 500 to 599 and 650 are used, and 777 bytes behind them; all full of noise.
struct OddVolume {
    OddVolume() {
        bytes = makeThousandBlocks().setSuper16(kExtState, 1).bytes;
        bytes.resize(1000 * kBlock + 777);
        for (std::uint64_t i = 3 * kBlock; i < bytes.size(); ++i) {
            bytes[i] = patternByte(static_cast<long>(i));
        }
        writeFile(path, bytes);
    }

    std::string list(std::string const& format) const {
        CommandResult const result = fsparser({"ranges", "--format", format, path});
        EXPECT_EQ(result.exitCode, 0) << result;
        EXPECT_EQ(result.error, "");
        return result.output;
    }

    TempDirectory directory;
    std::string path = directory.file("volume");
    std::vector<std::uint8_t> bytes;
};

std::vector<std::string> const kFormats{"text", "json", "csv", "bmap", "ddrescue", "extentlist", "fallocate"};

TEST(CommandRangesFormat, TextAndJsonAreTheirOldForms) {
    OddVolume const volume;
    EXPECT_EQ(volume.list("text"), "0 100\n500 100\n650 1\n");
    EXPECT_EQ(volume.list("text"), fsparser({"ranges", volume.path}).output);
    std::string const json = volume.list("json");
    EXPECT_EQ(Json::parse(json)["ranges"].size(), 3U);
    EXPECT_EQ(fsparser({"ranges", "--json", volume.path}).output, json);
    EXPECT_EQ(fsparser({"ranges", "--json", "--format", "json", volume.path}).output, json);
}

TEST(CommandRangesFormat, CsvHasAHeaderAndARowAUsedRunInUnitsAndBytes) {
    OddVolume const volume;
    EXPECT_EQ(volume.list("csv"), "first,count,offset,length\n"
                                  "0,100,0,409600\n"
                                  "500,100,2048000,409600\n"
                                  "650,1,2662400,4096\n");
}

TEST(CommandRangesFormat, TheRangePastTheLastUnitIsInEveryFormatOfBytes) {
    OddVolume const volume;
    EXPECT_EQ(volume.list("extentlist"), "0 409600\n"
                                         "409600 1638400 hole,zero\n"
                                         "2048000 409600\n"
                                         "2457600 204800 hole,zero\n"
                                         "2662400 4096\n"
                                         "2666496 1429504 hole,zero\n"
                                         "4096000 777\n");
    EXPECT_THAT(volume.list("ddrescue"), testing::EndsWith("0x0028B000  0x0015D000  ?\n0x003E8000  0x00000309  +\n"));
    EXPECT_THAT(volume.list("bmap"), HasSubstr("\">1000</Range>\n"));
    EXPECT_THAT(volume.list("fallocate"), testing::EndsWith("\npunch 409600 1638400\npunch 2457600 204800\n"
                                                            "punch 2666496 1429504\n"));
}

TEST(CommandRangesFormat, TheLastHashOfABlockMapIsThatOfTheBytesThatExist) {
    OddVolume const volume;
    writeFile(volume.directory.file("tail"), {volume.bytes.end() - 777, volume.bytes.end()});
    CommandResult const hash = runCommand({"sha256sum", volume.directory.file("tail")});
    ASSERT_TRUE(hash.succeeded()) << hash;
    EXPECT_THAT(volume.list("bmap"), HasSubstr("<Range chksum=\"" + hash.output.substr(0, 64) + "\">1000</Range>"));
}

TEST(CommandRangesFormat, AVolumeInWhichNothingIsUnderstoodIsListedWhole) {
    TempDirectory const directory;
    std::string const path = writeFile(directory.file("zeros"), std::vector<std::uint8_t>(8192 + 512));
    CommandResult const extents = fsparser({"ranges", "--format", "extentlist", path});
    EXPECT_EQ(extents.exitCode, 0) << extents;
    EXPECT_EQ(extents.output, "0 8704\n");
    EXPECT_THAT(extents.error, HasSubstr("every unit counts as used"));
    EXPECT_THAT(fsparser({"ranges", "-q", "--format", "bmap", path}).output, HasSubstr("\">0-2</Range>"));
    EXPECT_THAT(fsparser({"ranges", "-q", "--format", "fallocate", path}).output, testing::Not(HasSubstr("\npunch ")));
    EXPECT_THAT(fsparser({"ranges", "-q", "--format", "ddrescue", path}).output,
                testing::EndsWith("status\n0x00000000  0x00002200  +\n"));
}

TEST(CommandRangesFormat, AnUncleanVolumeIsListedWithAWarningAndExitCode4) {
    OddVolume const volume;
    writeExtVolume(volume.directory.file("unclean"), makeThousandBlocks().setSuper16(kExtState, 0));
    for (std::string const format : {"bmap", "ddrescue", "extentlist", "fallocate"}) {
        CommandResult const result = fsparser({"ranges", "--format", format, volume.directory.file("unclean")});
        EXPECT_EQ(result.exitCode, 4) << format << result;
        EXPECT_THAT(result.error, HasSubstr("was not unmounted cleanly")) << format;
        EXPECT_NE(result.output, "") << format;
    }
}

TEST(CommandRangesFormat, OfADoubtfulVolumeEverythingIsListedWithExitCode4) {
    TempDirectory const directory;
    XfsGeometry geometry;
    geometry.totalBlocks = 1000;
    XfsBuilder builder(geometry);
    builder.plantTree(0, {{100, 100}});
    builder.plantTree(1, {{20, 20}});
    builder.setHeader32(1, xfs_header::kFreeBlocks, 19);
    std::string const path = writeFile(directory.file("volume"), builder.bytes);
    CommandResult const result = fsparser({"ranges", "--format", "extentlist", path});
    EXPECT_EQ(result.exitCode, 4) << result;
    EXPECT_EQ(result.output, "0 512000\n");
    EXPECT_THAT(result.error, HasSubstr(path + ": everything is listed\n"));
}

TEST(CommandRangesFormat, InAPartOfADiskBytesAreCountedFromTheVolumesFirst) {
    OddVolume const volume;
    std::string const disk = volume.directory.file("disk");
    std::vector<std::uint8_t> bytes(8192, 0x77);
    bytes.insert(bytes.end(), volume.bytes.begin(), volume.bytes.end());
    writeFile(disk, bytes);
    for (std::string const format : {"csv", "bmap", "ddrescue", "extentlist", "fallocate"}) {
        CommandResult const result = fsparser({"ranges", "--offset", "8192", "--format", format, disk});
        EXPECT_EQ(result.exitCode, 0) << result;
        EXPECT_EQ(result.output, volume.list(format));
    }
}

TEST(CommandRangesFormat, AFileHoldsWhatStandardOutputWouldGetAndReplacesAnOlderOne) {
    OddVolume const volume;
    for (std::string const& format : kFormats) {
        std::string const path = volume.directory.file("list");
        CommandResult const result = fsparser({"ranges", "--format", format, "-o", path, volume.path});
        EXPECT_EQ(result.exitCode, 0) << result;
        EXPECT_EQ(result.output + result.error, "");
        std::vector<std::uint8_t> const bytes = readFile(path);
        EXPECT_EQ(std::string(bytes.begin(), bytes.end()), volume.list(format)) << format;
    }
    EXPECT_EQ(fsparser({"ranges", "-o", "-", volume.path}).output, volume.list("text"));
    EXPECT_THAT(namesIn(volume.directory), ElementsAre("list", "volume"));
}

TEST(CommandRangesFormat, AVolumeThatFailsLeavesNoFileAndAnOlderOneAsItWas) {
    TempDirectory const directory;
    std::string const broken = writeBrokenVolume(directory.file("volume"));
    std::string const old = writeFile(directory.file("old"), {'o', 'l', 'd'});
    for (std::string const& format : kFormats) {
        EXPECT_EQ(fsparser({"ranges", "--format", format, "-o", directory.file("new"), broken}).exitCode, 1) << format;
        EXPECT_EQ(fsparser({"ranges", "--format", format, "-o", old, broken}).exitCode, 1) << format;
    }
    EXPECT_THAT(namesIn(directory), ElementsAre("old", "volume"));
    EXPECT_EQ(readFile(old), (std::vector<std::uint8_t>{'o', 'l', 'd'}));
}

TEST(CommandRangesFormat, AFormatOfBytesSaysNothingOfAVolumeWhoseMapCannotBeRead) {
    TempDirectory const directory;
    std::string const broken = writeBrokenVolume(directory.file("volume"));
    for (std::string const format : {"bmap", "ddrescue", "extentlist", "fallocate"}) {
        CommandResult const result = fsparser({"ranges", "--format", format, broken});
        EXPECT_EQ(result.exitCode, 1) << result;
        EXPECT_EQ(result.output, "") << format;
    }
}

TEST(CommandRangesFormat, TheVolumeItselfIsNotOverwritten) {
    OddVolume const volume;
    CommandResult const result = fsparser({"ranges", "--format", "bmap", "-o", volume.path, volume.path});
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_THAT(result.error, HasSubstr("is the volume itself"));
    EXPECT_TRUE(readFile(volume.path) == volume.bytes);
}

TEST(CommandRangesFormat, AnOutputThatTakesNothingIsAnError) {
    OddVolume const volume;
    CommandOptions options = plainOptions();
    options.outputPath = "/dev/full";
    for (std::string const& format : kFormats) {
        CommandResult const result = fsparser({"ranges", "--format", format, volume.path}, options);
        EXPECT_EQ(result.exitCode, 1) << format << result;
        EXPECT_EQ(result.error, "fsparser: standard output: cannot be written: No space left on device\n");
    }
}

TEST(CommandRangesFormat, UnknownNamesAndContradictionsAreUsageErrors) {
    OddVolume const volume;
    CommandResult const unknown = fsparser({"ranges", "--format", "xml", volume.path});
    EXPECT_EQ(unknown.exitCode, 2) << unknown;
    EXPECT_THAT(unknown.error, HasSubstr("it is text, json, csv, bmap, ddrescue, extentlist or fallocate, not xml"));
    CommandResult const both = fsparser({"ranges", "--json", "--format", "csv", volume.path});
    EXPECT_EQ(both.exitCode, 2) << both;
    EXPECT_THAT(both.error, HasSubstr("--json: is --format json, and not --format csv"));
    EXPECT_EQ(fsparser({"ranges", "--format", "", volume.path}).exitCode, 2);
    EXPECT_EQ(fsparser({"ranges", "-o", "", volume.path}).exitCode, 2);
    EXPECT_EQ(fsparser({"info", "--format", "csv", volume.path}).exitCode, 2);
}

/// The script for a volume, fed to a shell as it is meant to be.
CommandResult runScript(OddVolume const& volume, std::vector<std::string> const& arguments) {
    CommandOptions options = plainOptions();
    options.input = volume.list("fallocate");
    std::vector<std::string> words{"sh", "-s"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return runCommand(words, options);
}

TEST(CommandRangesHolePunch, EmptiesTheFreeSpaceOfAFullCopyAndNothingElse) {
    if (!findProgram("fallocate")) {
        GTEST_SKIP() << "fallocate is not installed";
    }
    OddVolume const volume;
    std::string const copy = volume.directory.file("- a 'copy'; $(x)");
    writeFile(copy, volume.bytes);
    CommandResult const result = runScript(volume, {copy});
    EXPECT_EQ(result.exitCode, 0) << result;
    std::vector<std::uint8_t> expected = volume.bytes;
    std::vector<bool> const map = makeThousandBlocks().map();
    for (std::uint64_t i = 0; i < 1000 * kBlock; ++i) {
        expected[i] = map[i / kBlock] ? expected[i] : std::uint8_t{0};
    }
    EXPECT_TRUE(readFile(copy) == expected);
    struct stat facts {};
    ASSERT_EQ(::stat(copy.c_str(), &facts), 0);
    EXPECT_LE(facts.st_blocks * 512, 300 * static_cast<long>(kBlock));
    EXPECT_EQ(fsparser({"verify", volume.path, copy}).exitCode, 0);
}

TEST(CommandRangesHolePunch, RefusesAMissingArgumentAndAFileThatIsNoCopy) {
    OddVolume const volume;
    std::vector<std::uint8_t> shorter(volume.bytes.begin(), volume.bytes.end() - 1);
    std::string const other = writeFile(volume.directory.file("other"), shorter);
    EXPECT_THAT(runScript(volume, {}).error, HasSubstr("name the copy, and nothing else"));
    EXPECT_EQ(runScript(volume, {}).exitCode, 1);
    EXPECT_EQ(runScript(volume, {other, other}).exitCode, 1);
    EXPECT_EQ(runScript(volume, {volume.directory.file("none")}).exitCode, 1);
    EXPECT_EQ(runScript(volume, {"/dev/null"}).exitCode, 1);
    CommandResult const result = runScript(volume, {other});
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_THAT(result.error, HasSubstr("has 4096776 bytes and not 4096777; it is left alone"));
    EXPECT_TRUE(readFile(other) == shorter);
}

} // namespace
