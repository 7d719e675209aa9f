// MFT records: from a number to fixed-up bytes in memory.
#include "BoundedRead.h"
#include "ZeroedBuffer.h"
#include "agent/core/fs/FSUtil.h"
#include "agent/core/fs/NTFSParser.h"
#include "ntfs/NtfsLayout.h"
#include "ntfs/Shifts.h"
#include "ntfs/Walks.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string_view>

namespace agent::core::fs {

using agent::info::Level;
using agent::info::Logger;

namespace {

/// Update sequences protect 512 bytes each, whatever the sector size of the volume.
constexpr std::uint32_t kStride = 512;

/// What read_record and read_mft_record return.
enum RecordCode : int {
    kRecordGood = 0,
    kReadFailed = -638,
    kRecordShort = -642,
    kWrongMagic = -650,
    kFixupFailed = -654,
    kWrongNumber = -661,
};

/// Where the layout stands that carries the record's number.
constexpr std::uint16_t kNumberedLayout = 0x30;

constexpr std::string_view kTornMagic = "BAAD";

std::uint16_t word(std::uint8_t const* place) {
    le16 value{};
    std::memcpy(&value, place, sizeof value);
    return value.value();
}

} // namespace

int NTFSParser::read_record(unsigned long recordNumber, unsigned long byteOffset, void* buffer) const {
    Logger::Entry(logger, Level::Debug) << "Reading $MFT for inode " << recordNumber << " at offset " << byteOffset;
    unsigned long count = 0;
    if (fs_seek_read_aligned(logger, volume, blockSize, byteOffset, buffer, mftRecordSize, &count) != 0) {
        return kReadFailed;
    }
    if (count < mftRecordSize) {
        return kRecordShort;
    }
    auto const record = readAt<ntfs_mft_record_t>(recordBytes(buffer), 0);
    if (!record || record->header.magic.value() != kMagicFile) {
        Logger::Entry(logger, Level::Debug) << "MFT record " << recordNumber << " is invalid.";
        return kWrongMagic;
    }
    if (post_read_fixup(buffer, static_cast<unsigned>(count), mftRecordSize) != 0) {
        return kFixupFailed;
    }
    auto const fixed = readAt<ntfs_mft_record_t>(recordBytes(buffer), 0); // the fixup may have reached the header
    if (fixed->header.usa_offset.value() == kNumberedLayout && fixed->mft_record_number.value() != recordNumber) {
        return kWrongNumber;
    }
    return kRecordGood;
}

int NTFSParser::post_read_fixup(ntfs_record* record, unsigned int size) const {
    if (size == 0 || size % kStride != 0) {
        return -1;
    }
    auto* const bytes = reinterpret_cast<std::uint8_t*>(record);
    std::uint32_t const offset = record->usa_offset.value();
    std::uint32_t const strides = static_cast<std::uint16_t>(record->usa_count.value() - 1); // a count of 0 gives 65535
    if (offset % 2 != 0 || offset + 2 * strides > size || size / kStride != strides) {
        return -1;
    }
    if (offset + 2 * (strides + 1) > size) {
        return -1; // the last entry would lie past the record
    }
    auto const tail = [bytes](std::uint32_t stride) { return bytes + std::size_t{kStride} * (stride + 1) - 2; };
    std::uint16_t const sequence = word(bytes + offset);
    for (std::uint32_t i = 0; i < strides; ++i) {
        if (word(tail(i)) != sequence) {
            std::copy_n(kTornMagic.data(), kTornMagic.size(), bytes);
            return -1;
        }
    }
    for (std::uint32_t i = 0; i < strides; ++i) {
        std::memmove(tail(i), bytes + offset + std::size_t{2} * (i + 1), 2);
    }
    return 0;
}

int NTFSParser::post_read_fixup(void* buffer, unsigned int total, unsigned int recordSize) const {
    if (total != 0 && recordSize == 0) {
        return -1;
    }
    for (std::uint64_t start = 0; start < total; start += recordSize) {
        auto* const record = reinterpret_cast<ntfs_record*>(static_cast<std::uint8_t*>(buffer) + start);
        if (post_read_fixup(record, recordSize) != 0) {
            return -1;
        }
    }
    return 0;
}

int NTFSParser::read_mft_record(unsigned long recordNumber, void* buffer) const {
    std::uint32_t const clusterShift = log2Of(clusterSize());
    std::uint64_t const byteInMft = shiftLeft(recordNumber, log2Of(mftRecordSize));
    auto vcn = static_cast<long>(shiftRight(byteInMft, clusterShift));
    ntfs_runlist const run = runlist_from_vcn(get_mft_runlist(), vcn);
    std::uint64_t const offset = shiftLeft(static_cast<std::uint64_t>(run.lcn), clusterShift) + byteInMft -
                                 shiftLeft(static_cast<std::uint64_t>(vcn), clusterShift);
    return read_record(recordNumber, offset, buffer);
}

void NTFSParser::read_mft_record_throw(unsigned long recordNumber, void* buffer, std::string const& context) const {
    if (read_mft_record(recordNumber, buffer) == kRecordGood) {
        checkFileRecordConsistency(buffer, recordNumber);
        return;
    }
    std::string const number = std::to_string(recordNumber);
    throw std::runtime_error("Could not read MFT record " +
                             (context.empty() ? "for inode number " + number : number + " for " + context));
}

std::vector<ntfs_runlist> NTFSParser::get_mft_runlist() const {
    if (walks->mftRunlist) {
        // The attribute list of $MFT names a record whose place depends on this very answer.
        return directMftRuns();
    }
    struct Busy {
        bool& flag;
        explicit Busy(bool& busy) : flag(busy) { flag = true; }
        Busy(Busy const&) = delete;
        Busy& operator=(Busy const&) = delete;
        ~Busy() { flag = false; }
    } const busy(walks->mftRunlist);

    AttributeHits const hits = get_attributes(0, reinterpret_cast<ntfs_mft_record_t*>(mftRecord->data()), kData);
    if (hits.empty()) {
        return {};
    }
    auto const [holder, offset] = hits.front();
    // The kept record 0 is replaced by the extension record, on purpose.
    if (holder != 0 && read_mft_record(holder, mftRecord->data()) != kRecordGood) {
        return {};
    }
    return dataRuns(from(mftRecord->bytes(), static_cast<std::uint64_t>(offset)));
}

std::vector<ntfs_runlist> NTFSParser::directMftRuns() const {
    Bytes const record = mftRecord->bytes();
    auto const header = readAt<ntfs_mft_record_t>(record, 0);
    std::uint64_t offset = header ? header->attrs_offset.value() : record.size();
    while (auto const attribute = readAt<ntfs_attribute_record>(record, offset)) {
        std::uint32_t const length = attribute->length.value();
        if (attribute->type.value() == kData) {
            return dataRuns(record.subspan(offset));
        }
        if (attribute->type.value() > kData || length == 0) {
            break;
        }
        offset += length;
    }
    return {};
}

ntfs_runlist NTFSParser::runlist_from_vcn(std::vector<ntfs_runlist> const& runs, long& vcn) const {
    ntfs_runlist found{0, 0};
    long foundStart = vcn;
    long start = 0;
    for (ntfs_runlist const& run : runs) {
        auto const end = static_cast<long>(static_cast<std::uint64_t>(start) + static_cast<std::uint64_t>(run.length));
        if (run.lcn >= -1) { // lower values are markers: passed over, though their length counts
            found = run;
            foundStart = start;
            if (end > vcn) {
                break;
            }
        }
        start = end;
    }
    vcn = foundStart; // there is no failure: what no run holds is read where the last one would go on, and refused
    return found;
}

} // namespace agent::core::fs
