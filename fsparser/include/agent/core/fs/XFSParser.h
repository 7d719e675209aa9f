/// @file
/// XFS volumes.
#pragma once

#include "agent/Export.h"
#include "agent/core/IVolumeReader.h"
#include "agent/core/fs/IBlockBitmapChunkProvider.h"
#include "agent/info/Logger.h"

#include <cstdint>
#include <memory>

namespace agent::core::fs {

/// What the parser keeps of an allocation group's free-space header, in host order.
struct xfs_free_space_info {
    std::uint32_t magic;          ///< "XAGF" as a number
    std::uint32_t fl_first;       ///< index of the free list's first entry
    std::uint32_t fl_last;        ///< index of its last entry
    std::uint32_t offset_bt_root; ///< block of the root of the by-block-number free-space tree, in the group
};

/// A run of free blocks, or a key of an inner node, in host order.
struct xfs_btree_record {
    std::uint32_t start; ///< first block, in the group
    std::uint32_t count; ///< blocks
};

/// The used blocks of an XFS volume: all that its free-space trees and free lists do not name. A unit is a file-system
/// block, numbered as group number * blocks per group + block in the group, which is its place on the volume; least
/// significant bit first.
///
/// Limits that are kept on purpose, so that a caller must know them:
/// - Bits at or past the last block: as many bytes of every chunk as the whole map has are inverted, so that in a chunk
///   from block 0 the bytes wholly past it stay 0, and in a later one they are 1.
/// - A free list that wraps around its end stays used, and so do its entries beyond the first 512 bytes.
/// - From an inner node of a free-space tree the whole level below it is walked, from the node's first child to the
///   level's right end: trees of three and more levels have their lower nodes read more than once.
/// - Checksums, owners and levels are not verified. The journal is not replayed: on a volume that was not cleanly
///   unmounted, the trees may lag behind it.
///
/// The superblock is read once, at construction; every getChunk() reads header, free list and tree of each group that
/// the chunk touches. Few long chunks are therefore cheap, many short ones are not. No state is kept between calls.
/// Logger and volume reader are not owned and must outlive the parser; one thread at a time. docs/formats/xfs.md lists
/// the fields that are read.
///
/// @code
/// agent::core::fs::XFSParser parser(logger, 4096, volume);
/// std::vector<char> map(8 << 20);
/// long const blocks = parser.getChunk(0, map.data(), map.size()); // bit b of byte i: block 8 * i + b
/// unsigned long const journal = parser.getXFSJournalBlocks();     // throws where the journal is on another device
/// @endcode
class AGENT_EXPORT XFSParser : public IBlockBitmapChunkProvider {
public:
    /// Reads and checks the superblock (512 bytes at byte 0) and logs its fields at `Debug`, an entry each: "magic 0x"
    /// and eight hexadecimal digits; then, with the number behind them, "block_size ", "sector_size ", "ag_count ",
    /// "ag_blocks ", "total_blocks ", "version ", "log_blocks ", "log_start ", "log2(ag_blocks) ".
    /// @param logger     takes every message; not owned
    /// @param alignment  bytes, the granularity of every read; what the device asks for in direct I/O
    /// @param volume     an open volume; not owned
    /// @throws std::runtime_error
    ///     - "Can't read XFS super block." (also for an alignment of 0)
    ///     - "Not an XFS filesystem"
    /// @throws std::invalid_argument  the alignment is no power of two
    XFSParser(agent::info::Logger& logger, unsigned int alignment, agent::core::IVolumeReader const& volume);
    XFSParser(XFSParser const&) = delete;
    XFSParser& operator=(XFSParser const&) = delete;
    ~XFSParser() override;

    /// Whether the buffer is a superblock: its first four bytes are "XFSB". No other byte is looked at. Any thread.
    /// @param buffer  the volume's first sector, at least 4 bytes; null is not recognised
    static bool isXFSFileSystem(void* buffer);

