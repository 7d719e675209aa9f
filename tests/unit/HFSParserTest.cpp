// The HFS+ parser on sound volumes: construction, the numbers of each request, the reads that reach the volume.
#include "support/HfsRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

namespace {

using namespace tests;
using agent::core::fs::HFSParser;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

/// 40000 blocks of 4 KiB, whose map has 5000 bytes.
HfsGeometry fortyThousand(HfsExtents const& allocationFile) {
    HfsGeometry geometry;
    geometry.blockSize = 4096;
    geometry.totalBlocks = 40000;
    geometry.allocationFile = allocationFile;
    return geometry;
}

HfsBuilder makeFortyThousand(HfsExtents const& allocationFile = {{1, 2}}) {
    return HfsBuilder(fortyThousand(allocationFile)).fillBitmapAtRandom(1);
}

/// The allocation file's bytes.
std::vector<std::uint8_t> bitmapBytes(HfsBuilder const& builder, std::uint64_t from, std::uint64_t count) {
    std::vector<std::uint8_t> bytes;
    for (std::uint64_t i = 0; i < count; ++i) {
        bytes.push_back(builder.bitmapByte(from + i));
    }
    return bytes;
}

/// The buffer of a request that wrote these bytes and left the rest alone.
std::vector<std::uint8_t> bufferOf(std::vector<std::uint8_t> bytes, std::size_t length) {
    bytes.resize(length, kHfsUntouched);
    return bytes;
}

/// Every unit's state, from requests of one length after another.
std::vector<bool> walk(HfsBench& bench, std::uint64_t length) {
    std::vector<bool> used;
    for (;;) {
        HfsOutcome const outcome = bench.chunk(used.size(), length);
        EXPECT_GE(outcome.result, 0);
        if (outcome.result <= 0) {
            return used;
        }
        auto const bits = hfsBitsOf(outcome.buffer, outcome.result);
        used.insert(used.end(), bits.begin(), bits.end());
    }
}

TEST(HFSParserRecognition, NullBufferIsNotHfs) {
    EXPECT_FALSE(HFSParser::isHFSFileSystem(nullptr));
}

TEST(HFSParserRecognition, TwoBytesDecide) {
    for (unsigned first = 0; first < 256; ++first) {
        for (unsigned second = 0; second < 256; ++second) {
            // Exactly two bytes: a look at a third is one that the sanitizer sees.
            std::vector<std::uint8_t> bytes{static_cast<std::uint8_t>(first), static_cast<std::uint8_t>(second)};
            bool const expected = first == 0x48 && (second == 0x2B || second == 0x58);
            ASSERT_EQ(HFSParser::isHFSFileSystem(bytes.data()), expected) << first << ' ' << second;
        }
    }
}

struct ConstructionReads {
    unsigned alignment;
    long read;
};

class HFSParserConstruction : public testing::TestWithParam<ConstructionReads> {};

TEST_P(HFSParserConstruction, ReadsTheUnitsOfTheHeaderAtByteZeroOnce) {
    HfsBench bench(makeFortyThousand(), GetParam().alignment);
    EXPECT_THAT(bench.reader.calls, ElementsAre(seekCall(0), readCall(GetParam().read)));
    EXPECT_THAT(bench.logger.entries, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Alignments, HFSParserConstruction,
                         testing::Values(ConstructionReads{1, 512}, ConstructionReads{512, 512},
                                         ConstructionReads{1024, 1024}, ConstructionReads{4096, 4096}),
                         [](auto const& instance) { return "By" + std::to_string(instance.param.alignment); });

TEST(HFSParserConstructionFailure, OtherSignaturesAreRefused) {
    for (std::uint64_t const signature : {0x0000U, 0x2B48U, 0x4244U, 0x482AU, 0x4859U, 0x6878U}) {
        HfsBuilder builder;
        builder.put(kHfsHeaderOffset, signature, 2);
        RecordingLogger logger;
        MemoryReader const volume(builder.bytes);
        HfsFrontReader const front(volume);
        EXPECT_THAT([&] { HFSParser(logger, 512, front); },
                    testing::ThrowsMessage<std::runtime_error>(testing::StrEq("Not an HFS+ filesystem.")))
            << signature;
        EXPECT_THAT(logger.entries, IsEmpty());
    }
}

TEST(HFSParserConstructionFailure, HeaderInItsUsualPlaceIsNotLookedFor) {
    MemoryReader const volume(HfsBuilder().bytes); // not presented from its header on
    RecordingLogger logger;
    EXPECT_THAT([&] { HFSParser(logger, 512, volume); },
                testing::ThrowsMessage<std::runtime_error>(testing::StrEq("Not an HFS+ filesystem.")));
}

TEST(HFSParserConstructionFailure, UnreadableHeaderIsNamed) {
    MemoryReader const volume(HfsBuilder().bytes);
    FaultyReader const faulty(volume, Fault::ReadFails, 0);
    RecordingLogger logger;
    EXPECT_THAT([&] { HFSParser(logger, 512, faulty); },
                testing::ThrowsMessage<std::runtime_error>(testing::StrEq("Error reading HFS+ superblock.")));
    EXPECT_THAT(logger.entries, ElementsAre(debugEntry("CHUNK READ FILE FAILED: OFFSET: 0 - 512 BYTES")));
}

TEST(HFSParserConstructionFailure, AlignmentThatIsNoneIsRefused) {
    MemoryReader const volume(HfsBuilder().bytes);
    HfsFrontReader const front(volume);
    RecordingLogger logger;
    EXPECT_THAT([&] { HFSParser(logger, 0, front); },
                testing::ThrowsMessage<std::runtime_error>(testing::StrEq("Error reading HFS+ superblock.")));
    EXPECT_THROW(HFSParser(logger, 768, front), std::invalid_argument);
}

TEST(HFSParserOrder, MostSignificantBitComesFirst) {
    HfsBuilder builder;
    for (std::uint64_t block = 3000; block < 3008; ++block) {
        builder.setUsed(block, false);
    }
    HfsBench bench(builder.setUsed(3000).setUsed(3003));
    EXPECT_TRUE(bench.parser.isMostSignificantBitFirst());
    EXPECT_THAT(bench.chunk(3000, 1).buffer, ElementsAre(0x90));
}

TEST(HFSParserBlocks, OfAForkAreTheSumOfItsEightExtents) {
    HfsBench bench{HfsBuilder()};
    auto fork = hfsHeaderOf(bench.volume.bytes).allocationFile;
    EXPECT_EQ(bench.parser.fs_get_num_blocks(fork), 1U);
    fork.totalBlocks = agent::core::fs::HFSPlusForkData{}.totalBlocks;
    EXPECT_EQ(bench.parser.fs_get_num_blocks(fork), 1U) << "the fork's own count does not matter";
    std::memset(&fork, 0xFF, sizeof fork);
    EXPECT_EQ(bench.parser.fs_get_num_blocks(fork), 8UL * 0xFFFFFFFF);
    EXPECT_EQ(bench.parser.fs_get_num_blocks({}), 0U);
    std::array<std::uint8_t, sizeof fork> raw{};
    for (std::size_t i = 0; i < 8; ++i) {
        putBig(raw, hfs_fork::kExtents + 8 * i + 4, std::uint64_t{1} << i, 4);
    }
    std::memcpy(&fork, raw.data(), sizeof fork);
    EXPECT_EQ(bench.parser.fs_get_num_blocks(fork), 255U);
    EXPECT_THAT(bench.logger.entries, IsEmpty());
}

TEST(HFSParserChunk, WholeMapInOneExtent) {
    HfsBuilder const builder = makeFortyThousand();
    HfsBench bench(builder);
    HfsOutcome const outcome = bench.chunk(0, 8192);
    EXPECT_EQ(outcome.result, 40000);
    EXPECT_EQ(outcome.buffer, bufferOf(bitmapBytes(builder, 0, 5000), 8192));
    EXPECT_EQ(hfsBitsOf(outcome.buffer, 40000), builder.map());
    EXPECT_THAT(outcome.entries, IsEmpty());
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(4096), readCall(8192)));
}

