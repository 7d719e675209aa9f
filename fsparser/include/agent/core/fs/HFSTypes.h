/// @file
/// What the HFS+ parser reads of a volume header; the names are the format's own.
#pragma once

#include "agent/core/fs/Endian.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace agent::core::fs {

/// Consecutive allocation blocks of a file, as they stand on disk.
struct HFSPlusExtentDescriptor {
    be32 startBlock; ///< 0x00: first allocation block
    be32 blockCount; ///< 0x04: allocation blocks; 0 ends a list
};

static_assert(sizeof(HFSPlusExtentDescriptor) == 8 && alignof(HFSPlusExtentDescriptor) == 1);
static_assert(offsetof(HFSPlusExtentDescriptor, blockCount) == 4);

/// The extents that a fork, or one record of the extents-overflow file, holds.
inline constexpr std::size_t kHfsExtents = 8;

/// Where one fork of a file lies.
struct HFSPlusForkData {
    be64 logicalSize;                                         ///< 0x00: bytes
    be32 clumpSize;                                           ///< 0x08: bytes a file grows by
    be32 totalBlocks;                                         ///< 0x0C: allocation blocks, overflow extents included
    std::array<HFSPlusExtentDescriptor, kHfsExtents> extents; ///< 0x10: the first eight
};

static_assert(sizeof(HFSPlusForkData) == 80 && alignof(HFSPlusForkData) == 1);
static_assert(offsetof(HFSPlusForkData, totalBlocks) == 0x0C);
static_assert(offsetof(HFSPlusForkData, extents) == 0x10);

/// The volume header, which lies at byte 1024 of an HFS+ volume. Dates are in seconds since 1904-01-01. The parser
/// looks at `signature`, `blockSize`, `totalBlocks`, `allocationFile` and `extentsFile` only.
///
/// @code
/// agent::core::fs::HFSPlusVolumeHeader header{};
/// long const count = volume.read(&header, sizeof header); // after a seek to byte 1024
/// std::uint64_t const bytes = std::uint64_t{header.blockSize.value()} * header.totalBlocks.value();
/// @endcode
struct HFSPlusVolumeHeader {
    std::array<char, 2> signature;             ///< 0x00: "H+" or "HX"
    be16 version;                              ///< 0x02: 4 with "H+", 5 with "HX"
    be32 attributes;                           ///< 0x04: flags
    be32 lastMountedVersion;                   ///< 0x08: who wrote last, four characters
    be32 journalInfoBlock;                     ///< 0x0C: allocation block; only of a journaled volume
    be32 createDate;                           ///< 0x10
    be32 modifyDate;                           ///< 0x14
    be32 backupDate;                           ///< 0x18
    be32 checkedDate;                          ///< 0x1C
    be32 fileCount;                            ///< 0x20
    be32 folderCount;                          ///< 0x24
    be32 blockSize;                            ///< 0x28: bytes of an allocation block
    be32 totalBlocks;                          ///< 0x2C: allocation blocks of the volume
    be32 freeBlocks;                           ///< 0x30
    be32 nextAllocation;                       ///< 0x34
    be32 rsrcClumpSize;                        ///< 0x38
    be32 dataClumpSize;                        ///< 0x3C
    be32 nextCatalogID;                        ///< 0x40
    be32 writeCount;                           ///< 0x44
    be64 encodingsBitmap;                      ///< 0x48
    std::array<std::uint8_t, 0x20> finderInfo; ///< 0x50
    HFSPlusForkData allocationFile;            ///< 0x70
    HFSPlusForkData extentsFile;               ///< 0xC0
    HFSPlusForkData catalogFile;               ///< 0x110
    HFSPlusForkData attributesFile;            ///< 0x160
    HFSPlusForkData startupFile;               ///< 0x1B0
};

static_assert(sizeof(HFSPlusVolumeHeader) == 512 && alignof(HFSPlusVolumeHeader) == 1);
static_assert(offsetof(HFSPlusVolumeHeader, blockSize) == 0x28);
static_assert(offsetof(HFSPlusVolumeHeader, totalBlocks) == 0x2C);
static_assert(offsetof(HFSPlusVolumeHeader, allocationFile) == 0x70);
static_assert(offsetof(HFSPlusVolumeHeader, extentsFile) == 0xC0);
static_assert(offsetof(HFSPlusVolumeHeader, startupFile) == 0x1B0);

} // namespace agent::core::fs
