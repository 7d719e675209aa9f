// Chunks of the XFS map: the whole trace, the reads, where a chunk ends, and what is inverted.
#include "support/XfsRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace tests;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

/// Three groups of 500, 500 and 300 blocks of 512 bytes; free are two blocks of group 0's list, 100 to 104 and 200 to
/// 209 in its tree of two leaves, 490 to 499, the first 20 blocks behind the headers of group 1, and 290 to 299 of 2.
XfsBuilder makeThreeGroups() {
    XfsBuilder builder;
    builder.plantTree(0, {{100, 5}, {200, 10}, {490, 10}}, {2, 2, 4});
    builder.setFreeList(0, 3, {20, 21});
    builder.plantTree(1, {{5, 20}});
    builder.plantTree(2, {{290, 10}});
    return builder;
}

/// The bits of the map from `start` on.
std::vector<bool> expectedBits(XfsBuilder const& builder, std::uint64_t start, long count) {
    std::vector<bool> const map = builder.map();
    auto const first = map.begin() + static_cast<std::ptrdiff_t>(start);
    return {first, first + count};
}

std::vector<LogEntry> nodeEntries(std::uint64_t address, unsigned level, unsigned records, std::uint32_t left,
                                  std::uint32_t right) {
    return {debugEntry("btn addr = " + std::to_string(address)),
            debugEntry("---BTN HERE---"),
            debugEntry("magic 0x41425442"),
            debugEntry("level " + std::to_string(level)),
            debugEntry("num_recs " + std::to_string(records)),
            debugEntry("left_sib " + std::to_string(left)),
            debugEntry("right_sib " + std::to_string(right)),
            debugEntry("---BTN END---")};
}

void append(std::vector<LogEntry>& entries, std::vector<LogEntry> const& more) {
    entries.insert(entries.end(), more.begin(), more.end());
}

/// The entries before a group's first node.
std::vector<LogEntry> groupEntries(std::uint32_t group, std::uint32_t first, std::uint32_t last,
                                   std::vector<std::uint32_t> const& listed) {
    std::vector<LogEntry> entries{debugEntry("Reading the free space info."),
                                  debugEntry("fsi addr = " + std::to_string(group * 500 * 512 + 512)),
                                  debugEntry("magic 0x58414746"),
                                  debugEntry("fl_first " + std::to_string(first)),
                                  debugEntry("fl_last " + std::to_string(last)),
                                  debugEntry("offset_bt_root 4"),
                                  debugEntry("Reading the allocation group free list."),
                                  debugEntry("agfl addr = " + std::to_string(group * 500 + 1536) + ", len = 512"),
                                  debugEntry("Marking free list")};
    for (std::uint32_t const block : listed) {
        entries.push_back(debugEntry(std::to_string(group) + ": " + std::to_string(block) + " -> 1"));
    }
    entries.push_back(debugEntry("Reading the root b+ node."));
    return entries;
}

TEST(XFSParserChunk, TracesItsWholeWay) {
    XfsBench bench(makeThreeGroups());
    XfsOutcome const outcome = bench.chunk(0, 50);
    std::vector<LogEntry> expected{debugEntry("buf off = 0, buffer_size = 400"),
                                   debugEntry("Iterating over allocation group(s) 0 - 1")};
    append(expected, groupEntries(0, 3, 4, {20, 21}));
    append(expected, nodeEntries(2048, 1, 2, kXfsNoBlock, kXfsNoBlock));
    append(expected, nodeEntries(2560, 0, 2, kXfsNoBlock, 6));
    append(expected, nodeEntries(3072, 0, 1, 5, kXfsNoBlock));
    append(expected, {debugEntry("0: 490 -> 10"), debugEntry("0: 100 -> 5"), debugEntry("0: 200 -> 10"),
                      debugEntry("count = 17")}); // the right leaf first; 490 lies outside the chunk
    EXPECT_EQ(outcome.entries, expected);
    EXPECT_EQ(outcome.result, 400);
    EXPECT_EQ(xfsBits(outcome.buffer, 400), expectedBits(makeThreeGroups(), 0, 400));
}