TEST(HFSParserChunk, IsReadInBlocksWhateverTheAlignment) {
    HfsBench bench(makeFortyThousand(), 512);
    EXPECT_THAT(bench.chunk(8000, 10).calls, ElementsAre(seekCall(4096), readCall(4096)));
    HfsBench wide(HfsBuilder(), 4096);
    EXPECT_THAT(wide.chunk(0, 10).calls, ElementsAre(seekCall(3L * 512), readCall(512)));
}

TEST(HFSParserChunk, ThatCrossesABlockReadsBoth) {
    HfsBuilder const builder = makeFortyThousand();
    HfsBench bench(builder);
    HfsOutcome const outcome = bench.chunk(8UL * 4090, 12);
    EXPECT_EQ(outcome.result, 96);
    EXPECT_EQ(outcome.buffer, bitmapBytes(builder, 4090, 12));
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(4096), readCall(8192)));
}

TEST(HFSParserChunk, InsideTheSecondExtentStartsAtItsRemainder) {
    HfsBuilder const builder = makeFortyThousand({{10, 1}, {20, 1}});
    HfsBench bench(builder);
    HfsOutcome const outcome = bench.chunk(8UL * (4096 + 100), 50);
    EXPECT_EQ(outcome.result, 400);
    EXPECT_EQ(outcome.buffer, bitmapBytes(builder, 4196, 50));
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(20L * 4096), readCall(4096)));
}

