// HFS+ volumes whose extents-overflow tree has one thing wrong: one exact result for each.
#include "support/HfsReference.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace tests;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t kTreeOffset = 100 * 512;
constexpr std::uint64_t kRoot = 1;
constexpr std::uint64_t kIndex = 2;
constexpr std::uint64_t kLeaf = 3;

HfsOverflowRecord makeRecord(std::uint32_t name) {
    return {kHfsAllocationFileId, name, {{name, 1}, {name + 1, 2}}};
}

/// Node 1 is the root, 2 an index node below it, 3 a leaf of three records, in a file of 20 nodes.
HfsBuilder makeGood() {
    HfsNode const leaf = HfsNode(512, hfs_node::kLeaf, 1)
                             .addLeafRecord(makeRecord(1000))
                             .addLeafRecord(makeRecord(2000))
                             .addLeafRecord(makeRecord(3000));
    HfsGeometry geometry;
    geometry.nodes = makeHfsTreeOf(
        {HfsNode(512, hfs_node::kIndex, 3).addChild(2), HfsNode(512, hfs_node::kIndex, 2).addChild(3), leaf});
    geometry.extentsFile = {{100, 20}};
    HfsBuilder builder(geometry);
    builder.setHeader32(hfs_header::kAllocationFile + hfs_fork::kTotalBlocks, 2);
    return builder;
}

/// Changes a field of a node and proves that the change took.
HfsBuilder withNode(std::uint64_t node, std::uint64_t offset, std::uint64_t value, unsigned width,
                    HfsBuilder builder = makeGood()) {
    std::uint64_t const place = builder.nodeOffset(node) + offset;
    EXPECT_NE(builder.get(place, width), value) << "the field already holds the value: nothing is damaged";
    builder.put(place, value, width);
    EXPECT_EQ(builder.get(place, width), value);
    return builder;
}

HfsBuilder withSlot(std::uint64_t node, std::uint64_t slot, std::uint64_t offset) {
    return withNode(node, 512 - 2 * (slot + 1), offset, 2);
}

/// Runs a search and expects what the slow account gives, to the last call.
HfsSearch searchAsReference(HfsBuilder const& builder) {
    HfsSearch const search = HfsBench(builder).search();
    auto const header = builder.bytes.begin() + kHfsHeaderOffset;
    MemoryReader const volume(builder.bytes);
    HfsFrontReader const front(volume);
    HfsReference reference(front, {header, header + kHfsHeaderBytes});
    EXPECT_EQ(search, reference.search(kHfsAllocationFileId));
    return search;
}

std::string unreadable(std::uint64_t node) {
    return "Could not read next node at " + std::to_string(kTreeOffset + 512 * node);
}

/// The search, and the request that needs it, fail with this text.
HfsSearch expectFailure(HfsBuilder const& builder, std::string const& text) {
    HfsSearch search = searchAsReference(builder);
    EXPECT_FALSE(search.found);
    EXPECT_THAT(search.entries, ElementsAre(errorEntry(text)));
    HfsOutcome const outcome = HfsBench(builder).chunk(0, 64);
    EXPECT_EQ(outcome.result, -1);
    EXPECT_EQ(outcome.entries, hfsFailedSearchEntries(text));
    return search;
}

TEST(HfsDamagedTree, UndamagedIsSearched) {
    HfsSearch const search = searchAsReference(makeGood());
    EXPECT_TRUE(search.found);
    EXPECT_EQ(search.extents.size(), 24U);
    EXPECT_EQ(search.extents[9], (HfsExtent{2001, 2}));
}

struct NodeSizeCase {
    std::uint16_t nodeSize;
    char const* text; ///< null: the search succeeds and finds nothing
};

class HfsDamagedNodeSize : public testing::TestWithParam<NodeSizeCase> {};

TEST_P(HfsDamagedNodeSize, IsNamedByWhatItLeadsTo) {
    HfsBuilder const builder = withNode(0, hfs_tree_header::kNodeSize, GetParam().nodeSize, 2);
    if (GetParam().text != nullptr) {
        expectFailure(builder, GetParam().text);
        return;
    }
    HfsSearch const search = searchAsReference(builder);
    EXPECT_TRUE(search.found);
    EXPECT_THAT(search.extents, IsEmpty());
}