TEST(XFSParserChunk, ReadsHeadersAndNodesInTheirOrder) {
    XfsBench bench(makeThreeGroups(), 4);
    EXPECT_THAT(bench.chunk(0, 50).calls,
                ElementsAre(seekCall(512), readCall(512), seekCall(1536), readCall(512), // headers
                            seekCall(2048), readCall(56), seekCall(2064), readCall(16),  // root
                            seekCall(2064 + 41 * 8), readCall(8),                        // its children
                            seekCall(2560), readCall(56), seekCall(2576), readCall(16),  // left leaf
                            seekCall(3072), readCall(56), seekCall(3088), readCall(8))); // right leaf
}

TEST(XFSParserChunk, ReadsComeInWholeUnits) {
    XfsBench bench(makeThreeGroups(), 4096);
    EXPECT_THAT(bench.chunk(8, 1).calls, testing::AllOf(testing::SizeIs(18), testing::Contains(seekCall(0)).Times(9),
                                                        testing::Contains(readCall(4096)).Times(9)));
}

TEST(XFSParserChunk, OneLongChunkCoversTheVolume) {
    XfsBench bench(makeThreeGroups());
    XfsOutcome const outcome = bench.chunk(0, 163);
    EXPECT_EQ(outcome.result, 1300);
    EXPECT_EQ(xfsBits(outcome.buffer, 1300), makeThreeGroups().map());
    EXPECT_EQ(outcome.entries.at(1), debugEntry("Iterating over allocation group(s) 0 - 3"));
    EXPECT_EQ(outcome.entries.back(), debugEntry("count = " + std::to_string(2 + 5 + 10 + 10 + 20 + 10)));
}

TEST(XFSParserChunk, OffsetAtOrPastTheEndIsTheEnd) {
    XfsBench bench(makeThreeGroups());
    std::vector<std::uint64_t> const starts{1300, 1301, 1304, std::uint64_t{1} << 40, ~std::uint64_t{0}};
    for (std::uint64_t const start : starts) {
        XfsOutcome const outcome = bench.chunk(start, 10);
        EXPECT_EQ(outcome.result, 0);
        EXPECT_THAT(outcome.buffer, Each(0));
        EXPECT_THAT(outcome.calls, IsEmpty());
        EXPECT_THAT(outcome.entries,
                    ElementsAre(debugEntry("buf off = " + std::to_string(start) + ", buffer_size = 80")));
    }
}

TEST(XFSParserChunk, OffsetThatIsNoMultipleOfEightFails) {
    XfsBench bench(makeThreeGroups());
    for (std::uint64_t const start : {4U, 1U, 7U, 1299U}) {
        XfsOutcome const outcome = bench.chunk(start, 10);
        EXPECT_EQ(outcome.result, -1);
        EXPECT_THAT(outcome.buffer, Each(0));
        EXPECT_THAT(outcome.calls, IsEmpty());
        EXPECT_THAT(
            outcome.entries,
            ElementsAre(debugEntry("buf off = " + std::to_string(start) + ", buffer_size = 80"), xfsWrapperEntry()));
    }
}

TEST(XFSParserChunk, RoutineBehindTheWrapperAddsNoEntry) {
    XfsBench bench(makeThreeGroups());
    bench.forget();
    char buffer = 0;
    EXPECT_EQ(bench.parser.fs_get_blocks_bitmap_chunk(1, 4, &buffer), -1);
    EXPECT_THAT(bench.logger.entries, ElementsAre(debugEntry("buf off = 4, buffer_size = 8")));
    EXPECT_EQ(bench.parser.fs_get_blocks_bitmap_chunk(1, 100 * 8, &buffer), 8);
}

TEST(XFSParserChunkEnd, FirstChunkLeavesBytesPastTheVolumeClear) {
    XfsBench bench(makeThreeGroups());
    XfsOutcome const outcome = bench.chunk(0, 200);
    EXPECT_EQ(outcome.result, 1300);
    // The last block, 1299, is in byte 162, which is inverted whole.
    EXPECT_EQ(outcome.buffer.at(161), 0x03) << "blocks 1290 to 1295 are free";
    EXPECT_EQ(outcome.buffer.at(162), 0xF0) << "blocks 1296 to 1299 are free, what follows is no block";
    EXPECT_THAT(std::vector(outcome.buffer.begin() + 163, outcome.buffer.end()), Each(0));
}

