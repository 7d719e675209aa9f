// Extents-overflow trees that lead in circles or ask for the impossible: they end, soon, in little memory.
#include "support/HfsRun.h"
#include "support/ResidentMemory.h"
#include "support/Sanitized.h"

#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace tests;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint16_t kLargeNode = 32768;
constexpr std::uint32_t kBlockSize = 4096;
constexpr std::uint32_t kFirstBlock = 100;

/// An index node of many slots, all of which lead to the one record that names the child.
HfsNode manySlots(std::uint16_t nodeSize, std::uint32_t child, std::uint16_t slots) {
    HfsNode node = HfsNode(nodeSize, hfs_node::kIndex, 2).addChild(child);
    for (std::uint64_t slot = 0; slot < slots; ++slot) {
        node.setSlot(slot, 14);
    }
    node.setSlot(slots, 0);
    return node.setNumRecords(slots);
}

/// A leaf of many slots, all of which lead to the one record.
HfsNode manyRecords(std::uint16_t nodeSize, HfsOverflowRecord const& record, std::uint16_t slots) {
    HfsNode node = HfsNode(nodeSize, hfs_node::kLeaf, 1).addLeafRecord(record);
    for (std::uint64_t slot = 0; slot < slots; ++slot) {
        node.setSlot(slot, 14);
    }
    return node.setNumRecords(slots);
}

/// As many slots as a large node has room for behind a record.
constexpr std::uint16_t kMostSlots = (kLargeNode - 14 - 76 - 2) / 2;

/// A volume with these nodes behind the header node; node 1 is the root.
HfsBuilder withNodes(std::vector<HfsNode> nodes) {
    HfsGeometry geometry;
    geometry.blockSize = kBlockSize;
    geometry.totalBlocks = 20000;
    geometry.nodes = makeHfsTreeOf(std::move(nodes));
    geometry.extentsFile = {{kFirstBlock, 9000}};
    HfsBuilder builder(geometry);
    builder.setHeader32(hfs_header::kAllocationFile + hfs_fork::kTotalBlocks, 2);
    return builder;
}

/// Passes calls on and keeps the most memory that was there at any of them.
class MeasuringReader : public agent::core::IVolumeReader {
public:
    explicit MeasuringReader(agent::core::IVolumeReader const& inner) : inner_(inner) {}

    long read(void* buffer, long length) const override {
        if (++reads < 1000 || reads % 1000 == 0) { // to ask costs far more than to read
            most = std::max(most, residentBytes());
        }
        return inner_.read(buffer, length);
    }

    long seek(long offset, int whence) const override { return inner_.seek(offset, whence); }

    mutable std::size_t most = 0;
    mutable std::uint64_t reads = 0;

private:
    agent::core::IVolumeReader const& inner_;
};

/// What a search took.
struct Cost {
    bool found = false;
    std::size_t extents = 0;
    std::uint64_t reads = 0;
    std::size_t memory = 0; ///< bytes more than before
    std::chrono::milliseconds time{};
    std::vector<LogEntry> entries;
};

Cost search(HfsBuilder const& builder) {
    MemoryReader const volume(builder.bytes);
    HfsFrontReader const front(volume);
    MeasuringReader const reader(front);
    RecordingLogger logger;
    ExposedHfsParser const parser(logger, 512, reader);
    std::vector<agent::core::fs::HFSPlusExtentDescriptor> extents;
    Cost cost;
    reader.reads = 0;
    std::size_t const before = residentBytes();
    auto const start = std::chrono::steady_clock::now();
    cost.found = parser.fs_search_overflow(hfsHeaderOf(builder.bytes), kHfsAllocationFileId, extents);
    cost.time = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    std::size_t const most = std::max(reader.most, residentBytes());
    cost.memory = most > before ? most - before : 0;
    cost.extents = extents.size();
    cost.reads = reader.reads;
    cost.entries = logger.entries;
    return cost;
}

std::string unreadable(std::uint64_t node, std::uint64_t nodeSize = 512) {
    return "Could not read next node at " + std::to_string(kFirstBlock * kBlockSize + node * nodeSize);
}

HfsNode indexNode() {
    return {512, hfs_node::kIndex, 2};
}

/// The address sanitizer keeps what was freed, up to 256 MiB, and as much again around it.
constexpr std::size_t kMostMemory = std::size_t{kIsSanitized ? 2048 : 128} << 20;

