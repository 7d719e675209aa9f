// The ext structures as they stand on disk, with the fields that are read.
#pragma once

#include "agent/core/fs/Endian.h"

namespace agent::core::fs {

/// 1024 bytes at byte 1024 of the volume.
struct ext_super_block {
    le32 s_inodes_count;                   // 0x00
    le32 s_blocks_count_lo;                // 0x04
    std::array<std::uint8_t, 12> counters; // 0x08
    le32 s_first_data_block;               // 0x14
    le32 s_log_block_size;                 // 0x18
    le32 s_log_cluster_size;               // 0x1C
    le32 s_blocks_per_group;               // 0x20
    std::array<std::uint8_t, 20> mounts;   // 0x24
    le16 s_magic;                          // 0x38
    std::array<std::uint8_t, 38> state;    // 0x3A
    le32 s_feature_incompat;               // 0x60
    std::array<std::uint8_t, 154> names;   // 0x64
    le16 s_desc_size;                      // 0xFE
    std::array<std::uint8_t, 768> rest;    // 0x100
};

static_assert(sizeof(ext_super_block) == 1024);
static_assert(offsetof(ext_super_block, s_blocks_count_lo) == 0x04);
static_assert(offsetof(ext_super_block, s_first_data_block) == 0x14);
static_assert(offsetof(ext_super_block, s_log_block_size) == 0x18);
static_assert(offsetof(ext_super_block, s_blocks_per_group) == 0x20);
static_assert(offsetof(ext_super_block, s_magic) == 0x38);
static_assert(offsetof(ext_super_block, s_feature_incompat) == 0x60);
static_assert(offsetof(ext_super_block, s_desc_size) == 0xFE);

/// The beginning that every group descriptor has, whatever its size.
struct ext_group_desc {
    le32 bg_block_bitmap_lo;               // 0x00
    std::array<std::uint8_t, 14> counters; // 0x04
    std::uint8_t bg_flags;                 // 0x12: the low byte of the 16-bit flags
};

static_assert(sizeof(ext_group_desc) == 0x13);
static_assert(offsetof(ext_group_desc, bg_block_bitmap_lo) == 0x00);
static_assert(offsetof(ext_group_desc, bg_flags) == 0x12);

/// s_magic of every ext superblock.
inline constexpr std::uint16_t kExtMagic = 0xEF53;

/// s_feature_incompat: descriptors have the size that s_desc_size gives.
inline constexpr std::uint32_t kExtIncompat64Bit = 0x80;

/// The size of a descriptor without that feature.
inline constexpr std::uint64_t kExtSmallDescriptor = 32;

/// bg_flags: the block bitmap of the group was never written.
inline constexpr std::uint8_t kExtBlockBitmapUninitialised = 0x02;

} // namespace agent::core::fs
