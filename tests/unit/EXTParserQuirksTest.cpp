// What the ext parser keeps on purpose although it is not what the volume means, a test each.
#include "support/ExtRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

using namespace tests;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

ExtBuilder makeFullVolume(ExtGeometry const& geometry = {}) {
    ExtBuilder builder(geometry);
    builder.setUsedFrom(geometry.firstDataBlock, geometry.blocksCount - geometry.firstDataBlock);
    return builder;
}

std::vector<std::uint8_t> slice(std::vector<std::uint8_t> const& bytes, std::uint64_t from, std::uint64_t length) {
    auto const begin = bytes.begin() + static_cast<long>(from);
    return {begin, begin + static_cast<long>(length)};
}

TEST(EXTParserQuirks, BlockZeroOfOneKiBBlocksIsFreeAndCounted) {
    ExtBench bench(makeFullVolume());
    ExtOutcome const outcome = bench.chunk(0, 2);
    EXPECT_EQ(outcome.result, 16);
    EXPECT_THAT(outcome.buffer, ElementsAre(0xFE, 0xFF));
    // Block 1 is the first that belongs to a group.
    EXPECT_THAT(bench.chunk(1, 2).buffer, ElementsAre(0xFF, 0xFF));
}

TEST(EXTParserQuirks, UninitialisedGroupIsFreeWithoutARead) {
    // Its bitmap block holds metadata's bits, all the same.
    ExtBuilder builder = makeFullVolume(ExtGeometry::with4KiBBlocks(100000));
    builder.setFlags(1, ext_group::kBlocksUninitialised);
    ExtBench bench(builder);
    ExtOutcome const outcome = bench.chunk(0, 12500);
    EXPECT_EQ(outcome.result, 100000);
    EXPECT_THAT(slice(outcome.buffer, 0, 4096), Each(0xFF));
    EXPECT_THAT(slice(outcome.buffer, 4096, 4096), Each(0));
    EXPECT_THAT(slice(outcome.buffer, 8192, 4308), Each(0xFF));
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(4096), readCall(512), seekCall(8192), readCall(4096),
                                           seekCall(16384), readCall(4096), seekCall(20480), readCall(4096)));
}

TEST(EXTParserQuirks, UninitialisedFirstGroupIsFreeAlthoughItHoldsTheSuperblock) {
    ExtBuilder builder = makeFullVolume();
    builder.setFlags(0, ext_group::kBlocksUninitialised);
    ExtBench bench(builder);
    ExtOutcome const outcome = bench.chunk(0, 1024);
    EXPECT_EQ(outcome.result, 8192);
    EXPECT_THAT(outcome.buffer, Each(0));
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(2048), readCall(512)));
}

TEST(EXTParserQuirks, OnlyBit02OfTheFlagsCounts) {
    ExtBuilder builder = makeFullVolume();
    for (unsigned group = 0; group < 3; ++group) {
        builder.setFlags(group, 0xFD);
    }
    ExtBench plain(builder);
    EXPECT_THAT(plain.chunk(1, 1024).buffer, Each(0xFF));
    // The high byte of the 16-bit flags is not looked at.
    builder.bytes.at(builder.geometry().descriptorOffset(0) + ext_group::kFlags + 1) = 0xFF;
    ExtBench high(builder);
    EXPECT_THAT(high.chunk(1, 1024).buffer, Each(0xFF));
}

TEST(EXTParserQuirks, HighHalvesAreNeverRead) {
    ExtGeometry geometry;
    geometry.is64Bit = true;
    geometry.descriptorSize = 64;
    ExtBuilder builder = ExtBuilder(geometry).fillBitmapsAtRandom(5);
    ExtOutcome const before = runExtChunk(builder.bytes, {512, 0, 2600});
    builder.setSuper32(ext_super::kBlocksCountHigh, 1);
    for (unsigned group = 0; group < 3; ++group) {
        builder.bytes.at(geometry.descriptorOffset(group) + ext_group::kBitmapLocationHigh) = 1;
    }
    ExtOutcome const after = runExtChunk(builder.bytes, {512, 0, 2600});
    EXPECT_EQ(before.result, 20000);
    EXPECT_EQ(after, before);
}

TEST(EXTParserQuirks, DescriptorSizeCountsWithFeature80Only) {
    ExtBuilder builder = ExtBuilder().fillBitmapsAtRandom(6);
    builder.setSuper16(ext_super::kDescriptorSize, 64);
    builder.setSuper32(ext_super::kIncompatibleFeatures, 0xFFFFFF7F);
    ExtOutcome const without = runExtChunk(builder.bytes, {512, 0, 2600});
    EXPECT_EQ(bitsOf(without.buffer, 20000), builder.map());

    // With it, group 1's descriptor is looked for at byte 64, where that of group 2 stands.
    builder.setSuper32(ext_super::kIncompatibleFeatures, 0x80);
    ExtBench with(builder);
    EXPECT_EQ(with.chunk(8193, 1024).calls.at(2), seekCall(static_cast<long>(builder.bitmapOffset(2))));
}

