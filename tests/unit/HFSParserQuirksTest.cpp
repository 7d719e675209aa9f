// What the HFS+ parser does on purpose though one might expect something else: one test each.
#include "support/HfsRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace {

using namespace tests;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

/// A volume with as many fragments of its map, each of one block of 512 bytes, as it needs. With more than eight, the
/// tree has two leaves at least, since a root that is a leaf is refused: records of another file see to it.
HfsGeometry withFragments(std::uint32_t count) {
    HfsGeometry geometry;
    geometry.totalBlocks = count * 4096;
    geometry.allocationFile = hfsFragments(count, 1, 100);
    geometry.recordsPerNode = 1;
    geometry.otherRecords = {{17, 8, {{2000, 1}}}, {18, 8, {{2001, 1}}}};
    return geometry;
}

void expectEmptyMap(HfsOutcome const& outcome) {
    EXPECT_EQ(outcome.result, 0);
    EXPECT_THAT(outcome.buffer, Each(kHfsUntouched));
}

TEST(HFSParserQuirk, ExactlyEightFullExtentsHaveNoMap) {
    HfsBench bench{HfsBuilder(withFragments(8))};
    for (std::uint64_t const offset : {0U, 8U, 32760U}) {
        HfsOutcome const outcome = bench.chunk(offset, 512);
        expectEmptyMap(outcome);
        EXPECT_THAT(outcome.entries, IsEmpty());
        EXPECT_THAT(outcome.calls, IsEmpty());
    }
    EXPECT_EQ(bench.chunk(12, 512).result, -1) << "what is wrong with the request itself is still said";
}

TEST(HFSParserQuirk, SevenExtentsHaveTheirMap) {
    HfsBuilder const builder = HfsBuilder(withFragments(7)).fillBitmapAtRandom(1);
    HfsBench bench(builder);
    HfsOutcome const outcome = bench.chunk(0, 4096);
    EXPECT_EQ(outcome.result, 28672);
    EXPECT_EQ(hfsBitsOf(outcome.buffer, 28672), builder.map());
}

TEST(HFSParserQuirk, EightExtentsAndAFullOverflowRecordHaveNoMap) {
    HfsBench bench{HfsBuilder(withFragments(16))};
    HfsOutcome const outcome = bench.chunk(0, 512);
    expectEmptyMap(outcome);
    EXPECT_THAT(outcome.entries, ElementsAre(hfsSearchEntry())) << "the search itself succeeds";
    EXPECT_EQ(bench.search(kHfsAllocationFileId, HfsExtents(8)).extents.size(), 16U);
}

TEST(HFSParserQuirk, EightExtentsAndAnOverflowRecordWithRoomHaveTheirMap) {
    for (std::uint32_t const count : {9U, 15U, 17U, 23U}) {
        HfsBuilder const builder = HfsBuilder(withFragments(count)).fillBitmapAtRandom(2);
        HfsBench bench(builder);
        HfsOutcome const outcome = bench.chunk(0, 512 * count);
        EXPECT_EQ(outcome.result, 4096L * count);
        EXPECT_EQ(hfsBitsOf(outcome.buffer, outcome.result), builder.map());
    }
}

TEST(HFSParserQuirk, LengthOfTheMapCountsFromTheChunksStart) {
    // 5000 bytes of map in a file of 8192: only 904 of them are left at byte 4096, but the file's end bounds the copy.
    HfsGeometry geometry;
    geometry.blockSize = 4096;
    geometry.totalBlocks = 40000;
    HfsBuilder const builder = HfsBuilder(geometry).fillBitmapAtRandom(3);
    HfsBench bench(builder);
    HfsOutcome const outcome = bench.chunk(32768, 8192);
    EXPECT_EQ(outcome.result, 7232) << "the units end with the volume all the same";
    for (std::uint64_t i = 0; i < 4096; ++i) {
        ASSERT_EQ(outcome.buffer[i], builder.bitmapByte(4096 + i)) << i;
    }
    EXPECT_EQ(outcome.buffer[4096], kHfsUntouched);
}

TEST(HFSParserQuirk, LengthOfTheMapBoundsTheChunkWhereTheFileIsLonger) {
    HfsGeometry geometry;
    geometry.blockSize = 4096;
    geometry.totalBlocks = 40000;
    geometry.allocationFile = {{10, 2}, {20, 4}};
    HfsBuilder const builder = HfsBuilder(geometry).fillBitmapAtRandom(4);
    HfsBench bench(builder);
    HfsOutcome const outcome = bench.chunk(32768, 20000);
    EXPECT_EQ(outcome.result, 7232);
    // 4096 bytes from the first extent, and from the second what is missing to 5000.
    for (std::uint64_t i = 0; i < 5000; ++i) {
        ASSERT_EQ(outcome.buffer[i], builder.bitmapByte(4096 + i)) << i;
    }
    EXPECT_EQ(outcome.buffer[5000], kHfsUntouched);
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(11L * 4096), readCall(4096), seekCall(20L * 4096), readCall(4096)));
}

TEST(HFSParserQuirk, BitsPastTheLastBlockAreWhatTheFileHolds) {
    HfsGeometry geometry;
    geometry.totalBlocks = 4091;
    HfsBuilder builder(geometry);
    for (unsigned const last : {0x00U, 0x1FU, 0xE0U, 0xFFU, 0x15U}) {
        builder.put(builder.bitmapOffset(511), last, 1);
        HfsBench bench(builder);
        HfsOutcome const outcome = bench.chunk(4088, 4);
        EXPECT_EQ(outcome.result, 3);
        EXPECT_EQ(outcome.buffer[0], last);
    }
}

