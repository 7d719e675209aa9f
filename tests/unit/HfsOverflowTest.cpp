// The search of the extents-overflow tree: what it finds, in which order, through which reads, and how it fails.
#include "support/HfsRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace tests;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr std::uint16_t kNodeSize = 512;
constexpr std::uint32_t kFirstTreeBlock = 100; // where these volumes have their tree

HfsNode indexNode(std::uint8_t height = 2) {
    return {kNodeSize, hfs_node::kIndex, height};
}

HfsNode leafNode() {
    return {kNodeSize, hfs_node::kLeaf, 1};
}

HfsNode nodeOfKind(std::int8_t kind) {
    return {kNodeSize, kind, 1};
}

/// Eight extents that tell their record from any other.
HfsExtents extentsNamed(std::uint32_t name) {
    HfsExtents extents;
    for (std::uint32_t i = 0; i < 8; ++i) {
        extents.push_back({name * 100 + i, name + i});
    }
    return extents;
}

HfsOverflowRecord recordNamed(std::uint32_t name, std::uint32_t fileId = kHfsAllocationFileId) {
    return {fileId, name, extentsNamed(name)};
}

HfsNode leafOf(std::uint32_t name) {
    return leafNode().addLeafRecord(recordNamed(name));
}

/// A volume with these nodes behind the header node; node 1 is the root.
HfsBuilder withNodes(std::vector<HfsNode> nodes, HfsExtents const& file = {{kFirstTreeBlock, 20}}) {
    HfsGeometry geometry;
    geometry.nodes = makeHfsTreeOf(std::move(nodes));
    geometry.extentsFile = file;
    return HfsBuilder(geometry);
}

HfsExtents joined(std::vector<HfsExtents> const& lists) {
    HfsExtents all;
    for (HfsExtents const& list : lists) {
        all.insert(all.end(), list.begin(), list.end());
    }
    return all;
}

void expectFailure(HfsBuilder const& builder, std::string const& text) {
    HfsSearch const search = HfsBench(builder).search();
    EXPECT_FALSE(search.found);
    EXPECT_THAT(search.entries, ElementsAre(errorEntry(text)));
    EXPECT_THAT(search.extents, IsEmpty());
    // The same through a request: the search's entry stands before those that follow from it.
    HfsBuilder needing = builder;
    needing.setHeader32(hfs_header::kAllocationFile + hfs_fork::kTotalBlocks, 2);
    HfsOutcome const outcome = HfsBench(needing).chunk(0, 64);
    EXPECT_EQ(outcome.result, -1);
    EXPECT_EQ(outcome.entries, hfsFailedSearchEntries(text));
    EXPECT_THAT(outcome.buffer, testing::Each(kHfsUntouched));
}

TEST(HfsOverflowSearch, FindsARecordInEachOfTwoLeaves) {
    HfsBench bench(withNodes({indexNode().addChild(2).addChild(3), leafOf(1), leafOf(2)}));
    HfsSearch const search = bench.search();
    EXPECT_TRUE(search.found);
    EXPECT_THAT(search.extents, ElementsAreArray(joined({extentsNamed(1), extentsNamed(2)})));
    EXPECT_THAT(search.entries, IsEmpty());
    EXPECT_THAT(search.calls, ElementsAre(seekCall(100L * 512), readCall(512), seekCall(101L * 512), readCall(512),
                                          seekCall(102L * 512), readCall(512), seekCall(103L * 512), readCall(512)));
}

TEST(HfsOverflowSearch, KeepsWhatTheListHoldsAheadOfWhatItFinds) {
    HfsBench bench(withNodes({indexNode().addChild(2), leafOf(1)}));
    HfsExtents const before{{9, 9}, {}, {8, 7}};
    HfsSearch const search = bench.search(kHfsAllocationFileId, before);
    EXPECT_TRUE(search.found);
    EXPECT_THAT(search.extents, ElementsAreArray(joined({before, extentsNamed(1)})));
}

TEST(HfsOverflowSearch, WithoutARecordOfTheFileSucceedsWithNothing) {
    HfsBench bench(withNodes({indexNode().addChild(2), leafOf(1)}));
    HfsSearch const search = bench.search(7);
    EXPECT_TRUE(search.found);
    EXPECT_THAT(search.extents, IsEmpty());
    EXPECT_THAT(search.entries, IsEmpty());
}