TEST(EXTParserQuirks, WholeBufferIsClearedAlsoPastTheEnd) {
    ExtBench bench(makeFullVolume());
    ExtOutcome const outcome = bench.chunk(19990, 64);
    EXPECT_EQ(outcome.result, 10);
    EXPECT_THAT(slice(outcome.buffer, 0, 2), ElementsAre(0xFF, 0x03));
    EXPECT_THAT(slice(outcome.buffer, 2, 62), Each(0));
}

TEST(EXTParserQuirks, BufferIsClearedBeforeTheTableFails) {
    ExtBuilder const builder;
    MemoryReader const volume = builder.reader();
    FaultyReader const faulty(volume, Fault::SeekFails, 1);
    RecordingLogger logger;
    ExposedExtParser const parser(logger, 512, faulty);
    std::vector<char> buffer(32, '\x55');
    EXPECT_EQ(parser.getChunk(0, buffer.data(), buffer.size()), -1);
    EXPECT_THAT(buffer, Each('\0'));
    EXPECT_THAT(logger.entries, ElementsAre(errorEntry("Can't read bgd table"), extWrapperEntry()));
}

TEST(EXTParserQuirks, TableIsReadAgainAtEveryCall) {
    ExtBuilder builder = makeFullVolume();
    ExtBench bench(builder);
    EXPECT_THAT(bench.chunk(1, 1).buffer, ElementsAre(0xFF));
    // A change of the descriptor shows at the next call; one of the superblock does not.
    builder.setFlags(0, ext_group::kBlocksUninitialised);
    builder.setSuper32(ext_super::kBlocksCountLow, 0);
    bench.volume.bytes = builder.bytes;
    ExtOutcome const second = bench.chunk(1, 1);
    EXPECT_EQ(second.result, 8);
    EXPECT_THAT(second.buffer, ElementsAre(0));
    EXPECT_THAT(second.calls, ElementsAre(seekCall(2048), readCall(512)));
}

TEST(EXTParserQuirks, ShortGroupBitmapLeavesTheEarlierGroupsBits) {
    ExtBuilder builder = makeFullVolume(ExtGeometry::with4KiBBlocks(65536));
    builder.setUsed(32768, false);
    // The volume ends 100 bytes into the bitmap of group 1.
    builder.resize(builder.bitmapOffset(1) + 100);
    ExtBench bench(builder);
    ExtOutcome const both = bench.chunk(0, 8192);
    EXPECT_EQ(both.result, 65536);
    EXPECT_EQ(both.buffer[4096], 0xFE);
    EXPECT_THAT(slice(both.buffer, 4097, 4095), Each(0xFF)) << "99 bytes read, the rest from group 0";
    // Asked for alone, group 1 has nothing before it.
    ExtOutcome const alone = bench.chunk(32768, 4096);
    EXPECT_EQ(alone.result, 32768);
    EXPECT_THAT(slice(alone.buffer, 1, 99), Each(0xFF));
    EXPECT_THAT(slice(alone.buffer, 100, 3996), Each(0));
    EXPECT_THAT(alone.entries, IsEmpty());
}

TEST(EXTParserQuirks, ShortGroupBitmapIsCountedFromTheAlignedStart) {
    // Group 1's bitmap is at byte 4096 of the volume and group 2's at 5120, which is 1024 into a unit of 4096.
    ExtBuilder builder = makeFullVolume();
    builder.resize(builder.bitmapOffset(2) + 10);
    ExtBench bench(builder, 4096);
    ExtOutcome const outcome = bench.chunk(8193, 1024 + 300);
    EXPECT_EQ(outcome.result, (1024 + 300) * 8);
    EXPECT_THAT(slice(outcome.buffer, 0, 1024 + 10), Each(0xFF));
    // 1034 bytes count as delivered, which is the whole bitmap: the missing ones are zeros, not group 1's bits.
    EXPECT_THAT(slice(outcome.buffer, 1034, 290), Each(0));
}

TEST(EXTParserQuirks, MissingTableReadsAsDescriptorsOfZeros) {
    // Every bitmap is then taken from block 0, whose bytes are the boot block's.
    ExtBuilder builder = makeFullVolume();
    builder.resize(2048);
    std::fill_n(builder.bytes.begin(), 1024, std::uint8_t{0x0F});
    ExtBench bench(builder);
    ExtOutcome const outcome = bench.chunk(1, 3000);
    EXPECT_EQ(outcome.result, 19999);
    EXPECT_THAT(slice(outcome.buffer, 0, 2499), Each(0x0F));
    EXPECT_THAT(outcome.entries, IsEmpty());
}

