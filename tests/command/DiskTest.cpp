// The command on whole disks: each partition is found, named and mapped alone; offsets are absolute and relative.
#include "command/Fsparser.h"
#include "support/FatBuilder.h"
#include "support/XfsBuilder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

namespace {

using namespace tests;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

constexpr std::uint64_t kSector = 512;

/// In an ext superblock.
constexpr std::uint64_t kState = 0x3A;
constexpr std::uint16_t kCleanlyUnmounted = 1;

/// Where the four partitions begin and how long they are, in sectors; none begins at a multiple of 4096 bytes.
struct Part {
    std::uint64_t start;
    std::uint64_t size;
};
constexpr Part kExt{2049, 8000};
constexpr Part kFat{16389, 1000};
constexpr Part kXfs{20491, 2000};
constexpr Part kBroken{28677, 8000};

void putAt(std::string const& path, Part const& part, std::vector<std::uint8_t> const& bytes) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(part.start * kSector));
    file.write(reinterpret_cast<char const*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    ASSERT_TRUE(file.flush());
}

FatBuilder makeFat() {
    FatBuilder builder(FatGeometry::tiny());
    return builder.setEntry(10, 11).setEntry(11, fat_entry::kEndOfChain);
}

XfsBuilder makeXfs() {
    XfsGeometry geometry;
    geometry.totalBlocks = 1000;
    XfsBuilder builder(geometry);
    builder.plantTree(0, {{100, 100}});
    return builder;
}

/// An ext volume that its parser cannot map.
ExtBuilder makeBroken() {
    ExtBuilder builder = makeThousandBlocks();
    setGroupSize(builder, 0);
    return builder;
}

class CommandOnDisk : public testing::TestWithParam<char const*> {
protected:
    void SetUp() override {
        if (!findProgram("sfdisk")) {
            GTEST_SKIP() << "there is no sfdisk to make a partition table";
        }
        writeFile(disk, {});
        std::filesystem::resize_file(disk, 64 << 20);
        CommandOptions options;
        options.input = std::string("label: ") + GetParam() + "\n";
        for (Part const& part : {kExt, kFat, kXfs, kBroken}) {
            options.input += "start=" + std::to_string(part.start) + ", size=" + std::to_string(part.size) + "\n";
        }
        CommandResult const made = runCommand({"sfdisk", "-q", disk}, options);
        ASSERT_EQ(made.exitCode, 0) << made;
        std::vector<std::uint8_t> fat = makeFat().bytes;
        putAt(disk, kExt, makeThousandBlocks().setSuper16(kState, kCleanlyUnmounted).bytes);
        putAt(disk, kFat, fat);
        putAt(disk, kXfs, makeXfs().bytes);
        putAt(disk, kBroken, makeBroken().bytes);
    }

    CommandResult onPartition(std::vector<std::string> arguments, unsigned number) const {
        arguments.insert(arguments.begin() + 1, {"--partition", std::to_string(number)});
        return fsparser(arguments);
    }

    TempDirectory directory;
    std::string disk = directory.file("disk");
};

TEST_P(CommandOnDisk, DetectListsThePartitionsWithWhatIsInEach) {
    CommandResult const result = fsparser({"detect", disk});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.error, "");
    EXPECT_THAT(result.output, StartsWith(std::string(GetParam()) + " partition table, 4 partitions\n"));
    EXPECT_THAT(result.output, HasSubstr("  1  ext           from byte 1049088 (2049s), 4096000 bytes (3.91 MiB)"));
    EXPECT_THAT(result.output, HasSubstr("  2  fat32         from byte 8391168 (16389s), 512000 bytes (500 KiB)"));
    EXPECT_THAT(result.output, HasSubstr("  3  xfs           from byte 10491392 (20491s), 1024000 bytes"));
    EXPECT_THAT(result.output, HasSubstr("  4  ext           from byte 14682624 (28677s), 4096000 bytes"));
    Json const document = Json::parse(fsparser({"detect", "--json", disk}).output);
    EXPECT_EQ(document["partition_table"], GetParam());
    ASSERT_EQ(document["partitions"].size(), 4U);
    EXPECT_EQ(document["partitions"][2]["number"], 3);
    EXPECT_EQ(document["partitions"][2]["offset"], 10491392);
    EXPECT_EQ(document["partitions"][2]["content"], "xfs");
}

TEST_P(CommandOnDisk, EachPartitionIsMappedAlone) {
    EXPECT_EQ(onPartition({"ranges", disk}, 1).output, "0 100\n500 100\n650 1\n");
    EXPECT_EQ(onPartition({"ranges", disk}, 3).output, "0 100\n200 800\n");
    std::string const fat = directory.file("fat");
    writeFile(fat, makeFat().bytes);
    std::filesystem::resize_file(fat, kFat.size * kSector);
    EXPECT_EQ(onPartition({"ranges", disk}, 2).output, fsparser({"ranges", fat}).output);
    CommandResult const broken = onPartition({"ranges", disk}, 4);
    EXPECT_EQ(broken.exitCode, 1) << broken;
    EXPECT_THAT(broken.error,
                StartsWith("fsparser: " + disk + " (partition 4): the map cannot be read from unit 0 on"));
}