constexpr std::chrono::seconds kMostTime{30}; // far more than it takes, for slow machines and sanitizers

/// The search failed with one of the texts.
void expectEnd(Cost const& cost, std::vector<std::string> const& texts, std::uint64_t mostReads) {
    EXPECT_FALSE(cost.found);
    ASSERT_EQ(cost.entries.size(), 1U);
    EXPECT_EQ(cost.entries[0].level, agent::info::Level::Error);
    EXPECT_THAT(texts, testing::Contains(cost.entries[0].text));
    EXPECT_LE(cost.reads, mostReads);
    EXPECT_LT(cost.memory, kMostMemory);
    EXPECT_LT(cost.time, kMostTime);
}

TEST(HfsTreeCycle, RootThatNamesItself) {
    expectEnd(search(withNodes({indexNode().addChild(1)})), {unreadable(1)}, 100);
}

TEST(HfsTreeCycle, IndexNodeThatNamesItself) {
    expectEnd(search(withNodes({indexNode().addChild(2), indexNode().addChild(2)})), {unreadable(2)}, 100);
}

TEST(HfsTreeCycle, TwoIndexNodesThatNameEachOther) {
    expectEnd(search(withNodes({indexNode().addChild(2), indexNode().addChild(3), indexNode().addChild(2)})),
              {unreadable(2), unreadable(3)}, 200);
}

TEST(HfsTreeCycle, ThroughTheSlotInFreeSpace) {
    HfsNode inner = indexNode().addChild(3);
    inner.put(inner.slot(1) + 2, 2, 4);
    HfsNode const leaf = HfsNode(512, hfs_node::kLeaf, 1).addLeafRecord({kHfsAllocationFileId, 0, {{7, 7}}});
    // The node and its leaf come in turn.
    expectEnd(search(withNodes({indexNode().addChild(2), inner, leaf})), {unreadable(2), unreadable(3)}, 300);
}

TEST(HfsTreeCycle, ThatGrowsWithEveryRound) {
    // Each visit queues the node as often as it has slots.
    std::vector<HfsNode> nodes{manySlots(kLargeNode, 2, kMostSlots), manySlots(kLargeNode, 2, kMostSlots)};
    expectEnd(search(withNodes(nodes)), {unreadable(2, kLargeNode)}, 200);
}

TEST(HfsTreeCycle, OfAThousandNodesIsLeftAfterARoundOrTwo) {
    std::vector<HfsNode> nodes;
    for (std::uint32_t node = 1; node <= 1000; ++node) {
        nodes.push_back(indexNode().addChild(node == 1000 ? 1 : node + 1));
    }
    Cost const cost = search(withNodes(nodes));
    EXPECT_FALSE(cost.found);
    EXPECT_EQ(cost.entries.size(), 1U);
    EXPECT_LE(cost.reads, 5000U);
}

TEST(HfsTreeChain, OfAThousandLevelsIsNoCycle) {
    std::vector<HfsNode> nodes;
    for (std::uint32_t node = 1; node <= 1000; ++node) {
        nodes.push_back(indexNode().addChild(node + 1));
    }
    nodes.push_back(HfsNode(512, hfs_node::kLeaf, 1).addLeafRecord({kHfsAllocationFileId, 0, {{7, 7}}}));
    Cost const cost = search(withNodes(nodes));
    EXPECT_TRUE(cost.found);
    EXPECT_EQ(cost.extents, 8U);
    EXPECT_EQ(cost.reads, 1002U);
    EXPECT_THAT(cost.entries, IsEmpty());
}

TEST(HfsTreeMultitude, OfAFewSlotsThatNameOneLeafIsFollowed) {
    HfsNode const leaf = HfsNode(kLargeNode, hfs_node::kLeaf, 1).addLeafRecord({kHfsAllocationFileId, 0, {{7, 7}}});
    Cost const cost = search(withNodes({manySlots(kLargeNode, 2, 60), leaf}));
    EXPECT_TRUE(cost.found);
    EXPECT_EQ(cost.extents, 480U);
    EXPECT_EQ(cost.reads, 62U);
    EXPECT_THAT(cost.entries, IsEmpty());
}