TEST(HFSParserQuirk, ListEndsAtItsFirstEmptyExtentThoughOthersFollow) {
    HfsGeometry geometry;
    geometry.totalBlocks = 3 * 4096;
    geometry.allocationFile = {{40, 1}, {50, 1}, {60, 1}};
    HfsBuilder builder = HfsBuilder(geometry).fillBitmapAtRandom(5);
    builder.setForkExtents(hfs_header::kAllocationFile, {{40, 1}, {}, {60, 2}});
    HfsBench bench(builder);
    EXPECT_EQ(bench.chunk(0, 4096).result, 4096);
    expectEmptyMap(bench.chunk(4096, 4096));
}

TEST(HFSParserQuirk, EmptyFirstExtentIsAnEmptyMap) {
    HfsBuilder builder;
    builder.setForkExtents(hfs_header::kAllocationFile, {{}, {3, 1}});
    HfsBench bench(builder);
    HfsOutcome const outcome = bench.chunk(0, 64);
    expectEmptyMap(outcome);
    EXPECT_THAT(outcome.entries, IsEmpty());
}

TEST(HFSParserQuirk, ExtentOfNoBlocksWithAPlaceIsNoEnd) {
    HfsGeometry geometry;
    geometry.totalBlocks = 2 * 4096;
    geometry.allocationFile = {{40, 1}, {50, 1}};
    HfsBuilder builder = HfsBuilder(geometry).fillBitmapAtRandom(6);
    builder.setForkExtents(hfs_header::kAllocationFile, {{40, 1}, {45, 0}, {50, 1}});
    HfsBench bench(builder);
    EXPECT_EQ(bench.chunk(0, 4096).result, 4096) << "a chunk that comes to it stops there";
    HfsOutcome const behind = bench.chunk(4096, 512);
    EXPECT_EQ(behind.result, 4096) << "a chunk that starts behind it passes it over";
    EXPECT_THAT(behind.calls, ElementsAre(seekCall(50L * 512), readCall(512)));
}

TEST(HFSParserQuirk, ExtentAtBlockZeroIsNoEnd) {
    HfsBuilder builder;
    builder.setForkExtents(hfs_header::kAllocationFile, {{0, 1}});
    HfsBench bench(builder);
    HfsOutcome const outcome = bench.chunk(0, 2);
    EXPECT_EQ(outcome.result, 16);
    EXPECT_THAT(outcome.buffer, ElementsAre('H', '+')) << "it is presented with the header in its first bytes";
}

TEST(HFSParserQuirk, OverflowExtentsBehindAnEmptyOneOfTheHeaderAreFoundAndNotUsed) {
    HfsGeometry geometry = withFragments(9);
    HfsBuilder builder = HfsBuilder(geometry).fillBitmapAtRandom(7);
    HfsExtents few(geometry.allocationFile.begin(), geometry.allocationFile.begin() + 3);
    builder.setForkExtents(hfs_header::kAllocationFile, few);
    HfsBench bench(builder);
    HfsOutcome const outcome = bench.chunk(0, 4608);
    EXPECT_EQ(outcome.result, 3 * 4096);
    EXPECT_THAT(outcome.entries, ElementsAre(hfsSearchEntry()));
    expectEmptyMap(bench.chunk(3 * 4096, 512));
}

TEST(HFSParserQuirk, ForkThatClaimsFewerBlocksThanItsExtentsIsNotSearchedFor) {
    HfsBuilder builder = HfsBuilder(withFragments(9)).fillBitmapAtRandom(8);
    builder.setHeader32(hfs_header::kAllocationFile + hfs_fork::kTotalBlocks, 8);
    HfsBench bench(builder);
    HfsOutcome const outcome = bench.chunk(0, 512);
    expectEmptyMap(outcome); // eight full extents once more
    EXPECT_THAT(outcome.entries, IsEmpty());
    EXPECT_THAT(outcome.calls, IsEmpty());
}

TEST(HFSParserQuirk, LogicalSizeIsNotLookedAt) {
    HfsBuilder builder = HfsBuilder().fillBitmapAtRandom(9);
    HfsOutcome const expected = HfsBench(builder).chunk(0, 600);
    for (std::uint64_t const size : {0UL, 1UL, ~0UL}) {
        builder.put(kHfsHeaderOffset + hfs_header::kAllocationFile + hfs_fork::kLogicalSize, size, 8);
        EXPECT_EQ(HfsBench(builder).chunk(0, 600), expected);
    }
}

TEST(HFSParserQuirk, FileShorterThanTheMapEndsTheWalkEarly) {
    HfsBuilder builder = HfsBuilder().fillBitmapAtRandom(10);
    builder.setHeader32(hfs_header::kTotalBlocks, 10000);
    HfsBench bench(builder);
    EXPECT_EQ(bench.chunk(0, 2000).result, 4096);
    HfsOutcome const next = bench.chunk(4096, 2000);
    expectEmptyMap(next);
    EXPECT_THAT(next.entries, IsEmpty());
    EXPECT_THAT(next.calls, IsEmpty());
}

} // namespace
