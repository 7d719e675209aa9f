// The ext parser on sound volumes: construction, the numbers of each request, the reads that reach the volume.
#include "support/ExtRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

namespace {

using namespace tests;
using agent::core::fs::EXTParser;
using testing::ElementsAre;
using testing::IsEmpty;

/// Four groups of 4 KiB blocks: the table in block 1, the bitmaps in blocks 2 to 5.
ExtBuilder makeFourGroups() {
    return ExtBuilder(ExtGeometry::with4KiBBlocks(100000)).fillBitmapsAtRandom(1);
}

/// The bits that a chunk should show from `start` on.
std::vector<bool> expectedBits(ExtBuilder const& builder, std::uint64_t start, long count) {
    std::vector<bool> bits;
    for (long i = 0; i < count; ++i) {
        bits.push_back(builder.isUsed(start + static_cast<std::uint64_t>(i)));
    }
    return bits;
}

TEST(EXTParserRecognition, NullBufferIsNotExt) {
    EXPECT_FALSE(EXTParser::isEXTFileSystem(nullptr));
}

TEST(EXTParserRecognition, MagicAtOffset38IsExt) {
    std::array<std::uint8_t, 1024> super{};
    EXPECT_FALSE(EXTParser::isEXTFileSystem(super.data()));
    super[0x38] = 0x53;
    EXPECT_FALSE(EXTParser::isEXTFileSystem(super.data()));
    super[0x39] = 0xEF;
    EXPECT_TRUE(EXTParser::isEXTFileSystem(super.data()));
}

TEST(EXTParserRecognition, MagicOfTheOtherByteOrderIsNotExt) {
    std::array<std::uint8_t, 1024> super{};
    super[0x38] = 0xEF;
    super[0x39] = 0x53;
    EXPECT_FALSE(EXTParser::isEXTFileSystem(super.data()));
}

TEST(EXTParserRecognition, NothingBehindTheMagicIsLookedAt) {
    std::vector<std::uint8_t> const shortest = [] {
        std::vector<std::uint8_t> bytes(0x3A);
        bytes[0x38] = 0x53;
        bytes[0x39] = 0xEF;
        return bytes;
    }();
    auto copy = shortest;
    EXPECT_TRUE(EXTParser::isEXTFileSystem(copy.data()));
}

struct ConstructionReads {
    unsigned alignment;
    long seek;
    long read;
};

class EXTParserConstruction : public testing::TestWithParam<ConstructionReads> {};

TEST_P(EXTParserConstruction, ReadsTheUnitsOfTheSuperblockOnce) {
    ExtBench bench(makeFourGroups(), GetParam().alignment);
    EXPECT_THAT(bench.reader.calls, ElementsAre(seekCall(GetParam().seek), readCall(GetParam().read)));
    EXPECT_THAT(bench.logger.entries, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Alignments, EXTParserConstruction,
                         testing::Values(ConstructionReads{512, 1024, 1024}, ConstructionReads{1024, 1024, 1024},
                                         ConstructionReads{4096, 0, 4096}, ConstructionReads{1, 1024, 1024}),
                         [](auto const& instance) { return "By" + std::to_string(instance.param.alignment); });

TEST(EXTParserConstructionFailure, VolumeWithoutMagicIsRefused) {
    ExtBuilder builder;
    builder.setSuper16(ext_super::kMagic, 0xEF52);
    EXPECT_THAT([&] { ExtBench bench(builder); },
                testing::ThrowsMessage<std::runtime_error>(testing::StrEq("Not an EXT filesystem.")));
}

TEST(EXTParserConstructionFailure, UnreadableSuperblockIsNamed) {
    MemoryReader const volume = ExtBuilder().reader();
    FaultyReader const faulty(volume, Fault::ReadFails, 0);
    RecordingLogger logger;
    EXPECT_THAT([&] { EXTParser(logger, 512, faulty); },
                testing::ThrowsMessage<std::runtime_error>(testing::StrEq("Could not read EXT super block.")));
    EXPECT_THAT(logger.entries, ElementsAre(debugEntry("CHUNK READ FILE FAILED: OFFSET: 1024 - 1024 BYTES")));
}

TEST(EXTParserConstructionFailure, EmptyVolumeReadsAsZerosAndIsNotExt) {
    EXPECT_THAT([] { ExtBench bench(std::vector<std::uint8_t>{}); },
                testing::ThrowsMessage<std::runtime_error>(testing::StrEq("Not an EXT filesystem.")));
}

TEST(EXTParserConstructionFailure, VolumeThatEndsBehindTheNeededFieldsIsAccepted) {
    // The superblock's last field of use ends at 0x100; a short read is no failure.
    ExtBuilder builder = makeFourGroups();
    builder.resize(kExtSuperBlockOffset + 0x100);
    ExtBench bench(builder);
    EXPECT_EQ(bench.chunk(100001, 8).entries.front(), errorEntry("Invalid start block"));
}

TEST(EXTParserOrder, LeastSignificantBitComesFirst) {
    ExtBench bench(makeFourGroups());
    EXPECT_FALSE(bench.parser.isMostSignificantBitFirst());
}

TEST(EXTParserChunk, FourGroupsFromBlockZero) {
    ExtBuilder const builder = makeFourGroups();
    ASSERT_EQ(builder.geometry().groups(), 4U);
    ExtBench bench(builder);
    ExtOutcome const outcome = bench.chunk(0, 4096);
    EXPECT_EQ(outcome.result, 32768);
    EXPECT_EQ(bitsOf(outcome.buffer, outcome.result), expectedBits(builder, 0, 32768));
    EXPECT_THAT(outcome.entries, IsEmpty());
}

TEST(EXTParserChunk, LastGroupEndsWithTheBlocksCount) {
    ExtBuilder const builder = makeFourGroups();
    ExtBench bench(builder);
    ExtOutcome const outcome = bench.chunk(98304, 4096);
    EXPECT_EQ(outcome.result, 1696);
    EXPECT_EQ(bitsOf(outcome.buffer, outcome.result), expectedBits(builder, 98304, 1696));
    // What the bitmap holds past the last block is padding and does not get through.
    EXPECT_THAT(std::vector(outcome.buffer.begin() + 212, outcome.buffer.end()), testing::Each(0));
}

TEST(EXTParserChunk, StartInTheMiddleOfAGroup) {
    ExtBuilder const builder = makeFourGroups();
    ExtBench bench(builder);
    ExtOutcome const outcome = bench.chunk(40000, 100);
    EXPECT_EQ(outcome.result, 800);
    EXPECT_EQ(bitsOf(outcome.buffer, outcome.result), expectedBits(builder, 40000, 800));
    // The table, then the bitmap of group 1 alone; its bit 7232 is the chunk's bit 0.
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(4096), readCall(512), seekCall(12288), readCall(4096)));
    EXPECT_EQ(bitAt(outcome.buffer, 0), ((builder.bytes.at(12288 + 7232 / 8) >> (7232 % 8)) & 1) != 0);
}

