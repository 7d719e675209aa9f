// Index nodes taken apart one by one, and whole trees of two and three levels as a volume holds them.
#include "support/HfsRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

using namespace tests;
using testing::ElementsAre;
using testing::IsEmpty;

/// Runs the routine on a node of exactly its size, so that the sanitizer sees what is read outside.
std::deque<unsigned int> traverse(HfsNode const& node, unsigned long count, std::deque<unsigned int> queue = {}) {
    static HfsBench bench{HfsBuilder()};
    bench.logger.entries.clear();
    auto buffer = std::make_unique<unsigned char[]>(node.bytes.size());
    std::copy(node.bytes.begin(), node.bytes.end(), buffer.get());
    bench.parser.fs_traverse_index_node(queue, buffer, node.bytes.size(), count);
    EXPECT_TRUE(std::equal(node.bytes.begin(), node.bytes.end(), buffer.get())) << "the node is only read";
    EXPECT_THAT(bench.logger.entries, IsEmpty());
    return queue;
}

HfsNode threeChildren() {
    return HfsNode(512, hfs_node::kIndex, 2).addChild(11).addChild(12).addChild(13);
}

TEST(HfsIndexNode, CountDecidesHowManySlotsAreLookedAt) {
    EXPECT_THAT(traverse(threeChildren(), 0), IsEmpty());
    EXPECT_THAT(traverse(threeChildren(), 1), ElementsAre(11));
    EXPECT_THAT(traverse(threeChildren(), 3), ElementsAre(11, 12, 13));
    EXPECT_THAT(traverse(threeChildren().setNumRecords(1), 3), ElementsAre(11, 12, 13)) << "not the node's own count";
    EXPECT_THAT(traverse(threeChildren(), 4), ElementsAre(11, 12, 13)) << "zeros in free space name nobody";
}

TEST(HfsIndexNode, ChildrenGoToTheBackOfTheQueue) {
    EXPECT_THAT(traverse(threeChildren(), 2, {7, 8}), ElementsAre(7, 8, 11, 12));
}

TEST(HfsIndexNode, SlotsAndChildrenOfZeroArePassedOver) {
    EXPECT_THAT(traverse(threeChildren().setSlot(1, 0), 3), ElementsAre(11, 13));
    EXPECT_THAT(traverse(HfsNode(512, hfs_node::kIndex, 2).addChild(0).addChild(5), 2), ElementsAre(5));
}

TEST(HfsIndexNode, SlotsMayComeInAnyOrderAndTwice) {
    HfsNode node = threeChildren();
    std::uint16_t const first = node.slot(0);
    node.setSlot(0, node.slot(2)).setSlot(2, first).setSlot(3, first);
    EXPECT_THAT(traverse(node, 4), ElementsAre(13, 12, 11, 11));
}

TEST(HfsIndexNode, KindIsNotLookedAt) {
    EXPECT_THAT(traverse(threeChildren().put(hfs_node::kKind, 0xFF, 1), 1), ElementsAre(11));
}

TEST(HfsIndexNode, ChildStandsBehindAKeyOfAnyLength) {
    for (std::uint64_t const length : {0U, 1U, 2U, 10U, 11U, 255U, 256U, 400U}) {
        HfsNode node(512, hfs_node::kIndex, 2);
        node.setSlot(0, 14).put(14, length, 2).put(16U + length, 0x89ABCDEF, 4);
        EXPECT_THAT(traverse(node, 1), ElementsAre(0x89ABCDEF)) << length;
    }
}

TEST(HfsIndexNode, RecordThatEndsWithTheNodeIsTaken) {
    HfsNode node(64, hfs_node::kIndex, 2);
    node.setSlot(0, 58).put(58, 0, 2).put(60, 0x00010000, 4); // its last two bytes are the slot
    node.setSlot(0, 58);
    EXPECT_THAT(traverse(node, 1), ElementsAre(0x0001003A));
}

TEST(HfsIndexNode, WhatLiesOutsideTheNodeIsPassedOver) {
    HfsNode node = threeChildren();
    for (std::uint64_t const offset : {507U, 510U, 511U, 512U, 0x8000U, 0xFFFFU}) {
        EXPECT_THAT(traverse(node.setSlot(1, offset), 3), ElementsAre(11, 13)) << offset;
    }
    for (std::uint64_t const length : {493U, 494U, 0xFFFFU}) { // of the first record's key
        EXPECT_THAT(traverse(threeChildren().put(14, length, 2), 2), ElementsAre(12)) << length;
    }
}

