// One MFT record as tests make it.
#include "support/NtfsRecord.h"

#include <algorithm>
#include <stdexcept>

namespace tests {

namespace {

std::uint32_t typeOf(NtfsBytes const& attribute) {
    return static_cast<std::uint32_t>(getNumber(attribute, 0, 4));
}

} // namespace

NtfsRecord::NtfsRecord(std::uint64_t number, std::uint32_t recordBytes, std::uint32_t clusterBytes)
    : storedNumber(static_cast<std::uint32_t>(number)),
      // System files have their number; the MFT itself has 1, as 0 would mean any.
      sequence(number == 0 || number > 15 ? std::uint16_t{1} : static_cast<std::uint16_t>(number)), number_(number),
      recordBytes_(recordBytes), clusterBytes_(clusterBytes) {}

NtfsRecord& NtfsRecord::add(NtfsBytes attribute) {
    putNumber(attribute, 0x0E, nextInstance_++, 2);
    auto const place = std::find_if(attributes.begin(), attributes.end(),
                                    [&attribute](NtfsBytes const& other) { return typeOf(other) > typeOf(attribute); });
    attributes.insert(place, std::move(attribute));
    return *this;
}

NtfsRecord& NtfsRecord::append(NtfsBytes attribute) {
    attributes.push_back(std::move(attribute));
    return *this;
}

NtfsRecord& NtfsRecord::resident(std::uint32_t type, std::u16string const& name, NtfsBytes const& value) {
    NtfsBytes attribute = ntfsResident(type, name, value);
    putNumber(attribute, 0x16, type == ntfs_type::kFileName ? 1 : 0, 1); // file names stand in an index
    return add(std::move(attribute));
}

NtfsRecord& NtfsRecord::nonResident(std::uint32_t type, std::u16string const& name, std::vector<NtfsRun> const& runs,
                                    std::optional<std::uint64_t> dataSize, std::int64_t lowestVcn) {
    std::int64_t clusters = 0;
    for (NtfsRun const& run : runs) {
        clusters += run.length;
    }
    std::uint64_t const allocated = static_cast<std::uint64_t>(clusters) * clusterBytes_;
    std::uint64_t const size = dataSize.value_or(allocated);
    return add(ntfsNonResident(type, name,
                               {ntfsMappingPairs(runs), lowestVcn, lowestVcn + clusters - 1, allocated, size, size}));
}

NtfsRecord& NtfsRecord::nonResidentRaw(std::uint32_t type, std::u16string const& name, NtfsBytes const& pairs,
                                       std::uint64_t dataSize, std::int64_t lowestVcn, std::int64_t highestVcn) {
    return add(ntfsNonResident(type, name, {pairs, lowestVcn, highestVcn, dataSize, dataSize, dataSize}));
}

NtfsRecord& NtfsRecord::attributeList(std::vector<NtfsListEntry> const& entries) {
    return resident(ntfs_type::kAttributeList, u"", ntfsAttributeList(entries));
}

NtfsRecord& NtfsRecord::remove(std::uint32_t type) {
    std::erase_if(attributes, [type](NtfsBytes const& attribute) { return typeOf(attribute) == type; });
    return *this;
}

NtfsRecord& NtfsRecord::clear() {
    attributes.clear();
    return *this;
}

std::uint64_t NtfsRecord::firstAttribute() const {
    return alignTo8(usaOffset + 2 * (recordBytes_ / 512 + 1));
}

std::uint64_t NtfsRecord::offsetOf(std::uint32_t type, std::size_t n) const {
    std::uint64_t offset = firstAttribute();
    for (NtfsBytes const& attribute : attributes) {
        if (typeOf(attribute) == type && n-- == 0) {
            return offset;
        }
        offset += attribute.size();
    }
    throw std::logic_error("the record has no such attribute");
}

NtfsBytes NtfsRecord::bytes() const {
    NtfsBytes record(recordBytes_);
    putNumber(record, 0x00, 0x454C4946, 4); // "FILE"
    putNumber(record, 0x04, usaOffset, 2);
    putNumber(record, 0x06, recordBytes_ / 512 + 1, 2);
    putNumber(record, 0x10, sequence, 2);
    putNumber(record, 0x12, 1, 2); // links
    putNumber(record, 0x14, firstAttribute(), 2);
    putNumber(record, 0x16, flags, 2);
    putNumber(record, 0x1C, recordBytes_, 4);
    putNumber(record, 0x20, baseReference, 8);
    putNumber(record, 0x28, nextInstance_, 2);
    if (usaOffset >= 0x30) {
        putNumber(record, 0x2C, storedNumber, 4);
    } else {
        putNumber(record, 0x28, 0, 2); // the array begins here
    }
    std::uint64_t offset = firstAttribute();
    for (NtfsBytes const& attribute : attributes) {
        if (offset + attribute.size() + 8 > record.size()) {
            throw std::logic_error("a record cannot hold its attributes");
        }
        std::copy(attribute.begin(), attribute.end(), record.begin() + static_cast<std::ptrdiff_t>(offset));
        offset += attribute.size();
    }
    putNumber(record, offset, 0xFFFFFFFF, 4); // end of attributes
    putNumber(record, 0x18, offset + 8, 4);   // bytes in use
    return record;
}

} // namespace tests
