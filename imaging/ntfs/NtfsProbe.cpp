// Asking the parser's own operations.
#include "imaging/ntfs/NtfsProbe.h"

#include <stdexcept>

namespace imaging::ntfs {

using agent::core::fs::ntfs_mft_record_t;

Probe::Attributes Probe::attributesOf(unsigned long record, agent::core::fs::NtfsAttrTypes type,
                                      Boot const& boot) const {
    std::vector<std::uint8_t> buffer(boot.recordSize());
    if (read_mft_record(record, buffer.data()) != 0) {
        throw std::runtime_error("Could not read MFT record " + std::to_string(record));
    }
    AttributeHits const hits = get_attributes(record, reinterpret_cast<ntfs_mft_record_t*>(buffer.data()), type);
    Attributes result{hits.size()};
    if (!hits.empty() && hits.front().first == record) {
        result.first.assign(buffer.begin() + hits.front().second, buffer.end());
    }
    return result;
}

} // namespace imaging::ntfs
