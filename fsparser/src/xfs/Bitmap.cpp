// The XFS bitmap: what free lists and free-space trees name is marked, and the chunk is inverted.
#include "agent/core/fs/XFSParser.h"
#include "xfs/MarkBits.h"
#include "xfs/XfsLayout.h"
#include "xfs/XfsLog.h"

#include <algorithm>
#include <array>
#include <deque>
#include <span>
#include <stdexcept>
#include <utility>
#include <variant>
#include <vector>

namespace agent::core::fs {

using agent::info::Level;
using agent::info::Logger;

namespace {

constexpr unsigned int kFailed = 0xFFFFFFFF;

/// The deepest tree that is followed: the format goes to 9 levels.
constexpr unsigned kDeepestTree = 64;

/// Most nodes that are read for one chunk: levels that lead to one another crosswise could be walked for ever.
constexpr std::uint64_t kMostNodes = std::uint64_t{1} << 24;

/// Runs that are put in order together before they are marked.
constexpr std::size_t kRunsTogether = std::size_t{1} << 16;

constexpr char const* kCannotRead = "XFS: cannot read btree node header";

/// Tells when a chain of siblings comes back to a block: the marker moves ahead in ever longer strides, so that a cycle
/// runs into it, whatever its length, without memory.
class ChainGuard {
public:
    explicit ChainGuard(std::uint32_t first) : marker_(first) {}

    bool isCycle(std::uint32_t next) {
        if (next == marker_) {
            return true;
        }
        if (++steps_ == stride_) {
            marker_ = next;
            stride_ *= 2;
            steps_ = 0;
        }
        return false;
    }

private:
    std::uint32_t marker_;
    std::uint64_t steps_ = 0;
    std::uint64_t stride_ = 1;
};

} // namespace

/// The caller's buffer, its place in the whole bitmap, and the bits set so far.
struct XFSParser::Chunk {
    char* buffer;
    unsigned long byteOffset;
    unsigned long length;
    unsigned long count = 0;
    std::uint64_t nodes = 0; ///< read so far
};

/// The walk over one group's free-space tree.
class XFSParser::TreeWalk {
public:
    TreeWalk(XFSParser const& parser, std::uint32_t group, Chunk& chunk)
        : parser_(parser), group_(group), chunk_(chunk), isTraced_(parser.logger_->isEnabled(Level::Debug)) {}

    /// @throws std::runtime_error  a node cannot be had
    void run(std::uint32_t root);

private:
    /// An inner node of which nothing but the first child is wanted.
    struct Inner {
        std::uint32_t firstChild;
        unsigned depth;
    };
    using Waiting = std::variant<Inner, XFSBTreeNode>;

    /// Blocks in the group, [first, last).
    struct Run {
        std::uint64_t first;
        std::uint64_t last;

        bool operator<(Run const& other) const { return first < other.first; }
    };

    XFSBTreeNode load(std::uint32_t block);
    void keep(XFSBTreeNode node, unsigned depth);
    void keepLevel(Inner const& parent);
    void takeLeaf(XFSBTreeNode const& leaf);
    void markRuns();

