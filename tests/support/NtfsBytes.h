// Bytes of NTFS structures for tests: integers in place, update sequences, mapping pairs, attributes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace tests {

using NtfsBytes = std::vector<std::uint8_t>;

/// A run as the tests give it: first cluster (-1 is a hole, which takes no offset field) and number of clusters.
struct NtfsRun {
    std::int64_t lcn;
    std::int64_t length;

    bool operator==(NtfsRun const&) const = default;
};

/// Attribute types, as stored.
namespace ntfs_type {
inline constexpr std::uint32_t kStandardInformation = 0x10;
inline constexpr std::uint32_t kAttributeList = 0x20;
inline constexpr std::uint32_t kFileName = 0x30;
inline constexpr std::uint32_t kVolumeName = 0x60;
inline constexpr std::uint32_t kVolumeInformation = 0x70;
inline constexpr std::uint32_t kData = 0x80;
inline constexpr std::uint32_t kIndexRoot = 0x90;
inline constexpr std::uint32_t kIndexAllocation = 0xA0;
inline constexpr std::uint32_t kBitmap = 0xB0;
} // namespace ntfs_type

/// Writes an integer of `width` bytes, lowest byte first; the bytes must be there.
void putNumber(std::span<std::uint8_t> bytes, std::uint64_t offset, std::uint64_t value, std::size_t width);

/// Reads one.
std::uint64_t getNumber(std::span<std::uint8_t const> bytes, std::uint64_t offset, std::size_t width);

constexpr std::uint64_t alignTo8(std::uint64_t size) {
    return (size + 7) / 8 * 8;
}

/// Puts the update sequence number at the end of each 512 bytes and keeps what stood there in the array, whose place
/// and length the record's header tells.
void ntfsProtect(std::span<std::uint8_t> record, std::uint16_t sequence = 0x0102);

/// Puts back what ntfsProtect() kept.
void ntfsUnprotect(std::span<std::uint8_t> record);

/// Mapping pairs in the fewest bytes, with the end mark.
NtfsBytes ntfsMappingPairs(std::vector<NtfsRun> const& runs);

/// A resident attribute, name before value.
NtfsBytes ntfsResident(std::uint32_t type, std::u16string const& name, NtfsBytes const& value);

/// What a non-resident attribute holds besides its type and name.
struct NtfsNonResident {
    NtfsBytes pairs;               ///< as stored, with an end mark or without
    std::int64_t lowestVcn = 0;    ///< not 0 in extension records
    std::int64_t highestVcn = 0;   ///< the last one, so -1 where there is none
    std::uint64_t allocated = 0;   ///< bytes
    std::uint64_t dataSize = 0;    ///< bytes
    std::uint64_t initialized = 0; ///< bytes
};

/// A non-resident attribute, name before mapping pairs.
NtfsBytes ntfsNonResident(std::uint32_t type, std::u16string const& name, NtfsNonResident const& content);

/// One entry of an attribute list.
struct NtfsListEntry {
    std::uint32_t type;
    std::uint64_t reference; ///< of the record that holds the attribute
    std::uint64_t lowestVcn = 0;
    std::u16string name;
};

/// The value of an attribute list.
NtfsBytes ntfsAttributeList(std::vector<NtfsListEntry> const& entries);

/// The value of a standard information of 72 bytes, all times alike.
NtfsBytes ntfsStandardInformation(std::uint32_t securityId = 0, std::uint32_t fileAttributes = 0x06);

/// The value of a file name.
NtfsBytes ntfsFileName(std::uint64_t parentReference, std::u16string const& name, std::uint8_t nameSpace = 1);

/// Two bytes a character.
NtfsBytes ntfsText(std::u16string const& text);

} // namespace tests
