// Every NTFS structure as it stands on disk, once.
#pragma once

#include "Endian.h"

namespace agent::core::fs {

/// Sector 0 of an NTFS volume.
struct ntfs_boot_sector {
    std::array<std::uint8_t, 3> jump;        // 0x00
    le64 oem_id;                             // 0x03
    le16 bytes_per_sector;                   // 0x0B
    std::uint8_t sectors_per_cluster;        // 0x0D
    le16 reserved_sectors;                   // 0x0E
    std::uint8_t fats;                       // 0x10
    le16 root_entries;                       // 0x11
    le16 sectors;                            // 0x13
    std::uint8_t media_type;                 // 0x15
    le16 sectors_per_fat;                    // 0x16
    std::array<std::uint8_t, 8> geometry;    // 0x18
    le32 large_sectors;                      // 0x20
    le32 physical_drive;                     // 0x24
    le64 number_of_sectors;                  // 0x28
    le64 mft_lcn;                            // 0x30
    le64 mftmirr_lcn;                        // 0x38
    std::uint8_t clusters_per_mft_record;    // 0x40
    std::array<std::uint8_t, 3> reserved0;   // 0x41
    std::uint8_t clusters_per_index_record;  // 0x44
    std::array<std::uint8_t, 3> reserved1;   // 0x45
    le64 volume_serial_number;               // 0x48
    le32 checksum;                           // 0x50
    std::array<std::uint8_t, 426> bootstrap; // 0x54
    le16 end_of_sector_marker;               // 0x1FE
};

static_assert(sizeof(ntfs_boot_sector) == 512);
static_assert(offsetof(ntfs_boot_sector, oem_id) == 0x03);
static_assert(offsetof(ntfs_boot_sector, bytes_per_sector) == 0x0B);
static_assert(offsetof(ntfs_boot_sector, sectors_per_cluster) == 0x0D);
static_assert(offsetof(ntfs_boot_sector, reserved_sectors) == 0x0E);
static_assert(offsetof(ntfs_boot_sector, fats) == 0x10);
static_assert(offsetof(ntfs_boot_sector, root_entries) == 0x11);
static_assert(offsetof(ntfs_boot_sector, sectors) == 0x13);
static_assert(offsetof(ntfs_boot_sector, sectors_per_fat) == 0x16);
static_assert(offsetof(ntfs_boot_sector, large_sectors) == 0x20);
static_assert(offsetof(ntfs_boot_sector, number_of_sectors) == 0x28);
static_assert(offsetof(ntfs_boot_sector, mft_lcn) == 0x30);
static_assert(offsetof(ntfs_boot_sector, mftmirr_lcn) == 0x38);
static_assert(offsetof(ntfs_boot_sector, clusters_per_mft_record) == 0x40);
static_assert(offsetof(ntfs_boot_sector, clusters_per_index_record) == 0x44);
static_assert(offsetof(ntfs_boot_sector, end_of_sector_marker) == 0x1FE);

} // namespace agent::core::fs