TEST(EXTParserChunk, OneLongChunkCoversTheWholeVolume) {
    ExtBuilder const builder = makeFourGroups();
    ExtBench bench(builder);
    ExtOutcome const outcome = bench.chunk(0, 20000);
    EXPECT_EQ(outcome.result, 100000);
    EXPECT_EQ(bitsOf(outcome.buffer, outcome.result), builder.map());
}

TEST(EXTParserChunk, OneKiBBlocksBeginWithBlockOne) {
    ExtBuilder builder;
    builder.setUsed(1);
    ExtBench bench(builder);
    ExtOutcome const outcome = bench.chunk(0, 1024);
    EXPECT_EQ(outcome.result, 8192);
    EXPECT_EQ(outcome.buffer[0], 0x02);
    EXPECT_THAT(std::vector(outcome.buffer.begin() + 1, outcome.buffer.end()), testing::Each(0));
    // The table in block 2, the bitmap in block 3; group 0 reaches to block 8192, so that group 1 is not needed.
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(2048), readCall(512), seekCall(3072), readCall(1024)));
}

TEST(EXTParserChunk, StartEqualToTheCountGivesZeroAfterTheReads) {
    ExtBench bench(makeFourGroups());
    ExtOutcome const outcome = bench.chunk(100000, 4096);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_THAT(outcome.buffer, testing::Each(0));
    EXPECT_THAT(outcome.entries, IsEmpty());
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(4096), readCall(512), seekCall(20480), readCall(4096)));
}

TEST(EXTParserChunk, StartEqualToACountOfWholeGroupsReadsTheTableAlone) {
    ExtBench bench(ExtBuilder(ExtGeometry::with4KiBBlocks(65536)));
    ExtOutcome const outcome = bench.chunk(65536, 16);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(4096), readCall(512)));
}

TEST(EXTParserChunk, StartPastTheCountIsInvalid) {
    ExtBench bench(makeFourGroups());
    for (std::uint64_t const start : {std::uint64_t{100001}, std::uint64_t{0x1'0000'0000}, ~std::uint64_t{0}}) {
        ExtOutcome const outcome = bench.chunk(start, 4096);
        EXPECT_EQ(outcome.result, -1);
        EXPECT_THAT(outcome.entries, ElementsAre(errorEntry("Invalid start block"), extWrapperEntry()));
        EXPECT_THAT(outcome.calls, IsEmpty());
        EXPECT_THAT(outcome.buffer, testing::Each(0xAA)) << "nothing is cleared before the start is checked";
    }
}

TEST(EXTParserChunk, NullBufferIsInvalid) {
    ExtBench bench(makeFourGroups());
    bench.reader.calls.clear();
    EXPECT_EQ(bench.parser.getChunk(0, nullptr, 4096), -1);
    EXPECT_THAT(bench.logger.entries, ElementsAre(errorEntry("Invalid bitmap buffer"), extWrapperEntry()));
    EXPECT_THAT(bench.reader.calls, IsEmpty());
}

TEST(EXTParserChunk, StartIsCheckedBeforeTheBuffer) {
    ExtBench bench(makeFourGroups());
    EXPECT_EQ(bench.parser.getChunk(100001, nullptr, 4096), -1);
    EXPECT_THAT(bench.logger.entries, ElementsAre(errorEntry("Invalid start block"), extWrapperEntry()));
}

