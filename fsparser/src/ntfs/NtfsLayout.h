// Every NTFS structure as it stands on disk, once.
#pragma once

#include "agent/core/fs/Endian.h"
#include "agent/core/fs/NTFSTypes.h"

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

/// The beginning of every record that is protected by an update sequence array.
struct ntfs_record {
    le32 magic;      // 0x00
    le16 usa_offset; // 0x04
    le16 usa_count;  // 0x06: the sequence number and one entry for each 512 bytes
};

static_assert(sizeof(ntfs_record) == 8);
static_assert(offsetof(ntfs_record, usa_offset) == 0x04);
static_assert(offsetof(ntfs_record, usa_count) == 0x06);

inline constexpr std::uint32_t kMagicFile = 0x454C4946; ///< "FILE"
inline constexpr std::uint32_t kMagicIndx = 0x58444E49; ///< "INDX"

/// The header of an MFT record.
struct ntfs_mft_record_t {
    ntfs_record header;      // 0x00
    le64 lsn;                // 0x08
    le16 sequence_number;    // 0x10
    le16 link_count;         // 0x12
    le16 attrs_offset;       // 0x14
    le16 flags;              // 0x16
    le32 bytes_in_use;       // 0x18
    le32 bytes_allocated;    // 0x1C
    le64 base_mft_record;    // 0x20: low 48 bits; 0 in a base record
    le16 next_attr_instance; // 0x28
    le16 reserved;           // 0x2A
    le32 mft_record_number;  // 0x2C: only where the update sequence array stands at 0x30
};

static_assert(sizeof(ntfs_mft_record_t) == 0x30);
static_assert(offsetof(ntfs_mft_record_t, attrs_offset) == 0x14);
static_assert(offsetof(ntfs_mft_record_t, bytes_in_use) == 0x18);
static_assert(offsetof(ntfs_mft_record_t, bytes_allocated) == 0x1C);
static_assert(offsetof(ntfs_mft_record_t, base_mft_record) == 0x20);
static_assert(offsetof(ntfs_mft_record_t, mft_record_number) == 0x2C);

/// The low 48 bits of a file reference are the record number.
inline constexpr std::uint64_t kRecordNumberMask = 0xFFFFFFFFFFFF;

/// The common header of an attribute record.
struct ntfs_attribute_record {
    le32 type;                 // 0x00
    le32 length;               // 0x04
    std::uint8_t non_resident; // 0x08
    std::uint8_t name_length;  // 0x09: in 16-bit characters
    le16 name_offset;          // 0x0A
    le16 flags;                // 0x0C
    le16 instance;             // 0x0E
};

static_assert(sizeof(ntfs_attribute_record) == 0x10);
static_assert(offsetof(ntfs_attribute_record, length) == 0x04);
static_assert(offsetof(ntfs_attribute_record, non_resident) == 0x08);
static_assert(offsetof(ntfs_attribute_record, name_length) == 0x09);
static_assert(offsetof(ntfs_attribute_record, name_offset) == 0x0A);

/// Where the form of an attribute begins, after the common header.
inline constexpr std::uint64_t kAttributeForm = 0x10;

/// The header of a resident attribute goes on like this.
struct ntfs_resident_form {
    le32 value_length;          // 0x10
    le16 value_offset;          // 0x14
    std::uint8_t resident_flag; // 0x16
    std::uint8_t reserved;      // 0x17
};

static_assert(sizeof(ntfs_resident_form) == 0x18 - kAttributeForm);
static_assert(offsetof(ntfs_resident_form, value_offset) == 0x14 - kAttributeForm);

/// The header of a non-resident attribute goes on like this.
struct ntfs_non_resident_form {
    le64 lowest_vcn;                      // 0x10
    le64 highest_vcn;                     // 0x18
    le16 mapping_pairs_offset;            // 0x20
    std::uint8_t compression_unit;        // 0x22
    std::array<std::uint8_t, 5> reserved; // 0x23
    le64 allocated_size;                  // 0x28
    le64 data_size;                       // 0x30
    le64 initialized_size;                // 0x38
};

static_assert(sizeof(ntfs_non_resident_form) == 0x40 - kAttributeForm);
static_assert(offsetof(ntfs_non_resident_form, highest_vcn) == 0x18 - kAttributeForm);
static_assert(offsetof(ntfs_non_resident_form, mapping_pairs_offset) == 0x20 - kAttributeForm);
static_assert(offsetof(ntfs_non_resident_form, data_size) == 0x30 - kAttributeForm);

/// The beginning of an entry of an attribute list.
struct ntfs_attr_list_entry {
    le32 type;   // 0x00
    le16 length; // 0x04
};

static_assert(sizeof(ntfs_attr_list_entry) == 6);
static_assert(offsetof(ntfs_attr_list_entry, length) == 0x04);

/// Where an attribute-list entry names the record that holds the attribute: a file reference.
inline constexpr std::uint64_t kListEntryReference = 0x10;

/// The header of a list of index entries; offsets are relative to the header itself.
struct ntfs_index_header {
    le32 entries_offset;                  // 0x00
    le32 index_length;                    // 0x04
    le32 allocated_size;                  // 0x08
    std::uint8_t flags;                   // 0x0C: bit 0, the node has children
    std::array<std::uint8_t, 3> reserved; // 0x0D
};

static_assert(sizeof(ntfs_index_header) == 0x10);
static_assert(offsetof(ntfs_index_header, index_length) == 0x04);
static_assert(offsetof(ntfs_index_header, allocated_size) == 0x08);
static_assert(offsetof(ntfs_index_header, flags) == 0x0C);

/// The value of an INDEX_ROOT attribute.
struct ntfs_index_root {
    le32 type;               // 0x00
    le32 collation_rule;     // 0x04
    le32 index_block_size;   // 0x08
    le32 clusters_per_block; // 0x0C
    ntfs_index_header index; // 0x10
};

static_assert(sizeof(ntfs_index_root) == 0x20);
static_assert(offsetof(ntfs_index_root, index_block_size) == 0x08);
static_assert(offsetof(ntfs_index_root, index) == 0x10);

/// The header of an index block, one node of an INDEX_ALLOCATION stream.
struct ntfs_index_allocation {
    ntfs_record header;      // 0x00
    le64 lsn;                // 0x08
    le64 index_block_vcn;    // 0x10
    ntfs_index_header index; // 0x18
};

static_assert(sizeof(ntfs_index_allocation) == 0x28);
static_assert(offsetof(ntfs_index_allocation, index_block_vcn) == 0x10);
static_assert(offsetof(ntfs_index_allocation, index) == 0x18);

/// In a file-name index, where an entry's name begins: its length, its namespace, then the characters.
inline constexpr std::uint64_t kEntryNameLength = 0x50;
inline constexpr std::uint64_t kEntryName = 0x52;

/// Flags of an index entry.
inline constexpr std::uint16_t kEntryHasChild = 1;
inline constexpr std::uint16_t kEntryIsLast = 2;

/// The header of an entry of the $SDS stream; the descriptor follows.
struct ntfs_sds_entry {
    le32 hash;        // 0x00
    le32 security_id; // 0x04
    le64 offset;      // 0x08: of this entry in the stream
    le32 length;      // 0x10
};

static_assert(sizeof(ntfs_sds_entry) == 0x14);
static_assert(offsetof(ntfs_sds_entry, offset) == 0x08);

/// Flag of an index block: it is not a leaf.
inline constexpr std::uint8_t kNodeHasChildren = 1;

} // namespace agent::core::fs
