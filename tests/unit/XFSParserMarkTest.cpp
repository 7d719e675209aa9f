// Marking single blocks and runs in a chunk: compared with one bit at a time, count and wrap included.
#include "support/XfsRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

using namespace tests;
using testing::Each;
using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kGuard = 16; // bytes on each side of the chunk

/// Where a mark falls: the chunk, and the group that the block belongs to.
struct Place {
    std::uint64_t byteOffset;
    std::uint64_t length;
    std::uint32_t group;
    std::uint32_t groupBlocks;
};

/// A chunk between guard bytes, and the count of what was marked.
struct Marked {
    explicit Marked(std::uint64_t length, std::uint8_t fill = 0) : bytes(length + 2 * kGuard, fill) {}

    char* chunk() { return reinterpret_cast<char*>(bytes.data() + kGuard); }

    bool operator==(Marked const&) const = default;

    Bytes bytes;
    unsigned long count = 1000; // so that setting it instead of adding to it shows
};

void PrintTo(Marked const& marked, std::ostream* out) {
    *out << "count " << marked.count << ", " << testing::PrintToString(marked.bytes);
}

void markBit(Place const& place, std::uint32_t agBlock, Marked& marked) {
    std::uint64_t const block = std::uint64_t{place.group} * place.groupBlocks + agBlock;
    if (block < place.byteOffset * 8 || block >= (place.byteOffset + place.length) * 8) {
        return;
    }
    std::uint64_t const bit = block - place.byteOffset * 8;
    std::uint8_t& byte = marked.bytes.at(kGuard + bit / 8);
    auto const mask = static_cast<std::uint8_t>(1U << (bit % 8));
    marked.count += (byte & mask) == 0 ? 1U : 0U;
    byte = static_cast<std::uint8_t>(byte | mask);
}

class XFSParserMark : public testing::Test {
protected:
    void mark(Place const& place, std::uint32_t agBlock, Marked& marked) const {
        bench.parser.fs_bitmap_mark(marked.chunk(), place.byteOffset, place.length, place.group, place.groupBlocks,
                                    agBlock, &marked.count);
    }

    void markRange(Place const& place, std::uint32_t start, std::uint32_t blocks, Marked& marked) const {
        bench.parser.bitmap_mark_range(marked.chunk(), place.byteOffset, place.length, place.group, place.groupBlocks,
                                       start, blocks, &marked.count);
    }

    XfsBench bench{XfsBuilder()};
};

TEST_F(XFSParserMark, BlockIsTheGroupsStartAndItsNumber) {
    Marked marked(8);
    mark({0, 8, 2, 5}, 3, marked); // 13
    EXPECT_EQ(marked.bytes.at(kGuard + 1), 1U << 5);
    EXPECT_EQ(marked.count, 1001U);
    mark({1, 8, 2, 5}, 3, marked); // bit 5 of a chunk from block 8 on
    EXPECT_EQ(marked.bytes.at(kGuard), 1U << 5);
    EXPECT_EQ(marked.count, 1002U);
}

