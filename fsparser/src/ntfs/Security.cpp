// Access-control lists of files: the $SDS stream, its index, and the way from a path to a descriptor.
#include "BoundedRead.h"
#include "ZeroedBuffer.h"
#include "agent/core/fs/NTFSParser.h"
#include "ntfs/BoundedSecurity.h"
#include "ntfs/NtfsLayout.h"

#include <stdexcept>

namespace agent::core::fs {

using agent::info::Level;
using agent::info::Logger;

namespace {

constexpr unsigned long kSecureRecord = 9;
constexpr char const* kSecureName = "$Secure";

/// The collation rule of the index by security identifier.
constexpr unsigned int kSecurityIdKey = 16;

} // namespace

std::vector<NTFS_ACL> NTFSParser::readACLFromFile(std::string const& path) {
    Logger::Entry(logger, Level::Debug) << "Reading ACLs for \"" << path << "\"...";
    read_upcase();
    readSDS();
    try {
        unsigned int const identifier = getStandardInfo(path).security_id.value();
        ntfs_index_entry const entry = btree_lookup(kSecureRecord, BTreeKey{&identifier, kSecurityIdKey});
        return getACLFromSDS(entry.sds_offset.value());
    } catch (std::exception const& error) {
        throw std::runtime_error("Failed to read ACLs for \"" + path + "\": " + error.what());
    }
}

void NTFSParser::readSDS() {
    if (!sds.empty()) {
        return;
    }
    ZeroedBuffer record(mftRecordSize);
    read_mft_record_throw(kSecureRecord, record.data(), kSecureName);
    AttributeHits const hits =
        get_attributes(kSecureRecord, reinterpret_cast<ntfs_mft_record_t*>(record.data()), kData);
    if (hits.empty()) {
        throw std::runtime_error(std::string("Could not find AtData for file ") + kSecureName);
    }
    // All data attributes, whatever their names, on purpose.
    std::vector<ntfs_runlist> runs;
    unsigned long current = kSecureRecord;
    for (auto const& [holder, offset] : hits) {
        if (holder != current) {
            read_mft_record_throw(holder, record.data(), kSecureName);
            current = holder;
        }
        std::vector<ntfs_runlist> const more = dataRuns(from(record.bytes(), static_cast<std::uint64_t>(offset)));
        runs.insert(runs.end(), more.begin(), more.end());
    }
    std::uint64_t size = 0;
    for (ntfs_runlist const& run : runs) {
        size += static_cast<std::uint64_t>(run.length) * clusterSize();
    }
    if (size > volumeBytes()) {
        throw std::runtime_error("Unable to read SDS entry"); // runs that overlap, or that the volume cannot hold
    }
    sds.resize(size);
    // A failure leaves the stream as far as it was read, and a later call uses that as it stands; on purpose.
    readRuns(sds, runs, BufferType::Bytes, "Unable to read SDS entry");
}

void NTFSParser::clearSDS() {
    decltype(sds)().swap(sds); // its memory goes, too
}

std::vector<NTFS_ACL> NTFSParser::getACLFromSDS(unsigned long offset) const {
    Bytes const stream = sds;
    std::string const where = "Given $SDS offset " + std::to_string(offset);
    // Only a greater offset is refused here, on purpose; and the entry's own length is not looked at.
    if (offset > stream.size()) {
        throw std::runtime_error(where + " exceeds length of $SDS data, which is " + std::to_string(stream.size()));
    }
    auto const header = readAt<ntfs_sds_entry>(stream, offset);
    if (!header || header->offset.value() != offset) {
        throw std::runtime_error(where + " doesn't yield $SDS header with matching offset.");
    }
    return parseDescriptorBytes(from(stream, offset + sizeof(ntfs_sds_entry)));
}

} // namespace agent::core::fs