    XFSParser const& parser_;
    std::uint32_t group_;
    Chunk& chunk_;
    bool isTraced_;
    std::deque<Waiting> waiting_;
    std::vector<Run> runs_;
};

long XFSParser::fs_get_blocks_bitmap_chunk(unsigned long length, unsigned long offset, char* buffer) const {
    std::fill_n(buffer, length, '\0');
    unsigned long const bits = length * 8;
    logDebug(*logger_, "buf off = ", offset, ", buffer_size = ", bits);
    if (offset >= totalBlocks_) {
        return 0;
    }
    if (offset % 8 != 0 || agBlocks_ == 0) {
        return -1; // without a message of its own; groups of 0 blocks cannot be told apart
    }
    unsigned long const end = offset + bits;
    // Group numbers are kept in 32 bits, on purpose.
    auto const firstGroup = static_cast<std::uint32_t>(offset / agBlocks_);
    auto const lastGroup = static_cast<std::uint32_t>((end + agBlocks_ - 1) / agBlocks_);
    logDebug(*logger_, "Iterating over allocation group(s) ", firstGroup, " - ", lastGroup);
    Chunk chunk{buffer, offset / 8, length};
    for (std::uint32_t group = firstGroup; group < lastGroup && group < agCount_; ++group) {
        if (!markGroup(group, chunk)) {
            return -1;
        }
    }
    // By the byte's index in this buffer and not in the whole bitmap, on purpose.
    unsigned long const inverted = std::min(length, totalBlocks_ / 8 + (totalBlocks_ % 8 != 0 ? 1 : 0));
    std::transform(buffer, buffer + inverted, buffer, [](char byte) { return static_cast<char>(~byte); });
    logDebug(*logger_, "count = ", chunk.count);
    return static_cast<long>(end < totalBlocks_ ? bits : totalBlocks_ - offset);
}

bool XFSParser::markGroup(std::uint32_t group, Chunk& chunk) const {
    logDebug(*logger_, "Reading the free space info.");
    xfs_free_space_info info{};
    if (read_fsi(group, agBlocks_, blockSize_, &info) != 0) {
        return false;
    }
    logDebug(*logger_, "Reading the allocation group free list.");
    std::array<unsigned int, kXfsFreeListEntries> list{};
    if (read_agfl(version_, group, agBlocks_, blockSize_, list.data()) != 0) {
        return false;
    }
    logDebug(*logger_, "Marking free list");
    markFreeList(group, info, list.data(), chunk);
    logDebug(*logger_, "Reading the root b+ node.");
    try {
        TreeWalk(*this, group, chunk).run(info.offset_bt_root);
    } catch (std::runtime_error const& error) {
        Logger::Entry(*logger_, Level::Error) << error.what();
        return false;
    }
    return true;
}

void XFSParser::markFreeList(std::uint32_t group, xfs_free_space_info const& info, unsigned int const* list,
                             Chunk& chunk) const {
    // The end wraps at 32 bits, and a list that wraps around its array marks nothing, on purpose. Entries beyond those
    // that were read are passed over.
    std::size_t const entries = xfs_sb_version_hascrc(version_) ? kXfsFreeListEntries5 : kXfsFreeListEntries;
    std::uint32_t const end = info.fl_last + 1;
    for (std::uint32_t i = info.fl_first; i < end && i < entries; ++i) {
        logDebug(*logger_, group, ": ", list[i], " -> 1");
        fs_bitmap_mark(chunk.buffer, chunk.byteOffset, chunk.length, group, agBlocks_, list[i], &chunk.count);
    }
}

void XFSParser::fs_bitmap_mark(char* buffer, unsigned long byteOffset, unsigned long length, unsigned int agNumber,
                               unsigned int agBlocks, unsigned int agBlock, unsigned long* count) const {
    bitmap_mark_range(buffer, byteOffset, length, agNumber, agBlocks, agBlock, 1, count);
}

void XFSParser::bitmap_mark_range(char* buffer, unsigned long byteOffset, unsigned long length, unsigned int agNumber,
                                  unsigned int agBlocks, unsigned int start, unsigned int blocks,
                                  unsigned long* count) const {
    Chunk chunk{buffer, byteOffset, length};
    constexpr std::uint64_t kWrap = std::uint64_t{1} << 32;
    std::uint64_t const groupStart = std::uint64_t{agNumber} * agBlocks;
    std::uint64_t const end = std::uint64_t{start} + blocks;
    mark(chunk, groupStart + start, groupStart + std::min(end, kWrap));
    if (end > kWrap) {
        mark(chunk, groupStart, groupStart + end - kWrap);
    }
    *count += chunk.count;
}

void XFSParser::mark(Chunk& chunk, std::uint64_t first, std::uint64_t last) {
    std::uint64_t const chunkStart = chunk.byteOffset * 8;
    std::uint64_t const from = std::max(first, chunkStart);
    std::uint64_t const to = std::min(last, (chunk.byteOffset + chunk.length) * 8);
    if (from < to) {
        std::span const bits(reinterpret_cast<std::uint8_t*>(chunk.buffer), chunk.length);
        chunk.count += setBits(bits, from - chunkStart, to - from);
    }
}

unsigned int XFSParser::read_fsi(unsigned int agNumber, unsigned int agBlocks, unsigned int blockSize,
                                 xfs_free_space_info* info) const {
    std::uint64_t const address = std::uint64_t{agNumber} * agBlocks * blockSize + sectorSize_;
    logDebug(*logger_, "fsi addr = ", address);
    xfs_agf header{};
    if (!read(address, &header, sizeof header)) {
        Logger::Entry(*logger_, Level::Error) << "Can't read fsi block.";
        return kFailed;
    }
    info->magic = header.agf_magicnum.value();
    info->fl_first = header.agf_flfirst.value();
    info->fl_last = header.agf_fllast.value();
    info->offset_bt_root = header.agf_bno_root.value();
    if (info->magic != kXfsFreeSpaceMagic) {
        Logger::Entry(*logger_, Level::Error) << "Invalid fsi magic number.";
        return kFailed;
    }
    logMagic(*logger_, info->magic);
    logDebug(*logger_, "fl_first ", info->fl_first);
    logDebug(*logger_, "fl_last ", info->fl_last);
    logDebug(*logger_, "offset_bt_root ", info->offset_bt_root);
    return 0;
}

unsigned int XFSParser::read_agfl(unsigned short version, unsigned int agNumber, unsigned int agBlocks,
                                  unsigned int blockSize, unsigned int* list) const {
    std::uint64_t const firstBlock = std::uint64_t{agNumber} * agBlocks;
    std::uint64_t const inGroup = kXfsFreeListSector * sectorSize_;
    // Without the block size and the header, on purpose; only this entry is affected.
    logDebug(*logger_, "agfl addr = ", firstBlock + inGroup, ", len = ", kXfsFreeListBytes);
    std::uint64_t const header = xfs_sb_version_hascrc(version) ? kXfsFreeListHeader5 : 0;
    std::array<be32, kXfsFreeListEntries> entries{};
    std::uint64_t const size = kXfsFreeListBytes - header;
    if (!read(firstBlock * blockSize + inGroup + header, entries.data(), size)) {
        return kFailed;
    }
    std::transform(entries.begin(), entries.begin() + size / sizeof(be32), list,
                   [](be32 const& entry) { return entry.value(); });
    return 0;
}

void XFSParser::TreeWalk::run(std::uint32_t root) {
    keep(load(root), 0);
    while (!waiting_.empty()) {
        Waiting const last = std::move(waiting_.back());
        waiting_.pop_back();
        if (auto const* const leaf = std::get_if<XFSBTreeNode>(&last)) {
            takeLeaf(*leaf);
        } else {
            keepLevel(std::get<Inner>(last));
        }
    }
    markRuns();
}

XFSParser::XFSBTreeNode XFSParser::TreeWalk::load(std::uint32_t block) {
    if (++chunk_.nodes > kMostNodes) {
        throw std::runtime_error(kCannotRead);
    }
    return {&parser_, group_, block};
}

/// Queues a node. A leaf is taken at once where no trace would show the difference, so that a level's records need not
/// be held together.
void XFSParser::TreeWalk::keep(XFSBTreeNode node, unsigned depth) {
    if (node.level != 0) {
        waiting_.emplace_back(Inner{node.children[0], depth});
    } else if (isTraced_) {
        waiting_.emplace_back(std::move(node));
    } else {
        takeLeaf(node);
    }
}

/// Queues the whole level from a node on, not only the children of one parent, on purpose: in trees of three and more
/// levels, lower nodes come several times.
void XFSParser::TreeWalk::keepLevel(Inner const& parent) {
    unsigned const depth = parent.depth + 1;
    if (depth > kDeepestTree) {
        throw std::runtime_error(kCannotRead);
    }
    ChainGuard guard(parent.firstChild);
    XFSBTreeNode node = load(parent.firstChild);
    while (node.right_sib != kXfsNullBlock) {
        if (guard.isCycle(node.right_sib)) {
            throw std::runtime_error(kCannotRead);
        }
        XFSBTreeNode next = load(node.right_sib);
        keep(std::exchange(node, std::move(next)), depth);
    }
    keep(std::move(node), depth);
}

void XFSParser::TreeWalk::takeLeaf(XFSBTreeNode const& leaf) {
    constexpr std::uint64_t kWrap = std::uint64_t{1} << 32;
    for (std::size_t i = 0; i < leaf.num_recs; ++i) {
        xfs_btree_record const& record = leaf.records[i];
        logDebug(*parser_.logger_, group_, ": ", record.start, " -> ", record.count);
        std::uint64_t const end = std::uint64_t{record.start} + record.count; // wraps at 32 bits
        runs_.push_back({record.start, std::min(end, kWrap)});
        if (end > kWrap) {
            runs_.push_back({0, end - kWrap});
        }
    }
    if (runs_.size() >= kRunsTogether) {
        markRuns();
    }
}

/// Marks each block once for all runs that name it: runs that overlap cost no more than runs that do not.
void XFSParser::TreeWalk::markRuns() {
    if (!std::is_sorted(runs_.begin(), runs_.end())) {
        std::sort(runs_.begin(), runs_.end());
    }
    std::uint64_t const groupStart = std::uint64_t{group_} * parser_.agBlocks_;
    Run merged{0, 0};
    for (Run const& run : runs_) {
        if (run.first > merged.last) {
            mark(chunk_, groupStart + merged.first, groupStart + merged.last);
            merged = run;
        }
        merged.last = std::max(merged.last, run.last);
    }
    mark(chunk_, groupStart + merged.first, groupStart + merged.last);
    runs_.clear();
}

} // namespace agent::core::fs
