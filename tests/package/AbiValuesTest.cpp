// The numbers that the exported headers put into the programs compiled with them: the places of fields in plain
// structures, and the values of enumerators.
#include "AbiHeaders.h"

#include "agent/core/fs/HFSTypes.h"
#include "agent/core/fs/IFileSystemType.h"
#include "agent/core/fs/NTFSSecurity.h"
#include "agent/core/fs/NTFSTypes.h"
#include "agent/core/fs/XFSParser.h"
#include "agent/info/Logger.h"
#include "support/NtfsAccess.h"

#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using namespace agent::core::fs;
using agent::info::Level;
using tests::NtfsAccess;

/// Where a field stands, and how many bytes it takes.
struct Place {
    char const* name;
    std::size_t offset;
    std::size_t width;
};

/// Expects that the fields follow one another from byte 0 on without a gap, up to the structure's end.
void expectPacked(std::vector<Place> const& fields, std::vector<std::size_t> const& offsets, std::size_t size) {
    ASSERT_EQ(fields.size(), offsets.size());
    for (std::size_t i = 0; i < fields.size(); ++i) {
        EXPECT_EQ(fields[i].offset, offsets[i]) << fields[i].name;
        std::size_t const next = i + 1 < offsets.size() ? offsets[i + 1] : size;
        EXPECT_EQ(fields[i].width, next - offsets[i]) << fields[i].name;
    }
}

TEST(Places, OfAStandardInformation) {
    using Info = ntfs_standard_information;
    expectPacked({{"creation", offsetof(Info, creation_time), sizeof(Info::creation_time)},
                  {"modification", offsetof(Info, last_data_change_time), sizeof(Info::last_data_change_time)},
                  {"change of the record", offsetof(Info, last_mft_change_time), sizeof(Info::last_mft_change_time)},
                  {"last access", offsetof(Info, last_access_time), sizeof(Info::last_access_time)},
                  {"attributes", offsetof(Info, file_attributes), sizeof(Info::file_attributes)},
                  {"maximum versions", offsetof(Info, maximum_versions), sizeof(Info::maximum_versions)},
                  {"version number", offsetof(Info, version_number), sizeof(Info::version_number)},
                  {"class", offsetof(Info, class_id), sizeof(Info::class_id)},
                  {"owner", offsetof(Info, owner_id), sizeof(Info::owner_id)},
                  {"security identifier", offsetof(Info, security_id), sizeof(Info::security_id)},
                  {"quota", offsetof(Info, quota_charged), sizeof(Info::quota_charged)},
                  {"sequence number", offsetof(Info, usn), sizeof(Info::usn)}},
                 {0x00, 0x08, 0x10, 0x18, 0x20, 0x24, 0x28, 0x2C, 0x30, 0x34, 0x38, 0x40}, 72);
    EXPECT_EQ(sizeof(Info), 72U);
}

TEST(Places, OfAnIndexEntry) {
    using Entry = ntfs_index_entry;
    expectPacked({{"reference", offsetof(Entry, file_reference), sizeof(Entry::file_reference)},
                  {"length", offsetof(Entry, entry_length), sizeof(Entry::entry_length)},
                  {"length of the key", offsetof(Entry, key_length), sizeof(Entry::key_length)},
                  {"flags", offsetof(Entry, flags), sizeof(Entry::flags)},
                  {"reserved", offsetof(Entry, reserved), sizeof(Entry::reserved)},
                  {"key", offsetof(Entry, key), sizeof(Entry::key)},
                  {"hash", offsetof(Entry, data_hash), sizeof(Entry::data_hash)},
                  {"identifier", offsetof(Entry, data_id), sizeof(Entry::data_id)},
                  {"offset in $SDS", offsetof(Entry, sds_offset), sizeof(Entry::sds_offset)},
                  {"length in $SDS", offsetof(Entry, sds_length), sizeof(Entry::sds_length)}},
                 {0x00, 0x08, 0x0A, 0x0C, 0x0E, 0x10, 0x14, 0x18, 0x1C, 0x24}, 40);
    EXPECT_EQ(sizeof(Entry), 40U);
}

TEST(Places, OfASecurityDescriptor) {
    using Descriptor = security_descriptor;
    expectPacked({{"revision", offsetof(Descriptor, revision), sizeof(Descriptor::revision)},
                  {"alignment", offsetof(Descriptor, alignment), sizeof(Descriptor::alignment)},
                  {"control", offsetof(Descriptor, control), sizeof(Descriptor::control)},
                  {"owner", offsetof(Descriptor, owner), sizeof(Descriptor::owner)},
                  {"group", offsetof(Descriptor, group), sizeof(Descriptor::group)},
                  {"system list", offsetof(Descriptor, sacl), sizeof(Descriptor::sacl)},
                  {"discretionary list", offsetof(Descriptor, dacl), sizeof(Descriptor::dacl)}},
                 {0x00, 0x01, 0x02, 0x04, 0x08, 0x0C, 0x10}, 20);
    EXPECT_EQ(sizeof(Descriptor), 20U);
}

TEST(Places, OfAListOfAccess) {
    expectPacked({{"revision", offsetof(security_acl, revision), sizeof(security_acl::revision)},
                  {"alignment", offsetof(security_acl, alignment1), sizeof(security_acl::alignment1)},
                  {"size", offsetof(security_acl, size), sizeof(security_acl::size)},
                  {"entries", offsetof(security_acl, ace_count), sizeof(security_acl::ace_count)},
                  {"alignment", offsetof(security_acl, alignment2), sizeof(security_acl::alignment2)}},
                 {0x00, 0x01, 0x02, 0x04, 0x06}, 8);
    EXPECT_EQ(sizeof(security_acl), 8U);
}

