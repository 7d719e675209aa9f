// Walking the index levels of the extents-overflow tree.
#include "imaging/hfs/HfsOverflow.h"

#include <algorithm>

namespace imaging::hfs {

namespace {

/// A tree has no more levels; more come from a cycle only.
constexpr std::uint64_t kMostLevels = 16;

/// More index nodes than the extents of any volume that is in use need.
constexpr std::size_t kMostIndexNodes = std::size_t{1} << 20;

/// A node: its descriptor's length, and where in it kind and number of records stand.
constexpr std::uint64_t kDescriptorBytes = 14;
constexpr std::size_t kKind = 8;
constexpr std::size_t kRecords = 10;
constexpr std::uint8_t kIndexNode = 0;
constexpr std::uint8_t kLeafNode = 0xFF;

/// The header record, after the first node's descriptor: where root and node size stand.
constexpr std::uint64_t kHeaderRecordBytes = 106;
constexpr std::size_t kRoot = 2;
constexpr std::size_t kNodeSize = 18;

/// A leaf's record: the key's length, and in the key the file and the block of it where the extents begin; then the
/// extents.
constexpr std::size_t kFileId = 4;
constexpr std::size_t kStartBlock = 8;
constexpr std::size_t kData = 64;
constexpr std::uint64_t kAllocationFile = 6;

using Bytes = std::span<std::uint8_t const>;

/// Where a byte of the file lies on the volume.
std::optional<std::uint64_t> addressOf(Header const& header, std::uint64_t position) {
    for (Extent const& extent : header.overflow.extents) {
        std::uint64_t const bytes = extent.count * header.blockSize;
        if (position < bytes) {
            return extent.first * header.blockSize + position;
        }
        position -= bytes;
    }
    return std::nullopt;
}

/// The child that a slot leads to; 0 when it leads nowhere or does not lie in the node.
std::uint32_t childOf(Bytes node, std::uint64_t slot) {
    std::uint64_t const fromEnd = (slot + 1) * 2;
    if (fromEnd > node.size()) {
        return 0;
    }
    std::uint64_t const offset = loadBig(node, node.size() - fromEnd, 2);
    if (offset == 0 || offset + 2 > node.size()) {
        return 0;
    }
    std::uint64_t const child = offset + 2 + loadBig(node, offset, 2);
    return child + 4 > node.size() ? 0 : static_cast<std::uint32_t>(loadBig(node, child, 4));
}

/// The tree's nodes by number.
class Nodes {
public:
    Nodes(Header const& header, ReadBytes const& read)
        : header_(header), read_(read), record_(readFile(kDescriptorBytes, kHeaderRecordBytes)) {}

    bool areReadable() const { return record_.size() == kHeaderRecordBytes && size() >= kDescriptorBytes; }
    std::uint32_t root() const { return static_cast<std::uint32_t>(loadBig(record_, kRoot, 4)); }
    std::vector<std::uint8_t> node(std::uint32_t number) const { return readFile(number * size(), size()); }

private:
    std::uint64_t size() const { return loadBig(record_, kNodeSize, 2); }

    std::vector<std::uint8_t> readFile(std::uint64_t position, std::uint64_t length) const {
        std::optional<std::uint64_t> const address = addressOf(header_, position);
        return address ? read_(*address, length) : std::vector<std::uint8_t>();
    }

    Header const& header_;
    ReadBytes const& read_;
    std::vector<std::uint8_t> record_;
};

/// Holds the allocation file's records against one another: each tells which block of the file it begins with.
class Order {
public:
    explicit Order(std::uint64_t blocksInHeader) : next_(blocksInHeader) {}

    /// The first record of a leaf that does not go on where the one before it ended, as one clause.
    std::optional<std::string> check(Bytes leaf) {
        std::uint64_t const records = loadBig(leaf, kRecords, 2);
        for (std::uint64_t slot = 0; slot < records && (slot + 1) * 2 <= leaf.size(); ++slot) {
            std::uint64_t const offset = loadBig(leaf, leaf.size() - (slot + 1) * 2, 2);
            std::uint64_t const data = offset + 2 + (offset + 2 <= leaf.size() ? loadBig(leaf, offset, 2) : 0);
            bool const isWhole = offset != 0 && offset + kStartBlock + 4 <= leaf.size() && data + kData <= leaf.size();
            if (!isWhole || loadBig(leaf, offset + kFileId, 4) != kAllocationFile) {
                continue; // what the parser makes of a record outside the node, it says
            }
            if (std::uint64_t const start = loadBig(leaf, offset + kStartBlock, 4); start != next_) {
                return "the extents-overflow tree goes on with block " + std::to_string(start) +
                       " of the allocation file, where block " + std::to_string(next_) +
                       " follows: its pieces would be put together in a wrong order";
            }
            for (std::size_t i = 0; i < kExtents; ++i) {
                next_ += loadBig(leaf, data + 8 * i + 4, 4);
            }
        }
        return std::nullopt;
    }

private:
    std::uint64_t next_; ///< block of the file
};

bool isLeaf(Bytes node) {
    return node.size() >= kDescriptorBytes && node[kKind] == kLeafNode;
}

bool isIndex(Bytes node) {
    return node.size() >= kDescriptorBytes && node[kKind] == kIndexNode;
}

} // namespace

std::optional<std::string> findOddTree(Header const& header, ReadBytes const& read) {
    Nodes const nodes(header, read);
    if (!nodes.areReadable()) {
        return std::nullopt;
    }
    Order order(header.allocation.blocksInHeader());
    std::vector<std::uint32_t> level{nodes.root()};
    for (std::uint64_t depth = 0; depth < kMostLevels && !level.empty() && level.size() < kMostIndexNodes; ++depth) {
        std::vector<std::uint32_t> next;
        for (std::uint32_t const number : level) {
            std::vector<std::uint8_t> const node = nodes.node(number);
            if (depth == 0 && isLeaf(node)) {
                return "the extents-overflow tree is a single leaf, which the parser does not read";
            }
            if (isLeaf(node)) {
                if (std::optional<std::string> odd = order.check(node)) {
                    return odd;
                }
                continue;
            }
            if (!isIndex(node)) {
                return std::nullopt; // the parser says so, or passes it over
            }
            std::uint64_t const records = loadBig(node, kRecords, 2);
            if (std::uint32_t const loose = childOf(node, records); depth != 0 && loose != 0) {
                return "index node " + std::to_string(number) + " of the extents-overflow tree leads on to node " +
                       std::to_string(loose) + " from its free space, where the parser follows it";
            }
            for (std::uint64_t slot = 0; slot < records && next.size() < kMostIndexNodes; ++slot) {
                next.push_back(childOf(node, slot));
            }
        }
        std::erase(next, 0U);
        level = std::move(next);
    }
    return std::nullopt;
}

} // namespace imaging::hfs