TEST(HfsIndexNode, SlotsEndWithTheNode) {
    HfsNode node(16, hfs_node::kIndex, 2);
    std::fill(node.bytes.begin(), node.bytes.end(), std::uint8_t{0});
    for (unsigned long const count : {8UL, 9UL, 65536UL, ~0UL}) {
        EXPECT_THAT(traverse(node, count), IsEmpty());
    }
    node.put(0, 4, 2).put(8, 0xABCD, 2); // the last slot there is leads to a key of no bytes at byte 4
    EXPECT_THAT(traverse(node, 7), IsEmpty());
    EXPECT_THAT(traverse(node, 8), ElementsAre(0x0000ABCD));
}

TEST(HfsIndexNode, OfNoBytesHasNoSlots) {
    HfsBench bench{HfsBuilder()};
    std::unique_ptr<unsigned char[]> none;
    std::deque<unsigned int> queue{3};
    bench.parser.fs_traverse_index_node(queue, none, 0, 5);
    EXPECT_THAT(queue, ElementsAre(3));
}

struct Tree {
    char const* name;
    HfsGeometry geometry;
    unsigned depth;
};

void PrintTo(Tree const& tree, std::ostream* out) {
    *out << tree.name;
}

HfsGeometry fragmented(std::uint32_t fragments, std::uint32_t blockSize, std::uint16_t nodeSize,
                       unsigned recordsPerNode) {
    HfsGeometry geometry;
    geometry.blockSize = blockSize;
    geometry.totalBlocks = fragments * blockSize * 8 - 3; // the last byte holds five bits
    geometry.allocationFile = hfsFragments(fragments, 1, 100, 2);
    geometry.nodeSize = nodeSize;
    geometry.recordsPerNode = recordsPerNode;
    // Files before and behind the allocation file in the order of keys.
    geometry.otherRecords = {{3, 8, {{50, 1}}}, {5, 9, {{51, 2}}}, {20, 8, {{52, 1}}}};
    return geometry;
}

class HfsTreeOfSomeDepth : public testing::TestWithParam<Tree> {};

TEST_P(HfsTreeOfSomeDepth, LeadsToEveryFragment) {
    HfsBuilder const builder = HfsBuilder(GetParam().geometry).fillBitmapAtRandom(11);
    ASSERT_EQ(builder.get(builder.nodeOffset(0) + hfs_tree_header::kDepth, 2), GetParam().depth);
    HfsBench bench(builder);
    HfsExtents expected(builder.allocationFile().begin() + 8, builder.allocationFile().end());
    expected.resize((expected.size() + 7) / 8 * 8); // the rest of the last record is empty
    HfsSearch const search = bench.search();
    EXPECT_TRUE(search.found);
    EXPECT_EQ(search.extents, expected);
    std::vector<bool> used;
    for (;;) {
        HfsOutcome const outcome = bench.chunk(used.size(), 3000);
        ASSERT_GE(outcome.result, 0);
        EXPECT_EQ(outcome.entries.empty(), outcome.result == 0);
        if (outcome.result == 0) {
            break;
        }
        EXPECT_THAT(outcome.entries, ElementsAre(hfsSearchEntry()));
        auto const bits = hfsBitsOf(outcome.buffer, outcome.result);
        used.insert(used.end(), bits.begin(), bits.end());
    }
    EXPECT_EQ(used, builder.map());
}

TEST_P(HfsTreeOfSomeDepth, IsReadAsAWholeForEachRequest) {
    HfsBuilder const builder(GetParam().geometry);
    HfsBench bench(builder);
    std::size_t const nodes =
        (builder.get(builder.nodeOffset(0) + hfs_tree_header::kRootNode, 4)); // the root has the last number
    for (std::uint64_t const offset : {0U, 8000U, 0U}) {
        HfsOutcome const outcome = bench.chunk(offset, 1);
        // The header and every other node, then the map: a seek and a read each.
        EXPECT_EQ(outcome.calls.size(), 2 * (1 + nodes + 1));
    }
}

INSTANTIATE_TEST_SUITE_P(Trees, HfsTreeOfSomeDepth,
                         testing::Values(Tree{"TwoLevels", fragmented(20, 512, 512, 3), 2},
                                         Tree{"TwoLevelsInFullNodes", fragmented(70, 512, 512, 0), 2},
                                         Tree{"TwoLevelsOf4KiBNodes", fragmented(41, 512, 4096, 3), 2},
                                         Tree{"TwoLevelsIn4KiBBlocks", fragmented(21, 4096, 512, 3), 2},
                                         Tree{"ThreeLevels", fragmented(60, 512, 512, 3), 3},
                                         Tree{"ThreeLevelsOf1KiBNodes", fragmented(45, 1024, 1024, 2), 3},
                                         Tree{"FiveLevels", fragmented(150, 512, 512, 2), 5}),
                         [](auto const& instance) { return std::string(instance.param.name); });

} // namespace