TEST_P(CommandOnDisk, AnOffsetInBytesOrSectorsLeadsThere) {
    for (char const* const offset : {"1049088", "2049s"}) {
        EXPECT_EQ(fsparser({"ranges", "--offset", offset, disk}).output, "0 100\n500 100\n650 1\n") << offset;
    }
    EXPECT_EQ(fsparser({"detect", "--offset", "2048s", disk}).exitCode, 3);
    for (char const* const offset : {"-1", "s", "x", "1k", "99999999999999999999"}) {
        EXPECT_EQ(fsparser({"detect", "--offset", offset, disk}).exitCode, 2) << offset;
    }
    EXPECT_EQ(fsparser({"detect", "--offset", "2049s", "--partition", "1", disk}).exitCode, 2) << "not both";
    CommandResult const behind = fsparser({"detect", "--offset", "64m", disk});
    EXPECT_EQ(behind.exitCode, 2) << behind;
    EXPECT_EQ(fsparser({"detect", "--offset", "67108864", disk}).exitCode, 3) << "the disk ends there";
}

TEST_P(CommandOnDisk, InfoTellsWhereTheVolumeBegins) {
    CommandResult const result = onPartition({"info", disk}, 1);
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_THAT(result.output, HasSubstr("volume          " + disk + " (partition 1)\n"));
    EXPECT_THAT(result.output, HasSubstr("begins at       byte 1049088 of " + disk + " (2049 sectors of 512 bytes)\n"));
    Json const document = Json::parse(onPartition({"info", "--json", disk}, 1).output);
    EXPECT_EQ(document["disk_offset"], 1049088);
    EXPECT_EQ(document["size"], 4096000);
}

TEST_P(CommandOnDisk, APartitionIsCopiedVerifiedAndHashedAlone) {
    std::string const copy = directory.file("copy");
    CommandResult const copied = onPartition({"copy", disk, copy}, 1);
    ASSERT_EQ(copied.exitCode, 0) << copied;
    EXPECT_EQ(std::filesystem::file_size(copy), 4096000U);
    EXPECT_EQ(fsparser({"ranges", copy}).output, "0 100\n500 100\n650 1\n");
    EXPECT_EQ(onPartition({"verify", disk, copy}, 1).exitCode, 0);
    std::string const digest = onPartition({"digest", disk}, 1).output;
    EXPECT_EQ(digest.substr(0, 64), fsparser({"digest", copy}).output.substr(0, 64));
    std::vector<std::uint8_t> bytes = readFile(copy);
    bytes[50 * 4096 + 7] ^= 1;
    writeFile(copy, bytes);
    CommandResult const different = onPartition({"verify", disk, copy}, 1);
    EXPECT_EQ(different.exitCode, 5) << different;
    EXPECT_THAT(different.error, HasSubstr("at byte 204807 (unit 50)"));
    EXPECT_THAT(different.error, EndsWith("; that is byte 1253895 of " + disk + "\n"));
}

TEST_P(CommandOnDisk, APartitionThatIsNotThereIsSaid) {
    CommandResult const result = onPartition({"info", disk}, 9);
    EXPECT_EQ(result.exitCode, 3) << result;
    EXPECT_EQ(result.error, "fsparser: " + disk + ": has no partition 9; fsparser detect lists them\n");
    std::string const plain = writeFile(directory.file("plain"), std::vector<std::uint8_t>(8192));
    CommandResult const without = fsparser({"info", "--partition", "1", plain});
    EXPECT_EQ(without.exitCode, 3) << without;
    EXPECT_EQ(without.error, "fsparser: " + plain + ": has no partition table\n");
}

TEST_P(CommandOnDisk, AWholeDiskIsUsedAsAWholeWithAHint) {
    CommandResult const result = fsparser({"ranges", disk});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.output, "0 16384\n");
    EXPECT_EQ(result.error, "fsparser: note: " + disk +
                                ": is a whole disk; fsparser detect lists its partitions, --partition N takes one; "
                                "every unit counts as used\n");
}

TEST_P(CommandOnDisk, APartitionThatReachesPastTheEndIsTruncated) {
    std::filesystem::resize_file(disk, (kExt.start + 4000) * kSector);
    CommandResult const result = onPartition({"ranges", disk}, 1);
    if (GetParam() == std::string("gpt")) {
        EXPECT_EQ(result.exitCode, 3) << "the table's last partition would end behind the disk: " << result;
        EXPECT_EQ(result.error,
                  "fsparser: " + disk +
                      ": has the protective MBR of a GPT, but the GPT cannot be read; an image may be cut "
                      "off; --offset takes a volume where it begins\n");
        return;
    }
    EXPECT_EQ(result.exitCode, 4) << result;
    EXPECT_THAT(result.error, HasSubstr("(partition 1): ends at byte 2048000, 2048000 bytes before the end of its ext "
                                        "file system"));
}

INSTANTIATE_TEST_SUITE_P(Tables, CommandOnDisk, testing::Values("gpt", "dos"),
                         [](auto const& instance) { return std::string(instance.param); });

} // namespace
