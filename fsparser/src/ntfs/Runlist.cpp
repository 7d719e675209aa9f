// Mapping pairs, and the runs of a file's data.
#include "ntfs/Runlist.h"
#include "BoundedRead.h"
#include "ZeroedBuffer.h"
#include "agent/core/fs/NTFSParser.h"
#include "ntfs/NtfsLayout.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace agent::core::fs {

using agent::info::Level;
using agent::info::Logger;

namespace {

constexpr unsigned long kNotFound = std::numeric_limits<unsigned long>::max();

/// Mapping pairs of an attribute: the bytes from the attribute on, and where the pairs begin and end among them.
struct MappingPairs {
    std::span<std::uint8_t const> bytes;
    std::uint64_t begin;
    std::uint64_t end;
};

MappingPairs locate(std::span<std::uint8_t const> attribute) {
    auto const header = readAt<ntfs_attribute_record>(attribute, 0);
    auto const offset =
        readAt<le16>(attribute, kAttributeForm + offsetof(ntfs_non_resident_form, mapping_pairs_offset));
    if (!header || !offset || offset->value() > header->length.value()) {
        throw std::runtime_error("No run list can be found");
    }
    return {attribute, offset->value(), header->length.value()};
}

/// The little-endian signed number of `size` bytes (at least 1) that begins at `first`; of more than eight bytes the
/// upper ones shift out. The bytes must be at hand.
std::int64_t signedNumber(std::span<std::uint8_t const> bytes, std::uint64_t first, std::uint32_t size) {
    // The sign is extended.
    std::int64_t const top = static_cast<std::int8_t>(bytes[first + size - 1]); // NOLINT(bugprone-signed-char-misuse)
    auto value = static_cast<std::uint64_t>(top);
    for (std::uint32_t i = size - 1; i-- > 0;) {
        value = (value << 8) | bytes[first + i];
    }
    return static_cast<std::int64_t>(value);
}

std::int64_t wrappingSum(std::int64_t left, std::int64_t right) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(left) + static_cast<std::uint64_t>(right));
}

/// Decodes the pair at `place`, whose header is not 0; `previous` is the cluster of the run before.
ntfs_runlist decodePair(MappingPairs const& pairs, std::uint64_t place, std::int64_t previous) {
    std::uint32_t const lengthSize = pairs.bytes[place] & 0x0FU;
    std::uint32_t const offsetSize = pairs.bytes[place] >> 4;
    if (lengthSize == 0) {
        return {-1, -1}; // without reading any field
    }
    if (place + lengthSize > pairs.end || !holds(pairs.bytes, place + 1, lengthSize)) {
        throw std::runtime_error("Invalid runlist");
    }
    std::int64_t const length = signedNumber(pairs.bytes, place + 1, lengthSize);
    if (place + lengthSize + offsetSize > pairs.end || !holds(pairs.bytes, place + 1 + lengthSize, offsetSize)) {
        throw std::runtime_error("Corrupt runlist");
    }
    // Without an offset field the last byte of the length is the delta, on purpose: sparse runs are not holes.
    std::int64_t const delta = offsetSize == 0 ? signedNumber(pairs.bytes, place + lengthSize, 1)
                                               : signedNumber(pairs.bytes, place + 1 + lengthSize, offsetSize);
    return {wrappingSum(previous, delta), length};
}

std::uint64_t pairSize(std::uint8_t header) {
    return 1U + (header & 0x0FU) + (header >> 4U);
}

} // namespace

std::vector<ntfs_runlist> decodeMappingPairs(std::span<std::uint8_t const> attribute) {
    MappingPairs const pairs = locate(attribute);
    std::vector<ntfs_runlist> runs;
    std::uint64_t place = pairs.begin;
    while (place < pairs.end) {
        if (place >= pairs.bytes.size()) {
            throw std::runtime_error("Invalid runlist"); // the attribute is cut off
        }
        std::uint8_t const header = pairs.bytes[place];
        if (header == 0) {
            break;
        }
        runs.push_back(decodePair(pairs, place, runs.empty() ? 0 : runs.back().lcn));
        place += pairSize(header);
    }
    return runs;
}