TEST(HfsOverflowSearch, SkipsRecordsOfOtherFiles) {
    HfsNode leaf = leafNode();
    leaf.addLeafRecord(recordNamed(1, 5)).addLeafRecord(recordNamed(2)).addLeafRecord(recordNamed(3, 7));
    leaf.addLeafRecord(recordNamed(4)).addLeafRecord(recordNamed(5, 0x06000000));
    HfsBench bench(withNodes({indexNode().addChild(2), leaf}));
    EXPECT_THAT(bench.search().extents, ElementsAreArray(joined({extentsNamed(2), extentsNamed(4)})));
    EXPECT_THAT(bench.search(7).extents, ElementsAreArray(extentsNamed(3)));
}

TEST(HfsOverflowSearch, ComparesTheFileAlone) {
    // The resource fork's records count too, and so does a second record of the same place.
    HfsOverflowRecord resource = recordNamed(1);
    resource.forkType = 0xFF;
    HfsOverflowRecord same = recordNamed(2);
    same.startBlock = resource.startBlock;
    HfsBench bench(withNodes({indexNode().addChild(2), leafNode().addLeafRecord(resource).addLeafRecord(same)}));
    EXPECT_THAT(bench.search().extents, ElementsAreArray(joined({extentsNamed(1), extentsNamed(2)})));
}

TEST(HfsOverflowSearch, GoesLevelByLevel) {
    // Node 5 is a leaf beside an index node: it comes before the leaves below that one.
    HfsBench bench(withNodes({indexNode(3).addChild(3).addChild(5).addChild(2), indexNode().addChild(7).addChild(4),
                              indexNode().addChild(6), leafOf(4), leafOf(5), leafOf(6), leafOf(7)}));
    HfsSearch const search = bench.search();
    EXPECT_TRUE(search.found);
    EXPECT_THAT(search.extents,
                ElementsAreArray(joined({extentsNamed(5), extentsNamed(6), extentsNamed(7), extentsNamed(4)})));
}

TEST(HfsOverflowSearch, DoesNotFollowTheLinksBetweenNodes) {
    HfsBench bench(withNodes({indexNode().addChild(2), leafOf(1).setLinks(3, 3), leafOf(2)}));
    EXPECT_THAT(bench.search().extents, ElementsAreArray(extentsNamed(1)));
}

TEST(HfsOverflowSearch, TakesALeafAsOftenAsItIsNamed) {
    HfsBench bench(withNodes({indexNode().addChild(2).addChild(2), leafOf(1)}));
    EXPECT_THAT(bench.search().extents, ElementsAreArray(joined({extentsNamed(1), extentsNamed(1)})));
}

TEST(HfsOverflowSearch, RootWithoutRecordsFindsNothing) {
    HfsBench bench(withNodes({indexNode()}));
    HfsSearch const search = bench.search();
    EXPECT_TRUE(search.found);
    EXPECT_THAT(search.extents, IsEmpty());
    EXPECT_EQ(search.calls.size(), 4U);
}

TEST(HfsOverflowSearch, ChildZeroIsNotVisited) {
    HfsBench bench(withNodes({indexNode().addChild(0).addChild(2).addChild(0), leafOf(1)}));
    HfsSearch const search = bench.search();
    EXPECT_THAT(search.extents, ElementsAreArray(extentsNamed(1)));
    EXPECT_EQ(search.calls.size(), 6U);
}

TEST(HfsOverflowSearch, HeaderAndMapNodesBelowTheRootAreIgnored) {
    HfsNode const header = nodeOfKind(hfs_node::kHeader).addLeafRecord(recordNamed(1));
    HfsNode const map = nodeOfKind(hfs_node::kMap).addLeafRecord(recordNamed(2));
    HfsBench bench(withNodes({indexNode().addChild(2).addChild(3).addChild(4), header, map, leafOf(3)}));
    HfsSearch const search = bench.search();
    EXPECT_TRUE(search.found);
    EXPECT_THAT(search.extents, ElementsAreArray(extentsNamed(3)));
}

TEST(HfsOverflowSearch, LeafSlotOfZeroIsSkipped) {
    HfsNode leaf = leafNode().addLeafRecord(recordNamed(1)).addLeafRecord(recordNamed(2));
    HfsBench bench(withNodes({indexNode().addChild(2), leaf.setSlot(0, 0)}));
    EXPECT_THAT(bench.search().extents, ElementsAreArray(extentsNamed(2)));
}

