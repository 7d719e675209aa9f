// How the verb `copy` tells its progress, and what it takes: memory on volumes of many terabytes.
#include "command/Fsparser.h"
#include "command/Terminal.h"
#include "support/Sanitized.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace {

using namespace tests;
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::uint64_t kMostMemory = std::uint64_t{64} << 20;

/// A clean ext volume whose copy says nothing of itself.
struct QuietVolume {
    TempDirectory directory;
    std::string path = writeExtVolume(directory.file("volume"), makeThousandBlocks().setSuper16(0x3A, 1));
};

TEST(CommandCopyProgress, JsonLinesEndAtTheTotal) {
    TempDirectory const directory(TempDirectory::Place::Memory);
    std::string const path = writeFile(directory.file("volume"), std::vector<std::uint8_t>(100 << 20, 0x41));
    CommandResult const result = fsparser({"copy", "-q", "--progress", "json", path, directory.file("copy")});
    ASSERT_EQ(result.exitCode, 0) << result;
    std::istringstream lines(result.error);
    std::uint64_t done = 0;
    std::uint64_t total = 0;
    unsigned count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        Json const state = Json::parse(line);
        EXPECT_THAT(keysOf(state), ElementsAre("event", "done", "total", "offset", "bytes_per_second", "seconds"));
        EXPECT_EQ(state["event"], "progress");
        EXPECT_GE(state["done"].get<std::uint64_t>(), done);
        EXPECT_GE(state["seconds"].get<double>(), 0);
        done = state["done"];
        total = state["total"];
        EXPECT_EQ(total, 100U << 20);
        EXPECT_LE(done, total);
    }
    EXPECT_GE(count, 1U);
    EXPECT_EQ(done, total);
}

TEST(CommandCopyProgress, JsonLinesDoNotMixWithTheSummary) {
    QuietVolume const volume;
    CommandResult const result =
        fsparser({"copy", "--json", "--progress", "json", volume.path, volume.directory.file("copy")});
    ASSERT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(Json::parse(result.output)["used_bytes"], 201 * 4096);
    EXPECT_EQ(Json::parse(result.error)["total"], 201 * 4096);
}

TEST(CommandCopyProgress, NothingIsSaidWhereStandardErrorIsNoTerminal) {
    QuietVolume const volume;
    for (std::vector<std::string> const& choice :
         std::vector<std::vector<std::string>>{{}, {"--progress", "auto"}, {"--progress", "never"}}) {
        std::vector<std::string> arguments{"copy", "--force"};
        arguments.insert(arguments.end(), choice.begin(), choice.end());
        arguments.insert(arguments.end(), {volume.path, volume.directory.file("copy")});
        CommandResult const result = fsparser(arguments);
        EXPECT_EQ(result.exitCode, 0) << result;
        EXPECT_EQ(result.error, "");
    }
}

/// What a terminal shows of a copy of the volume.
std::string shownOn(Terminal const& terminal, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"bash", "-c", "exec \"$@\" 2>&1", "bash", FSPARSER_COMMAND, "copy"});
    CommandResult const result = terminal.run(arguments, plainOptions());
    EXPECT_EQ(result.exitCode, 0) << result;
    return result.output;
}

TEST(CommandCopyProgress, ALineIsDrawnOnATerminalAndTakenAway) {
    QuietVolume const volume;
    Terminal const terminal(200, 40);
    std::string const shown = shownOn(terminal, {volume.path, volume.directory.file("copy")});
    constexpr char kClear[] = "\x1b[K";
    EXPECT_THAT(shown, HasSubstr(std::string(kClear) + "[########################] 100 %  804 KiB of 804 KiB"));
    std::size_t const last = shown.rfind(kClear);
    ASSERT_NE(last, std::string::npos);
    EXPECT_GT(last, shown.find("[####")) << "the line is not taken away";
    EXPECT_TRUE(shown.substr(last + 3).starts_with("volume          4096000 bytes")) << shown;
}

TEST(CommandCopyProgress, TheLineFitsANarrowTerminal) {
    QuietVolume const volume;
    Terminal const terminal(30, 40);
    std::string const shown = shownOn(terminal, {volume.path, volume.directory.file("copy")});
    std::size_t const begin = shown.find("[#");
    ASSERT_NE(begin, std::string::npos);
    EXPECT_LE(shown.find('\x1b', begin) - begin, 29U) << shown;
}