TEST(HFSParserChunk, OverTwoExtentsIsFilledByTwoReads) {
    HfsBuilder const builder = makeFortyThousand({{20, 1}, {10, 1}});
    HfsBench bench(builder);
    HfsOutcome const outcome = bench.chunk(8UL * 4000, 200);
    EXPECT_EQ(outcome.result, 1600);
    EXPECT_EQ(outcome.buffer, bitmapBytes(builder, 4000, 200));
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(20L * 4096), readCall(4096), seekCall(10L * 4096), readCall(4096)));
}

TEST(HFSParserChunk, ThatEndsWithAnExtentDoesNotTouchTheNext) {
    HfsBench bench(makeFortyThousand({{20, 1}, {10, 1}}));
    HfsOutcome const outcome = bench.chunk(0, 4096);
    EXPECT_EQ(outcome.result, 32768);
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(20L * 4096), readCall(4096)));
    EXPECT_THAT(bench.chunk(32768, 8).calls, ElementsAre(seekCall(10L * 4096), readCall(4096)));
}

TEST(HFSParserChunk, AtOrPastTheEndIsEmptyWhateverTheOffset) {
    HfsBench bench(makeFortyThousand());
    for (std::uint64_t const offset : {40000UL, 40001UL, 40008UL, 1UL << 32, ~0UL, ~0UL - 7}) {
        HfsOutcome const outcome = bench.chunk(offset, 16);
        EXPECT_EQ(outcome.result, 0) << offset;
        EXPECT_THAT(outcome.buffer, Each(kHfsUntouched));
        EXPECT_THAT(outcome.calls, IsEmpty());
        EXPECT_THAT(outcome.entries, IsEmpty());
    }
    EXPECT_EQ(bench.chunk(39992, 16).result, 8);
}

TEST(HFSParserChunk, AtAnOffsetThatIsNoMultipleOfEightIsRefused) {
    HfsBench bench(makeFortyThousand());
    for (std::uint64_t const offset : {1UL, 7UL, 12UL, 39999UL}) {
        HfsOutcome const outcome = bench.chunk(offset, 16);
        EXPECT_EQ(outcome.result, -1) << offset;
        EXPECT_THAT(outcome.entries, ElementsAre(errorEntry("startBlock must be divisible by 8"), hfsWrapperEntry()));
        EXPECT_THAT(outcome.calls, IsEmpty());
        EXPECT_THAT(outcome.buffer, Each(kHfsUntouched));
    }
}