TEST_F(XFSParserMark, BlocksOutsideTheChunkAreIgnored) {
    Place const place{100, 10, 3, 200}; // blocks 800 to 879; the group begins with 600
    for (std::uint32_t const agBlock : {0U, 199U, 280U, 1000U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
        Marked marked(10);
        mark(place, agBlock, marked);
        EXPECT_EQ(marked, Marked(10)) << agBlock;
    }
    Marked marked(10);
    mark(place, 200, marked);
    mark(place, 279, marked);
    EXPECT_EQ(marked.count, 1002U);
    EXPECT_EQ(marked.bytes.at(kGuard), 0x01);
    EXPECT_EQ(marked.bytes.at(kGuard + 9), 0x80);
}

TEST_F(XFSParserMark, TwiceMarkedCountsOnce) {
    Marked marked(10);
    for (unsigned i = 0; i < 3; ++i) {
        mark({0, 10, 0, 100}, 42, marked);
        markRange({0, 10, 0, 100}, 40, 5, marked);
    }
    EXPECT_EQ(marked.count, 1005U);
}

TEST_F(XFSParserMark, ProductOfGroupAndBlocksHas64Bits) {
    std::uint64_t const block = 0xFFFFFFFEULL * 0xFFFFFFFF + 0xFFFFFFF0;
    Marked marked(8);
    mark({block / 8, 8, 0xFFFFFFFE, 0xFFFFFFFF}, 0xFFFFFFF0, marked);
    EXPECT_EQ(marked.count, 1001U);
    EXPECT_EQ(marked.bytes.at(kGuard), 1U << (block % 8));
}

TEST_F(XFSParserMark, RangeOfNothingMarksNothing) {
    for (std::uint32_t const start : {0U, 8U, 79U, 80U, 0xFFFFFFFFU}) {
        Marked marked(10);
        markRange({0, 10, 0, 100}, start, 0, marked);
        EXPECT_EQ(marked, Marked(10));
    }
}

TEST_F(XFSParserMark, RangeEndWrapsAtThirtyTwoBits) {
    // Ten blocks: the last five numbers of 32 bits, which lie outside, then 0 to 4.
    Marked marked(10);
    markRange({0, 10, 0, 100}, 0xFFFFFFFB, 10, marked);
    EXPECT_EQ(marked.count, 1005U);
    EXPECT_EQ(marked.bytes.at(kGuard), 0x1F);
    // The same where both ends lie in the chunk: the group begins below it, and its numbers end in it.
    Place const high{(0x1'0000'0000ULL - 64) / 8, 16, 0, 100};
    Marked upper(16);
    markRange(high, 0xFFFFFFFB, 10, upper);
    EXPECT_EQ(upper.count, 1005U);
    EXPECT_EQ(upper.bytes.at(kGuard + 7), 0xF8);
    EXPECT_EQ(upper.bytes.at(kGuard + 8), 0) << "block 0 of the group is not the one behind its last number";
}

TEST_F(XFSParserMark, RangeThatEndsWithTheLastNumberDoesNotWrap) {
    Marked marked(10);
    markRange({0, 10, 0, 100}, 0xFFFFFFFB, 5, marked);
    EXPECT_EQ(marked, Marked(10));
}

TEST_F(XFSParserMark, LongestRangeMarksAllButOne) {
    Marked marked(100);
    markRange({0, 100, 0, 100}, 10, 0xFFFFFFFF, marked);
    EXPECT_EQ(marked.count, 1000U + 799);
    EXPECT_EQ(marked.bytes.at(kGuard + 1), 0xFD) << "block 9 is the one left";
}

TEST_F(XFSParserMark, ChunkOfNoBytesTakesNothing) {
    Marked marked(0);
    mark({5, 0, 0, 100}, 40, marked);
    markRange({5, 0, 0, 100}, 0, 100, marked);
    EXPECT_EQ(marked, Marked(0));
}

TEST_F(XFSParserMark, OnlyBitsOfTheRunChange) {
    Marked marked(10, 0xFF);
    markRange({0, 10, 0, 100}, 0, 80, marked);
    EXPECT_EQ(marked.count, 1000U);
    EXPECT_THAT(marked.bytes, Each(0xFF));
}

TEST_F(XFSParserMark, RandomBlocksAndRunsEqualOneBitAtATime) {
    std::mt19937 generator(41);
    auto const below = [&generator](std::uint32_t limit) { return static_cast<std::uint32_t>(generator() % limit); };
    unsigned inside = 0;
    for (unsigned round = 0; round < 3000; ++round) {
        Place const place{below(60), 1 + below(80), below(5), 1 + below(300)};
        Marked marked(place.length);
        Marked expected(place.length);
        for (unsigned i = 0; i < 6; ++i) {
            std::uint32_t const start = below(20) == 0 ? 0xFFFFFFFF - below(20) : below(1000);
            std::uint32_t const blocks = below(3) == 0 ? 1 : below(400);
            if (blocks == 1) {
                mark(place, start, marked);
            } else {
                markRange(place, start, blocks, marked);
            }
            for (std::uint32_t block = start; block != start + blocks; ++block) {
                markBit(place, block, expected);
            }
        }
        ASSERT_EQ(marked, expected) << "round " << round;
        inside += marked.count > 1000 ? 1U : 0U;
    }
    EXPECT_GT(inside, 1000U) << "the rounds must have marked something";
}

TEST_F(XFSParserMark, EveryRunOfASmallChunkEqualsOneBitAtATime) {
    Place const place{2, 3, 1, 10}; // blocks 16 to 39; the group begins with 10
    for (std::uint32_t start = 0; start < 40; ++start) {
        for (std::uint32_t blocks = 0; blocks < 40; ++blocks) {
            Marked marked(3);
            Marked expected(3);
            markRange(place, start, blocks, marked);
            for (std::uint32_t block = start; block < start + blocks; ++block) {
                markBit(place, block, expected);
            }
            ASSERT_EQ(marked, expected) << blocks << " from " << start;
        }
    }
}

} // namespace
