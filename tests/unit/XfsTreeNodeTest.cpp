// Nodes of the free-space trees: what is read, what is refused, what a node holds.
#include "support/XfsRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using namespace tests;
using Node = ExposedXfsParser::XFSBTreeNode;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StrEq;
using testing::ThrowsMessage;

static_assert(!std::is_copy_constructible_v<Node>);
static_assert(!std::is_copy_assignable_v<Node>);
static_assert(std::is_nothrow_move_constructible_v<Node>);
static_assert(std::is_nothrow_move_assignable_v<Node>);
static_assert(std::has_virtual_destructor_v<Node>);

constexpr std::uint32_t kGroup = 1;
constexpr std::uint32_t kBlock = 9;

/// A volume with 4 KiB blocks, where the limits of a node are round numbers that are easy to look up.
XfsGeometry geometryOf(bool hasChecksums) {
    XfsGeometry geometry;
    geometry.blockSize = 4096;
    geometry.groupBlocks = 100;
    geometry.totalBlocks = 200;
    geometry.hasChecksums = hasChecksums;
    return geometry;
}

XfsBuilder withNode(bool hasChecksums, std::uint16_t level, std::uint16_t records) {
    return XfsBuilder(geometryOf(hasChecksums)).makeNode(kGroup, kBlock, level, records, 0x01020304, 0x05060708);
}

Node load(XfsBench& bench, std::uint32_t block = kBlock) {
    bench.forget();
    return {&bench.parser, kGroup, block};
}

void expectRefused(XfsBench& bench, char const* text) {
    EXPECT_THAT([&] { load(bench); }, ThrowsMessage<std::runtime_error>(StrEq(text)));
}

std::vector<XfsRun> recordsOf(Node const& node) {
    std::vector<XfsRun> runs;
    for (std::size_t i = 0; i < node.num_recs; ++i) {
        runs.push_back({node.records[i].start, node.records[i].count});
    }
    return runs;
}

TEST(XfsTreeNode, LeafHoldsItsRecordsInHostOrder) {
    XfsBuilder builder = withNode(false, 0, 2);
    builder.setRecord(kGroup, kBlock, 0, {0x11121314, 0x15161718}).setRecord(kGroup, kBlock, 1, {0xF1F2F3F4, 1});
    XfsBench bench(builder);
    Node const node = load(bench);
    EXPECT_EQ(node.magic, 0x41425442U);
    EXPECT_EQ(node.level, 0);
    EXPECT_EQ(node.num_recs, 2);
    EXPECT_EQ(node.left_sib, 0x01020304U);
    EXPECT_EQ(node.right_sib, 0x05060708U);
    EXPECT_EQ(recordsOf(node), (std::vector<XfsRun>{{0x11121314, 0x15161718}, {0xF1F2F3F4, 1}}));
    EXPECT_EQ(node.children, nullptr);
}

TEST(XfsTreeNode, LeafIsReadInTwoSteps) {
    XfsBuilder const builder = withNode(false, 0, 510);
    XfsBench bench(builder, 8);
    load(bench);
    // 56 bytes of header always, then the records from byte 16 on.
    EXPECT_THAT(bench.reader.calls,
                ElementsAre(seekCall(109L * 4096), readCall(56), seekCall(109L * 4096 + 16), readCall(4080)));
}

TEST(XfsTreeNode, LeafOfAChecksummedTreeHasItsRecordsBehindTheLongHeader) {
    XfsBuilder builder = withNode(true, 0, 505);
    builder.setRecord(kGroup, kBlock, 0, {7, 8}).setRecord(kGroup, kBlock, 504, {9, 10});
    XfsBench bench(builder, 8);
    Node const node = load(bench);
    EXPECT_EQ(node.magic, 0x41423342U);
    EXPECT_EQ(node.records[0].start, 7U);
    EXPECT_EQ(node.records[504].count, 10U);
    EXPECT_THAT(bench.reader.calls,
                ElementsAre(seekCall(109L * 4096), readCall(56), seekCall(109L * 4096 + 56), readCall(4040)));
}