TEST(HfsOverflowSearch, RecordsDataStandsBehindAKeyOfAnyLength) {
    HfsNode leaf = leafNode().addLeafRecord(recordNamed(1));
    leaf.put(14, 11, 2); // keyLength; the data is taken one byte later
    HfsBench bench(withNodes({indexNode().addChild(2), leaf}));
    HfsSearch const search = bench.search();
    ASSERT_EQ(search.extents.size(), 8U);
    EXPECT_EQ(search.extents[0], (HfsExtent{100 << 8, 1 << 8}));
}

TEST(HfsOverflowSearch, NodesLieWhereTheFilesExtentsPutThem) {
    // Nodes 0 and 1, then 2, then 3 and 4.
    HfsBench bench(withNodes({indexNode().addChild(4).addChild(2).addChild(3), leafOf(2), leafOf(3), leafOf(4)},
                             {{100, 2}, {300, 1}, {200, 2}}));
    HfsSearch const search = bench.search();
    EXPECT_THAT(search.extents, ElementsAreArray(joined({extentsNamed(4), extentsNamed(2), extentsNamed(3)})));
    EXPECT_THAT(search.calls, ElementsAre(seekCall(100L * 512), readCall(512), seekCall(101L * 512), readCall(512),
                                          seekCall(201L * 512), readCall(512), seekCall(300L * 512), readCall(512),
                                          seekCall(200L * 512), readCall(512)));
}

TEST(HfsOverflowSearch, AllEightExtentsOfTheFileAreUsed) {
    HfsExtents file = hfsFragments(8, 1, 100);
    file[0].count = 2;
    for (std::size_t i = 1; i < file.size(); ++i) {
        ++file[i].start;
    }
    HfsNode root = indexNode();
    std::vector<HfsNode> nodes;
    std::vector<HfsExtents> expected;
    for (std::uint32_t node = 2; node <= 8; ++node) {
        root.addChild(node);
        nodes.push_back(leafOf(node));
        expected.push_back(extentsNamed(node));
    }
    nodes.insert(nodes.begin(), root);
    HfsBench bench(withNodes(nodes, file));
    EXPECT_THAT(bench.search().extents, ElementsAreArray(joined(expected)));
}

TEST(HfsOverflowSearch, NodeIsReadOnFromWhereItBegins) {
    // Nodes of two blocks in extents of one block: the second half is not looked for in the next extent.
    HfsGeometry geometry;
    geometry.nodeSize = 1024;
    HfsNode const leaf = HfsNode(1024, hfs_node::kLeaf, 1).addLeafRecord(recordNamed(1));
    geometry.nodes = makeHfsTreeOf({HfsNode(1024, hfs_node::kIndex, 2).addChild(2), leaf});
    geometry.extentsFile = {{100, 6}};
    HfsBuilder builder(geometry);
    builder.setForkExtents(hfs_header::kExtentsFile, {{100, 4}, {104, 1}, {120, 1}});
    HfsSearch const search = HfsBench(builder).search();
    EXPECT_THAT(search.extents, ElementsAreArray(extentsNamed(1)));
    EXPECT_EQ(search.calls.back(), readCall(1024));
}

TEST(HfsOverflowSearch, ReadsWholeBlocksWhereTheyAreLargerThanNodes) {
    HfsGeometry geometry;
    geometry.blockSize = 4096;
    geometry.nodes = makeHfsTreeOf({indexNode().addChild(2), leafOf(1)});
    geometry.extentsFile = {{50, 1}};
    HfsBench bench{HfsBuilder(geometry)};
    HfsSearch const search = bench.search();
    EXPECT_THAT(search.extents, ElementsAreArray(extentsNamed(1)));
    EXPECT_THAT(search.calls, ElementsAre(seekCall(50L * 4096), readCall(4096), seekCall(50L * 4096), readCall(4096),
                                          seekCall(50L * 4096), readCall(4096)));
}

TEST(HfsOverflowExtraSlot, OfAnIndexNodeBelowTheRootIsFollowed) {
    // What the slot behind the last record points to is free space; a child number left there counts.
    HfsNode inner = indexNode().addChild(4);
    inner.put(inner.slot(1) + 2, 5, 4); // behind a key length of 0
    HfsBench bench(withNodes({indexNode(3).addChild(2).addChild(3), inner, leafOf(3), leafOf(4), leafOf(5)}));
    EXPECT_THAT(bench.search().extents, ElementsAreArray(joined({extentsNamed(3), extentsNamed(4), extentsNamed(5)})));
}

TEST(HfsOverflowExtraSlot, OfTheRootIsNot) {
    HfsNode root = indexNode().addChild(2);
    root.put(root.slot(1) + 2, 3, 4);
    HfsBench bench(withNodes({root, leafOf(2), leafOf(3)}));
    EXPECT_THAT(bench.search().extents, ElementsAreArray(extentsNamed(2)));
}

