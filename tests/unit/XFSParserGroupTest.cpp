// A group's headers alone: the free-space header and the free list, where they are read and what comes of them.
#include "support/XfsRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <numeric>
#include <string>
#include <vector>

namespace {

using namespace tests;
using agent::core::fs::xfs_free_space_info;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned int kFailed = 0xFFFFFFFF;
constexpr unsigned int kUntouched = 0xAAAAAAAA;

/// Entries of a free list with something behind them that must stay.
using Entries = std::array<unsigned int, 130>;

Entries untouchedEntries() {
    Entries entries{};
    entries.fill(kUntouched);
    return entries;
}

XfsGeometry checksummed() {
    XfsGeometry geometry;
    geometry.blockSize = 1024;
    geometry.hasChecksums = true;
    return geometry;
}

TEST(XFSParserFreeSpaceHeader, IsReadFromTheGroupsSecondSector) {
    XfsBuilder builder;
    builder.setHeader32(2, xfs_header::kListFirst, 0x01020304).setHeader32(2, xfs_header::kListLast, 0x05060708);
    builder.setHeader32(2, xfs_header::kRoot, 0x090A0B0C);
    XfsBench bench(builder);
    bench.forget();
    xfs_free_space_info info{};
    EXPECT_EQ(bench.parser.read_fsi(2, 500, 512, &info), 0U);
    EXPECT_EQ(info.magic, 0x58414746U);
    EXPECT_EQ(info.fl_first, 0x01020304U);
    EXPECT_EQ(info.fl_last, 0x05060708U);
    EXPECT_EQ(info.offset_bt_root, 0x090A0B0CU);
    EXPECT_THAT(bench.reader.calls, ElementsAre(seekCall(2L * 500 * 512 + 512), readCall(512)));
    EXPECT_THAT(bench.logger.entries, ElementsAre(debugEntry("fsi addr = 512512"), debugEntry("magic 0x58414746"),
                                                  debugEntry("fl_first 16909060"), debugEntry("fl_last 84281096"),
                                                  debugEntry("offset_bt_root 151653132")));
}

TEST(XFSParserFreeSpaceHeader, OnlyTheSectorSizeComesFromTheSuperblock) {
    // Groups of other sizes than the volume's own are what the arguments say.
    XfsGeometry geometry;
    geometry.blockSize = 4096;
    geometry.sectorSize = 4096;
    geometry.totalBlocks = 500;
    XfsBuilder builder(geometry);
    std::vector<std::uint8_t> const header(builder.bytes.begin() + 4096, builder.bytes.begin() + 8192);
    std::copy(header.begin(), header.end(), builder.bytes.begin() + 3L * 7 * 100 + 4096); // group 3 of 7 blocks of 100
    XfsBench bench(builder);
    bench.forget();
    xfs_free_space_info info{};
    EXPECT_EQ(bench.parser.read_fsi(3, 7, 100, &info), 0U);
    EXPECT_EQ(bench.logger.entries.front(), debugEntry("fsi addr = 6196"));
    EXPECT_THAT(bench.reader.calls, ElementsAre(seekCall(6144), readCall(1024)));
}

TEST(XFSParserFreeSpaceHeader, LargeSectorIsReadForItsFirst512Bytes) {
    XfsGeometry geometry;
    geometry.blockSize = 4096;
    geometry.sectorSize = 4096;
    XfsBench bench{XfsBuilder(geometry)};
    bench.forget();
    xfs_free_space_info info{};
    EXPECT_EQ(bench.parser.read_fsi(1, 500, 4096, &info), 0U);
    EXPECT_THAT(bench.reader.calls, ElementsAre(seekCall(500L * 4096 + 4096), readCall(512)));
}

TEST(XFSParserFreeSpaceHeader, AddressHas64Bits) {
    XfsBench bench{XfsBuilder()};
    bench.forget();
    xfs_free_space_info info{};
    EXPECT_EQ(bench.parser.read_fsi(0x10000, 0x10000, 0x10000, &info), kFailed);
    EXPECT_EQ(bench.logger.entries.front(), debugEntry("fsi addr = 281474976711168"));
    EXPECT_EQ(bench.reader.calls.front(), seekCall(281474976711168));
}

TEST(XFSParserFreeSpaceHeader, OtherMagicIsNamed) {
    XfsBuilder builder;
    builder.setHeader32(1, xfs_header::kMagic, 0x58414749); // the header of inodes
    XfsBench bench(builder);
    bench.forget();
    xfs_free_space_info info{};
    EXPECT_EQ(bench.parser.read_fsi(1, 500, 512, &info), kFailed);
    EXPECT_THAT(bench.logger.entries,
                ElementsAre(debugEntry("fsi addr = 256512"), errorEntry("Invalid fsi magic number.")));
    EXPECT_EQ(info.magic, 0x58414749U) << "the fields are decoded before the magic is looked at";
    EXPECT_EQ(info.offset_bt_root, 4U);
}

TEST(XFSParserFreeSpaceHeader, UnreadableSectorIsNamed) {
    MemoryReader const volume = XfsBuilder().reader();
    FaultyReader const faulty(volume, Fault::ReadFails, 1);
    RecordingLogger logger;
    ExposedXfsParser const parser(logger, 512, faulty);
    logger.entries.clear();
    xfs_free_space_info info{};
    EXPECT_EQ(parser.read_fsi(1, 500, 512, &info), kFailed);
    EXPECT_THAT(logger.entries, ElementsAre(debugEntry("fsi addr = 256512"),
                                            debugEntry("CHUNK READ FILE FAILED: OFFSET: 256512 - 512 BYTES"),
                                            errorEntry("Can't read fsi block.")));
}

TEST(XFSParserFreeList, WithoutChecksumsIs128EntriesFromTheFourthSectorsStart) {
    XfsBuilder builder;
    std::vector<std::uint32_t> blocks(128);
    std::iota(blocks.begin(), blocks.end(), 0x01020300U);
    builder.setFreeList(1, 0, blocks);
    XfsBench bench(builder);
    bench.forget();
    Entries entries = untouchedEntries();
    EXPECT_EQ(bench.parser.read_agfl(0xB4A4, 1, 500, 512, entries.data()), 0U);
    EXPECT_TRUE(std::equal(blocks.begin(), blocks.end(), entries.begin()));
    EXPECT_EQ(entries[128], kUntouched);
    EXPECT_THAT(bench.reader.calls, ElementsAre(seekCall(500L * 512 + 3 * 512), readCall(512)));
    // Neither the block size nor a header are in the logged address.
    EXPECT_THAT(bench.logger.entries, ElementsAre(debugEntry("agfl addr = 2036, len = 512")));
}

TEST(XFSParserFreeList, WithChecksumsIs119EntriesBehindAHeader) {
    XfsBuilder builder(checksummed());
    std::vector<std::uint32_t> blocks(119);
    std::iota(blocks.begin(), blocks.end(), 0xF1020300U);
    builder.setFreeList(1, 0, blocks);
    XfsBench bench(builder, 4);
    bench.forget();
    Entries entries = untouchedEntries();
    EXPECT_EQ(bench.parser.read_agfl(0xB4A5, 1, 500, 1024, entries.data()), 0U);
    EXPECT_TRUE(std::equal(blocks.begin(), blocks.end(), entries.begin()));
    EXPECT_EQ(entries[119], kUntouched);
    EXPECT_THAT(bench.reader.calls, ElementsAre(seekCall(500L * 1024 + 3 * 512 + 36), readCall(476)));
    EXPECT_THAT(bench.logger.entries, ElementsAre(debugEntry("agfl addr = 2036, len = 512")));
}

TEST(XFSParserFreeList, VersionOfTheArgumentDecidesAndNotTheSuperblocks) {
    XfsBench bench(XfsBuilder(checksummed()), 4);
    Entries entries = untouchedEntries();
    bench.forget();
    EXPECT_EQ(bench.parser.read_agfl(0x0004, 0, 500, 1024, entries.data()), 0U);
    EXPECT_THAT(bench.reader.calls, ElementsAre(seekCall(1536), readCall(512)));
    EXPECT_EQ(entries[0], 0x5841464CU) << "the header's magic is taken for an entry";
    bench.forget();
    EXPECT_EQ(bench.parser.read_agfl(0x0015, 0, 500, 1024, entries.data()), 0U);
    EXPECT_THAT(bench.reader.calls, ElementsAre(seekCall(1572), readCall(476)));
}

TEST(XFSParserFreeList, LargeSectorIsReadForItsFirst512BytesAlone) {
    XfsGeometry geometry = checksummed();
    geometry.blockSize = 4096;
    geometry.sectorSize = 4096;
    XfsBuilder builder(geometry);
    std::vector<std::uint32_t> blocks(geometry.listCapacity());
    std::iota(blocks.begin(), blocks.end(), 1U);
    builder.setFreeList(2, 0, blocks);
    XfsBench bench(builder);
    bench.forget();
    Entries entries = untouchedEntries();
    EXPECT_EQ(bench.parser.read_agfl(0xB4A5, 2, 500, 4096, entries.data()), 0U);
    EXPECT_EQ(entries[118], 119U);
    EXPECT_EQ(entries[119], kUntouched);
    EXPECT_THAT(bench.reader.calls, ElementsAre(seekCall(1000L * 4096 + 3 * 4096), readCall(512)));
    EXPECT_THAT(bench.logger.entries, ElementsAre(debugEntry("agfl addr = 13288, len = 512")));
}

TEST(XFSParserFreeList, AddressHas64Bits) {
    XfsBench bench{XfsBuilder()};
    bench.forget();
    Entries entries = untouchedEntries();
    EXPECT_EQ(bench.parser.read_agfl(4, 0x10000, 0x10000, 0x10000, entries.data()), 0U);
    EXPECT_THAT(bench.logger.entries, ElementsAre(debugEntry("agfl addr = 4294968832, len = 512")));
    EXPECT_EQ(bench.reader.calls.front(), seekCall(281474976710656 + 1536));
    EXPECT_EQ(entries[127], 0U) << "what the volume does not deliver arrives as zeros";
}

TEST(XFSParserFreeList, UnreadableSectorHasNoMessageOfItsOwn) {
    MemoryReader const volume = XfsBuilder().reader();
    FaultyReader const faulty(volume, Fault::SeekFails, 1);
    RecordingLogger logger;
    ExposedXfsParser const parser(logger, 512, faulty);
    logger.entries.clear();
    Entries entries = untouchedEntries();
    EXPECT_EQ(parser.read_agfl(0xB4A4, 0, 500, 512, entries.data()), kFailed);
    EXPECT_THAT(logger.entries, ElementsAre(debugEntry("agfl addr = 1536, len = 512")));
    EXPECT_EQ(entries, untouchedEntries());
}

} // namespace