unsigned int NTFSParser::get_no_runlist(ntfs_attribute_record const* attribute) const {
    std::size_t const length = attribute->length.value();
    Bytes const bytes{reinterpret_cast<std::uint8_t const*>(attribute), std::max(length, sizeof *attribute)};
    auto const begin = readAt<le16>(bytes, kAttributeForm + offsetof(ntfs_non_resident_form, mapping_pairs_offset));
    unsigned int entries = 0;
    for (std::uint64_t place = begin ? begin->value() : length; place < length && bytes[place] != 0;
         place += pairSize(bytes[place])) {
        ++entries;
    }
    return entries;
}

std::vector<ntfs_runlist> NTFSParser::get_run_list(ntfs_attribute_record const* attribute) const {
    std::size_t const length = attribute->length.value();
    return decodeMappingPairs({reinterpret_cast<std::uint8_t const*>(attribute), std::max(length, sizeof *attribute)});
}

std::vector<ntfs_runlist> NTFSParser::get_data_runs(ntfs_attribute_record const* attribute) const {
    std::size_t const length = attribute->length.value();
    return dataRuns({reinterpret_cast<std::uint8_t const*>(attribute), std::max(length, sizeof *attribute)});
}

std::vector<ntfs_runlist> NTFSParser::dataRuns(Bytes attribute) const {
    auto const header = readAt<ntfs_attribute_record>(attribute, 0);
    if (header && header->non_resident == 0) {
        Logger::Entry(logger, Level::Debug) << "Attribute is resident. Can't find data-runs.";
        return {};
    }
    return decodeMappingPairs(attribute);
}

std::vector<ntfs_runlist> NTFSParser::get_inode_runlist(unsigned long recordNumber) const {
    ZeroedBuffer buffer(mftRecordSize);
    if (read_mft_record(recordNumber, buffer.data()) != 0) {
        Logger::Entry(logger, Level::Debug) << "Unable to read inode " << recordNumber;
        return {};
    }
    auto* const record = reinterpret_cast<ntfs_mft_record_t*>(buffer.data());
    AttributeHits hits = get_attributes(recordNumber, record, kData);
    // The list's own runs are decoded like those of data, on purpose.
    AttributeHits const lists = get_attributes(recordNumber, record, kAttributeList);
    hits.insert(hits.end(), lists.begin(), lists.end());

    std::vector<ntfs_runlist> runs;
    unsigned long current = recordNumber;
    for (auto const& [holder, offset] : hits) {
        if (holder != current) {
            if (read_mft_record(holder, buffer.data()) != 0) {
                Logger::Entry(logger, Level::Debug) << "Unable to read inode " << holder;
                return runs;
            }
            current = holder;
        }
        std::vector<ntfs_runlist> const more = dataRuns(from(buffer.bytes(), static_cast<std::uint64_t>(offset)));
        runs.insert(runs.end(), more.begin(), more.end());
    }
    return runs;
}

std::vector<agent::BlockRange> NTFSParser::runs_to_blockRange(std::vector<ntfs_runlist> const& runs) const {
    std::vector<agent::BlockRange> ranges;
    ranges.reserve(runs.size());
    for (ntfs_runlist const& run : runs) {
        ranges.push_back({run.lcn, run.length});
    }
    return ranges;
}

std::vector<agent::BlockRange> NTFSParser::extents(unsigned long recordNumber) {
    if (recordNumber == kNotFound) {
        return {};
    }
    std::vector<agent::BlockRange> ranges = runs_to_blockRange(get_inode_runlist(recordNumber));
    std::sort(ranges.begin(), ranges.end());
    return ranges;
}

} // namespace agent::core::fs
