// The slow way to the bytes of an allocation file.
#include "support/HfsReference.h"

#include <bit>

namespace tests {

namespace {

constexpr std::uint64_t kPiece = 4194304;

bool liesIn(std::vector<std::uint8_t> const& node, std::uint64_t offset, std::uint64_t length) {
    return offset + length <= node.size();
}

/// The offset in a slot; nothing where the slot lies outside the node.
std::optional<std::uint64_t> slotOf(std::vector<std::uint8_t> const& node, std::uint64_t slot) {
    if (2 * slot + 2 > node.size()) {
        return std::nullopt;
    }
    return getBig(node, node.size() - 2 - 2 * slot, 2);
}

/// The child in an index record; nothing where the record lies outside the node.
std::optional<std::uint32_t> childOf(std::vector<std::uint8_t> const& node, std::uint64_t offset) {
    if (!liesIn(node, offset, 2)) {
        return std::nullopt;
    }
    std::uint64_t const place = offset + getBig(node, offset, 2) + 2;
    return liesIn(node, place, 4) ? std::optional(static_cast<std::uint32_t>(getBig(node, place, 4))) : std::nullopt;
}

} // namespace

HfsReference::HfsReference(agent::core::IVolumeReader const& volume, std::vector<std::uint8_t> header)
    : volume_(volume), header_(std::move(header)), blockSize_(getBig(header_, hfs_header::kBlockSize, 4)) {}

std::uint64_t HfsReference::Fork::blocks() const {
    std::uint64_t sum = 0;
    for (HfsExtent const& extent : extents) {
        sum += extent.count;
    }
    return sum;
}

HfsReference::Fork HfsReference::fork(std::uint64_t field) const {
    Fork result{getBig(header_, field + hfs_fork::kTotalBlocks, 4), {}};
    for (std::size_t i = 0; i < kHfsExtentsInRecord; ++i) {
        std::uint64_t const place = field + hfs_fork::kExtents + 8 * i;
        result.extents.push_back({static_cast<std::uint32_t>(getBig(header_, place, 4)),
                                  static_cast<std::uint32_t>(getBig(header_, place + 4, 4))});
    }
    return result;
}

bool HfsReference::fail(std::string const& text) {
    entries_.push_back(errorEntry(text));
    return false;
}

/// Whole blocks are read, and the wanted bytes copied out of what arrived.
bool HfsReference::read(std::uint64_t address, std::uint8_t* to, std::uint64_t length) {
    if (!std::has_single_bit(blockSize_)) {
        return false;
    }
    std::uint64_t const start = address / blockSize_ * blockSize_;
    std::uint64_t const lead = address % blockSize_;
    std::uint64_t const size = ((lead + length - 1) / blockSize_ + 1) * blockSize_;
    std::vector<std::uint8_t> bounce(size);
    if (volume_.seek(static_cast<long>(start), SEEK_SET) == -1) {
        return false;
    }
    std::uint64_t delivered = 0;
    for (std::uint64_t at = 0; at < size; at += kPiece) {
        long const result = volume_.read(bounce.data() + at, static_cast<long>(std::min(kPiece, size - at)));
        if (result == -1) {
            entries_.push_back(debugEntry("CHUNK READ FILE FAILED: OFFSET: " + std::to_string(start) + " - " +
                                          std::to_string(size) + " BYTES"));
            return false;
        }
        delivered += static_cast<std::uint64_t>(result);
    }
    for (std::uint64_t i = 0; i < std::min(delivered, length); ++i) {
        to[i] = bounce[lead + i];
    }
    return true;
}

HfsOutcome HfsReference::chunk(std::uint64_t offset, std::uint64_t length) {
    entries_.clear();
    volume_.calls.clear();
    HfsOutcome outcome;
    outcome.buffer.assign(length, kHfsUntouched);
    outcome.result = copyChunk(offset, outcome.buffer);
    if (outcome.result < 0) {
        entries_.push_back(hfsWrapperEntry());
    }
    outcome.entries = entries_;
    outcome.calls = volume_.calls;
    return outcome;
}

long HfsReference::copyChunk(std::uint64_t offset, std::vector<std::uint8_t>& buffer) {
    if (offset >= getBig(header_, hfs_header::kTotalBlocks, 4)) {
        return 0;
    }
    if (offset % 8 != 0) {
        fail("startBlock must be divisible by 8");
        return -1;
    }
    HfsExtents extents(kHfsExtentsInRecord);
    Fork const allocation = fork(hfs_header::kAllocationFile);
    if (allocation.totalBlocks > allocation.blocks()) {
        entries_.push_back(hfsSearchEntry());
        if (!searchInto(kHfsAllocationFileId, extents)) {
            fail("Couldn't parse extent overflow file for bitmap extents.");
            return -1;
        }
    }
    std::copy(allocation.extents.begin(), allocation.extents.end(), extents.begin());
    return copyFrom(extents, offset, buffer);
}

long HfsReference::copyFrom(HfsExtents const& extents, std::uint64_t offset, std::vector<std::uint8_t>& buffer) {
    std::uint64_t const total = getBig(header_, hfs_header::kTotalBlocks, 4);
    auto const end = std::find(extents.begin(), extents.end(), HfsExtent{});
    auto const used = static_cast<std::size_t>(end - extents.begin());
    if (end == extents.end() || used == 0) {
        return 0;
    }
    std::uint64_t position = offset / 8;
    std::uint64_t before = 0; // blocks
    std::size_t at = 0;
    while (at < used && (before + extents[at].count) * blockSize_ <= position) {
        before += extents[at++].count;
    }
    std::uint64_t const limit = (total + 7) / 8;
    std::uint64_t done = 0;
    std::uint64_t bits = 0;
    while (at < used && done < buffer.size()) {
        HfsExtent const& extent = extents[at++];
        std::uint64_t const address = (extent.start - before) * blockSize_ + position;
        std::uint64_t const count =
            std::min({(before + extent.count) * blockSize_ - position, buffer.size() - done, limit - done});
        if (count == 0) {
            break;
        }
        if (!read(address, buffer.data() + done, count)) {
            fail("Error in HFS+ parsing read.");
            return -1;
        }
        before += extent.count;
        done += count;
        bits += 8 * count;
        position = before * blockSize_;
    }
    return static_cast<long>(std::min(bits, total - offset));
}

HfsSearch HfsReference::search(std::uint32_t fileId, HfsExtents const& before) {
    entries_.clear();
    volume_.calls.clear();
    HfsSearch outcome;
    outcome.extents = before;
    outcome.found = searchInto(fileId, outcome.extents);
    outcome.entries = entries_;
    outcome.calls = volume_.calls;
    return outcome;
}

bool HfsReference::searchInto(std::uint32_t fileId, HfsExtents& found) {
    Fork const file = fork(hfs_header::kExtentsFile);
    if (file.blocks() < file.totalBlocks) {
        return fail("Extent overflow file cannot contain an overflow of itself");
    }
    std::vector<std::uint32_t> queue;
    std::vector<std::uint8_t> node; // one for all: what a short read leaves out is what the node before had there
    if (!findRoot(queue, node)) {
        return false;
    }
    std::uint64_t const nodeSize = node.size();
    for (std::size_t next = 0; next < queue.size(); ++next) {
        std::uint64_t const position = queue[next] * nodeSize;
        if (position >= file.totalBlocks * blockSize_ - hfs_node::kDescriptorBytes) {
            return fail("Node " + std::to_string(queue[next]) + " starts past the end of the extent");
        }
        std::uint64_t const address = findNode(position).value_or(0);
        if (address == 0) {
            return fail("Couldn't get extent overflow offset: " + std::to_string(position));
        }
        if (address < file.extents[0].start * blockSize_) {
            return fail("Node offset starts before the start of the extent");
        }
        std::string cause = "Could not read next node at " + std::to_string(address);
        if (!read(address, node.data(), nodeSize) || !takeNode(node, fileId, queue, found, cause)) {
            return fail(cause);
        }
    }
    return true;
}

/// Queues the root's children.
bool HfsReference::findRoot(std::vector<std::uint32_t>& queue, std::vector<std::uint8_t>& node) {
    HfsExtent const first = fork(hfs_header::kExtentsFile).extents[0];
    std::uint64_t const base = first.start * blockSize_;
    std::vector<std::uint8_t> record(106);
    if (!read(base + hfs_node::kDescriptorBytes, record.data(), record.size())) {
        return fail("Could not read B-Tree header");
    }
    std::uint64_t const nodeSize = getBig(record, hfs_tree_header::kNodeSize - hfs_node::kDescriptorBytes, 2);
    std::uint64_t const root = getBig(record, hfs_tree_header::kRootNode - hfs_node::kDescriptorBytes, 4) * nodeSize;
    if (root >= first.count * blockSize_ - hfs_node::kDescriptorBytes) {
        return fail("First node starts past the end of the extent");
    }
    if (base + root < base) {
        return fail("nodeDataOffset 64 bit overflow");
    }
    node.assign(nodeSize, 0);
    if (nodeSize < hfs_node::kDescriptorBytes || !read(base + root, node.data(), nodeSize)) {
        return fail("Failed to read node descriptor");
    }
    if (node[hfs_node::kKind] != 0) {
        return fail("First node is not an index node");
    }
    return takeChildren(node, getBig(node, hfs_node::kNumRecords, 2), false, queue) ||
           fail("Failed to read node descriptor");
}

std::optional<std::uint64_t> HfsReference::findNode(std::uint64_t position) const {
    std::uint64_t before = 0; // bytes
    for (HfsExtent const& extent : fork(hfs_header::kExtentsFile).extents) {
        std::uint64_t const length = extent.count * blockSize_;
        if (position < before + length) {
            return extent.start * blockSize_ + (position - before);
        }
        before += length;
    }
    return std::nullopt;
}

/// On failure the cause may change to another.
bool HfsReference::takeNode(std::vector<std::uint8_t> const& node, std::uint32_t fileId,
                            std::vector<std::uint32_t>& queue, HfsExtents& found, std::string& cause) {
    auto const kind = static_cast<std::int8_t>(node[hfs_node::kKind]);
    switch (kind) {
    case hfs_node::kIndex:
        return takeChildren(node, getBig(node, hfs_node::kNumRecords, 2), true, queue);
    case hfs_node::kLeaf:
        return takeLeaf(node, fileId, found);
    case hfs_node::kHeader:
    case hfs_node::kMap:
        return true;
    default:
        cause = "HFS+ unknown node type ";
        cause.push_back(static_cast<char>(kind));
        return false;
    }
}

bool HfsReference::takeLeaf(std::vector<std::uint8_t> const& node, std::uint32_t fileId, HfsExtents& found) {
    for (std::uint64_t i = 0; i < getBig(node, hfs_node::kNumRecords, 2); ++i) {
        auto const offset = slotOf(node, i);
        if (offset == 0U) {
            continue;
        }
        if (!offset || !liesIn(node, *offset, 8)) {
            return false;
        }
        if (getBig(node, *offset + 4, 4) != fileId) {
            continue;
        }
        std::uint64_t const data = *offset + getBig(node, *offset, 2) + 2;
        if (!liesIn(node, data, 64)) {
            return false;
        }
        for (std::uint64_t extent = data; extent < data + 64; extent += 8) {
            found.push_back({static_cast<std::uint32_t>(getBig(node, extent, 4)),
                             static_cast<std::uint32_t>(getBig(node, extent + 4, 4))});
        }
    }
    return true;
}

/// Records that lie outside the node are refused; what the slot behind them leads to is taken only where it lies in it.
bool HfsReference::takeChildren(std::vector<std::uint8_t> const& node, std::uint64_t records, bool oneMore,
                                std::vector<std::uint32_t>& queue) {
    for (std::uint64_t i = 0; i < records + (oneMore ? 1 : 0); ++i) {
        auto const offset = slotOf(node, i);
        if (offset == 0U) {
            continue;
        }
        auto const child = offset ? childOf(node, *offset) : std::nullopt;
        if (!child && i < records) {
            return false;
        }
        if (child.value_or(0) != 0) {
            queue.push_back(*child);
        }
    }
    return true;
}

} // namespace tests