TEST(EXTParserQuirks, TableSizeWrapsAt32Bits) {
    // 2^27 + 1 descriptors of 32 bytes are 2^32 + 32 bytes, of which 32 are kept: one descriptor.
    ExtBuilder builder = makeFullVolume();
    builder.setSuper32(ext_super::kBlocksPerGroup, 8).setSuper32(ext_super::kBlocksCountLow, (1U << 30) + 2);
    ExtBench bench(builder);
    ExtOutcome const first = bench.chunk(1, 1);
    EXPECT_EQ(first.result, -1) << "the limit shows at group 1 only, whose descriptor is outside";
    EXPECT_THAT(first.entries, ElementsAre(errorEntry("Can't read bgd table"), extWrapperEntry()));
    EXPECT_THAT(first.calls, ElementsAre(seekCall(2048), readCall(512), seekCall(3072), readCall(512)));
    ExtOutcome const fromZero = bench.chunk(0, 1);
    EXPECT_EQ(fromZero.result, 8);
    EXPECT_THAT(fromZero.buffer, ElementsAre(0xFE));
}

TEST(EXTParserQuirks, GroupsFirstBlockWrapsAt32Bits) {
    // Blocks 0xFFFFFFF0 and on belong to groups 0 and 1, so that group 2 begins with block 0.
    ExtGeometry geometry;
    geometry.blocksPerGroup = 8;
    geometry.blocksCount = 1 + 8 * 15;
    ExtBuilder builder(geometry);
    builder.setUsedFrom(1 + 8 * 2, 8);
    // The table is at the block that follows the first data block; block bytes of 0 put it, and everything, at byte 0.
    builder.setSuper32(ext_super::kFirstDataBlock, 0xFFFFFFF0).setSuper32(ext_super::kBlocksCountLow, 100);
    builder.setSuper32(ext_super::kLogBlockSize, 22);
    std::vector<std::uint8_t> bytes = builder.bytes;
    bytes.at(0) = 0xA5;
    ExtBench bench(bytes);
    ExtOutcome const outcome = bench.chunk(0, 64);
    EXPECT_EQ(outcome.result, 100);
    // Fifteen groups from block 0xFFFFFFF0 on, all with byte 0 as their bitmap; those below block 100 count.
    EXPECT_THAT(slice(outcome.buffer, 0, 12), Each(0xA5));
    EXPECT_EQ(outcome.buffer[12], 0x05);
}

TEST(EXTParserGroupBitmap, GroupNumberAndDestinationAreTheCallers) {
    ExtBuilder const builder = ExtBuilder().fillBitmapsAtRandom(7);
    ExtBench bench(builder);
    bench.reader.calls.clear();
    auto table = slice(builder.bytes, builder.geometry().tableOffset(), 96);
    std::vector<std::uint8_t> bits(100, 0xAA);
    EXPECT_TRUE(bench.parser.fs_get_block_bitmap(table.data(), 2, 90, bits.data()));
    EXPECT_EQ(slice(bits, 0, 90), slice(builder.bytes, builder.bitmapOffset(2), 90));
    EXPECT_THAT(slice(bits, 90, 10), Each(0xAA));
    EXPECT_THAT(bench.reader.calls, ElementsAre(seekCall(5120), readCall(512)));
}

TEST(EXTParserGroupBitmap, UninitialisedGroupIsFilledWithZeros) {
    ExtBench bench(makeFullVolume());
    bench.reader.calls.clear();
    std::vector<std::uint8_t> table(64);
    table[32 + ext_group::kFlags] = ext_group::kBlocksUninitialised;
    std::vector<std::uint8_t> bits(100, 0xAA);
    EXPECT_TRUE(bench.parser.fs_get_block_bitmap(table.data(), 1, 90, bits.data()));
    EXPECT_THAT(slice(bits, 0, 90), Each(0));
    EXPECT_THAT(slice(bits, 90, 10), Each(0xAA));
    EXPECT_THAT(bench.reader.calls, IsEmpty());
}

TEST(EXTParserGroupBitmap, FailedReadIsNamedAndFalse) {
    MemoryReader const volume = ExtBuilder().reader();
    FaultyReader const faulty(volume, Fault::ReadFails, 1);
    RecordingLogger logger;
    ExposedExtParser const parser(logger, 512, faulty);
    std::vector<std::uint8_t> table(32);
    std::vector<std::uint8_t> bits(8, 0xAA);
    EXPECT_FALSE(parser.fs_get_block_bitmap(table.data(), 0, 8, bits.data()));
    EXPECT_THAT(bits, Each(0xAA));
    EXPECT_THAT(logger.entries, ElementsAre(debugEntry("CHUNK READ FILE FAILED: OFFSET: 0 - 512 BYTES"),
                                            errorEntry("Can't read bitmap")));
}

} // namespace