TEST(XFSParserChunkEnd, LaterChunkInvertsBytesPastTheVolumeToo) {
    XfsBench bench(makeThreeGroups());
    XfsOutcome const outcome = bench.chunk(1200, 100);
    EXPECT_EQ(outcome.result, 100);
    EXPECT_EQ(outcome.buffer.at(12), 0xF0);
    EXPECT_THAT(std::vector(outcome.buffer.begin() + 13, outcome.buffer.end()), Each(0xFF));
}

TEST(XFSParserChunkEnd, InversionStopsByTheIndexInTheBuffer) {
    XfsBench bench(makeThreeGroups());
    XfsOutcome const outcome = bench.chunk(1200, 200);
    EXPECT_EQ(outcome.result, 100);
    EXPECT_THAT(std::vector(outcome.buffer.begin() + 13, outcome.buffer.begin() + 163), Each(0xFF));
    EXPECT_THAT(std::vector(outcome.buffer.begin() + 163, outcome.buffer.end()), Each(0));
}

TEST(XFSParserChunkEnd, FreeRunPastTheVolumeClearsItsBits) {
    XfsBuilder builder = makeThreeGroups();
    builder.plantTree(2, {{290, 20}});
    XfsOutcome const outcome = XfsBench(builder).chunk(1200, 20);
    EXPECT_EQ(outcome.result, 100);
    EXPECT_EQ(outcome.buffer.at(12), 0) << "blocks past the end are not told apart from those before it";
    EXPECT_EQ(outcome.entries.back(), debugEntry("count = 20"));
}

TEST(XFSParserChunkEnd, ChunkThatEndsWithTheVolumeIsWhole) {
    XfsGeometry geometry;
    geometry.totalBlocks = 1200;
    XfsBench bench{XfsBuilder(geometry)};
    EXPECT_EQ(bench.chunk(0, 150).result, 1200);
    EXPECT_EQ(bench.chunk(0, 149).result, 1192);
    EXPECT_EQ(bench.chunk(0, 151).result, 1200);
    EXPECT_EQ(bench.chunk(1192, 1).result, 8);
    EXPECT_EQ(bench.chunk(1192, 2).result, 8);
}

TEST(XFSParserChunkEnd, VolumeOfFewBlocks) {
    for (std::uint64_t blocks = 5; blocks < 20; ++blocks) {
        XfsGeometry geometry;
        geometry.totalBlocks = blocks;
        XfsOutcome const outcome = XfsBench(XfsBuilder(geometry)).chunk(0, 4);
        EXPECT_EQ(outcome.result, static_cast<long>(blocks));
        std::vector<std::uint8_t> expected(4);
        std::fill_n(expected.begin(), (blocks + 7) / 8, std::uint8_t{0xFF});
        EXPECT_EQ(outcome.buffer, expected);
    }
}

TEST(XFSParserChunkGroups, AreThoseThatTheChunkOverlaps) {
    XfsBench bench(makeThreeGroups());
    auto const groups = [&bench](std::uint64_t start, std::uint64_t length) {
        return bench.chunk(start, length).entries.at(1).text;
    };
    std::string const text = "Iterating over allocation group(s) ";
    EXPECT_EQ(groups(0, 1), text + "0 - 1");
    EXPECT_EQ(groups(0, 62), text + "0 - 1"); // up to block 495
    EXPECT_EQ(groups(0, 63), text + "0 - 2"); // up to block 503
    EXPECT_EQ(groups(496, 1), text + "0 - 2");
    EXPECT_EQ(groups(504, 1), text + "1 - 2");
    EXPECT_EQ(groups(1000, 1), text + "2 - 3");
    EXPECT_EQ(groups(1000, 1000), text + "2 - 18") << "the count of groups ends the loop and not this number";
    EXPECT_EQ(groups(8, 0), text + "0 - 1");
    EXPECT_EQ(groups(0, 0), text + "0 - 0");
}