TEST(CommandCopyProgress, NeverMeansNoLineOnATerminalEither) {
    QuietVolume const volume;
    Terminal const terminal(200, 40);
    std::string const shown = shownOn(terminal, {"--progress", "never", volume.path, volume.directory.file("copy")});
    EXPECT_EQ(shown.find('\x1b'), std::string::npos) << shown;
    EXPECT_TRUE(shown.starts_with("volume          4096000 bytes")) << shown;
}

/// Volumes whose map is larger than the memory that a copy may take.
class CommandCopyMemory : public testing::Test {
protected:
    void SetUp() override {
        if (kIsSanitized) {
            GTEST_SKIP() << "the sanitizer's own memory would be measured";
        }
    }

    /// A file that is one hole; false where the file system does not take it.
    bool makeFile(std::uint64_t size) {
        std::ofstream(path).flush();
        std::error_code problem;
        std::filesystem::resize_file(path, size, problem);
        return !problem;
    }

    void putBytes(std::uint64_t offset, std::vector<std::uint8_t> const& bytes) const {
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(offset));
        file.write(reinterpret_cast<char const*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }

    std::vector<std::uint8_t> getBytes(std::uint64_t offset, std::size_t length) const {
        std::vector<std::uint8_t> bytes(length);
        std::ifstream file(path, std::ios::binary);
        file.seekg(static_cast<std::streamoff>(offset));
        file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(length));
        return bytes;
    }

    void expectLittleMemory() {
        CommandOptions options = plainOptions();
        options.timeout = std::chrono::minutes(5);
        CommandResult const copied = fsparser({"copy", path, directory.file("copy")}, options);
        EXPECT_THAT(copied.exitCode, AnyOf(0, 4)) << copied;
        EXPECT_LT(copied.peakBytes, kMostMemory) << copied;
        CommandResult const verified = fsparser({"verify", path, directory.file("copy")}, options);
        EXPECT_THAT(verified.exitCode, AnyOf(0, 4)) << verified;
        EXPECT_LT(verified.peakBytes, kMostMemory) << verified;
        CommandResult const digest = fsparser({"digest", path}, options);
        EXPECT_LT(digest.peakBytes, kMostMemory) << digest;
        EXPECT_EQ(digest.output.substr(0, 64),
                  fsparser({"digest", directory.file("copy")}, options).output.substr(0, 64));
    }

    TempDirectory directory{TempDirectory::Place::Memory};
    std::string path = directory.file("volume");
};

TEST_F(CommandCopyMemory, OfAnExtVolumeOf16TiBStaysSmall) {
    constexpr std::uint32_t kBlocks = 0xFFFFFFFF;
    if (!makeFile(std::uint64_t{kBlocks} * 4096)) {
        GTEST_SKIP() << "no file of 16 TiB here";
    }
    ExtBuilder builder = makeSoundExtVolume(ExtGeometry::with4KiBBlocks(1000));
    builder.setSuper32(ext_super::kBlocksCountLow, kBlocks);
    setGroupSize(builder, 32768).setSuper32(0x28, 8192).setSuper16(0x58, 256).setSuper32(0x4C, 1).setSuper32(0x64, 1);
    builder.resize(4096 + std::uint64_t{32} * (kBlocks / 32768 + 1));
    for (std::uint64_t at = 4096; at < builder.bytes.size(); at += 32) {
        builder.bytes[at + 2] = 0x10; // a bitmap at block 2^20, the same for every group but the first
    }
    std::vector<std::uint8_t> bitmap(4096);
    bitmap[0] = 0x03; // this bitmap, and that of group 0 behind it
    builder.bytes[4096] = 1;
    putBytes(0, builder.bytes);
    putBytes(std::uint64_t{4096} << 20, bitmap);
    std::fill_n(bitmap.begin(), 129, std::uint8_t{0xFF}); // superblock and descriptors
    putBytes((std::uint64_t{4096} << 20) + 4096, bitmap);
    ASSERT_EQ(std::filesystem::file_size(path), std::uint64_t{kBlocks} * 4096);
    expectLittleMemory();
}

/// Runs a tool that formats the volume; whether it did.
bool format(std::vector<std::string> const& arguments) {
    return findProgram(arguments.front()) && runCommand(arguments).succeeded();
}

TEST_F(CommandCopyMemory, OfAnXfsVolumeOf4TiBStaysSmall) {
    if (!makeFile(std::uint64_t{4} << 40) || !format({"mkfs.xfs", "-q", "-f", "-l", "size=64m", path})) {
        GTEST_SKIP() << "no XFS volume of 4 TiB can be made here";
    }
    expectLittleMemory();
}

