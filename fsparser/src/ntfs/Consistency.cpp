// Checks of an MFT record and of its attribute headers.
#include "BoundedRead.h"
#include "agent/core/fs/NTFSParser.h"
#include "ntfs/NtfsLayout.h"

#include <array>
#include <charconv>
#include <stdexcept>

namespace agent::core::fs {

namespace {

std::string hexadecimal(std::uint64_t value) {
    std::array<char, 16> text{};
    auto const [end, error] = std::to_chars(text.data(), text.data() + text.size(), value, 16);
    static_cast<void>(error); // 16 digits hold any value
    return {text.data(), end};
}

[[noreturn]] void fail(std::string const& text) {
    throw std::runtime_error(text);
}

/// A message that ends with the record's number.
[[noreturn]] void failRecord(char const* text, std::uint64_t record) {
    fail(text + hexadecimal(record));
}

/// The least size of an attribute record: its resident header.
constexpr std::uint32_t kLeastAttribute = 24;

/// What is left of a record once its last attribute was passed: at least the end marker.
bool endsWithMarker(std::uint32_t remaining, std::optional<le32> type) {
    return remaining > 3 && type && type->value() == kEndOfAttributes;
}

bool nameEndsInside(ntfs_attribute_record const& header) {
    return header.name_offset.value() + 2U * header.name_length <= header.length.value();
}

/// The text for a type whose value is not what it must be.
char const* corruptValue(std::uint32_t type) {
    switch (type) {
    case kStandardInformation:
        return "Corrupt standard information in MFT record 0x";
    case kFileName:
        return "Corrupt file name attribute in MFT record 0x";
    case kObjectId:
        return "Corrupt object id in MFT record 0x";
    case kVolumeInformation:
        return "Corrupt volume information in MFT record 0x";
    case kIndexRoot:
        return "Corrupt index root in MFT record 0x";
    case kIndexAllocation:
        return "Corrupt index allocation in MFT record "; // no "0x" here, on purpose
    default:
        return nullptr;
    }
}

void checkNonResident(std::span<std::uint8_t const> attribute, ntfs_attribute_record const& header,
                      std::uint64_t record) {
    auto const form = readAt<ntfs_non_resident_form>(attribute, kAttributeForm);
    std::uint32_t const length = header.length.value();
    std::uint32_t const type = header.type.value();
    bool const sound =
        header.non_resident == 1 && length > 63 && form && form->mapping_pairs_offset.value() < length &&
        (header.name_length == 0 || nameEndsInside(header)) &&
        static_cast<std::int64_t>(form->highest_vcn.value()) >= static_cast<std::int64_t>(form->lowest_vcn.value());
    if (!sound) {
        // The type follows without a blank and without "0x", on purpose.
        fail("Corrupt non resident attribute" + hexadecimal(type) + " in MFT record 0x" + hexadecimal(record));
    }
    if (type == kVolumeName || type == kEaInformation) {
        fail("Attribute 0x" + hexadecimal(type) + " in MFT record 0x" + hexadecimal(record) + " should be resident");
    }
    if (type != kIndexAllocation && corruptValue(type) != nullptr) {
        failRecord(corruptValue(type), record);
    }
}

bool isFileNameSound(std::span<std::uint8_t const> value) {
    return value.size() > 65 && value[0x40] != 0 && 66 + 2U * value[0x40] <= value.size();
}

bool isIndexRootSound(std::span<std::uint8_t const> value) {
    if (value.size() <= 28) {
        return false;
    }
    // Field by field: the header's flags lie past what is asked of the value.
    constexpr std::uint64_t header = offsetof(ntfs_index_root, index);
    auto const entries = readAt<le32>(value, header + offsetof(ntfs_index_header, entries_offset))->value();
    auto const length = readAt<le32>(value, header + offsetof(ntfs_index_header, index_length))->value();
    auto const allocated = readAt<le32>(value, header + offsetof(ntfs_index_header, allocated_size))->value();
    return entries > 15 && entries <= length && length <= allocated &&
           value.size() >= std::uint64_t{allocated} + 13; // 13 on purpose
}

bool isValueSound(std::uint32_t type, std::span<std::uint8_t const> value) {
    switch (type) {
    case kStandardInformation:
        return value.size() >= 48;
    case kFileName:
        return isFileNameSound(value);
    case kObjectId:
        return value.size() >= 20;
    case kVolumeInformation:
        return value.size() >= 12;
    case kIndexRoot:
        return isIndexRootSound(value);
    case kIndexAllocation:
        return false; // it must be non-resident
    default:
        return true;
    }
}

void checkResident(std::span<std::uint8_t const> attribute, ntfs_attribute_record const& header, std::uint64_t record) {
    auto const form = readAt<ntfs_resident_form>(attribute, kAttributeForm);
    std::uint32_t const length = header.length.value();
    std::uint32_t const type = header.type.value();
    std::uint32_t const valueLength = form ? form->value_length.value() : 0;
    std::uint32_t const valueOffset = form ? form->value_offset.value() : 0;
    bool const sound = length > 23 && form && valueLength < 0x1000000 &&
                       (valueLength == 0 || valueOffset + valueLength <= length) &&
                       nameEndsInside(header) && // also when there is none, on purpose
                       (valueLength == 0 || holds(attribute, valueOffset, valueLength));
    if (!sound) {
        fail("Corrupt resident attribute 0x" + hexadecimal(type) + " in MFT record 0x" + hexadecimal(record));
    }
    std::span<std::uint8_t const> const value =
        valueLength == 0 ? attribute.first(0) : attribute.subspan(valueOffset, valueLength);
    if (!isValueSound(type, value)) {
        failRecord(corruptValue(type), record);
    }
}

} // namespace

void NTFSParser::checkFileRecordConsistency(void* record, unsigned long reference) const {
    if (record == nullptr) {
        fail("Invalid record buffer.");
    }
    std::uint64_t const number = reference & kRecordNumberMask;
    Bytes const bytes = recordBytes(record);
    auto const header = readAt<ntfs_mft_record_t>(bytes, 0);
    if (!header || header->header.magic.value() != kMagicFile) {
        fail("MFT Record 0x" + hexadecimal(number) + " has invalid file magic");
    }
    std::uint32_t const allocated = header->bytes_allocated.value();
    std::uint32_t const inUse = header->bytes_in_use.value();
    std::uint16_t offset = header->attrs_offset.value();
    if (allocated != mftRecordSize) {
        fail("Record 0x" + hexadecimal(number) + " has invalid size: 0x" + hexadecimal(allocated));
    }
    if (allocated < inUse) {
        fail("Record 0x" + hexadecimal(number) + " has invalid BytesInUse: 0x" + hexadecimal(inUse));
    }
    if (offset % 8 != 0) {
        fail("Incorrect attribute alignedment for record 0x" + hexadecimal(number) + ". Attribute offset: 0x" +
             hexadecimal(offset));
    }
    if (offset > allocated) {
        fail("Record 0x" + hexadecimal(number) + " is corrupt.");
    }
    std::uint32_t remaining = inUse - offset; // wraps when the attributes begin past the bytes in use
    auto type = readAt<le32>(bytes, offset);
    if (remaining < kLeastAttribute) {
        if (!endsWithMarker(remaining, type)) {
            failRecord("Bad end of record for 0x", number);
        }
        return;
    }
    std::uint32_t previous = kStandardInformation; // the lowest type there is
    while (true) {
        if (type && type->value() == kEndOfAttributes) {
            return;
        }
        if (!type || type->value() < previous) { // types must not decrease; equal ones are allowed
            failRecord("Bad end of record for 0x", number);
        }
        previous = type->value();
        auto const attribute = readAt<ntfs_attribute_record>(bytes, offset);
        std::uint32_t const length = attribute ? attribute->length.value() : 0;
        if (!attribute || length > remaining || length % 8 != 0 || !holds(bytes, offset, length)) {
            failRecord("Corrupt MFT record 0x", number);
        }
        checkAttribute(bytes.subspan(offset), reference);
        offset = static_cast<std::uint16_t>(offset + length); // kept to 16 bits, on purpose
        remaining -= length;
        type = readAt<le32>(bytes, offset);
        if (remaining < kLeastAttribute) {
            if (!endsWithMarker(remaining, type)) {
                failRecord("Bad end of record for 0x", number);
            }
            return;
        }
    }
}

void NTFSParser::checkAttributeConsistency(void* attribute, unsigned long reference) const {
    if (attribute == nullptr) {
        fail("Invalid attribute record buffer.");
    }
    // Alone, an attribute is as long as it says itself.
    std::uint32_t const length = static_cast<ntfs_attribute_record const*>(attribute)->length.value();
    checkAttribute({static_cast<std::uint8_t const*>(attribute), std::max<std::size_t>(length, kAttributeForm)},
                   reference);
}

void NTFSParser::checkAttribute(Bytes attribute, unsigned long reference) const {
    std::uint64_t const record = reference & kRecordNumberMask;
    auto const header = readAt<ntfs_attribute_record>(attribute, 0);
    if (!header) {
        failRecord("Corrupt MFT record 0x", record);
    }
    if (header->non_resident != 0) {
        checkNonResident(attribute, *header, record);
    } else {
        checkResident(attribute, *header, record);
    }
}

} // namespace agent::core::fs