// Sizes from 14 on take other bytes for the root: of the header record, of the header node's user record, or both.
INSTANTIATE_TEST_SUITE_P(Sizes, HfsDamagedNodeSize,
                         testing::Values(NodeSizeCase{0, "Failed to read node descriptor"},
                                         NodeSizeCase{1, "Failed to read node descriptor"},
                                         NodeSizeCase{13, "Failed to read node descriptor"}, NodeSizeCase{14, nullptr},
                                         NodeSizeCase{200, nullptr},
                                         NodeSizeCase{511, "Failed to read node descriptor"},
                                         NodeSizeCase{1024, nullptr},
                                         NodeSizeCase{10226, "First node starts past the end of the extent"},
                                         NodeSizeCase{32768, "First node starts past the end of the extent"},
                                         NodeSizeCase{65535, "First node starts past the end of the extent"}),
                         [](auto const& instance) { return "Of" + std::to_string(instance.param.nodeSize); });

class HfsDamagedRoot : public testing::TestWithParam<std::uint32_t> {};

TEST_P(HfsDamagedRoot, BehindTheExtentIsRefused) {
    expectFailure(withNode(0, hfs_tree_header::kRootNode, GetParam(), 4),
                  "First node starts past the end of the extent");
}

INSTANTIATE_TEST_SUITE_P(Nodes, HfsDamagedRoot, testing::Values(20U, 21U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU));

TEST(HfsDamagedTree, RootThatIsAnotherNode) {
    expectFailure(withNode(0, hfs_tree_header::kRootNode, 0, 4), "First node is not an index node");
    expectFailure(withNode(0, hfs_tree_header::kRootNode, kLeaf, 4), "First node is not an index node");
    EXPECT_EQ(searchAsReference(withNode(0, hfs_tree_header::kRootNode, kIndex, 4)).extents.size(), 24U);
}

TEST(HfsDamagedTree, CountsInTheHeaderRecordAreNotLookedAt) {
    HfsSearch const good = searchAsReference(makeGood());
    for (std::uint64_t const field :
         {hfs_tree_header::kDepth, hfs_tree_header::kLeafRecords, hfs_tree_header::kFirstLeaf,
          hfs_tree_header::kLastLeaf, hfs_tree_header::kTotalNodes, hfs_tree_header::kFreeNodes}) {
        unsigned const width = field == hfs_tree_header::kDepth ? 2 : 4;
        EXPECT_EQ(searchAsReference(withNode(0, field, 0xFFFF, width)), good) << field;
    }
}

TEST(HfsDamagedTree, HeightsAndLinksAreNotLookedAt) {
    HfsSearch const good = searchAsReference(makeGood());
    for (std::uint64_t node = kRoot; node <= kLeaf; ++node) {
        EXPECT_EQ(searchAsReference(withNode(node, hfs_node::kHeight, 255, 1)), good);
        EXPECT_EQ(searchAsReference(withNode(node, hfs_node::kForwardLink, node, 4)), good);
        EXPECT_EQ(searchAsReference(withNode(node, hfs_node::kBackwardLink, 0xFFFFFFFF, 4)), good);
    }
}

class HfsDamagedCount : public testing::TestWithParam<std::uint16_t> {};

TEST_P(HfsDamagedCount, OfMoreRecordsThanSlotsIsAnUnreadableNode) {
    expectFailure(withNode(kRoot, hfs_node::kNumRecords, GetParam(), 2), "Failed to read node descriptor");
    expectFailure(withNode(kIndex, hfs_node::kNumRecords, GetParam(), 2), unreadable(kIndex));
    expectFailure(withNode(kLeaf, hfs_node::kNumRecords, GetParam(), 2), unreadable(kLeaf));
}

INSTANTIATE_TEST_SUITE_P(Counts, HfsDamagedCount, testing::Values(257, 512, 0x7FFF, 0x8000, 0xFFFF));

TEST(HfsDamagedTree, CountOfRecordsOfZero) {
    EXPECT_THAT(searchAsReference(withNode(kRoot, hfs_node::kNumRecords, 0, 2)).extents, IsEmpty());
    EXPECT_THAT(searchAsReference(withNode(kLeaf, hfs_node::kNumRecords, 0, 2)).extents, IsEmpty());
    // Below the root one slot more is looked at, so that the one record is found all the same.
    EXPECT_EQ(searchAsReference(withNode(kIndex, hfs_node::kNumRecords, 0, 2)).extents.size(), 24U);
}