TEST(HfsOverflowExtraSlot, WithZerosInFreeSpaceNamesNobody) {
    HfsBench bench(withNodes({indexNode(3).addChild(2), indexNode().addChild(3), leafOf(3)}));
    HfsSearch const search = bench.search();
    EXPECT_TRUE(search.found);
    EXPECT_THAT(search.extents, ElementsAreArray(extentsNamed(3)));
    EXPECT_EQ(search.calls.size(), 8U);
}

TEST(HfsOverflowExtraSlot, OfZeroOrPastTheNodeNamesNobody) {
    for (std::uint64_t const slot : {0U, 507U, 511U, 512U, 0xFFFFU}) {
        HfsNode const inner = indexNode().addChild(3).setSlot(1, slot);
        HfsBench bench(withNodes({indexNode(3).addChild(2), inner, leafOf(3)}));
        HfsSearch const search = bench.search();
        EXPECT_TRUE(search.found) << slot;
        EXPECT_THAT(search.extents, ElementsAreArray(extentsNamed(3)));
    }
}

TEST(HfsOverflowExtraSlot, MayNameAWrongNodeWhichIsAnError) {
    HfsNode inner = indexNode().addChild(3);
    inner.put(inner.slot(1) + 2, 0x01020304, 4);
    HfsSearch const search = HfsBench(withNodes({indexNode(3).addChild(2), inner, leafOf(3)})).search();
    EXPECT_FALSE(search.found);
    EXPECT_THAT(search.entries, ElementsAre(errorEntry("Node 16909060 starts past the end of the extent")));
    EXPECT_THAT(search.extents, ElementsAreArray(extentsNamed(3))) << "the leaf came first";
}

TEST(HfsOverflowFailure, FileThatNeedsOverflowExtentsItself) {
    HfsBuilder builder = withNodes({indexNode()});
    builder.setHeader32(hfs_header::kExtentsFile + hfs_fork::kTotalBlocks, 21);
    expectFailure(builder, "Extent overflow file cannot contain an overflow of itself");
    EXPECT_THAT(HfsBench(builder).search().calls, IsEmpty());
    builder.setHeader32(hfs_header::kExtentsFile + hfs_fork::kTotalBlocks, 19);
    EXPECT_TRUE(HfsBench(builder).search().found) << "fewer blocks than the extents have are no matter";
}

TEST(HfsOverflowFailure, RootBehindTheFirstExtent) {
    // The root is sought in the first extent alone.
    HfsBuilder builder = withNodes({indexNode()}, {{100, 2}, {102, 18}});
    EXPECT_TRUE(HfsBench(builder).search().found);
    builder.putInNode(0, hfs_tree_header::kRootNode, 2, 4);
    expectFailure(builder, "First node starts past the end of the extent");
    EXPECT_THAT(HfsBench(builder).search().calls, ElementsAre(seekCall(100L * 512), readCall(512)));
}

TEST(HfsOverflowFailure, RootWithoutRoomForItsDescriptor) {
    HfsBuilder builder = withNodes({indexNode()}, {{100, 2}});
    builder.putInNode(0, hfs_tree_header::kNodeSize, 1010, 2); // 1024 without the 14 bytes of a descriptor
    expectFailure(builder, "First node starts past the end of the extent");
    builder.putInNode(0, hfs_tree_header::kNodeSize, 1009, 2);
    EXPECT_TRUE(HfsBench(builder).search().found) << "there are zeros: an index node without records";
}

class HfsOverflowRootKind : public testing::TestWithParam<int> {};

TEST_P(HfsOverflowRootKind, OtherThanIndexIsRefused) {
    HfsNode root = nodeOfKind(static_cast<std::int8_t>(GetParam()));
    root.addLeafRecord(recordNamed(1));
    expectFailure(withNodes({root}), "First node is not an index node");
}

INSTANTIATE_TEST_SUITE_P(Kinds, HfsOverflowRootKind,
                         testing::Values(hfs_node::kLeaf, hfs_node::kHeader, hfs_node::kMap, 3, -128));

TEST(HfsOverflowFailure, TreeOfOneLeafAsMkfsLeavesIt) {
    HfsGeometry geometry;
    geometry.totalBlocks = 9 * 4096;
    geometry.allocationFile = hfsFragments(9, 1, 100);
    HfsBench bench{HfsBuilder(geometry)};
    HfsOutcome const outcome = bench.chunk(0, 512);
    EXPECT_EQ(outcome.result, -1);
    EXPECT_EQ(outcome.entries, hfsFailedSearchEntries("First node is not an index node"));
}

