// Builds extents-overflow trees of HFS+ volumes, node by node.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace tests {

/// Consecutive allocation blocks of a file.
struct HfsExtent {
    std::uint32_t start = 0;
    std::uint32_t count = 0;

    bool operator==(HfsExtent const&) const = default;
};

using HfsExtents = std::vector<HfsExtent>;

/// The extents that a fork, or one record of the tree, holds.
inline constexpr std::size_t kHfsExtentsInRecord = 8;

/// A record of the tree: up to eight more extents of a file.
struct HfsOverflowRecord {
    std::uint32_t fileId = 0;
    std::uint32_t startBlock = 0; ///< of the file, where the extents begin
    HfsExtents extents = {};
    std::uint8_t forkType = 0; ///< 0xFF: the resource fork
};

inline constexpr std::uint32_t kHfsAllocationFileId = 6;

/// What a node holds, as the format numbers it.
namespace hfs_node {
inline constexpr std::int8_t kLeaf = -1;
inline constexpr std::int8_t kIndex = 0;
inline constexpr std::int8_t kHeader = 1;
inline constexpr std::int8_t kMap = 2;

inline constexpr std::uint64_t kForwardLink = 0;
inline constexpr std::uint64_t kBackwardLink = 4;
inline constexpr std::uint64_t kKind = 8;
inline constexpr std::uint64_t kHeight = 9;
inline constexpr std::uint64_t kNumRecords = 10;
inline constexpr std::uint64_t kDescriptorBytes = 14;
} // namespace hfs_node

/// The bytes of a tree's header record, relative to the header node.
namespace hfs_tree_header {
inline constexpr std::uint64_t kDepth = 14;
inline constexpr std::uint64_t kRootNode = 16;
inline constexpr std::uint64_t kLeafRecords = 20;
inline constexpr std::uint64_t kFirstLeaf = 24;
inline constexpr std::uint64_t kLastLeaf = 28;
inline constexpr std::uint64_t kNodeSize = 32;
inline constexpr std::uint64_t kMaxKeyLength = 34;
inline constexpr std::uint64_t kTotalNodes = 36;
inline constexpr std::uint64_t kFreeNodes = 40;
} // namespace hfs_tree_header

/// Big-endian numbers in bytes.
void putBig(std::span<std::uint8_t> bytes, std::uint64_t offset, std::uint64_t value, unsigned width);
std::uint64_t getBig(std::span<std::uint8_t const> bytes, std::uint64_t offset, unsigned width);

/// One node. Every byte can be changed afterwards.
class HfsNode {
public:
    HfsNode(std::uint16_t size, std::int8_t kind, std::uint8_t height);

    /// Puts a record behind the last one and gives it the next slot; keeps the slot of the free space right.
    HfsNode& add(std::span<std::uint8_t const> record);
    HfsNode& addLeafRecord(HfsOverflowRecord const& record);
    HfsNode& addIndexRecord(HfsOverflowRecord const& first, std::uint32_t child);

    /// The child of a record that add() put here.
    HfsNode& addChild(std::uint32_t child) { return addIndexRecord({kHfsAllocationFileId, child}, child); }

    HfsNode& setLinks(std::uint32_t forward, std::uint32_t backward);
    HfsNode& setSlot(std::uint64_t slot, std::uint64_t offset);
    HfsNode& setNumRecords(std::uint16_t count);
    HfsNode& put(std::uint64_t offset, std::uint64_t value, unsigned width);

    std::uint16_t slot(std::uint64_t slot) const;
    std::uint16_t numRecords() const;

    std::vector<std::uint8_t> bytes;
};

/// How a tree is laid out.
struct HfsTreeShape {
    std::uint16_t nodeSize = 512;
    unsigned recordsPerNode = 0; ///< at most; 0: as many as fit
    std::uint16_t maxKeyLength = 10;
    std::uint32_t attributes = 2; ///< big keys
};

/// The header node of a tree, all of whose fields are 0 but those of its shape; its own map marks node 0 used.
HfsNode makeHfsHeaderNode(HfsTreeShape const& shape);

/// A whole tree as mkfs would leave it: node 0 is the header, then the leaves, then the index nodes level by level, the
/// root last. No records: the header node alone. The records are put in the order of their keys.
std::vector<HfsNode> makeHfsTree(HfsTreeShape const& shape, std::vector<HfsOverflowRecord> records);

/// The header node with root, and node size as the nodes have it, and behind it the nodes as given: node 1 is the root.
std::vector<HfsNode> makeHfsTreeOf(std::vector<HfsNode> nodes);

/// Notes in the header node how many nodes the file has room for, and which are used.
void sealHfsTree(std::vector<HfsNode>& nodes, std::uint32_t totalNodes);

/// The records that an allocation file of many extents has in the tree: those from the ninth extent on.
std::vector<HfsOverflowRecord> overflowRecords(std::uint32_t fileId, HfsExtents const& extents);

} // namespace tests