TEST(XfsTreeNode, InnerNodeHasItsChildrenBehindRoomForAllKeys) {
    XfsBuilder builder = withNode(false, 3, 2);
    builder.setRecord(kGroup, kBlock, 0, {1, 2}).setRecord(kGroup, kBlock, 1, {3, 4});
    builder.setChild(kGroup, kBlock, 0, 0x21222324).setChild(kGroup, kBlock, 1, 0xFFFFFFFF);
    XfsBench bench(builder, 4);
    Node const node = load(bench);
    EXPECT_EQ(node.level, 3);
    EXPECT_EQ(recordsOf(node), (std::vector<XfsRun>{{1, 2}, {3, 4}}));
    ASSERT_NE(node.children, nullptr);
    EXPECT_EQ(node.children[0], 0x21222324U);
    EXPECT_EQ(node.children[1], 0xFFFFFFFFU);
    constexpr long kAddress = 109L * 4096;
    EXPECT_THAT(bench.reader.calls, ElementsAre(seekCall(kAddress), readCall(56), seekCall(kAddress + 16), readCall(16),
                                                seekCall(kAddress + 16 + 340 * 8), readCall(8)));
}

TEST(XfsTreeNode, InnerNodeOfAChecksummedTree) {
    XfsBuilder builder = withNode(true, 1, 336);
    builder.setChild(kGroup, kBlock, 335, 77);
    XfsBench bench(builder, 4);
    Node const node = load(bench);
    EXPECT_EQ(node.children[335], 77U);
    constexpr long kAddress = 109L * 4096;
    EXPECT_THAT(bench.reader.calls, ElementsAre(seekCall(kAddress), readCall(56), seekCall(kAddress + 56),
                                                readCall(2688), seekCall(kAddress + 56 + 336 * 8), readCall(1344)));
}

TEST(XfsTreeNode, ReadsComeInWholeUnits) {
    XfsBench bench(withNode(false, 1, 340));
    load(bench);
    constexpr long kAddress = 109L * 4096;
    EXPECT_THAT(bench.reader.calls, ElementsAre(seekCall(kAddress), readCall(512), seekCall(kAddress), readCall(3072),
                                                seekCall(kAddress + 2560), readCall(1536)));
}

TEST(XfsTreeNode, LogsItsAddressAndThenItself) {
    XfsBench bench(withNode(true, 2, 5));
    load(bench);
    EXPECT_THAT(bench.logger.entries, ElementsAre(debugEntry("btn addr = 446464"), debugEntry("---BTN HERE---"),
                                                  debugEntry("magic 0x41423342"), debugEntry("level 2"),
                                                  debugEntry("num_recs 5"), debugEntry("left_sib 16909060"),
                                                  debugEntry("right_sib 84281096"), debugEntry("---BTN END---")));
}

TEST(XfsTreeNode, WithoutATraceItIsTheSameNode) {
    XfsBench bench(withNode(false, 2, 5), 512, XfsTrace::Off);
    EXPECT_EQ(load(bench).num_recs, 5);
    EXPECT_THAT(bench.logger.entries, IsEmpty());
}

TEST(XfsTreeNode, EmptyLeafIsValidAndOfNoRecords) {
    XfsBench bench(withNode(false, 0, 0));
    Node const node = load(bench);
    EXPECT_EQ(node.num_recs, 0);
    EXPECT_EQ(node.children, nullptr);
    EXPECT_EQ(bench.logger.entries.back(), debugEntry("---BTN END---"));
    EXPECT_THAT(bench.reader.calls, ElementsAre(seekCall(109L * 4096), readCall(512))) << "nothing is there to read";
}

TEST(XfsTreeNode, NullBlockIsRefusedBeforeAnyRead) {
    XfsBench bench(withNode(false, 0, 0));
    EXPECT_THAT([&] { load(bench, 0xFFFFFFFF); },
                ThrowsMessage<std::runtime_error>(StrEq("XFS: cannot create null btree node")));
    EXPECT_THAT(bench.reader.calls, IsEmpty());
    EXPECT_THAT(bench.logger.entries, IsEmpty());
}