class HfsSlotOutside : public testing::TestWithParam<std::uint16_t> {};

TEST_P(HfsSlotOutside, OfTheNodeIsAnUnreadableNode) {
    expectFailure(withSlot(kRoot, 0, GetParam()), "Failed to read node descriptor");
    expectFailure(withSlot(kIndex, 0, GetParam()), unreadable(kIndex));
    HfsSearch const search = expectFailure(withSlot(kLeaf, 1, GetParam()), unreadable(kLeaf));
    EXPECT_EQ(search.extents.size(), 8U) << "the record before it was taken";
}

INSTANTIATE_TEST_SUITE_P(Offsets, HfsSlotOutside, testing::Values(507, 511, 512, 513, 0x7FFF, 0x8000, 0xFFFF));

TEST(HfsDamagedSlots, InAnyOrderAreFollowedInTheirOwn) {
    HfsBuilder builder = makeGood();
    std::uint64_t const table = builder.nodeOffset(kLeaf) + 512 - 6;
    std::uint64_t const third = builder.get(table, 2);
    builder.put(table, builder.get(table + 4, 2), 2).put(table + 4, third, 2);
    HfsSearch const search = searchAsReference(builder);
    ASSERT_EQ(search.extents.size(), 24U);
    EXPECT_EQ(search.extents[0].start, 3000U);
    EXPECT_EQ(search.extents[16].start, 1000U);
}

TEST(HfsDamagedSlots, OverlappingRecordsAreTakenAsTheyAre) {
    HfsSearch const same = searchAsReference(withSlot(kLeaf, 1, 14));
    ASSERT_EQ(same.extents.size(), 24U);
    EXPECT_EQ(same.extents[8].start, 1000U);
    // Four bytes into the first record, at bytes that are another file's.
    EXPECT_EQ(searchAsReference(withSlot(kLeaf, 1, 18)).extents.size(), 16U);
}

TEST(HfsDamagedSlots, OddOnesAndThoseInTheDescriptorAreFollowed) {
    for (std::uint64_t const offset : {1U, 4U, 8U, 13U, 15U, 89U, 91U}) {
        HfsSearch const leaf = searchAsReference(withSlot(kLeaf, 1, offset));
        EXPECT_EQ(leaf.extents.size(), 16U) << offset;
    }
}

struct KeyLengthCase {
    std::uint16_t length;
    bool isInIndex; ///< whether the child still lies in an index node
    bool isInLeaf;  ///< whether the data still lies in the leaf
};

class HfsDamagedKeyLength : public testing::TestWithParam<KeyLengthCase> {};

TEST_P(HfsDamagedKeyLength, PastTheNodeIsAnUnreadableNode) {
    auto const [length, isInIndex, isInLeaf] = GetParam();
    HfsBuilder const root = withNode(kRoot, 14, length, 2);
    HfsBuilder const index = withNode(kIndex, 14, length, 2);
    HfsBuilder const leaf = withNode(kLeaf, 14, length, 2);
    if (isInIndex) {
        // Another child is found there, or none; 0 mostly.
        EXPECT_EQ(searchAsReference(root).entries, searchAsReference(index).entries);
    } else {
        expectFailure(root, "Failed to read node descriptor");
        expectFailure(index, unreadable(kIndex));
    }
    if (isInLeaf) {
        EXPECT_EQ(searchAsReference(leaf).extents.size(), 24U);
    } else {
        EXPECT_THAT(expectFailure(leaf, unreadable(kLeaf)).extents, IsEmpty());
    }
}

// A record at byte 14 of 512: the child needs 4 bytes from length + 16 on, the data of a leaf 64.
INSTANTIATE_TEST_SUITE_P(Lengths, HfsDamagedKeyLength,
                         testing::Values(KeyLengthCase{0, true, true}, KeyLengthCase{200, true, true},
                                         KeyLengthCase{432, true, true}, KeyLengthCase{433, true, false},
                                         KeyLengthCase{492, true, false}, KeyLengthCase{493, false, false},
                                         KeyLengthCase{0x8000, false, false}, KeyLengthCase{0xFFFF, false, false}),
                         [](auto const& instance) { return "Of" + std::to_string(instance.param.length); });