TEST(Places, OfAnIdentifier) {
    expectPacked({{"revision", offsetof(_SID, revision), sizeof(_SID::revision)},
                  {"count", offsetof(_SID, sub_authority_count), sizeof(_SID::sub_authority_count)},
                  {"authority", offsetof(_SID, identifier_authority), sizeof(_SID::identifier_authority)},
                  {"sub-authorities", offsetof(_SID, sub_authority), sizeof(_SID::sub_authority)}},
                 {0x00, 0x01, 0x02, 0x08}, 8 + 15 * 4);
}

TEST(Places, OfAnHfsVolumeHeader) {
    using Header = HFSPlusVolumeHeader;
    using Fork = HFSPlusForkData;
    EXPECT_EQ(offsetof(Header, signature), 0U);
    EXPECT_EQ(offsetof(Header, blockSize), 40U);
    EXPECT_EQ(offsetof(Header, totalBlocks), 44U);
    EXPECT_EQ(offsetof(Header, allocationFile), 112U);
    EXPECT_EQ(offsetof(Header, extentsFile), 192U);
    EXPECT_EQ(sizeof(Header), 512U);
    expectPacked({{"size", offsetof(Fork, logicalSize), sizeof(Fork::logicalSize)},
                  {"clump size", offsetof(Fork, clumpSize), sizeof(Fork::clumpSize)},
                  {"blocks", offsetof(Fork, totalBlocks), sizeof(Fork::totalBlocks)},
                  {"extents", offsetof(Fork, extents), sizeof(Fork::extents)}},
                 {0, 8, 12, 16}, 80);
    EXPECT_EQ(offsetof(HFSPlusExtentDescriptor, startBlock), 0U);
    EXPECT_EQ(offsetof(HFSPlusExtentDescriptor, blockCount), 4U);
    EXPECT_EQ(sizeof(HFSPlusExtentDescriptor), 8U);
}

/// An enumerator and the number that it stands for.
template <typename Enum>
struct Value {
    Enum enumerator;
    std::underlying_type_t<Enum> number;
};

template <typename Enum>
void expectValues(std::vector<Value<Enum>> const& values) {
    for (Value<Enum> const& value : values) {
        // As numbers: a byte would be printed as a character.
        EXPECT_EQ(+static_cast<std::underlying_type_t<Enum>>(value.enumerator), +value.number);
    }
}

TEST(Values, OfTheLevels) {
    expectValues<Level>({{Level::Error, 1}, {Level::Warning, 2}, {Level::Debug, 4}});
    EXPECT_EQ(sizeof(Level), 4U);
}

TEST(Values, OfTheFileSystems) {
    expectValues<FileSystemCode>({{kUnrecognized, 0}, {kNtfs, 1}, {kFat32, 2}, {kExt, 3}, {kHfsPlus, 4}, {kXfs, 5}});
    EXPECT_EQ(sizeof(FileSystemCode), sizeof(int)) << "what the detector returns";
}

TEST(Values, OfTheTypesOfAttributes) {
    expectValues<NtfsAttrTypes>({{kNoAttribute, 0},
                                 {kStandardInformation, 0x10},
                                 {kAttributeList, 0x20},
                                 {kFileName, 0x30},
                                 {kObjectId, 0x40},
                                 {kSecurityDescriptor, 0x50},
                                 {kVolumeName, 0x60},
                                 {kVolumeInformation, 0x70},
                                 {kData, 0x80},
                                 {kIndexRoot, 0x90},
                                 {kIndexAllocation, 0xA0},
                                 {kBitmap, 0xB0},
                                 {kReparsePoint, 0xC0},
                                 {kEaInformation, 0xD0},
                                 {kEa, 0xE0},
                                 {kEndOfAttributes, 0xFFFFFFFF}});
    EXPECT_EQ(sizeof(NtfsAttrTypes), 4U) << "as on disk";
}

TEST(Values, OfTheTypesOfAccessControlEntries) {
    expectValues<AceTypes>({{kAccessAllowed, 0},
                            {kAccessDenied, 1},
                            {kSystemAudit, 2},
                            {kSystemAlarm, 3},
                            {kAccessAllowedCompound, 4},
                            {kAccessAllowedObject, 5},
                            {kAccessDeniedObject, 6},
                            {kSystemAuditObject, 7},
                            {kSystemAlarmObject, 8},
                            {kAccessAllowedCallback, 9},
                            {kAccessDeniedCallback, 10},
                            {kAccessAllowedCallbackObject, 11},
                            {kAccessDeniedCallbackObject, 12},
                            {kSystemAuditCallback, 13},
                            {kSystemAlarmCallback, 14},
                            {kSystemAuditCallbackObject, 15}});
    EXPECT_EQ(sizeof(AceTypes), 1U) << "as on disk";
}

TEST(Values, OfTheFlagsOfAccessControlEntries) {
    expectValues<AceFlags>({{kAuditSuccessfulAccess, 0x40}, {kAuditFailedAccess, 0x80}});
    EXPECT_EQ(sizeof(AceFlags), 1U) << "as on disk";
}

TEST(Values, OfTheKindsOfBuffers) {
    using Type = NtfsAccess::BufferType;
    expectValues<Type>({{Type::Bytes, 0}, {Type::Units16, 1}});
    EXPECT_EQ(sizeof(Type), 4U);
}

/// The headers' enumerations, one test above for each.
TEST(Values, OfNoOtherEnumeration) {
    std::set<std::string> const tested{"AceFlags",       "AceTypes", "BufferType",
                                       "FileSystemCode", "Level",    "NtfsAttrTypes"};
    EXPECT_EQ(tests::enumerationsOfExportedHeaders(), tested);
}

} // namespace