TEST(EXTParserChunk, LengthOfZeroReadsAndCoversNothing) {
    ExtBench bench(makeFourGroups());
    ExtOutcome const outcome = bench.chunk(0, 0);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(4096), readCall(512), seekCall(8192), readCall(4096)));
}

TEST(EXTParserChunk, RoutineBehindTheWrapperLogsTheCauseAlone) {
    ExtBench bench(makeFourGroups());
    char buffer = 0;
    EXPECT_EQ(bench.parser.fs_get_blocks_bitmap_chunk(1, 100001, &buffer), -1);
    EXPECT_EQ(bench.parser.fs_get_blocks_bitmap_chunk(1, 0, nullptr), -1);
    EXPECT_THAT(bench.logger.entries,
                ElementsAre(errorEntry("Invalid start block"), errorEntry("Invalid bitmap buffer")));
    EXPECT_EQ(bench.parser.fs_get_blocks_bitmap_chunk(1, 0, &buffer), 8);
}

struct ChunkReads {
    unsigned alignment;
    std::vector<ReaderCall> calls;
};

/// 1 KiB blocks: the table at byte 2048, the bitmaps at 3072, 4096 and 5120.
class EXTParserAlignedReads : public testing::TestWithParam<ChunkReads> {};

TEST_P(EXTParserAlignedReads, TableThenEachBitmapInWholeUnits) {
    ExtBuilder const builder = ExtBuilder().fillBitmapsAtRandom(2);
    ExtBench bench(builder, GetParam().alignment);
    ExtOutcome const outcome = bench.chunk(0, 4096);
    EXPECT_EQ(outcome.calls, GetParam().calls);
    EXPECT_EQ(outcome.result, 20000);
    EXPECT_EQ(bitsOf(outcome.buffer, outcome.result), builder.map());
}

INSTANTIATE_TEST_SUITE_P(Alignments, EXTParserAlignedReads,
                         testing::Values(ChunkReads{512,
                                                    {seekCall(2048), readCall(512), seekCall(3072), readCall(1024),
                                                     seekCall(4096), readCall(1024), seekCall(5120), readCall(1024)}},
                                         ChunkReads{1024,
                                                    {seekCall(2048), readCall(1024), seekCall(3072), readCall(1024),
                                                     seekCall(4096), readCall(1024), seekCall(5120), readCall(1024)}},
                                         ChunkReads{4096,
                                                    {seekCall(0), readCall(4096), seekCall(0), readCall(4096),
                                                     seekCall(4096), readCall(4096), seekCall(4096), readCall(4096)}}),
                         [](auto const& instance) { return "By" + std::to_string(instance.param.alignment); });

TEST(EXTParserReads, NextBitmapIsReadWhenTheBufferIsJustFull) {
    // 4096 bytes hold group 0 exactly; that the limit is reached shows at the first bit of group 1.
    ExtBench bench(makeFourGroups());
    EXPECT_THAT(bench.chunk(0, 4096).calls, ElementsAre(seekCall(4096), readCall(512), seekCall(8192), readCall(4096),
                                                        seekCall(12288), readCall(4096)));
    EXPECT_THAT(bench.chunk(0, 4095).calls, ElementsAre(seekCall(4096), readCall(512), seekCall(8192), readCall(4096)));
}

TEST(EXTParserReads, LargeTableIsReadInPiecesOfFourMiB) {
    // 65 of the largest descriptors are 65471 bytes more than 4 MiB, which is 128 units of 512.
    ExtGeometry geometry;
    geometry.is64Bit = true;
    geometry.descriptorSize = 65535;
    geometry.blocksPerGroup = 8;
    geometry.blocksCount = 1 + 65 * 8;
    ExtBuilder const builder = ExtBuilder(geometry).fillBitmapsAtRandom(4);
    ExtBench bench(builder);
    ExtOutcome const outcome = bench.chunk(0, 1);
    auto const firstBitmap = static_cast<long>(builder.bitmapOffset(0));
    EXPECT_THAT(outcome.calls,
                ElementsAre(seekCall(2048), readCall(4194304), readCall(65536), seekCall(firstBitmap), readCall(512)));
    // The last descriptor comes from the second piece.
    ExtOutcome const whole = bench.chunk(0, 100);
    EXPECT_EQ(bitsOf(whole.buffer, whole.result), builder.map());
}

TEST(EXTParserReads, DescriptorsOf64BytesAreReadWith64Bit) {
    ExtGeometry geometry;
    geometry.is64Bit = true;
    geometry.descriptorSize = 64;
    geometry.blocksCount = 1 + 8192 * 9;
    ExtBuilder const builder = ExtBuilder(geometry).fillBitmapsAtRandom(3);
    ExtBench bench(builder);
    ExtOutcome const outcome = bench.chunk(0, 10000);
    EXPECT_EQ(outcome.calls.at(1), readCall(1024)) << "nine descriptors of 64 bytes, in units of 512";
    EXPECT_EQ(bitsOf(outcome.buffer, outcome.result), builder.map());
}

} // namespace
