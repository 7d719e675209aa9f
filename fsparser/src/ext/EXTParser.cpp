// The ext parser: the superblock once, then for each chunk the descriptor table and the group bitmaps it spans.
#include "agent/core/fs/EXTParser.h"

#include "ZeroedBuffer.h"
#include "agent/core/fs/FSUtil.h"
#include "ext/ExtLayout.h"
#include "ext/GroupBits.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <stdexcept>

namespace agent::core::fs {

using agent::info::Level;
using agent::info::Logger;

namespace {

constexpr unsigned long kSuperBlockOffset = 1024;

/// Zeroes `count` bytes, but writes only where they are not zero: pages that were never written take no memory.
void clearSparingly(std::uint8_t* bytes, std::size_t count) {
    constexpr std::size_t kPiece = 4096;
    for (std::size_t done = 0; done < count;) {
        std::size_t const piece = std::min(kPiece, count - done);
        std::uint8_t* const place = bytes + done;
        if (*place != 0 || std::memcmp(place, place + 1, piece - 1) != 0) {
            std::memset(place, 0, piece);
        }
        done += piece;
    }
}

} // namespace

/// Where a chunk begins: a group and a bit in its bitmap.
struct EXTParser::Position {
    std::uint32_t group;
    std::uint32_t bit;
};

/// The caller's buffer, and the block that its first bit stands for.
struct EXTParser::Chunk {
    std::span<std::uint8_t> bits;
    std::uint64_t start;
};

EXTParser::EXTParser(Logger& logger, unsigned int alignment, agent::core::IVolumeReader const& volume)
    : logger_(&logger), volume_(&volume), alignment_(alignment) {
    ext_super_block super{};
    unsigned long bytesRead = 0;
    if (fs_seek_read_aligned(logger, volume, alignment_, kSuperBlockOffset, &super, sizeof super, &bytesRead) == -1) {
        throw std::runtime_error("Could not read EXT super block.");
    }
    if (!isEXTFileSystem(&super)) {
        throw std::runtime_error("Not an EXT filesystem.");
    }
    descriptorSize_ = super.s_desc_size.value();
    blocksPerGroup_ = super.s_blocks_per_group.value();
    blocksCount_ = super.s_blocks_count_lo.value(); // the high 32 bits are never read, on purpose
    logBlockSize_ = super.s_log_block_size.value();
    firstDataBlock_ = super.s_first_data_block.value();
    incompatibleFeatures_ = super.s_feature_incompat.value();
    magic_ = super.s_magic.value();
}

EXTParser::~EXTParser() = default;

bool EXTParser::isEXTFileSystem(void* buffer) {
    return buffer != nullptr && static_cast<ext_super_block const*>(buffer)->s_magic.value() == kExtMagic;
}

long EXTParser::getChunk(unsigned long offset, char* buffer, unsigned long length) const {
    long const result = fs_get_blocks_bitmap_chunk(length, offset, buffer);
    if (result < 0) {
        Logger::Entry(*logger_, Level::Error)
            << "A logical error occurred while attempting to parse the EXT bitmap, err: " << result;
    }
    return result;
}

std::int64_t EXTParser::blockSize() const {
    // A signed 32-bit product whose shift counts modulo 32.
    return static_cast<std::int32_t>(std::uint32_t{1024} << (logBlockSize_ & 31U));
}

std::uint64_t EXTParser::descriptorSize() const {
    return (incompatibleFeatures_ & kExtIncompat64Bit) != 0 ? descriptorSize_ : kExtSmallDescriptor;
}

bool EXTParser::readDescriptorTable(ZeroedBuffer& table) const {
    auto const tableBlock = std::uint64_t{firstDataBlock_} + 1; // in 64 bits: it does not wrap
    unsigned long const offset = static_cast<std::uint64_t>(blockSize()) * tableBlock;
    unsigned long bytesRead = 0;
    return fs_seek_read_aligned(*logger_, *volume_, alignment_, offset, table.data(), table.size(), &bytesRead) != -1;
}

bool EXTParser::fs_get_block_bitmap(void* table, int group, long count, void* destination) const {
    std::uint64_t const offset = static_cast<std::uint32_t>(group) * descriptorSize();
    ext_group_desc descriptor{};
    std::memcpy(&descriptor, static_cast<std::uint8_t const*>(table) + offset, sizeof descriptor);
    if ((descriptor.bg_flags & kExtBlockBitmapUninitialised) != 0) {
        // No block of the group counts as used, even if it holds metadata; kept that way on purpose.
        clearSparingly(static_cast<std::uint8_t*>(destination), static_cast<std::size_t>(std::max(count, 0L)));
        return true;
    }
    // The high part of the location is never read, on purpose.
    unsigned long const location = static_cast<std::uint64_t>(blockSize()) * descriptor.bg_block_bitmap_lo.value();
    unsigned long bytesRead = 0;
    if (fs_seek_read_aligned(*logger_, *volume_, alignment_, location, destination, static_cast<unsigned long>(count),
                             &bytesRead) == -1) {
        fail("Can't read bitmap");
        return false;
    }
    return true;
}

long EXTParser::fs_get_blocks_bitmap_chunk(unsigned long length, unsigned long start, char* buffer) const {
    if (blocksCount_ < start) {
        return fail("Invalid start block");
    }
    if (buffer == nullptr) {
        return fail("Invalid bitmap buffer");
    }
    // 32-bit arithmetic that wraps: 0 blocks a group, or nearly 2^32, give a bitmap of no bytes.
    ZeroedBuffer bitmap((((blocksPerGroup_ - 1) >> 3) + 1) & 0x1FFFFFFFU);
    std::fill_n(buffer, length, '\0');

    std::uint32_t const span = blocksCount_ - firstDataBlock_;
    if (blocksPerGroup_ == 0 && (start != 0 || span != 0)) {
        return fail("Can't read bgd table"); // no group can be told, so none has a descriptor
    }
    Position from{0, 0};
    if (start != 0) {
        std::uint64_t const distance = start - firstDataBlock_;
        from.group = static_cast<std::uint32_t>(distance / blocksPerGroup_);
        from.bit = static_cast<std::uint32_t>(distance) - from.group * blocksPerGroup_;
    }
    std::uint32_t const groups = span == 0 ? 0 : (span - 1) / blocksPerGroup_ + 1;
    // A 32-bit product, on purpose: of the descriptors, only those that it covers are at hand.
    ZeroedBuffer table(static_cast<std::uint32_t>(descriptorSize() * groups));
    if (!readDescriptorTable(table)) {
        return fail("Can't read bgd table");
    }
    return mergeGroups(table, bitmap, from, groups, Chunk{{reinterpret_cast<std::uint8_t*>(buffer), length}, start});
}

long EXTParser::mergeGroups(ZeroedBuffer& table, ZeroedBuffer& bitmap, Position from, std::uint32_t groups,
                            Chunk const& chunk) const {
    std::uint64_t const limit = chunk.bits.size() * 8;
    std::uint64_t produced = 0;
    for (std::uint32_t group = from.group, bit = from.bit; group < groups; ++group, bit = 0) {
        if (group * descriptorSize() + sizeof(ext_group_desc) > table.size()) {
            return fail("Can't read bgd table");
        }
        if (!fs_get_block_bitmap(table.data(), static_cast<int>(group), static_cast<long>(bitmap.size()),
                                 bitmap.data())) {
            return -1;
        }
        std::uint32_t const firstBlock = blocksPerGroup_ * group + firstDataBlock_; // wraps at 32 bits
        while (bit < blocksPerGroup_) {
            std::uint32_t const block = firstBlock + bit;
            if (block >= blocksCount_) {
                break;
            }
            std::uint64_t const index = block - chunk.start;
            if (index >= limit) {
                return static_cast<long>(produced);
            }
            // The blocks up to the next bound, all at once.
            auto const count = static_cast<std::uint32_t>(
                std::min<std::uint64_t>({blocksPerGroup_ - bit, blocksCount_ - block, limit - index}));
            if (std::uint64_t{bit} + count > bitmap.size() * 8) {
                return fail("Can't read bitmap");
            }
            mergeBits(bitmap.bytes(), bit, chunk.bits, index, count);
            bit += count;
            produced = index + count;
        }
    }
    return static_cast<long>(produced);
}

long EXTParser::fail(char const* message) const {
    Logger::Entry(*logger_, Level::Error) << message;
    return -1;
}

} // namespace agent::core::fs