TEST(HfsOverflowFailure, EmptyTreeHasItsHeaderForARoot) {
    expectFailure(HfsBuilder(), "First node is not an index node");
}

TEST(HfsOverflowFailure, NodeBehindTheFile) {
    // 20 nodes: 0 to 19.
    expectFailure(withNodes({indexNode().addChild(20)}), "Node 20 starts past the end of the extent");
    expectFailure(withNodes({indexNode().addChild(0xFFFFFFFF)}), "Node 4294967295 starts past the end of the extent");
    HfsBench last(withNodes({indexNode().addChild(19)}));
    EXPECT_TRUE(last.search().found) << "there are zeros: an index node without records";
}

TEST(HfsOverflowFailure, NodeWithoutRoomForItsDescriptor) {
    HfsBuilder builder = withNodes({indexNode().addChild(2)}, {{100, 4}});
    builder.setHeader32(hfs_header::kExtentsFile + hfs_fork::kTotalBlocks, 2);
    expectFailure(builder, "Node 2 starts past the end of the extent");
    builder.setHeader32(hfs_header::kExtentsFile + hfs_fork::kTotalBlocks, 3);
    EXPECT_TRUE(HfsBench(builder).search().found);
}

TEST(HfsOverflowFailure, NodeThatBeginsWhereTheLastDescriptorWouldNot) {
    // Two blocks without the 14 bytes of a descriptor are 1010 bytes: two nodes of 505.
    HfsGeometry geometry;
    geometry.nodes = makeHfsTreeOf({HfsNode(505, hfs_node::kIndex, 2).addChild(2)});
    geometry.extentsFile = {{100, 4}};
    HfsBuilder builder(geometry);
    EXPECT_TRUE(HfsBench(builder).search().found);
    builder.setHeader32(hfs_header::kExtentsFile + hfs_fork::kTotalBlocks, 2);
    expectFailure(builder, "Node 2 starts past the end of the extent");
}

TEST(HfsOverflowFailure, NodeBehindTheEightExtents) {
    // A file of no blocks has no limit, since the difference wraps.
    HfsBuilder builder = withNodes({indexNode().addChild(30)});
    builder.setHeader32(hfs_header::kExtentsFile + hfs_fork::kTotalBlocks, 0);
    expectFailure(builder, "Couldn't get extent overflow offset: 15360");
}

TEST(HfsOverflowFailure, NodeAtByteZeroOfTheVolume) {
    HfsBuilder builder = withNodes({indexNode().addChild(2)});
    builder.setForkExtents(hfs_header::kExtentsFile, {{100, 2}, {0, 18}});
    expectFailure(builder, "Couldn't get extent overflow offset: 1024");
}

TEST(HfsOverflowFailure, NodeBeforeTheFirstExtent) {
    HfsBuilder builder = withNodes({indexNode().addChild(2)});
    builder.setForkExtents(hfs_header::kExtentsFile, {{100, 2}, {99, 18}});
    expectFailure(builder, "Node offset starts before the start of the extent");
}

TEST(HfsOverflowSearch, NodeAtTheStartOfTheFirstExtentOnceMoreIsRead) {
    HfsBuilder builder = withNodes({indexNode().addChild(2)});
    builder.setForkExtents(hfs_header::kExtentsFile, {{100, 2}, {100, 18}});
    EXPECT_TRUE(HfsBench(builder).search().found) << "it is the header node, which is ignored";
}

class HfsOverflowUnknownKind : public testing::TestWithParam<int> {};

TEST_P(HfsOverflowUnknownKind, IsWrittenAsOneCharacter) {
    auto const kind = static_cast<std::int8_t>(GetParam());
    expectFailure(withNodes({indexNode().addChild(2), nodeOfKind(kind)}),
                  std::string("HFS+ unknown node type ") + static_cast<char>(kind));
}

INSTANTIATE_TEST_SUITE_P(Kinds, HfsOverflowUnknownKind, testing::Values(3, 'A', 127, -2, -128));

TEST(HfsOverflowFailure, OfALaterNodeKeepsWhatWasFoundBefore) {
    HfsSearch const search =
        HfsBench(withNodes({indexNode().addChild(2).addChild(3), leafOf(1), nodeOfKind(9)})).search();
    EXPECT_FALSE(search.found);
    EXPECT_THAT(search.extents, ElementsAreArray(extentsNamed(1)));
}

} // namespace