    /// As IBlockBitmapChunkProvider states it. The offset is a multiple of 8. The whole buffer is cleared first; what
    /// it holds after an error means nothing. A negative result is -1, after an `Error` entry of its cause and a second
    /// one:
    ///     - none for an offset that is no multiple of 8, groups of 0 blocks, or an unreadable free list
    ///     - "Can't read fsi block." or "Invalid fsi magic number."
    ///     - a text of XFSBTreeNode; "XFS: cannot read btree node header" also stands for siblings in a circle, for
    ///       more than 64 levels (the format goes to 9) and for more than 2^24 nodes in one chunk (levels that lead to
    ///       one another crosswise could be walked for ever)
    ///     - or the text of a std::runtime_error that the volume reader, or the logger's isEnabled(), threw during the
    ///       walk
    ///     - then "A logical error occurred while attempting to parse XFS bitmap, err: -1"
    ///
    /// The trace at `Debug`: "buf off = O, buffer_size = BITS", "Iterating over allocation group(s) F - L"; of each
    /// group "Reading the free space info." and the entries of read_fsi(), "Reading the allocation group free list."
    /// and that of read_agfl(), "Marking free list", "GROUP: BLOCK -> 1" for each block of it, "Reading the root b+
    /// node.", those of XFSBTreeNode for each node, and "GROUP: START -> COUNT" for each record of a leaf; at the end
    /// "count = C", the free blocks that were marked.
    /// @throws std::bad_alloc  the memory for a node cannot be had
    long getChunk(unsigned long offset, char* buffer, unsigned long length) const override;

    /// The block at which the internal journal starts, numbered like the units of the map. Its length is not part of
    /// the result, despite the name.
    /// @throws std::runtime_error  "Unable to get XFS Journal Blocks due to corrupted superblock!": the journal is
    ///     external, or the superblock does not tell how block numbers are split
    unsigned long getXFSJournalBlocks() const;

protected:
    class XFSBTreeNode;

    /// Whether a version word is that of a volume whose metadata carry checksums: its low four bits are 5.
    bool xfs_sb_version_hascrc(unsigned short version) const;

    /// The routine behind getChunk(), without the last entry.
    /// @param length  bytes of the buffer
    /// @param offset  number of the first block, a multiple of 8
    /// @param buffer  takes the bits
    /// @return blocks covered, 0 at the end, -1 on an error
    long fs_get_blocks_bitmap_chunk(unsigned long length, unsigned long offset, char* buffer) const;

    /// Reads a group's free-space header. `Debug` "fsi addr = A"; of a sound one "magic 0x" and eight hexadecimal
    /// digits, "fl_first ", "fl_last " and "offset_bt_root ", each with its number.
    /// @param agNumber   the group
    /// @param agBlocks   blocks of a group
    /// @param blockSize  bytes
    /// @param info       takes the header
    /// @return 0; all ones after the `Error` entry "Can't read fsi block." or "Invalid fsi magic number."
    unsigned int read_fsi(unsigned int agNumber, unsigned int agBlocks, unsigned int blockSize,
                          xfs_free_space_info* info) const;

    /// Reads a group's free list. `Debug` "agfl addr = A, len = 512", where A is the group's first block plus the
    /// list's byte in the group, on purpose.
    /// @param version    the superblock's version word
    /// @param agNumber   the group
    /// @param agBlocks   blocks of a group
    /// @param blockSize  bytes
    /// @param list       takes 128 entries in host order, or the 119 that a volume with checksums has there
    /// @return 0, or all ones when it cannot be read
    unsigned int read_agfl(unsigned short version, unsigned int agNumber, unsigned int agBlocks, unsigned int blockSize,
                           unsigned int* list) const;

    /// Sets the bit of one block, unless it lies outside the chunk.
    /// @param buffer      the chunk
    /// @param byteOffset  bytes of the whole bitmap before the chunk
    /// @param length      bytes of the chunk
    /// @param agNumber    the group
    /// @param agBlocks    blocks of a group
    /// @param agBlock     block in the group
    /// @param count       grows by 1 when the bit was clear
    void fs_bitmap_mark(char* buffer, unsigned long byteOffset, unsigned long length, unsigned int agNumber,
                        unsigned int agBlocks, unsigned int agBlock, unsigned long* count) const;

