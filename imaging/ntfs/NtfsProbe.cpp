// Asking the parser's own operations.
#include "imaging/ntfs/NtfsProbe.h"

#include <stdexcept>

namespace imaging::ntfs {

using agent::core::fs::ntfs_mft_record_t;

namespace {

/// Where an attribute has the length of its name.
constexpr std::size_t kNameLength = 0x09;

} // namespace

Probe::Attributes Probe::attributesOf(unsigned long record, agent::core::fs::NtfsAttrTypes type,
                                      Boot const& boot) const {
    std::vector<std::uint8_t> buffer(boot.recordSize());
    if (read_mft_record(record, buffer.data()) != 0) {
        throw std::runtime_error("Could not read MFT record " + std::to_string(record));
    }
    AttributeHits const hits = get_attributes(record, reinterpret_cast<ntfs_mft_record_t*>(buffer.data()), type);
    Attributes result;
    for (auto const& [holder, offset] : hits) {
        auto const attribute = buffer.cbegin() + (holder == record ? offset : 0);
        if (holder == record && attribute[kNameLength] != 0) {
            continue;
        }
        if (holder == record && result.count == 0) {
            result.first.assign(attribute, buffer.cend());
        }
        ++result.count;
    }
    return result;
}

} // namespace imaging::ntfs