TEST(HfsDamagedLeaf, RecordThatTheNodesEndCuts) {
    HfsBuilder builder = makeGood();
    std::uint64_t const leaf = builder.nodeOffset(kLeaf);
    // 12 bytes of key and 64 of data fit from byte 436 on, over the slots.
    for (std::uint64_t const place : {436U, 437U, 480U, 500U}) {
        HfsBuilder cut = builder;
        cut.put(leaf + place, 10, 2).put(leaf + place + 4, kHfsAllocationFileId, 4).put(leaf + 512 - 4, place, 2);
        if (place == 436) {
            EXPECT_EQ(searchAsReference(cut).extents.size(), 24U);
        } else {
            EXPECT_EQ(expectFailure(cut, unreadable(kLeaf)).extents.size(), 8U);
        }
    }
}

TEST(HfsDamagedLeaf, RecordOfAnotherFileNeedNoDataButItsKey) {
    HfsBuilder builder = makeGood();
    std::uint64_t const leaf = builder.nodeOffset(kLeaf);
    builder.put(leaf + 498, 0xFFFF, 2).put(leaf + 502, 7, 4).put(leaf + 512 - 4, 498, 2);
    EXPECT_EQ(searchAsReference(builder).extents.size(), 16U);
    expectFailure(builder.put(leaf + 512 - 4, 505, 2), unreadable(kLeaf));
}

TEST(HfsDamagedChild, ThatIsAHeaderOrMapNodeIsIgnored) {
    // Node 0 cannot be named; a second header node can.
    HfsBuilder const header = withNode(kLeaf, hfs_node::kKind, 1, 1);
    EXPECT_TRUE(searchAsReference(header).found);
    EXPECT_THAT(searchAsReference(header).extents, IsEmpty());
    EXPECT_TRUE(searchAsReference(withNode(kLeaf, hfs_node::kKind, 2, 1)).found);
}

TEST(HfsDamagedChild, BehindTheFile) {
    std::uint64_t const child = 14 + 12; // of an index node's first record
    expectFailure(withNode(kRoot, child, 20, 4), "Node 20 starts past the end of the extent");
    expectFailure(withNode(kIndex, child, 0xFFFFFFFF, 4), "Node 4294967295 starts past the end of the extent");
}

TEST(HfsDamagedFile, ThatOverlapsTheMapOrTheHeader) {
    // Where the map stands there is no tree: nothing but zeros and ones of it.
    HfsBuilder builder = makeGood();
    builder.setForkExtents(hfs_header::kExtentsFile, {{3, 20}});
    searchAsReference(builder);
    builder.setForkExtents(hfs_header::kExtentsFile, {{0, 20}});
    searchAsReference(builder);
}

TEST(HfsDamagedFile, OutsideTheVolumeIsATreeOfZeros) {
    HfsBuilder builder = makeGood();
    builder.setForkExtents(hfs_header::kExtentsFile, {{0xFFFFFFFF, 20}});
    expectFailure(builder, "Failed to read node descriptor"); // nodes of no bytes
    builder.setForkExtents(hfs_header::kExtentsFile, {{100, 2}, {0xFFFFFFFF, 0xFFFFFFFF}});
    // What is not delivered is what the node before it left: the root once more, which names the same node again.
    HfsSearch const search = HfsBench(builder).search();
    EXPECT_FALSE(search.found);
    EXPECT_THAT(search.entries, ElementsAre(errorEntry("Could not read next node at 2199023255040")));
    EXPECT_LT(search.calls.size(), 200U);
}

TEST(HfsDamagedFile, OfNoExtents) {
    HfsBuilder builder = makeGood();
    builder.setForkExtents(hfs_header::kExtentsFile, {});
    expectFailure(builder, "Extent overflow file cannot contain an overflow of itself");
    builder.setHeader32(hfs_header::kExtentsFile + hfs_fork::kTotalBlocks, 0);
    expectFailure(builder, "Failed to read node descriptor"); // at byte 14 stands the header, with a node size of 0
}

} // namespace