TEST(XfsTreeNode, AddressHas64Bits) {
    XfsGeometry geometry = geometryOf(false);
    XfsBuilder builder(geometry);
    builder.setSuper32(xfs_super::kGroupBlocks, 0x10000000);
    XfsBench bench(builder);
    bench.forget();
    // Group 16 of groups of 1 TiB; nothing is there, which reads as zeros.
    EXPECT_THAT([&] { Node(&bench.parser, 16, 0xFFFFFFFE); },
                ThrowsMessage<std::runtime_error>(StrEq("XFS: Invalid btree node magic number.")));
    EXPECT_THAT(bench.logger.entries, ElementsAre(debugEntry("btn addr = 35184372080640")));
    EXPECT_THAT(bench.reader.calls, ElementsAre(seekCall(35184372080640), readCall(512)));
}

struct Limit {
    char const* name;
    bool hasChecksums;
    std::uint16_t level;
    std::uint16_t most;
};

class XfsTreeNodeLimit : public testing::TestWithParam<Limit> {};

TEST_P(XfsTreeNodeLimit, MostRecordsOfABlockAreAccepted) {
    XfsBench bench(withNode(GetParam().hasChecksums, GetParam().level, GetParam().most));
    EXPECT_EQ(load(bench).num_recs, GetParam().most);
}

TEST_P(XfsTreeNodeLimit, OneMoreIsRefused) {
    auto const tooMany = static_cast<std::uint16_t>(GetParam().most + 1);
    XfsBench bench(withNode(GetParam().hasChecksums, GetParam().level, tooMany));
    expectRefused(bench, "XFS: Invalid num_recs in btree node.");
    EXPECT_THAT(bench.logger.entries, ElementsAre(debugEntry("btn addr = 446464")));
    EXPECT_THAT(bench.reader.calls, ElementsAre(seekCall(446464), readCall(512))) << "no record is read";
}

INSTANTIATE_TEST_SUITE_P(Nodes, XfsTreeNodeLimit,
                         testing::Values(Limit{"Leaf", false, 0, 510}, Limit{"Inner", false, 1, 340},
                                         Limit{"HighestInner", false, 0xFFFF, 340},
                                         Limit{"ChecksummedLeaf", true, 0, 505},
                                         Limit{"ChecksummedInner", true, 1, 336}),
                         [](auto const& instance) { return std::string(instance.param.name); });

TEST(XfsTreeNodeHeader, FollowsFromTheNodesMagicAndNotFromTheVersion) {
    // A plain node in a volume whose superblock has checksums, and the other way round.
    for (bool const hasChecksums : {false, true}) {
        XfsGeometry const other = geometryOf(!hasChecksums);
        XfsBuilder builder = withNode(hasChecksums, 0, static_cast<std::uint16_t>(other.mostRecords()));
        builder.setNode32(kGroup, kBlock, xfs_node::kMagic, other.nodeMagic());
        builder.put(other.blockOffset(kGroup, kBlock) + other.nodeHeader(), 4711, 4);
        XfsBench bench(builder);
        Node const node = load(bench);
        EXPECT_EQ(node.num_recs, other.mostRecords());
        EXPECT_EQ(node.records[0].start, 4711U);
    }
}

TEST(XfsTreeNodeFailure, InnerNodeWithoutRecordsIsNamed) {
    for (bool const hasChecksums : {false, true}) {
        for (std::uint16_t const level : {std::uint16_t{1}, std::uint16_t{0xFFFF}}) {
            XfsBench bench(withNode(hasChecksums, level, 0));
            expectRefused(bench, "XFS: Internal node can't have 0 records.");
            EXPECT_EQ(bench.reader.calls.size(), 2U) << "only the header is read";
        }
    }
}

class XfsTreeNodeMagic : public testing::TestWithParam<std::uint32_t> {};

