// The XFS structures as they stand on disk.
#pragma once

#include "agent/core/fs/Endian.h"

namespace agent::core::fs {

inline constexpr std::uint32_t kXfsFreeSpaceMagic = 0x58414746;    // "XAGF"
inline constexpr std::uint32_t kXfsByBlockTreeMagic = 0x41425442;  // "ABTB"
inline constexpr std::uint32_t kXfsByBlockTreeMagic5 = 0x41423342; // "AB3B": with a checksum header

/// No block: the end of a chain of siblings.
inline constexpr std::uint32_t kXfsNullBlock = 0xFFFFFFFF;

/// The primary superblock, as far as it is read.
struct xfs_super_block {
    be32 sb_magicnum;                        // 0x00
    be32 sb_blocksize;                       // 0x04
    be64 sb_dblocks;                         // 0x08
    std::array<std::uint8_t, 0x20> unused1;  // 0x10
    be64 sb_logstart;                        // 0x30
    std::array<std::uint8_t, 0x1C> unused2;  // 0x38
    be32 sb_agblocks;                        // 0x54
    be32 sb_agcount;                         // 0x58
    be32 sb_rbmblocks;                       // 0x5C
    be32 sb_logblocks;                       // 0x60
    be16 sb_versionnum;                      // 0x64
    be16 sb_sectsize;                        // 0x66
    std::array<std::uint8_t, 0x14> unused3;  // 0x68
    std::uint8_t sb_agblklog;                // 0x7C
    std::array<std::uint8_t, 0x183> unused4; // 0x7D
};

static_assert(sizeof(xfs_super_block) == 512);
static_assert(offsetof(xfs_super_block, sb_dblocks) == 0x08);
static_assert(offsetof(xfs_super_block, sb_logstart) == 0x30);
static_assert(offsetof(xfs_super_block, sb_agblocks) == 0x54);
static_assert(offsetof(xfs_super_block, sb_agcount) == 0x58);
static_assert(offsetof(xfs_super_block, sb_logblocks) == 0x60);
static_assert(offsetof(xfs_super_block, sb_versionnum) == 0x64);
static_assert(offsetof(xfs_super_block, sb_sectsize) == 0x66);
static_assert(offsetof(xfs_super_block, sb_agblklog) == 0x7C);

/// The free-space header of an allocation group, in its second sector, as far as it is read.
struct xfs_agf {
    be32 agf_magicnum;                       // 0x00
    std::array<std::uint8_t, 12> unused1;    // 0x04
    be32 agf_bno_root;                       // 0x10: root of the tree by block number
    std::array<std::uint8_t, 20> unused2;    // 0x14
    be32 agf_flfirst;                        // 0x28
    be32 agf_fllast;                         // 0x2C
    std::array<std::uint8_t, 0x1D0> unused3; // 0x30
};

static_assert(sizeof(xfs_agf) == 512);
static_assert(offsetof(xfs_agf, agf_bno_root) == 0x10);
static_assert(offsetof(xfs_agf, agf_flfirst) == 0x28);
static_assert(offsetof(xfs_agf, agf_fllast) == 0x2C);

/// The free list of an allocation group lies in its fourth sector: block numbers of 4 bytes each, after a header where
/// metadata carry checksums.
inline constexpr std::uint64_t kXfsFreeListSector = 3;
inline constexpr std::uint64_t kXfsFreeListBytes = 512;
inline constexpr std::uint64_t kXfsFreeListHeader5 = 36;
inline constexpr std::size_t kXfsFreeListEntries = 128;
inline constexpr std::size_t kXfsFreeListEntries5 = 119;

static_assert(kXfsFreeListEntries * sizeof(be32) == kXfsFreeListBytes);
static_assert(kXfsFreeListEntries5 * sizeof(be32) == kXfsFreeListBytes - kXfsFreeListHeader5);

/// The header of a free-space tree's node.
struct xfs_btree_block {
    be32 bb_magic;                              // 0x00
    be16 bb_level;                              // 0x04
    be16 bb_numrecs;                            // 0x06
    be32 bb_leftsib;                            // 0x08
    be32 bb_rightsib;                           // 0x0C
    std::array<std::uint8_t, 40> checksum_tail; // 0x10: in "AB3B" nodes only
};

inline constexpr std::uint32_t kXfsNodeHeader = 16;
inline constexpr std::uint32_t kXfsNodeHeader5 = 56;

static_assert(sizeof(xfs_btree_block) == kXfsNodeHeader5);
static_assert(offsetof(xfs_btree_block, checksum_tail) == kXfsNodeHeader);
static_assert(offsetof(xfs_btree_block, bb_level) == 0x04);
static_assert(offsetof(xfs_btree_block, bb_rightsib) == 0x0C);

/// Bytes of a leaf's record or an inner node's key, and of a child pointer.
inline constexpr std::uint32_t kXfsRecordBytes = 8;
inline constexpr std::uint32_t kXfsPointerBytes = 4;

} // namespace agent::core::fs