TEST(HfsTreeMultitude, OfThousandsOfSlotsThatNameOneLeafIsNot) {
    // The leaf is costly: thousands of records of another file.
    HfsNode const leaf = manyRecords(kLargeNode, {5, 0, {{7, 7}}}, kMostSlots);
    expectEnd(search(withNodes({manySlots(kLargeNode, 2, kMostSlots), leaf})), {unreadable(2, kLargeNode)}, 100);
}

TEST(HfsTreeMultitude, OfExtentsThatNoVolumeHasIsAnUnreadableNode) {
    HfsNode const leaf = manyRecords(kLargeNode, {kHfsAllocationFileId, 0, {{7, 7}}}, kMostSlots);
    Cost const cost = search(withNodes({manySlots(kLargeNode, 2, kMostSlots), leaf}));
    expectEnd(cost, {unreadable(2, kLargeNode)}, 100);
    EXPECT_LE(cost.extents, std::size_t{1} << 21);
    EXPECT_GT(cost.extents, std::size_t{1} << 20) << "every allocation file that there can be is served";
}

TEST(HfsTreeMultitude, OfNodesThatNoVolumeHasIsAnUnreadableNode) {
    // The root names 100 index nodes, each of which names a leaf 16339 times: more than 2^20 in all.
    constexpr std::uint32_t kIndexNodes = 100;
    HfsNode root(kLargeNode, hfs_node::kIndex, 3);
    std::vector<HfsNode> nodes;
    for (std::uint32_t node = 2; node < 2 + kIndexNodes; ++node) {
        root.addChild(node);
        nodes.push_back(manySlots(kLargeNode, 900, kMostSlots));
    }
    nodes.insert(nodes.begin(), root);
    Cost const cost = search(withNodes(nodes));
    // The 65th index node is one too many.
    expectEnd(cost, {unreadable(66, kLargeNode)}, 67);
    EXPECT_GT(cost.reads, 60U) << "so many were to wait";
}

TEST(HfsTreeMultitude, OfALevelForEachNodeEnds) {
    // Node n names node n + 1, up to 2^32: nothing backs them. Node 0 holds the tree's header, and the volume's.
    HfsNode const node = indexNode().addChild(0);
    SyntheticReader const volume(std::uint64_t{1} << 41, [&](std::uint64_t offset, std::uint8_t* to, std::uint64_t) {
        std::span<std::uint8_t> const bytes(to, 512);
        if (offset == 0) {
            putBig(bytes, 0, 0x482B, 2);
            putBig(bytes, hfs_tree_header::kRootNode, 1, 4);
            putBig(bytes, hfs_tree_header::kNodeSize, 512, 2);
            return;
        }
        std::copy(node.bytes.begin(), node.bytes.end(), to);
        putBig(bytes, 26, offset / 512 + 1, 4);
    });
    HfsBuilder builder; // for its header
    builder.setForkExtents(hfs_header::kExtentsFile, {{0, 0xFFFFFFFF}});
    builder.setHeader32(hfs_header::kExtentsFile + hfs_fork::kTotalBlocks, 0xFFFFFFFF);
    MeasuringReader const reader(volume);
    RecordingLogger logger;
    ExposedHfsParser const parser(logger, 512, reader);
    std::vector<agent::core::fs::HFSPlusExtentDescriptor> extents;
    std::size_t const before = residentBytes();
    EXPECT_FALSE(parser.fs_search_overflow(hfsHeaderOf(builder.bytes), kHfsAllocationFileId, extents));
    ASSERT_EQ(logger.entries.size(), 1U);
    EXPECT_THAT(logger.entries[0].text, testing::StartsWith("Could not read next node at "));
    EXPECT_GE(reader.reads, std::uint64_t{1} << 20) << "no volume has so many levels, but so many nodes it may have";
    EXPECT_LT(reader.reads, std::uint64_t{1} << 21);
    EXPECT_LT(reader.most, before + kMostMemory);
}

TEST(HfsTreeMultitude, RequestFailsWithTheSearch) {
    HfsBench bench(withNodes({indexNode().addChild(1)}));
    for (int request = 0; request < 3; ++request) {
        HfsOutcome const outcome = bench.chunk(0, 64);
        EXPECT_EQ(outcome.result, -1);
        EXPECT_EQ(outcome.entries, hfsFailedSearchEntries(unreadable(1)));
        EXPECT_THAT(outcome.buffer, testing::Each(kHfsUntouched));
    }
}

} // namespace