TEST_P(XfsTreeNodeMagic, IsRefused) {
    XfsBuilder builder = withNode(false, 0, 0);
    builder.setNode32(kGroup, kBlock, xfs_node::kMagic, GetParam());
    XfsBench bench(builder);
    expectRefused(bench, "XFS: Invalid btree node magic number.");
    EXPECT_THAT(bench.logger.entries, ElementsAre(debugEntry("btn addr = 446464")));
}

// Nodes of the tree by size ("ABTC", "AB3C") and of the inodes' ("IABT", "IAB3"), the other byte order, nothing.
INSTANTIATE_TEST_SUITE_P(OfAnotherKind, XfsTreeNodeMagic,
                         testing::Values(0x41425443U, 0x41423343U, 0x49414254U, 0x49414233U, 0x42544241U, 0U,
                                         0xFFFFFFFFU));

TEST(XfsTreeNodeFailure, MagicIsLookedAtBeforeTheRecords) {
    XfsBuilder builder = withNode(false, 1, 0xFFFF);
    builder.setNode32(kGroup, kBlock, xfs_node::kMagic, 0x41425443);
    XfsBench bench(builder);
    expectRefused(bench, "XFS: Invalid btree node magic number.");
}

struct UnreadablePart {
    char const* name;
    unsigned call;
    char const* text;
};

class XfsTreeNodeUnreadable : public testing::TestWithParam<UnreadablePart> {};

TEST_P(XfsTreeNodeUnreadable, IsNamedByItsPart) {
    for (Fault const fault : {Fault::SeekFails, Fault::ReadFails}) {
        MemoryReader const volume = withNode(false, 1, 340).reader();
        FaultyReader const faulty(volume, fault, 1 + GetParam().call); // call 0 is the constructor's
        RecordingLogger logger;
        ExposedXfsParser const parser(logger, 512, faulty);
        logger.entries.clear();
        EXPECT_THAT([&] { Node(&parser, kGroup, kBlock); }, ThrowsMessage<std::runtime_error>(StrEq(GetParam().text)));
        EXPECT_TRUE(faulty.fired);
        EXPECT_EQ(logger.entries.front(), debugEntry("btn addr = 446464"));
        EXPECT_EQ(logger.entries.size(), fault == Fault::ReadFails ? 2U : 1U);
    }
}

INSTANTIATE_TEST_SUITE_P(Parts, XfsTreeNodeUnreadable,
                         testing::Values(UnreadablePart{"Header", 0, "XFS: cannot read btree node header"},
                                         UnreadablePart{"Records", 1, "XFS: Can't read records in btree node."},
                                         UnreadablePart{"Children", 2, "XFS: Can't read children in btree node."}),
                         [](auto const& instance) { return std::string(instance.param.name); });

TEST(XfsTreeNodeMove, TakesTheArraysAndLeavesNone) {
    XfsBuilder builder = withNode(false, 1, 3);
    builder.setRecord(kGroup, kBlock, 2, {5, 6}).setChild(kGroup, kBlock, 2, 7);
    XfsBench bench(builder);
    Node source = load(bench);
    auto const* const records = source.records.get();
    auto const* const children = source.children.get();

    Node moved(std::move(source));
    EXPECT_EQ(source.records, nullptr); // NOLINT(bugprone-use-after-move): what is left is what is tested
    EXPECT_EQ(source.children, nullptr);
    EXPECT_EQ(moved.records.get(), records);
    EXPECT_EQ(moved.children.get(), children);
    EXPECT_EQ(moved.level, 1);
    EXPECT_EQ(moved.num_recs, 3);
    EXPECT_EQ(moved.left_sib, 0x01020304U);
    EXPECT_EQ(moved.right_sib, 0x05060708U);
    EXPECT_EQ(moved.magic, 0x41425442U);

    Node other = load(bench);
    other = std::move(moved);
    EXPECT_EQ(moved.records, nullptr); // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(moved.children, nullptr);
    EXPECT_EQ(other.records.get(), records);
    EXPECT_EQ(other.children[2], 7U);
    EXPECT_EQ(other.records[2].count, 6U);
}

} // namespace
