// The fields of an ext superblock that imaging looks at.
#pragma once

#include "imaging/LoadInteger.h"
#include "imaging/ext/ExtDescriptors.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>

namespace imaging::ext {

inline constexpr std::uint64_t kSuperBlockBytes = 1024;

inline constexpr std::uint32_t kIncompatRecover = 0x4;
inline constexpr std::uint32_t kIncompatJournalDevice = 0x8;
inline constexpr std::uint32_t kIncompatMetaBg = 0x10;
inline constexpr std::uint32_t kIncompat64Bit = 0x80;
inline constexpr std::uint32_t kRoCompatBigalloc = 0x200;

inline constexpr std::uint32_t kRoCompatSparseSuper = 0x1;
inline constexpr std::uint32_t kRoCompatGdtCsum = 0x10;
inline constexpr std::uint32_t kRoCompatMetadataCsum = 0x400;
inline constexpr std::uint32_t kCompatSparseSuper2 = 0x200;

/// In s_state: the volume was unmounted cleanly; errors were found.
inline constexpr std::uint32_t kStateClean = 0x1;
inline constexpr std::uint32_t kStateErrors = 0x2;

/// The fields of the superblock that count here.
struct Facts {
    std::uint64_t blocks;
    std::uint32_t firstDataBlock;
    std::uint32_t logBlockSize;
    std::uint32_t blocksPerGroup;
    std::uint32_t clustersPerGroup;
    std::uint32_t incompatible;
    std::uint32_t readOnlyCompatible;
    std::uint32_t descriptorSize;
    std::uint32_t compatible;
    std::uint32_t inodesPerGroup;
    std::uint32_t inodeSize;
    std::uint32_t reservedTableBlocks;
    std::array<std::uint32_t, 2> backupGroups; ///< with sparse_super2
    std::uint32_t state;

    std::uint64_t blockSize() const { return std::uint64_t{1024} << logBlockSize; }
    /// With 1 KiB blocks the superblock fills block 1, with larger ones it lies in block 0.
    std::uint32_t usualFirstDataBlock() const { return logBlockSize == 0 ? 1 : 0; }
    bool has(std::uint32_t feature) const { return (incompatible & feature) != 0; }
};

inline std::uint32_t load32(std::span<std::uint8_t const> super, std::size_t offset) {
    return static_cast<std::uint32_t>(load(super, offset, 4));
}

inline Facts parse(std::span<std::uint8_t const> super) {
    Facts facts{};
    facts.incompatible = load32(super, 0x60);
    facts.blocks = load32(super, 0x04);
    if (facts.has(kIncompat64Bit)) {
        facts.blocks |= load(super, 0x150, 4) << 32;
    }
    facts.firstDataBlock = load32(super, 0x14);
    facts.logBlockSize = load32(super, 0x18);
    facts.blocksPerGroup = load32(super, 0x20);
    facts.clustersPerGroup = load32(super, 0x24);
    facts.readOnlyCompatible = load32(super, 0x64);
    facts.descriptorSize = facts.has(kIncompat64Bit) ? static_cast<std::uint32_t>(load(super, 0xFE, 2)) : 32;
    facts.compatible = load32(super, 0x5C);
    facts.inodesPerGroup = load32(super, 0x28);
    facts.inodeSize = load32(super, 0x4C) == 0 ? 128 : static_cast<std::uint32_t>(load(super, 0x58, 2));
    facts.reservedTableBlocks = static_cast<std::uint32_t>(load(super, 0xCE, 2));
    facts.backupGroups = {load32(super, 0x24C), load32(super, 0x250)};
    facts.state = static_cast<std::uint32_t>(load(super, 0x3A, 2));
    return facts;
}

/// Requires a volume that no limit applies to, with groups.
inline DescriptorTable tableOf(Facts const& facts) {
    std::uint64_t const inGroups = facts.blocks - std::min<std::uint64_t>(facts.blocks, facts.firstDataBlock);
    return {facts.blockSize() * (std::uint64_t{facts.firstDataBlock} + 1),
            (inGroups + facts.blocksPerGroup - 1) / facts.blocksPerGroup,
            facts.descriptorSize,
            facts.firstDataBlock,
            facts.blocks,
            facts.blocksPerGroup,
            (facts.readOnlyCompatible & (kRoCompatGdtCsum | kRoCompatMetadataCsum)) != 0};
}

/// Reads the superblock.
/// @throws VolumeError  it cannot be read, is cut off, or describes no volume
Facts readFacts(Volume& volume);

} // namespace imaging::ext