    /// Sets the bits of a run as fs_bitmap_mark sets one. The run's end wraps at 32 bits.
    /// @param buffer      the chunk
    /// @param byteOffset  bytes of the whole bitmap before the chunk
    /// @param length      bytes of the chunk
    /// @param agNumber    the group
    /// @param agBlocks    blocks of a group
    /// @param start       first block in the group
    /// @param blocks      blocks; 0 sets nothing
    /// @param count       grows by the bits that were clear
    void bitmap_mark_range(char* buffer, unsigned long byteOffset, unsigned long length, unsigned int agNumber,
                           unsigned int agBlocks, unsigned int start, unsigned int blocks, unsigned long* count) const;

private:
    struct AGENT_LOCAL Chunk;
    class AGENT_LOCAL TreeWalk;

    AGENT_LOCAL bool read(std::uint64_t address, void* buffer, std::uint64_t length) const;
    AGENT_LOCAL void logGeometry() const;
    AGENT_LOCAL static void mark(Chunk& chunk, std::uint64_t first, std::uint64_t last);
    AGENT_LOCAL bool markGroup(std::uint32_t group, Chunk& chunk) const;
    AGENT_LOCAL void markFreeList(std::uint32_t group, xfs_free_space_info const& info, unsigned int const* list,
                                  Chunk& chunk) const;

    agent::info::Logger* logger_;
    agent::core::IVolumeReader const* volume_;
    std::uint64_t alignment_;
    std::uint32_t magic_ = 0;
    std::uint32_t blockSize_ = 0;
    std::uint32_t agCount_ = 0;
    std::uint32_t agBlocks_ = 0;
    std::uint64_t totalBlocks_ = 0;
    std::uint16_t version_ = 0;
    std::uint16_t sectorSize_ = 0;
    std::uint32_t logBlocks_ = 0;
    std::uint64_t logStart_ = 0;
    std::uint8_t agBlocksLog_ = 0;
};

/// One node of an allocation group's free-space tree by block number, read whole at construction. Can be moved, which
/// leaves the source without records.
class AGENT_EXPORT XFSParser::XFSBTreeNode {
public:
    /// Reads and checks the node. `Debug` "btn addr = A" before it is read; of a sound one "---BTN HERE---", "magic 0x"
    /// and eight hexadecimal digits, "level ", "num_recs ", "left_sib ", "right_sib ", each with its number, and
    /// "---BTN END---".
    /// @param parser    whose logger, volume and alignment are used; not kept
    /// @param agNumber  the group
    /// @param agBlock   block in the group
    /// @throws std::runtime_error
    ///     - "XFS: cannot create null btree node": block 0xFFFFFFFF
    ///     - "XFS: cannot read btree node header"
    ///     - "XFS: Invalid btree node magic number."
    ///     - "XFS: Invalid num_recs in btree node."
    ///     - "XFS: Internal node can't have 0 records."
    ///     - "XFS: Can't read records in btree node."
    ///     - "XFS: Can't read children in btree node."
    /// @throws std::bad_alloc  the memory for its records, at most 768 KiB, cannot be had
    XFSBTreeNode(XFSParser const* parser, unsigned int agNumber, unsigned int agBlock);
    /// Takes the records over.
    XFSBTreeNode(XFSBTreeNode&& other) noexcept;

    /// Takes the records over.
    XFSBTreeNode& operator=(XFSBTreeNode&& other) noexcept;

    XFSBTreeNode(XFSBTreeNode const&) = delete;
    XFSBTreeNode& operator=(XFSBTreeNode const&) = delete;
    virtual ~XFSBTreeNode();

    std::uint32_t magic;                         ///< "ABTB" or "AB3B" as a number
    std::uint16_t num_recs;                      ///< records of a leaf; keys, and children, of an inner node
    std::uint16_t level;                         ///< 0 for a leaf
    std::uint32_t left_sib;                      ///< block in the group; 0xFFFFFFFF for none
    std::uint32_t right_sib;                     ///< block in the group; 0xFFFFFFFF for none
    std::unique_ptr<xfs_btree_record[]> records; ///< num_recs of them
    std::unique_ptr<std::uint32_t[]> children;   ///< num_recs blocks in the group; none in a leaf

private:
    AGENT_LOCAL void readRecords(XFSParser const& parser, std::uint64_t address);
    AGENT_LOCAL void readChildren(XFSParser const& parser, std::uint64_t address);
    AGENT_LOCAL void logNode(XFSParser const& parser) const;
};

} // namespace agent::core::fs