TEST(XFSParserChunkGroups, ChunkOverABoundaryHasBoth) {
    XfsBench bench(makeThreeGroups());
    XfsOutcome const outcome = bench.chunk(480, 6); // 480 to 527: ten blocks of group 0, 505 to 524 of group 1
    EXPECT_EQ(outcome.result, 48);
    EXPECT_EQ(xfsBits(outcome.buffer, 48), expectedBits(makeThreeGroups(), 480, 48));
    EXPECT_EQ(outcome.entries.back(), debugEntry("count = 30"));
    EXPECT_THAT(outcome.calls, testing::Contains(seekCall(512)).Times(1));
    EXPECT_THAT(outcome.calls, testing::Contains(seekCall(500 * 512 + 512)).Times(1));
    EXPECT_THAT(outcome.calls, Not(testing::Contains(seekCall(1000 * 512 + 512))));
}

TEST(XFSParserChunkGroups, PastTheCountOfGroupsAllIsUsed) {
    XfsBuilder builder = makeThreeGroups();
    builder.setSuper32(xfs_super::kGroups, 2);
    XfsBench bench(builder);
    XfsOutcome const outcome = bench.chunk(0, 163);
    EXPECT_EQ(outcome.result, 1300);
    auto const bits = xfsBits(outcome.buffer, 1300);
    EXPECT_THAT(std::vector<bool>(bits.begin() + 1000, bits.end()), Each(true));
    EXPECT_EQ(std::vector<bool>(bits.begin(), bits.begin() + 1000), expectedBits(makeThreeGroups(), 0, 1000));
    XfsOutcome const past = bench.chunk(1000, 4);
    EXPECT_EQ(past.result, 32);
    EXPECT_THAT(past.buffer, Each(0xFF));
    EXPECT_THAT(past.calls, IsEmpty());
}

TEST(XFSParserChunkGroups, BufferOfNoBytesReadsButCoversNothing) {
    XfsBench bench(makeThreeGroups());
    EXPECT_EQ(bench.chunk(8, 0).result, 0);
    EXPECT_THAT(bench.chunk(8, 0).calls, Not(IsEmpty()));
    EXPECT_EQ(bench.chunk(8, 0).entries.back(), debugEntry("count = 0"));
    EXPECT_THAT(bench.chunk(0, 0).calls, IsEmpty()) << "from block 0, no group is overlapped";
}

TEST(XFSParserChunkCount, EmptyTreeAndOneEntryMarkOneBlock) {
    XfsBuilder builder;
    builder.setFreeList(0, 0, {77});
    XfsBench bench(builder);
    XfsOutcome const outcome = bench.chunk(0, 62);
    EXPECT_EQ(outcome.entries.back(), debugEntry("count = 1"));
    auto expected = std::vector<bool>(496, true);
    expected[77] = false;
    EXPECT_EQ(xfsBits(outcome.buffer, 496), expected);
}

TEST(XFSParserChunkCount, BlockOfListAndTreeCountsOnce) {
    XfsBuilder builder;
    builder.plantTree(0, {{100, 10}, {105, 10}});
    builder.setFreeList(0, 0, {102, 102, 300});
    XfsOutcome const outcome = XfsBench(builder).chunk(0, 62);
    EXPECT_EQ(outcome.entries.back(), debugEntry("count = 16"));
}

TEST(XFSParserChunkCount, EachRequestCountsAnew) {
    XfsBench bench(makeThreeGroups());
    XfsOutcome const first = bench.chunk(0, 163);
    EXPECT_EQ(bench.chunk(0, 163), first);
}

TEST(XFSParserChunkTrace, OffChangesNothingButTheEntries) {
    XfsBench traced(makeThreeGroups());
    XfsBench quiet(makeThreeGroups(), 512, XfsTrace::Off);
    for (std::uint64_t start = 0; start <= 1304; start += 8) {
        for (std::uint64_t const length : {0U, 1U, 7U, 62U, 63U, 163U, 200U}) {
            XfsOutcome const loud = traced.chunk(start, length);
            XfsOutcome const outcome = quiet.chunk(start, length);
            ASSERT_EQ(outcome.result, loud.result);
            ASSERT_EQ(outcome.buffer, loud.buffer);
            ASSERT_EQ(outcome.calls, loud.calls);
            ASSERT_THAT(outcome.entries, IsEmpty());
        }
    }
}

/// Where the entries of a free list are taken from and which are passed over.
struct ListRange {
    char const* name;
    bool hasChecksums;
    std::uint32_t first;
    std::uint32_t last;
    std::uint32_t markedFrom; ///< index of the first entry that is marked
    std::uint32_t marked;     ///< how many are
};

