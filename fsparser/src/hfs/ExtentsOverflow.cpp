// The extents-overflow tree: every node from the root on, level by level.
#include "agent/core/fs/HFSParser.h"

#include "BoundedRead.h"
#include "hfs/HfsLayout.h"

#include <unordered_set>

namespace agent::core::fs {

using agent::info::Level;
using agent::info::Logger;

namespace {

/// No allocation file has more extents: 2^32 bits in blocks of 512 bytes are 2^20 blocks, and both forks are collected.
constexpr std::size_t kMostExtents = std::size_t{1} << 21;

/// Nodes that are waiting, and nodes that were seen: more than the extents of any volume in use take.
constexpr std::size_t kMostNodes = std::size_t{1} << 20;

/// Slots in free space may lead to a node again, one a node; more comes from a cycle only.
constexpr std::size_t kRepeatsAllowed = 64;

using Bytes = std::span<std::uint8_t const>;

/// Where record `slot` of a node begins; nothing when the slot itself lies outside the node.
std::optional<std::uint16_t> recordOffset(Bytes node, std::uint64_t slot) {
    std::uint64_t const fromEnd = (slot + 1) * kHfsSlotBytes;
    if (fromEnd > node.size()) {
        return std::nullopt;
    }
    return readAt<be16>(node, node.size() - fromEnd)->value();
}

/// The child number of the index record at `offset`; nothing when the record lies outside the node.
std::optional<std::uint32_t> childNumber(Bytes node, std::uint64_t offset) {
    std::optional<be16> const keyLength = readAt<be16>(node, offset);
    if (!keyLength) {
        return std::nullopt;
    }
    std::optional<be32> const child = readAt<be32>(node, offset + keyLength->value() + sizeof(be16));
    return child ? std::optional(child->value()) : std::nullopt;
}

bool holdsIndexRecords(Bytes node, std::uint64_t count) {
    for (std::uint64_t slot = 0; slot < count; ++slot) {
        std::optional<std::uint16_t> const offset = recordOffset(node, slot);
        if (!offset || (*offset != 0 && !childNumber(node, *offset))) {
            return false;
        }
    }
    return true;
}

} // namespace

/// One search, with the working state that it holds.
class HFSParser::OverflowSearch {
public:
    OverflowSearch(HFSParser const& parser, HFSPlusVolumeHeader const& header, std::uint32_t fileId,
                   std::vector<HFSPlusExtentDescriptor>& extents)
        : parser_(parser), fork_(header.extentsFile), blockSize_(header.blockSize.value()), fileId_(fileId),
          extents_(extents), base_(fork_.extents[0].startBlock.value() * blockSize_) {}

    bool run();

private:
    bool queueRoot();
    bool visit(std::uint32_t number);
    bool isFound(std::uint64_t position, std::uint64_t& address) const;
    bool takeNode(std::uint64_t address);
    bool isRepeated(std::uint32_t number);
    bool queueChildren(std::uint64_t records);
    bool takeLeaf(std::uint64_t records);
    bool takeRecord(std::uint64_t offset);

    template <typename... Pieces>
    bool fail(Pieces const&... pieces) const {
        Logger::Entry entry(*parser_.logger_, Level::Error);
        (entry << ... << pieces);
        return false;
    }

    Bytes node() const { return {node_.get(), nodeSize_}; }
    BTNodeDescriptor descriptor() const { return *readAt<BTNodeDescriptor>(node(), 0); }
    bool readNode(std::uint64_t address) { return parser_.readBlocks(blockSize_, address, node_.get(), nodeSize_); }

