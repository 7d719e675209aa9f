// Builds small ext volumes in memory, byte by byte, and one of any size that nothing backs.
#pragma once

#include "support/Readers.h"

#include <cstdint>
#include <functional>
#include <vector>

namespace tests {

/// The superblock's bytes as the format numbers them, relative to the superblock.
namespace ext_super {
inline constexpr std::uint64_t kBlocksCountLow = 0x04;
inline constexpr std::uint64_t kFirstDataBlock = 0x14;
inline constexpr std::uint64_t kLogBlockSize = 0x18;
inline constexpr std::uint64_t kBlocksPerGroup = 0x20;
inline constexpr std::uint64_t kMagic = 0x38;
inline constexpr std::uint64_t kIncompatibleFeatures = 0x60;
inline constexpr std::uint64_t kReadOnlyFeatures = 0x64;
inline constexpr std::uint64_t kDescriptorSize = 0xFE;
inline constexpr std::uint64_t kBlocksCountHigh = 0x150;

/// The feature under which a group's bitmap need not be initialised.
inline constexpr std::uint32_t kChecksummedDescriptors = 0x10;
} // namespace ext_super

/// A group descriptor's bytes, relative to the descriptor.
namespace ext_group {
inline constexpr std::uint64_t kBitmapLocationLow = 0x00;
inline constexpr std::uint64_t kFreeBlocksLow = 0x0C;
inline constexpr std::uint64_t kFlags = 0x12;
inline constexpr std::uint64_t kBitmapLocationHigh = 0x20;
inline constexpr std::uint8_t kInodesUninitialised = 0x01;
inline constexpr std::uint8_t kBlocksUninitialised = 0x02;
} // namespace ext_group

inline constexpr std::uint64_t kExtSuperBlockOffset = 1024;
inline constexpr std::uint32_t kExt64Bit = 0x80;

/// The shape of a volume. The defaults give three groups, the last of them short, in a volume of few kilobytes of
/// metadata.
struct ExtGeometry {
    std::uint32_t logBlockSize = 0;      ///< 1 KiB blocks: the smallest, and the only size with a first data block of 1
    std::uint32_t firstDataBlock = 1;    ///< what goes with 1 KiB blocks
    std::uint32_t blocksPerGroup = 8192; ///< one bitmap block's worth of bits, as mkfs chooses it
    std::uint32_t blocksCount = 20000;   ///< not a multiple of anything, so that the last group is short
    bool is64Bit = false;
    std::uint16_t descriptorSize = 0; ///< stored as it is; in force with is64Bit only. 0 is what 32-bit volumes hold

    static ExtGeometry with4KiBBlocks(std::uint32_t blocks) { return {2, 0, 32768, blocks, false, 0}; }

    std::uint64_t blockBytes() const { return std::uint64_t{1024} << logBlockSize; }
    std::uint64_t descriptorBytes() const { return is64Bit ? descriptorSize : 32; }
    std::uint64_t groups() const { return (std::uint64_t{blocksCount} - firstDataBlock - 1) / blocksPerGroup + 1; }
    std::uint64_t tableOffset() const { return blockBytes() * (firstDataBlock + std::uint64_t{1}); }
    std::uint64_t descriptorOffset(std::uint64_t group) const { return tableOffset() + group * descriptorBytes(); }
    std::uint64_t groupOf(std::uint64_t block) const { return (block - firstDataBlock) / blocksPerGroup; }
};

/// A volume of the given (sane) geometry: boot block, superblock, descriptor table, then the block bitmaps one behind
/// the other. What follows them on a real volume is never read, so the bytes end there. Every field can be changed
/// afterwards, to anything.
class ExtBuilder {
public:
    explicit ExtBuilder(ExtGeometry const& geometry = {});

    ExtGeometry const& geometry() const { return geometry_; }

    /// Where the builder put a group's bitmap, as a block number and in bytes.
    std::uint32_t bitmapBlock(std::uint64_t group) const;
    std::uint64_t bitmapOffset(std::uint64_t group) const;

    /// Sets a block's bit; its group's number of free blocks follows.
    ExtBuilder& setUsed(std::uint64_t block, bool used = true);
    ExtBuilder& setUsedFrom(std::uint64_t first, std::uint64_t count);

    /// Fills every bitmap, padding included, from a generator of a fixed seed: a pattern without symmetry. The groups'
    /// numbers of free blocks follow.
    ExtBuilder& fillBitmapsAtRandom(unsigned seed);

    /// Marks what the volume itself lies in, as a volume that is in use has it.
    ExtBuilder& markOwnBlocks();

    ExtBuilder& setFlags(std::uint64_t group, std::uint8_t flags);
    /// A group's own number of free blocks, whatever its bits say.
    ExtBuilder& setFreeBlocks(std::uint64_t group, std::uint16_t count);
    ExtBuilder& setBitmapLocation(std::uint64_t group, std::uint32_t block);

    ExtBuilder& setSuper16(std::uint64_t field, std::uint16_t value);
    ExtBuilder& setSuper32(std::uint64_t field, std::uint32_t value);
    std::uint16_t super16(std::uint64_t field) const;
    std::uint32_t super32(std::uint64_t field) const;

    /// Whether the volume's map should show the block as used: by its bit, which is nothing in a group that is marked
    /// as not initialised, nor before the first data block.
    bool isUsed(std::uint64_t block) const;

    /// isUsed() of every block, one element a block.
    std::vector<bool> map() const;

    /// Cuts the volume's bytes, or appends zeros.
    ExtBuilder& resize(std::uint64_t size);

    MemoryReader reader() const { return MemoryReader(bytes); }

    std::vector<std::uint8_t> bytes;

private:
    void put(std::uint64_t offset, std::uint64_t value, unsigned width);
    std::uint64_t get(std::uint64_t offset, unsigned width) const;
    bool bitOf(std::uint64_t block) const;
    void addFreeBlocks(std::uint64_t group, int count);
    void countFreeBlocks();

    ExtGeometry geometry_;
};

/// A volume that no memory backs, as large as its geometry says, each group's bitmap 2000 blocks into the group: past
/// the table of the largest volume. Every byte of a group's bitmap is what `pattern` says, and flags are what `flags`
/// says.
SyntheticReader makeSyntheticExtVolume(ExtGeometry const& geometry, std::function<std::uint8_t(std::uint64_t)> pattern,
                                       std::function<std::uint8_t(std::uint64_t)> flags);

} // namespace tests