class XFSParserFreeListRange : public testing::TestWithParam<ListRange> {};

TEST_P(XFSParserFreeListRange, MarksTheEntriesThatWereRead) {
    ListRange const& range = GetParam();
    XfsGeometry geometry;
    geometry.blockSize = 1024;
    geometry.hasChecksums = range.hasChecksums;
    XfsBuilder builder(geometry);
    for (std::uint32_t i = 0; i < geometry.listCapacity(); ++i) {
        builder.put(geometry.listOffset(0) + std::uint64_t{i} * 4, 200 + i, 4); // entry i is block 200 + i
    }
    builder.setHeader32(0, xfs_header::kListFirst, range.first).setHeader32(0, xfs_header::kListLast, range.last);
    XfsOutcome const outcome = XfsBench(builder).chunk(0, 62);
    ASSERT_EQ(outcome.result, 496);
    std::vector<bool> expected(496, true);
    std::vector<LogEntry> entries;
    for (std::uint32_t i = 0; i < range.marked; ++i) {
        expected.at(200 + range.markedFrom + i) = false;
        entries.push_back(debugEntry("0: " + std::to_string(200 + range.markedFrom + i) + " -> 1"));
    }
    EXPECT_EQ(xfsBits(outcome.buffer, 496), expected);
    std::vector<LogEntry> logged;
    for (LogEntry const& entry : outcome.entries) {
        if (entry.text.ends_with(" -> 1")) {
            logged.push_back(entry);
        }
    }
    EXPECT_EQ(logged, entries);
}

INSTANTIATE_TEST_SUITE_P(Ranges, XFSParserFreeListRange,
                         testing::Values(ListRange{"All", false, 0, 127, 0, 128},
                                         ListRange{"AllWithChecksums", true, 0, 118, 0, 119},
                                         ListRange{"One", false, 5, 5, 5, 1},
                                         ListRange{"Last", false, 127, 127, 127, 1},
                                         ListRange{"LastWithChecksums", true, 118, 118, 118, 1},
                                         ListRange{"WrappedMarksNothing", false, 126, 1, 0, 0},
                                         ListRange{"WrappedByOneMarksNothing", false, 1, 0, 0, 0},
                                         ListRange{"EndPastWhatIsRead", false, 126, 200, 126, 2},
                                         ListRange{"EndPastWhatIsReadWithChecksums", true, 117, 127, 117, 2},
                                         ListRange{"AllPastWhatIsRead", false, 128, 130, 0, 0},
                                         ListRange{"AllPastWhatIsReadWithChecksums", true, 119, 127, 0, 0},
                                         ListRange{"LargestEndWraps", false, 0, 0xFFFFFFFF, 0, 0},
                                         ListRange{"LargestEndThatDoesNotWrap", false, 0, 0xFFFFFFFE, 0, 128},
                                         ListRange{"LargestBoth", false, 0xFFFFFFFF, 0xFFFFFFFF, 0, 0},
                                         ListRange{"LargestStart", true, 0xFFFFFFFE, 0xFFFFFFFE, 0, 0}),
                         [](auto const& instance) { return std::string(instance.param.name); });

TEST(XFSParserFreeListRangeOfACount, IsNotConsulted) {
    XfsBuilder builder;
    builder.setFreeList(0, 0, {200, 201, 202}).setHeader32(0, xfs_header::kListCount, 0);
    EXPECT_EQ(XfsBench(builder).chunk(0, 62).entries.back(), debugEntry("count = 3"));
}

TEST(XFSParserFreeListRangeOfOtherGroups, EntriesAreNumberedFromTheirGroup) {
    XfsBuilder builder;
    builder.setFreeList(1, 0, {0, 20, 499, 500, 0xFFFFFFFF});
    XfsOutcome const outcome = XfsBench(builder).chunk(0, 163);
    std::vector<bool> expected(1300, true);
    for (std::size_t const block : {500U, 520U, 999U, 1000U}) {
        expected[block] = false;
    }
    EXPECT_EQ(xfsBits(outcome.buffer, 1300), expected);
    EXPECT_THAT(outcome.entries, testing::Contains(debugEntry("1: 4294967295 -> 1")));
    EXPECT_EQ(outcome.entries.back(), debugEntry("count = 4"));
}

} // namespace
