// Nodes and trees: descriptor, records from the front, slots from the back.
#include "support/HfsTree.h"

#include <algorithm>
#include <stdexcept>
#include <tuple>

namespace tests {

namespace {

constexpr std::uint64_t kHeaderRecordBytes = 106;
constexpr std::uint64_t kUserRecordBytes = 128;
constexpr std::uint64_t kMapOffset = hfs_node::kDescriptorBytes + kHeaderRecordBytes + kUserRecordBytes;
constexpr std::uint64_t kAttributesField = 14 + 0x26;
constexpr std::uint16_t kKeyLength = 10;

std::vector<std::uint8_t> keyOf(HfsOverflowRecord const& record) {
    std::vector<std::uint8_t> key(kKeyLength + 2);
    putBig(key, 0, kKeyLength, 2);
    putBig(key, 2, record.forkType, 1);
    putBig(key, 4, record.fileId, 4);
    putBig(key, 8, record.startBlock, 4);
    return key;
}

/// One level of a tree while it grows: its nodes, and the first key in each.
struct Level {
    std::vector<HfsNode> nodes;
    std::vector<HfsOverflowRecord> firstKeys;
};

unsigned recordsThatFit(HfsTreeShape const& shape, std::uint64_t recordBytes) {
    // A slot a record, and one for the free space.
    auto const fit = static_cast<unsigned>((shape.nodeSize - hfs_node::kDescriptorBytes - 2) / (recordBytes + 2));
    return shape.recordsPerNode == 0 ? fit : std::min(fit, shape.recordsPerNode);
}

Level makeLeaves(HfsTreeShape const& shape, std::vector<HfsOverflowRecord> const& records) {
    unsigned const most = recordsThatFit(shape, kKeyLength + 2 + 64);
    Level level;
    for (std::size_t i = 0; i < records.size(); ++i) {
        if (i % most == 0) {
            level.nodes.emplace_back(shape.nodeSize, hfs_node::kLeaf, std::uint8_t{1});
            level.firstKeys.push_back(records[i]);
        }
        level.nodes.back().addLeafRecord(records[i]);
    }
    return level;
}

Level makeParents(HfsTreeShape const& shape, Level const& children, std::uint32_t firstChild, std::uint8_t height) {
    // At least two, or the levels would never end.
    unsigned const most = std::max(recordsThatFit(shape, kKeyLength + 2 + 4), 2U);
    Level level;
    for (std::size_t i = 0; i < children.nodes.size(); ++i) {
        if (i % most == 0) {
            level.nodes.emplace_back(shape.nodeSize, hfs_node::kIndex, height);
            level.firstKeys.push_back(children.firstKeys[i]);
        }
        level.nodes.back().addIndexRecord(children.firstKeys[i], firstChild + static_cast<std::uint32_t>(i));
    }
    return level;
}

void appendLevel(std::vector<HfsNode>& nodes, Level const& level) {
    auto const first = static_cast<std::uint32_t>(nodes.size());
    auto const count = static_cast<std::uint32_t>(level.nodes.size());
    for (std::uint32_t i = 0; i < count; ++i) {
        nodes.push_back(level.nodes[i]);
        nodes.back().setLinks(i + 1 < count ? first + i + 1 : 0, i > 0 ? first + i - 1 : 0);
    }
}

} // namespace

void putBig(std::span<std::uint8_t> bytes, std::uint64_t offset, std::uint64_t value, unsigned width) {
    if (offset > bytes.size() || width > bytes.size() - offset) {
        throw std::out_of_range("no byte " + std::to_string(offset));
    }
    for (unsigned i = 0; i < width; ++i) {
        bytes[offset + i] = static_cast<std::uint8_t>(value >> (8 * (width - 1 - i)));
    }
}

std::uint64_t getBig(std::span<std::uint8_t const> bytes, std::uint64_t offset, unsigned width) {
    if (offset > bytes.size() || width > bytes.size() - offset) {
        throw std::out_of_range("no byte " + std::to_string(offset));
    }
    std::uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i) {
        value = value << 8 | bytes[offset + i];
    }
    return value;
}

HfsNode::HfsNode(std::uint16_t size, std::int8_t kind, std::uint8_t height) : bytes(size) {
    put(hfs_node::kKind, static_cast<std::uint8_t>(kind), 1);
    put(hfs_node::kHeight, height, 1);
    setSlot(0, hfs_node::kDescriptorBytes);
}

HfsNode& HfsNode::add(std::span<std::uint8_t const> record) {
    std::uint16_t const count = numRecords();
    std::uint16_t const offset = slot(count);
    if (offset + record.size() > bytes.size() - 2 * (std::uint64_t{count} + 2)) {
        throw std::length_error("the node is full");
    }
    std::copy(record.begin(), record.end(), bytes.begin() + offset);
    setNumRecords(static_cast<std::uint16_t>(count + 1));
    return setSlot(std::uint64_t{count} + 1, offset + record.size());
}