TEST_F(CommandCopyMemory, OfAnNtfsVolumeOf4TiBStaysSmall) {
    if (!makeFile(std::uint64_t{4} << 40) ||
        !format({"mkntfs", "-F", "-Q", "-q", "-c", "4096", "-p", "0", "-H", "0", "-S", "0", path})) {
        GTEST_SKIP() << "no NTFS volume of 4 TiB can be made here";
    }
    expectLittleMemory();
}

/// A number of an MFT record.
std::uint64_t number(std::vector<std::uint8_t> const& record, std::size_t offset, unsigned width) {
    std::uint64_t value = 0;
    for (unsigned i = width; i-- > 0;) {
        value = value << 8 | record.at(offset + i);
    }
    return value;
}

/// Cuts the one run of a record's data in two, which lie where the one lay; whether there was one.
bool splitRun(std::vector<std::uint8_t>& record) {
    std::size_t attribute = number(record, 0x14, 2);
    while (number(record, attribute, 4) != 0x80) {
        attribute += number(record, attribute + 4, 4);
    }
    std::size_t const pairs = attribute + number(record, attribute + 0x20, 2);
    unsigned const lengthBytes = record.at(pairs) & 0x0FU;
    unsigned const offsetBytes = record.at(pairs) >> 4U;
    std::uint64_t const length = number(record, pairs + 1, lengthBytes);
    std::uint64_t const first = number(record, pairs + 1 + lengthBytes, offsetBytes);
    std::vector<std::uint8_t> runs;
    auto const add = [&runs](std::uint64_t count, std::uint64_t step) {
        runs.push_back(0x64); // six bytes of offset, four of length
        for (unsigned i = 0; i < 10; ++i) {
            runs.push_back(static_cast<std::uint8_t>(i < 4 ? count >> (8 * i) : step >> (8 * (i - 4))));
        }
    };
    add(length / 2, first);
    add(length - length / 2, length / 2);
    runs.insert(runs.end(), 10, 0); // the end, and room up to a multiple of 8
    std::size_t const size = (pairs - attribute + 23 + 7) / 8 * 8;
    std::size_t const end = attribute + size;
    bool const isAlone = record.at(pairs + 1 + lengthBytes + offsetBytes) == 0 && end + 8 < 510;
    std::copy_n(runs.begin(), end - pairs, record.begin() + static_cast<std::ptrdiff_t>(pairs));
    std::fill_n(record.begin() + static_cast<std::ptrdiff_t>(end), 4, std::uint8_t{0xFF});
    record.at(attribute + 4) = static_cast<std::uint8_t>(size);
    record.at(0x18) = static_cast<std::uint8_t>(end + 8);
    record.at(0x19) = static_cast<std::uint8_t>((end + 8) >> 8);
    return isAlone;
}

TEST_F(CommandCopyMemory, OfAnNtfsVolumeWithABitmapInTwoRunsStaysSmall) {
    constexpr std::uint64_t kSize = std::uint64_t{1} << 40; // a bitmap of 256 MiB
    if (!makeFile(kSize) ||
        !format({"mkntfs", "-F", "-Q", "-q", "-c", "512", "-s", "512", "-p", "0", "-H", "0", "-S", "0", path})) {
        GTEST_SKIP() << "no NTFS volume of 1 TiB can be made here";
    }
    std::uint64_t const place = number(getBytes(0x30, 8), 0, 8) * 512 + 6 * 1024;
    std::vector<std::uint8_t> record = getBytes(place, 1024);
    ASSERT_EQ(std::string(record.begin(), record.begin() + 4), "FILE");
    ASSERT_TRUE(splitRun(record));
    putBytes(place, record);
    std::string const extents = fsparser({"extents", path, "/$Bitmap"}).output;
    EXPECT_EQ(std::count(extents.begin(), extents.end(), '\n'), 3) << extents << "the path, and a line a run";
    expectLittleMemory();
}

TEST_F(CommandCopyMemory, OfAFat32VolumeOfManyClustersStaysSmall) {
    constexpr FatGeometry kMost{512, 1, 32, 2, 65535, 131102 + 8388478, 0};
    writeFatVolume(path, FatBuilder(kMost).setEntry(2, fat_entry::kEndOfChain)); // gone before anything is measured
    expectLittleMemory();
}

} // namespace
