// Where the fields of NTFS records stand that are worth changing.
#pragma once

#include "Mutator.h"
#include "ntfs/NtfsLayout.h"

#include <algorithm>

namespace fuzz {

/// The entries of an index, from the list's header on: their headers and where their names begin.
inline void addEntryPlaces(Image const& image, std::uint64_t header, std::uint64_t end, std::vector<Place>& places) {
    using namespace agent::core::fs;
    places.push_back({header, sizeof(ntfs_index_header)});
    std::uint64_t entry = header + image.little(header, 4);
    for (int i = 0; i < 64 && entry + sizeof(ntfs_index_entry) <= end; ++i) {
        std::uint64_t const length = image.little(entry + offsetof(ntfs_index_entry, entry_length), 2);
        std::uint64_t const flags = image.little(entry + offsetof(ntfs_index_entry, flags), 2);
        places.push_back({entry, 16});
        if ((flags & kEntryHasChild) != 0 && length >= 24) {
            places.push_back({entry + length - 8, 8});
        }
        if ((flags & kEntryIsLast) != 0 || length < 16) {
            return;
        }
        places.push_back({entry + kEntryNameLength, 16});
        entry += length;
    }
}

/// The header of a record, and of each attribute what its kind turns on.
inline void addRecordPlaces(Image const& image, std::uint64_t record, std::uint64_t size, std::vector<Place>& places) {
    using namespace agent::core::fs;
    places.push_back({record, sizeof(ntfs_mft_record_t)});
    std::uint64_t offset = image.little(record + offsetof(ntfs_mft_record_t, attrs_offset), 2);
    while (offset + 0x18 <= size && image.little(record + offset, 4) != kEndOfAttributes) {
        std::uint64_t const attribute = record + offset;
        std::uint64_t const type = image.little(attribute, 4);
        std::uint64_t const length = std::min(image.little(attribute + 4, 4), size - offset);
        bool const isResident = image.little(attribute + 8, 1) == 0;
        places.push_back({attribute, isResident ? 0x18U : 0x40U});
        std::uint64_t const body = image.little(attribute + (isResident ? 0x14 : 0x20), 2);
        if (type != kFileName && body < length) {
            places.push_back({attribute + body, length - body}); // a value, or mapping pairs
        }
        if (type == kIndexRoot && isResident) {
            addEntryPlaces(image, attribute + body + offsetof(ntfs_index_root, index), record + size, places);
        }
        if (length == 0) {
            return;
        }
        offset += length;
    }
}

} // namespace fuzz
