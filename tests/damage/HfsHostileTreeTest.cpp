// Extents-overflow trees of HFS+ that lie about the allocation file, as the imaging layer sees them.
#include "support/HfsBuilder.h"
#include "support/HostileVolume.h"

namespace {

using namespace tests;

using End = HostileEnd;

/// What is said when a piece of the allocation file is missing or out of its place.
constexpr char const* kOrder = "its pieces would be put together in a wrong order";
constexpr std::uint64_t kHeaderNode = 0;
constexpr std::uint64_t kFirstLeaf = 1;
constexpr std::uint64_t kLastLeaf = 2;
constexpr std::uint64_t kRoot = 3;

/// Bytes of the header record that only this file changes, and its map of nodes.
constexpr std::uint64_t kCompareType = 14 + 37;
constexpr std::uint64_t kNodeMap = 248;

/// A leaf's first record: key, and data behind it.
constexpr std::uint64_t kKeyLength = 14;
constexpr std::uint64_t kForkType = 16;
constexpr std::uint64_t kFileId = 18;
constexpr std::uint64_t kStartBlock = 22;
constexpr std::uint64_t kFirstExtent = 26;

/// A map in thirty pieces, of which each holds 4096 blocks: eight are in the header, eight each in the two records of
/// node 1, and six in the record of node 2. Node 3 is the root above them.
HfsBuilder makeGood() {
    HfsGeometry geometry;
    geometry.totalBlocks = 30 * 4096 - 3;
    geometry.allocationFile = hfsFragments(30, 1, 100);
    geometry.recordsPerNode = 2;
    return HfsBuilder(geometry).useBlocksAtRandom(73);
}

/// The map does not change by what is done to the tree.
std::vector<bool> const& truth() {
    static std::vector<bool> const map = makeGood().map();
    return map;
}

void expectEndOf(HfsBuilder const& builder, End end, std::string const& text) {
    expectEnd(askForMap(builder.bytes, builder.geometry().bytes()), end, text, truth(), 512);
}

TEST(HfsHostileTree, ItselfIsSound) {
    expectEndOf(makeGood(), End::Right, "");
}

struct NodeField {
    char const* name;
    std::uint64_t node;
    std::uint64_t offset;
    std::uint64_t value;
    unsigned width;
    End end;
    char const* text = "";
};

void PrintTo(NodeField const& field, std::ostream* out) {
    *out << field.name;
}

class HfsHostileNode : public testing::TestWithParam<NodeField> {};

TEST_P(HfsHostileNode, HasItsEnd) {
    HfsBuilder builder = makeGood();
    std::uint64_t const place = builder.nodeOffset(GetParam().node) + GetParam().offset;
    ASSERT_NE(builder.get(place, GetParam().width), GetParam().value) << "nothing is changed";
    expectEndOf(builder.put(place, GetParam().value, GetParam().width), GetParam().end, GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    HeaderRecord, HfsHostileNode,
    testing::Values(
        NodeField{"NodeSizeOf0", kHeaderNode, hfs_tree_header::kNodeSize, 0, 2, End::Error,
                  "Failed to read node descriptor"},
        NodeField{"NodeSizeOf511", kHeaderNode, hfs_tree_header::kNodeSize, 511, 2, End::AllUsed,
                  "the map ends at unit 0"},
        NodeField{"NodeSizeOf1000", kHeaderNode, hfs_tree_header::kNodeSize, 1000, 2, End::Error},
        NodeField{"NodeSizeOfTwice", kHeaderNode, hfs_tree_header::kNodeSize, 1024, 2, End::Error},
        NodeField{"NodeSizeOf32768", kHeaderNode, hfs_tree_header::kNodeSize, 32768, 2, End::Error,
                  "First node starts past the end of the extent"},
        NodeField{"RootOf0", kHeaderNode, hfs_tree_header::kRootNode, 0, 4, End::Error,
                  "First node is not an index node"},
        NodeField{"RootBeyond", kHeaderNode, hfs_tree_header::kRootNode, 4, 4, End::Error,
                  "First node starts past the end of the extent"},
        NodeField{"RootOfAllOnes", kHeaderNode, hfs_tree_header::kRootNode, 0xFFFFFFFF, 4, End::Error,
                  "First node starts past the end of the extent"},
        NodeField{"RootIsALeaf", kHeaderNode, hfs_tree_header::kRootNode, kFirstLeaf, 4, End::AllUsed, "single leaf"},
        NodeField{"DepthOf0", kHeaderNode, hfs_tree_header::kDepth, 0, 2, End::Right},
        NodeField{"DepthOf255", kHeaderNode, hfs_tree_header::kDepth, 255, 2, End::Right},
        NodeField{"FirstLeafBeyond", kHeaderNode, hfs_tree_header::kFirstLeaf, 0xFFFFFFFF, 4, End::Right},
        NodeField{"LastLeafBeyond", kHeaderNode, hfs_tree_header::kLastLeaf, 0xFFFFFFFF, 4, End::Right},
        NodeField{"LeafRecordsOf0", kHeaderNode, hfs_tree_header::kLeafRecords, 0, 4, End::Right},
        NodeField{"KeysOf0", kHeaderNode, hfs_tree_header::kMaxKeyLength, 0, 2, End::Right},
        NodeField{"MoreNodesThanRoom", kHeaderNode, hfs_tree_header::kTotalNodes, 0xFFFFFFFF, 4, End::Right},
        NodeField{"MoreFreeNodesThanNodes", kHeaderNode, hfs_tree_header::kFreeNodes, 0xFFFFFFFF, 4, End::Right},
        NodeField{"CompareType", kHeaderNode, kCompareType, 0x55, 1, End::Right},
        NodeField{"MapCallsNode0Free", kHeaderNode, kNodeMap, 0, 8, End::Right},
        NodeField{"NoMapRecord", kHeaderNode, hfs_node::kNumRecords, 2, 2, End::Right}),
    [](auto const& instance) { return hostileName(instance); });

INSTANTIATE_TEST_SUITE_P(
    Nodes, HfsHostileNode,
    testing::Values(
        NodeField{"LinkToItself", kFirstLeaf, hfs_node::kForwardLink, kFirstLeaf, 4, End::Right},
        NodeField{"LinkBackBeyond", kLastLeaf, hfs_node::kBackwardLink, 0xFFFFFFFF, 4, End::Right},
        NodeField{"HeightOf0", kFirstLeaf, hfs_node::kHeight, 0, 1, End::Right},
        NodeField{"HeightOfTheRoot", kRoot, hfs_node::kHeight, 255, 1, End::Right},
        NodeField{"RootIsAMap", kRoot, hfs_node::kKind, 2, 1, End::Error, "First node is not an index node"},
        NodeField{"LeafIsAMap", kFirstLeaf, hfs_node::kKind, 2, 1, End::Doubted, "the map ends at unit"},
        NodeField{"LeafIsAHeader", kLastLeaf, hfs_node::kKind, 1, 1, End::Doubted, "the map ends at unit"},
        NodeField{"LeafOfAnUnknownKind", kLastLeaf, hfs_node::kKind, 'A', 1, End::Error, "HFS+ unknown node type A"},
        NodeField{"LeafOfNoRecords", kFirstLeaf, hfs_node::kNumRecords, 0, 2, End::AllUsed, kOrder},
        NodeField{"LeafOfOneRecordLess", kFirstLeaf, hfs_node::kNumRecords, 1, 2, End::AllUsed, kOrder},
        NodeField{"LeafOf65535Records", kFirstLeaf, hfs_node::kNumRecords, 0xFFFF, 2, End::Error, "Could not read"},
        NodeField{"RootOfNoRecords", kRoot, hfs_node::kNumRecords, 0, 2, End::AllUsed, "the map ends at unit 0"},
        NodeField{"RootOfOneRecordLess", kRoot, hfs_node::kNumRecords, 1, 2, End::Doubted},
        NodeField{"ChildIsTheHeader", kRoot, kFirstExtent, 0, 4, End::Doubted},
        NodeField{"ChildIsTheRoot", kRoot, kFirstExtent, kRoot, 4, End::AllUsed, kOrder},
        NodeField{"ChildBeyond", kRoot, kFirstExtent, 4, 4, End::Error, "Node 4 starts past the end of the extent"},
        NodeField{"ChildTwice", kRoot, kFirstExtent, kLastLeaf, 4, End::Doubted}),
    [](auto const& instance) { return hostileName(instance); });

INSTANTIATE_TEST_SUITE_P(
    Records, HfsHostileNode,
    testing::Values(NodeField{"KeyOf0", kFirstLeaf, kKeyLength, 0, 2, End::Doubted},
                    NodeField{"KeyOfAnOddLength", kFirstLeaf, kKeyLength, 11, 2, End::Doubted},
                    NodeField{"KeyOfMoreThanTheMost", kFirstLeaf, kKeyLength, 12, 2, End::AllUsed, kOrder},
                    NodeField{"KeyPastTheNode", kFirstLeaf, kKeyLength, 0xFFFF, 2, End::AllUsed, kOrder},
                    NodeField{"OfAnotherFile", kFirstLeaf, kFileId, 7, 4, End::AllUsed, kOrder},
                    NodeField{"OfTheOtherFork", kFirstLeaf, kForkType, 0xFF, 1, End::Right},
                    NodeField{"OfAnotherPlaceInTheFile", kFirstLeaf, kStartBlock, 9, 4, End::AllUsed, kOrder},
                    NodeField{"ExtentOutside", kFirstLeaf, kFirstExtent, 0xFFFFFF, 4, End::Error},
                    NodeField{"ExtentOfAllOnes", kFirstLeaf, kFirstExtent + 4, 0xFFFFFFFF, 4, End::AllUsed, kOrder},
                    NodeField{"ExtentOfTwo", kFirstLeaf, kFirstExtent + 4, 2, 4, End::Doubted},
                    NodeField{"ExtentOfNothing", kFirstLeaf, kFirstExtent + 4, 0, 4, End::AllUsed, kOrder},
                    NodeField{"ExtentTwice", kFirstLeaf, kFirstExtent, 100, 4, End::Doubted},
                    NodeField{"ExtentOverAnother", kFirstLeaf, kFirstExtent, 118, 4, End::Doubted}),
    [](auto const& instance) { return hostileName(instance); });

/// The slots of a leaf's first and second record.
constexpr std::uint64_t kFirstSlot = 512 - 2;
constexpr std::uint64_t kSecondSlot = 512 - 4;

TEST(HfsHostileSlots, ThatChangePlacesAreDoubted) {
    HfsBuilder builder = makeGood();
    std::uint64_t const second = builder.get(builder.nodeOffset(kFirstLeaf) + kSecondSlot, 2);
    builder.putInNode(kFirstLeaf, kFirstSlot, second, 2).putInNode(kFirstLeaf, kSecondSlot, 14, 2);
    expectEndOf(builder, End::Doubted, "");
}

TEST(HfsHostileSlots, OfChildrenThatChangePlacesAreDoubted) {
    HfsBuilder builder = makeGood();
    std::uint64_t const second = builder.get(builder.nodeOffset(kRoot) + kSecondSlot, 2);
    builder.putInNode(kRoot, kFirstSlot, second, 2).putInNode(kRoot, kSecondSlot, 14, 2);
    expectEndOf(builder, End::Doubted, "");
}

class HfsHostileSlot : public testing::TestWithParam<NodeField> {};

TEST_P(HfsHostileSlot, LosesNothing) {
    HfsBuilder builder = makeGood();
    builder.putInNode(kFirstLeaf, GetParam().offset, GetParam().value, GetParam().width);
    expectNothingLost(askForMap(builder.bytes, builder.geometry().bytes()), truth(), 512);
}

INSTANTIATE_TEST_SUITE_P(Offsets, HfsHostileSlot,
                         testing::Values(NodeField{"Odd", 0, kSecondSlot, 91, 2, End::Doubted},
                                         NodeField{"InTheDescriptor", 0, kSecondSlot, 4, 2, End::Doubted},
                                         NodeField{"OfTheSameRecord", 0, kSecondSlot, 14, 2, End::Doubted},
                                         NodeField{"InsideARecord", 0, kSecondSlot, 22, 2, End::Doubted},
                                         NodeField{"Of0", 0, kSecondSlot, 0, 2, End::Doubted},
                                         NodeField{"AtTheEnd", 0, kSecondSlot, 511, 2, End::Doubted},
                                         NodeField{"Beyond", 0, kSecondSlot, 0xFFFF, 2, End::Doubted}),
                         [](auto const& instance) { return hostileName(instance); });

TEST(HfsHostileOverflowFile, ThatNeedsItselfOrHasNoExtentsIsAnError) {
    HfsBuilder builder = makeGood();
    builder.setHeader32(hfs_header::kExtentsFile + hfs_fork::kTotalBlocks, 5);
    expectEndOf(builder, End::Error, "Extent overflow file cannot contain an overflow of itself");
    builder.setForkExtents(hfs_header::kExtentsFile, {});
    expectEndOf(builder, End::Error, "Extent overflow file cannot contain an overflow of itself");
}

TEST(HfsHostileOverflowFile, WithoutARecordOfTheMapMakesEverythingUsed) {
    HfsGeometry geometry = makeGood().geometry();
    geometry.nodes = makeHfsTreeOf({HfsNode(512, hfs_node::kIndex, 2).addChild(2),
                                    HfsNode(512, hfs_node::kLeaf, 1).addLeafRecord({17, 8, {{50, 1}}})});
    geometry.extentsFile = {{200, 4}};
    HfsBuilder builder(geometry);
    expectEnd(askForMap(builder.bytes, geometry.bytes()), End::AllUsed, "the map ends at unit 0 of 122877",
              builder.map(), 512);
}

} // namespace
