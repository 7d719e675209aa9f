/// @file
/// HFS+ and HFSX volumes.
#pragma once

#include "agent/Export.h"
#include "agent/core/IVolumeReader.h"
#include "agent/core/fs/HFSTypes.h"
#include "agent/core/fs/IBlockBitmapChunkProvider.h"
#include "agent/info/Logger.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <vector>

namespace agent::core::fs {

/// The used blocks of an HFS+ or HFSX volume: the bytes of its allocation file as they stand on disk. A unit is an
/// allocation block; **most significant bit first** (isMostSignificantBitFirst() is true).
///
/// The volume that this parser is given **begins with the volume header**: its byte 0 is byte 1024 of an HFS+ volume,
/// while the address of an allocation block is its number times the block size, as on the volume itself. Whoever
/// constructs it presents the volume that way, as docs/embedding.md does. Both this and what detection looks at are so
/// on purpose. docs/formats/hfs.md lists the fields that are read.
///
/// Limits that are kept on purpose, so that a caller must know them:
/// - An allocation file whose extents fill their list exactly, for instance eight in the header and none elsewhere, has
///   no map: every getChunk() returns 0.
/// - The extents-overflow tree is read node by node, without comparing keys, and a tree that is a single leaf is
///   refused. In every index node but the root the slot after the last record is followed as well, so that what stands
///   in free space there may count.
/// - The bits past the volume's last block are whatever the file holds there.
///
/// The header is read once, at construction; every getChunk() on a volume with overflow extents reads the whole tree
/// again. No state is kept between calls. Logger and volume reader are not owned and must outlive the parser; one
/// thread at a time.
///
/// @code
/// agent::core::fs::HFSParser parser(logger, 4096, volume); // a reader that shows the header at byte 0
/// std::vector<char> map(8 << 20);
/// long const blocks = parser.getChunk(0, map.data(), map.size()); // block 8 * i + j: 0x80 >> j of byte i
/// @endcode
class AGENT_EXPORT HFSParser : public IBlockBitmapChunkProvider {
public:
    /// Reads and checks the volume header (512 bytes at byte 0 of what the reader presents).
    /// @param logger     takes every message; not owned
    /// @param alignment  bytes, the granularity of that read. Everything else is read in allocation blocks.
    /// @param volume     presents the volume as said above; not owned
    /// @throws std::runtime_error
    ///     - "Error reading HFS+ superblock." (also for an alignment of 0)
    ///     - "Not an HFS+ filesystem."
    /// @throws std::invalid_argument  the alignment is no power of two
    HFSParser(agent::info::Logger& logger, unsigned int alignment, agent::core::IVolumeReader const& volume);
    HFSParser(HFSParser const&) = delete;
    HFSParser& operator=(HFSParser const&) = delete;
    ~HFSParser() override;

    /// Whether the buffer is a volume header: its first two bytes are "H+" or "HX". Any thread.
    /// @param buffer  what stands at byte 1024 of the volume, at least 2 bytes; null is not recognised
    static bool isHFSFileSystem(void* buffer);

    /// As IBlockBitmapChunkProvider states it. The offset is a multiple of 8. Never more than `length` bytes are
    /// written, although it may be more than the returned units need; what a short read does not deliver is left as it
    /// was. A negative result is -1, after an `Error` entry of its cause and a second one:
    ///     - "startBlock must be divisible by 8"
    ///     - "Couldn't parse extent overflow file for bitmap extents.", after the entry of fs_search_overflow()
    ///     - "Error in HFS+ parsing read."
    ///     - then "A logical error occurred while attempting to parse the HFS bitmap, err: -1"
    ///
    /// Where the header's extents do not hold the whole file, `Debug` "Bitmap extents overflow file needed." comes
    /// first.
    /// @throws std::bad_alloc  the memory for a read cannot be had
    long getChunk(unsigned long offset, char* buffer, unsigned long length) const override;

