// The FAT boot sector as it stands on disk.
#pragma once

#include "agent/core/fs/Endian.h"

namespace agent::core::fs {

/// Sector 0 of a FAT volume; the field names of FAT32's BIOS parameter block.
struct fat_boot_sector {
    std::array<std::uint8_t, 3> jump;        // 0x00
    std::array<char, 8> system_id;           // 0x03
    le16 bytes_per_sector;                   // 0x0B
    std::uint8_t sectors_per_cluster;        // 0x0D
    le16 reserved_sectors;                   // 0x0E
    std::uint8_t number_of_fats;             // 0x10
    le16 root_entries;                       // 0x11
    le16 total_sectors_16;                   // 0x13
    std::uint8_t media;                      // 0x15
    le16 sectors_per_fat_16;                 // 0x16
    le16 sectors_per_track;                  // 0x18
    le16 heads;                              // 0x1A
    le32 hidden_sectors;                     // 0x1C
    le32 total_sectors_32;                   // 0x20
    le32 sectors_per_fat_32;                 // 0x24
    std::array<std::uint8_t, 14> fat32_info; // 0x28
    std::array<char, 28> label_area;         // 0x36: begins with the type label of FAT12 and FAT16
    std::array<char, 8> fat32_label;         // 0x52: the type label of FAT32
    std::array<std::uint8_t, 422> boot_code; // 0x5A
};

static_assert(sizeof(fat_boot_sector) == 512);
static_assert(offsetof(fat_boot_sector, bytes_per_sector) == 0x0B);
static_assert(offsetof(fat_boot_sector, sectors_per_cluster) == 0x0D);
static_assert(offsetof(fat_boot_sector, reserved_sectors) == 0x0E);
static_assert(offsetof(fat_boot_sector, number_of_fats) == 0x10);
static_assert(offsetof(fat_boot_sector, total_sectors_16) == 0x13);
static_assert(offsetof(fat_boot_sector, total_sectors_32) == 0x20);
static_assert(offsetof(fat_boot_sector, sectors_per_fat_32) == 0x24);
static_assert(offsetof(fat_boot_sector, label_area) == 0x36);
static_assert(offsetof(fat_boot_sector, fat32_label) == 0x52);

} // namespace agent::core::fs