TEST(HFSParserChunk, OfTheRoutineItselfHasNoSecondEntry) {
    HfsBench bench(makeFortyThousand());
    char byte = 0;
    EXPECT_EQ(bench.parser.fs_get_blocks_bitmap_chunk(12, &byte, 1), -1);
    EXPECT_THAT(bench.logger.entries, ElementsAre(errorEntry("startBlock must be divisible by 8")));
    EXPECT_EQ(bench.parser.fs_get_blocks_bitmap_chunk(16, &byte, 1), 8);
}

TEST(HFSParserChunk, OfLengthZeroIsEmptyAndReadsNothing) {
    HfsBench bench(makeFortyThousand());
    HfsOutcome const outcome = bench.chunk(0, 0);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_THAT(outcome.calls, IsEmpty());
    EXPECT_THAT(outcome.entries, IsEmpty());
    EXPECT_EQ(bench.chunk(12, 0).result, -1);
}

TEST(HFSParserChunk, FailedReadIsNamed) {
    HfsBuilder builder = makeFortyThousand();
    MemoryReader const volume(builder.bytes);
    HfsFrontReader const front(volume);
    FaultyReader const faulty(front, Fault::ReadFails, 1);
    RecordingLogger logger;
    ExposedHfsParser const parser(logger, 512, faulty);
    char byte = 0;
    EXPECT_EQ(parser.getChunk(0, &byte, 1), -1);
    EXPECT_THAT(logger.entries, ElementsAre(debugEntry("CHUNK READ FILE FAILED: OFFSET: 4096 - 4096 BYTES"),
                                            errorEntry("Error in HFS+ parsing read."), hfsWrapperEntry()));
}

TEST(HFSParserChunk, BothSignaturesAreMappedAlike) {
    for (bool const isHfsx : {false, true}) {
        HfsGeometry geometry;
        geometry.isHfsx = isHfsx;
        HfsBuilder const builder = HfsBuilder(geometry).useBlocksAtRandom(3);
        HfsBench bench(builder);
        EXPECT_EQ(walk(bench, 512), builder.map());
    }
}

TEST(HFSParserWalk, GivesTheSameMapInChunksOfAnyLength) {
    HfsGeometry geometry;
    geometry.totalBlocks = 12001; // the last byte has one bit
    geometry.allocationFile = {{40, 1}, {30, 1}, {50, 1}};
    HfsBuilder const builder = HfsBuilder(geometry).useBlocksAtRandom(4);
    HfsBench bench(builder);
    for (std::uint64_t const length : {1UL, 7UL, 64UL, 511UL, 512UL, 513UL, 1024UL, 1501UL, 65536UL}) {
        EXPECT_EQ(walk(bench, length), builder.map()) << length;
    }
}

TEST(HFSParserWalk, KeepsNoCursorBetweenCalls) {
    HfsBuilder const builder = makeFortyThousand();
    HfsBench bench(builder);
    HfsOutcome const first = bench.chunk(8000, 100);
    bench.chunk(0, 100);
    bench.chunk(12, 100);
    EXPECT_EQ(bench.chunk(8000, 100), first);
}

TEST(HFSParserWalk, FollowsTheBitmapButNotTheHeader) {
    // The header is read at construction; the map each time.
    HfsBench bench{HfsBuilder()};
    bench.volume.bytes.at(3 * 512) = 0x5A;
    putBig(bench.volume.bytes, kHfsHeaderOffset + hfs_header::kTotalBlocks, 8, 4);
    HfsOutcome const outcome = bench.chunk(0, 2);
    EXPECT_EQ(outcome.result, 16);
    EXPECT_EQ(outcome.buffer[0], 0x5A);
}

} // namespace
