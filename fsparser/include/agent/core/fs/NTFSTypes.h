/// @file
/// Types of the NTFS parser's operations.
#pragma once

#include "agent/core/fs/Endian.h"

#include <cstddef>
#include <cstdint>

namespace agent::core::fs {

/// Any multi-sector record with an update sequence array, as it stands on disk. Opaque: cast a pointer to the whole
/// record, 8 bytes at least.
struct ntfs_record;

/// An MFT record, as it stands on disk. Opaque: cast a pointer to as many bytes as the volume's records have (1024
/// mostly), 48 at least.
struct ntfs_mft_record_t;

/// An attribute in an MFT record, as it stands on disk. Opaque: cast a pointer to as many bytes as its length says, 16
/// at least.
struct ntfs_attribute_record;

/// An index block, as it stands on disk. Opaque: cast a pointer to the whole block, 40 bytes at least.
struct ntfs_index_allocation;

/// One run of a non-resident attribute. Runlists are vectors of runs in VCN order; the VCN of a run is the sum of the
/// lengths before it.
struct ntfs_runlist {
    std::int64_t lcn;    ///< first cluster; -1 marks a hole, lower values are special markers
    std::int64_t length; ///< clusters
};

/// Attribute types of NTFS: the numbers are those on disk, the names the format's own. In a record they ascend.
enum NtfsAttrTypes : std::uint32_t {
    kNoAttribute = 0,
    kStandardInformation = 0x10,
    kAttributeList = 0x20,
    kFileName = 0x30,
    kObjectId = 0x40,
    kSecurityDescriptor = 0x50,
    kVolumeName = 0x60,
    kVolumeInformation = 0x70,
    kData = 0x80,
    kIndexRoot = 0x90,
    kIndexAllocation = 0xA0,
    kBitmap = 0xB0,
    kReparsePoint = 0xC0,
    kEaInformation = 0xD0,
    kEa = 0xE0,
    kEndOfAttributes = 0xFFFFFFFF,
};

/// The beginning of an index entry: its header and the start of its key and data, as they stand on disk.
struct ntfs_index_entry {
    le64 file_reference; ///< 0x00: MFT record number in the low 48 bits; in $SII the data offset and data length
    le16 entry_length;   ///< 0x08: bytes, header and key included
    le16 key_length;     ///< 0x0A: bytes
    le16 flags;          ///< 0x0C: 1 the entry has a child node, 2 the last entry of its node
    le16 reserved;       ///< 0x0E
    le32 key;            ///< 0x10: in $SII the security identifier
    le32 data_hash;      ///< 0x14: in $SII the hash of the descriptor
    le32 data_id;        ///< 0x18: in $SII the security identifier again
    le64 sds_offset;     ///< 0x1C: in $SII the offset of the descriptor in $SDS
    le32 sds_length;     ///< 0x24: in $SII the length of the descriptor
};

static_assert(sizeof(ntfs_index_entry) == 40);
static_assert(offsetof(ntfs_index_entry, entry_length) == 0x08);
static_assert(offsetof(ntfs_index_entry, key_length) == 0x0A);
static_assert(offsetof(ntfs_index_entry, flags) == 0x0C);
static_assert(offsetof(ntfs_index_entry, key) == 0x10);
static_assert(offsetof(ntfs_index_entry, sds_offset) == 0x1C);
static_assert(offsetof(ntfs_index_entry, sds_length) == 0x24);

/// The first 72 bytes of a file's standard information, as they stand on disk. Times are in units of 100 ns since
/// 1601-01-01 00:00 UTC.
///
/// @code
/// agent::core::fs::NTFSParser parser(logger, 4096, volume);
/// auto const runs = parser.extents("\\readme.txt"); // loads the upcase table
/// agent::core::fs::ntfs_standard_information const info = parser.getStandardInfo("\\readme.txt");
/// std::uint64_t const written = info.last_data_change_time.value() / 10000000 - 11644473600;
/// use(written); // seconds since 1970
/// @endcode
struct ntfs_standard_information {
    le64 creation_time;         ///< 0x00
    le64 last_data_change_time; ///< 0x08
    le64 last_mft_change_time;  ///< 0x10
    le64 last_access_time;      ///< 0x18
    le32 file_attributes;       ///< 0x20
    le32 maximum_versions;      ///< 0x24
    le32 version_number;        ///< 0x28
    le32 class_id;              ///< 0x2C
    le32 owner_id;              ///< 0x30
    le32 security_id;           ///< 0x34
    le64 quota_charged;         ///< 0x38
    le64 usn;                   ///< 0x40
};

static_assert(sizeof(ntfs_standard_information) == 72);
static_assert(offsetof(ntfs_standard_information, file_attributes) == 0x20);
static_assert(offsetof(ntfs_standard_information, security_id) == 0x34);
static_assert(offsetof(ntfs_standard_information, usn) == 0x40);

} // namespace agent::core::fs
