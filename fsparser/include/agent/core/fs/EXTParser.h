/// @file
/// ext2, ext3 and ext4 volumes.
#pragma once

#include "agent/Export.h"
#include "agent/core/IVolumeReader.h"
#include "agent/core/fs/IBlockBitmapChunkProvider.h"
#include "agent/info/Logger.h"

#include <cstdint>

namespace agent::core::fs {

class ZeroedBuffer;

/// The used blocks of an ext2, ext3 or ext4 volume, from the block bitmaps of its groups. A unit is a file-system block
/// (1024 bytes times two to the power of the superblock's log block size), numbered from the start of the volume; least
/// significant bit first.
///
/// Limits that are kept on purpose, so that a caller must know them:
/// - With 1 KiB blocks, block 0 belongs to no group and is reported as free.
/// - A group whose block bitmap is not initialised is reported as entirely free, although it may hold metadata.
/// - Only the low 32 bits of the blocks count and of a bitmap's location are read: no more than 2^32 - 1 blocks.
/// - One descriptor table that follows the superblock is assumed (no meta_bg), and bits that stand for blocks (no
///   bigalloc). Checksums and flexible groups are not interpreted.
///
/// The superblock is read once, at construction; every getChunk() reads the whole descriptor table and one bitmap for
/// each group that the chunk spans. Few long chunks are therefore cheap, many short ones are not. No state is kept
/// between calls. Logger and volume reader are not owned and must outlive the parser; one thread at a time.
///
/// @code
/// agent::core::fs::EXTParser parser(logger, 4096, volume);
/// std::vector<char> map(1 << 20);                                 // 8,388,608 blocks a call
/// long const blocks = parser.getChunk(0, map.data(), map.size()); // bit b of byte i: block 8 * i + b
/// @endcode
///
/// Memory: the descriptor table and one group bitmap, at sizes that the superblock claims. They take addresses, and
/// memory only for what the volume really delivers. docs/formats/ext.md lists the fields that are read.
class AGENT_EXPORT EXTParser : public IBlockBitmapChunkProvider {
public:
    /// Reads and checks the superblock (1024 bytes at byte 1024).
    /// @param logger     takes every message; not owned
    /// @param alignment  bytes, the granularity of every read; what the device asks for in direct I/O
    /// @param volume     an open volume; not owned
    /// @throws std::runtime_error
    ///     - "Could not read EXT super block." (also for an alignment of 0)
    ///     - "Not an EXT filesystem."
    /// @throws std::invalid_argument  the alignment is no power of two
    EXTParser(agent::info::Logger& logger, unsigned int alignment, agent::core::IVolumeReader const& volume);
    EXTParser(EXTParser const&) = delete;
    EXTParser& operator=(EXTParser const&) = delete;
    ~EXTParser() override;

    /// Whether the buffer is an ext superblock: the little-endian 16-bit value at 0x38 is 0xEF53. Any thread.
    /// @param buffer  what stands at byte 1024 of the volume, at least 58 bytes; null is not recognised
    static bool isEXTFileSystem(void* buffer);

    /// As IBlockBitmapChunkProvider states it. The whole buffer is cleared, unless the start or the buffer is refused.
    /// An offset may be any block up to the blocks count, at which the result is 0; past it, it is an error.
    ///
    /// A negative result is -1, after an `Error` entry of its cause and a second one:
    ///     - "Invalid start block", "Invalid bitmap buffer", "Can't read bgd table" or "Can't read bitmap" (also for a
    ///       group that is longer than its bitmap)
    ///     - "A logical error occurred while attempting to parse the EXT bitmap, err: -1"
    /// @throws std::bad_alloc  the memory for a table cannot be had
    long getChunk(unsigned long offset, char* buffer, unsigned long length) const override;

protected:
    /// The routine behind getChunk(), without the second entry. A blocks-per-group count of zero, where it divides,
    /// ends with "Can't read bgd table", and so does a group whose descriptor lies outside the table.
    /// @param length  bytes of the buffer
    /// @param start   number of the first block
    /// @param buffer  takes the bits
    /// @return blocks covered, 0 at the end, -1 on an error
    long fs_get_blocks_bitmap_chunk(unsigned long length, unsigned long start, char* buffer) const;

    /// Reads the block bitmap of one group; one that is not initialised is all zero and costs no read.
    /// @param table        the group descriptors in memory, at least up to that of the group
    /// @param group        the group's number, taken as unsigned
    /// @param count        bytes of the bitmap
    /// @param destination  takes the bitmap
    /// @return false after the `Error` entry "Can't read bitmap"
    bool fs_get_block_bitmap(void* table, int group, long count, void* destination) const;

private:
    struct AGENT_LOCAL Position;
    struct AGENT_LOCAL Chunk;

    AGENT_LOCAL std::int64_t blockSize() const;
    AGENT_LOCAL std::uint64_t descriptorSize() const;
    AGENT_LOCAL bool readDescriptorTable(ZeroedBuffer& table) const;
    AGENT_LOCAL long mergeGroups(ZeroedBuffer& table, ZeroedBuffer& bitmap, Position from, std::uint32_t groups,
                                 Chunk const& chunk) const;
    AGENT_LOCAL long fail(char const* message) const;

    agent::info::Logger* logger_;
    agent::core::IVolumeReader const* volume_;
    std::uint64_t alignment_;
    std::uint16_t descriptorSize_ = 0;
    std::uint32_t blocksPerGroup_ = 0;
    std::uint32_t blocksCount_ = 0;
    std::uint32_t logBlockSize_ = 0;
    std::uint32_t firstDataBlock_ = 0;
    std::uint32_t incompatibleFeatures_ = 0;
    std::uint16_t magic_ = 0;
};

} // namespace agent::core::fs