HfsNode& HfsNode::addLeafRecord(HfsOverflowRecord const& record) {
    std::vector<std::uint8_t> whole = keyOf(record);
    whole.resize(whole.size() + 64);
    for (std::size_t i = 0; i < record.extents.size(); ++i) {
        putBig(whole, 12 + 8 * i, record.extents[i].start, 4);
        putBig(whole, 16 + 8 * i, record.extents[i].count, 4);
    }
    return add(whole);
}

HfsNode& HfsNode::addIndexRecord(HfsOverflowRecord const& first, std::uint32_t child) {
    std::vector<std::uint8_t> whole = keyOf(first);
    whole.resize(whole.size() + 4);
    putBig(whole, kKeyLength + 2, child, 4);
    return add(whole);
}

HfsNode& HfsNode::setLinks(std::uint32_t forward, std::uint32_t backward) {
    put(hfs_node::kForwardLink, forward, 4);
    return put(hfs_node::kBackwardLink, backward, 4);
}

HfsNode& HfsNode::setSlot(std::uint64_t slot, std::uint64_t offset) {
    return put(bytes.size() - 2 * (slot + 1), offset, 2);
}

HfsNode& HfsNode::setNumRecords(std::uint16_t count) {
    return put(hfs_node::kNumRecords, count, 2);
}

HfsNode& HfsNode::put(std::uint64_t offset, std::uint64_t value, unsigned width) {
    putBig(bytes, offset, value, width);
    return *this;
}

std::uint16_t HfsNode::slot(std::uint64_t slot) const {
    return static_cast<std::uint16_t>(getBig(bytes, bytes.size() - 2 * (slot + 1), 2));
}

std::uint16_t HfsNode::numRecords() const {
    return static_cast<std::uint16_t>(getBig(bytes, hfs_node::kNumRecords, 2));
}

HfsNode makeHfsHeaderNode(HfsTreeShape const& shape) {
    HfsNode node(shape.nodeSize, hfs_node::kHeader, 0);
    node.setNumRecords(3);
    node.setSlot(1, hfs_node::kDescriptorBytes + kHeaderRecordBytes);
    node.setSlot(2, kMapOffset);
    node.setSlot(3, std::uint64_t{shape.nodeSize} - 8);
    node.put(hfs_tree_header::kNodeSize, shape.nodeSize, 2);
    node.put(hfs_tree_header::kMaxKeyLength, shape.maxKeyLength, 2);
    node.put(kAttributesField, shape.attributes, 4);
    return node.put(kMapOffset, 0x80, 1);
}

std::vector<HfsNode> makeHfsTree(HfsTreeShape const& shape, std::vector<HfsOverflowRecord> records) {
    std::stable_sort(records.begin(), records.end(), [](auto const& left, auto const& right) {
        return std::tie(left.fileId, left.forkType, left.startBlock) <
               std::tie(right.fileId, right.forkType, right.startBlock);
    });
    std::vector<HfsNode> nodes{makeHfsHeaderNode(shape)};
    if (records.empty()) {
        return nodes;
    }
    Level level = makeLeaves(shape, records);
    appendLevel(nodes, level);
    nodes[0].put(hfs_tree_header::kFirstLeaf, 1, 4).put(hfs_tree_header::kLastLeaf, nodes.size() - 1, 4);
    nodes[0].put(hfs_tree_header::kLeafRecords, records.size(), 4);
    std::uint8_t depth = 1;
    while (level.nodes.size() > 1) {
        auto const firstChild = static_cast<std::uint32_t>(nodes.size() - level.nodes.size());
        level = makeParents(shape, level, firstChild, ++depth);
        appendLevel(nodes, level);
    }
    nodes[0].put(hfs_tree_header::kDepth, depth, 2).put(hfs_tree_header::kRootNode, nodes.size() - 1, 4);
    return nodes;
}

std::vector<HfsNode> makeHfsTreeOf(std::vector<HfsNode> nodes) {
    HfsTreeShape shape;
    shape.nodeSize = static_cast<std::uint16_t>(nodes.at(0).bytes.size());
    nodes.insert(nodes.begin(), makeHfsHeaderNode(shape));
    nodes[0].put(hfs_tree_header::kRootNode, 1, 4);
    return nodes;
}

void sealHfsTree(std::vector<HfsNode>& nodes, std::uint32_t totalNodes) {
    HfsNode& header = nodes.at(0);
    header.put(hfs_tree_header::kTotalNodes, totalNodes, 4);
    header.put(hfs_tree_header::kFreeNodes, totalNodes - nodes.size(), 4);
    for (std::size_t node = 0; node < nodes.size(); ++node) {
        std::uint8_t& byte = header.bytes.at(kMapOffset + node / 8);
        byte = static_cast<std::uint8_t>(byte | 0x80U >> (node % 8));
    }
}

std::vector<HfsOverflowRecord> overflowRecords(std::uint32_t fileId, HfsExtents const& extents) {
    std::vector<HfsOverflowRecord> records;
    std::uint32_t block = 0;
    for (std::size_t i = 0; i < extents.size(); ++i) {
        if (i >= kHfsExtentsInRecord) {
            if (i % kHfsExtentsInRecord == 0) {
                records.push_back({fileId, block});
            }
            records.back().extents.push_back(extents[i]);
        }
        block += extents[i].count;
    }
    return records;
}

} // namespace tests