    /// True.
    bool isMostSignificantBitFirst() const override;

protected:
    /// Sum of the blocks in the fork's eight extents. The fork's own count is not looked at.
    /// @param fork  as it stands on disk
    /// @return blocks
    unsigned long fs_get_num_blocks(HFSPlusForkData const& fork) const;

    /// The routine behind getChunk(), without the second entry; unlike its siblings', with the arguments in
    /// getChunk()'s order, on purpose. A block size that is no power of two cannot be read in, which is a failed read.
    /// @param offset  number of the first block, a multiple of 8
    /// @param buffer  takes the bits
    /// @param length  bytes of the buffer
    /// @return blocks covered, 0 at the end or without a map, -1 on an error
    long fs_get_blocks_bitmap_chunk(unsigned long offset, char* buffer, unsigned long length) const;

    /// Appends the extents of a file that the extents-overflow tree holds, eight descriptors a record, in the order of
    /// a walk from the root, level by level. Keys are compared by file ID alone.
    ///
    /// The search ends at the first of these, which is its `Error` entry; N is a node's number, P its byte in the file,
    /// A its byte on the volume:
    ///     - "Extent overflow file cannot contain an overflow of itself"
    ///     - "Could not read B-Tree header"
    ///     - "First node starts past the end of the extent"
    ///     - "nodeDataOffset 64 bit overflow"
    ///     - "Failed to read node descriptor": of the root
    ///     - "First node is not an index node"
    ///     - "Node N starts past the end of the extent"
    ///     - "Couldn't get extent overflow offset: P"
    ///     - "Node offset starts before the start of the extent"
    ///     - "Could not read next node at A"
    ///     - "HFS+ unknown node type " and the raw byte
    ///
    /// "Failed to read node descriptor" and "Could not read next node at A" also stand for records that lie outside
    /// their node, the first for a node too small for its descriptor, the second for limits: 2^21 extents (an
    /// allocation file of 2^32 bits in blocks of 512 bytes has 2^20, and those of both forks are collected), 2^20 nodes
    /// seen or waiting (more than the extents of any volume in use take), and nodes that come again and again (a
    /// cycle). A block size that is no power of two is a failed read.
    /// @param header   tells where the tree lies
    /// @param fileId   catalog node ID of the file
    /// @param extents  keeps what it holds; grows
    /// @return false after an `Error` entry
    /// @throws std::bad_alloc  the memory for a node, a read or the extents cannot be had
    bool fs_search_overflow(HFSPlusVolumeHeader const& header, unsigned int fileId,
                            std::vector<HFSPlusExtentDescriptor>& extents) const;

    /// Queues the children in the first slots of an index node; a slot of 0 and a child of 0 are passed over, and so is
    /// what lies outside the node.
    /// @param nodes     node numbers to come; grows at its back
    /// @param node      the node's bytes
    /// @param nodeSize  bytes of the node
    /// @param count     slots to look at
    void fs_traverse_index_node(std::deque<unsigned int>& nodes, std::unique_ptr<unsigned char[]>& node,
                                unsigned long nodeSize, unsigned long count) const;

private:
    class AGENT_LOCAL OverflowSearch;
    struct AGENT_LOCAL Stretch;

    AGENT_LOCAL bool findBitmap(std::vector<HFSPlusExtentDescriptor>& extents) const;
    AGENT_LOCAL long copyBitmap(std::span<HFSPlusExtentDescriptor const> extents, Stretch const& stretch) const;
    AGENT_LOCAL bool readBlocks(std::uint64_t blockSize, std::uint64_t address, void* buffer,
                                std::uint64_t length) const;
    AGENT_LOCAL bool fail(char const* message) const;

    agent::info::Logger* logger_;
    agent::core::IVolumeReader const* volume_;
    std::uint64_t alignment_;
    HFSPlusVolumeHeader header_{};
};

} // namespace agent::core::fs