    HFSParser const& parser_;
    HFSPlusForkData fork_;
    std::uint64_t blockSize_;
    std::uint32_t fileId_;
    std::vector<HFSPlusExtentDescriptor>& extents_;
    std::uint64_t base_; // volume byte of the file's first extent
    std::uint64_t nodeSize_ = 0;
    std::unique_ptr<unsigned char[]> node_;
    std::deque<unsigned int> nodes_;
    std::unordered_set<std::uint32_t> seen_;
    std::size_t repeats_ = 0;
};

bool HFSParser::fs_search_overflow(HFSPlusVolumeHeader const& header, unsigned int fileId,
                                   std::vector<HFSPlusExtentDescriptor>& extents) const {
    if (fs_get_num_blocks(header.extentsFile) < header.extentsFile.totalBlocks.value()) {
        return fail("Extent overflow file cannot contain an overflow of itself");
    }
    return OverflowSearch(*this, header, fileId, extents).run();
}

void HFSParser::fs_traverse_index_node(std::deque<unsigned int>& nodes, std::unique_ptr<unsigned char[]>& node,
                                       unsigned long nodeSize, unsigned long count) const {
    Bytes const bytes(node.get(), nodeSize);
    for (unsigned long slot = 0; slot < count; ++slot) {
        std::optional<std::uint16_t> const offset = recordOffset(bytes, slot);
        if (!offset) {
            return; // nor do the slots after it lie in the node
        }
        if (*offset == 0) {
            continue;
        }
        if (std::uint32_t const child = childNumber(bytes, *offset).value_or(0); child != 0) {
            nodes.push_back(child);
        }
    }
}

bool HFSParser::OverflowSearch::run() {
    if (!queueRoot()) {
        return false;
    }
    while (!nodes_.empty()) {
        std::uint32_t const number = nodes_.front();
        nodes_.pop_front();
        if (!visit(number)) {
            return false;
        }
    }
    return true;
}

bool HFSParser::OverflowSearch::queueRoot() {
    BTHeaderRec record{};
    if (!parser_.readBlocks(blockSize_, base_ + sizeof(BTNodeDescriptor), &record, sizeof record)) {
        return fail("Could not read B-Tree header");
    }
    nodeSize_ = record.nodeSize.value();
    std::uint64_t const first = record.rootNode.value() * nodeSize_;
    // The difference wraps where the extent is shorter than a descriptor, and so does the limit of the other nodes.
    if (first >= fork_.extents[0].blockCount.value() * blockSize_ - sizeof(BTNodeDescriptor)) {
        return fail("First node starts past the end of the extent");
    }
    std::uint64_t const address = base_ + first;
    if (address < base_) {
        return fail("nodeDataOffset 64 bit overflow");
    }
    node_ = std::make_unique<unsigned char[]>(nodeSize_);
    if (nodeSize_ < sizeof(BTNodeDescriptor) || !readNode(address)) {
        return fail("Failed to read node descriptor");
    }
    if (descriptor().kind != kHfsIndexNode) {
        return fail("First node is not an index node"); // also for a tree that is one leaf, on purpose
    }
    std::uint64_t const records = descriptor().numRecords.value();
    if (!holdsIndexRecords(node(), records)) {
        return fail("Failed to read node descriptor");
    }
    seen_.insert(record.rootNode.value());
    parser_.fs_traverse_index_node(nodes_, node_, nodeSize_, records);
    return true;
}

bool HFSParser::OverflowSearch::visit(std::uint32_t number) {
    std::uint64_t const position = number * nodeSize_;
    if (position >= fork_.totalBlocks.value() * blockSize_ - sizeof(BTNodeDescriptor)) {
        return fail("Node ", number, " starts past the end of the extent");
    }
    std::uint64_t address = 0;
    if (!isFound(position, address)) {
        return fail("Couldn't get extent overflow offset: ", position);
    }
    if (address < base_) {
        return fail("Node offset starts before the start of the extent");
    }
    if (isRepeated(number) || !readNode(address)) {
        return fail("Could not read next node at ", address);
    }
    return takeNode(address);
}

bool HFSParser::OverflowSearch::isFound(std::uint64_t position, std::uint64_t& address) const {
    std::uint64_t before = 0; // bytes of the file before the current extent
    for (HFSPlusExtentDescriptor const& extent : fork_.extents) {
        std::uint64_t const after = before + extent.blockCount.value() * blockSize_;
        if (position < after) {
            address = extent.startBlock.value() * blockSize_ + (position - before);
            return address != 0;
        }
        before = after;
    }
    return false;
}

bool HFSParser::OverflowSearch::takeNode(std::uint64_t address) {
    std::uint64_t const records = descriptor().numRecords.value();
    bool isSound = true;
    switch (descriptor().kind) {
    case kHfsIndexNode:
        isSound = queueChildren(records);
        break;
    case kHfsLeafNode:
        isSound = takeLeaf(records);
        break;
    case kHfsHeaderNode:
    case kHfsMapNode:
        break;
    default:
        return fail("HFS+ unknown node type ", static_cast<char>(descriptor().kind));
    }
    return isSound || fail("Could not read next node at ", address);
}

bool HFSParser::OverflowSearch::isRepeated(std::uint32_t number) {
    bool const isNew = seen_.insert(number).second;
    return seen_.size() > kMostNodes || (!isNew && ++repeats_ > kRepeatsAllowed + seen_.size());
}

bool HFSParser::OverflowSearch::queueChildren(std::uint64_t records) {
    if (!holdsIndexRecords(node(), records)) {
        return false;
    }
    // One slot more than there are records, unlike the root's, on purpose.
    parser_.fs_traverse_index_node(nodes_, node_, nodeSize_, records + 1);
    return nodes_.size() <= kMostNodes;
}

bool HFSParser::OverflowSearch::takeLeaf(std::uint64_t records) {
    for (std::uint64_t slot = 0; slot < records; ++slot) {
        std::optional<std::uint16_t> const offset = recordOffset(node(), slot);
        if (!offset || (*offset != 0 && !takeRecord(*offset))) {
            return false;
        }
    }
    return true;
}

bool HFSParser::OverflowSearch::takeRecord(std::uint64_t offset) {
    std::optional<be16> const keyLength = readAt<be16>(node(), offset + offsetof(HFSPlusExtentKey, keyLength));
    std::optional<be32> const fileId = readAt<be32>(node(), offset + offsetof(HFSPlusExtentKey, fileID));
    if (!keyLength || !fileId) {
        return false;
    }
    if (fileId->value() != fileId_) {
        return true; // only the file ID is compared, not fork type or start block, on purpose
    }
    auto const record = readAt<HFSPlusExtentRecord>(node(), offset + keyLength->value() + sizeof(be16));
    if (!record || extents_.size() + record->size() > kMostExtents) {
        return false;
    }
    extents_.insert(extents_.end(), record->begin(), record->end());
    return true;
}

} // namespace agent::core::fs
