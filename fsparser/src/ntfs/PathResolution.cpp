// Paths: to record numbers through the cache, to extents and to standard information.
#include "BoundedRead.h"
#include "ZeroedBuffer.h"
#include "agent/core/fs/NTFSParser.h"
#include "ntfs/NtfsLayout.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace agent::core::fs {

namespace {

constexpr unsigned long kRootDirectory = 5;
constexpr unsigned long kNotFound = std::numeric_limits<unsigned long>::max();

/// The collation rule of directory indexes.
constexpr unsigned int kFileNameKey = 1;

} // namespace

unsigned long NTFSParser::convert_to_inode(std::string const& path) {
    unsigned long record = kRootDirectory;
    std::string resolved;
    std::string remaining;
    resolve_cached_portion(path, resolved, remaining, record);
    if (!remaining.empty()) {
        resolve_uncached_portion(resolved, remaining, record);
    }
    return record;
}

void NTFSParser::resolve_cached_portion(std::string path, std::string& resolved, std::string& remaining,
                                        unsigned long& record) {
    auto const first = path.find(SEPARATOR);
    if (first == std::string::npos) {
        remaining = path;
        return;
    }
    path.erase(0, first + SEPARATOR.size());
    resolved = path;
    auto last = resolved.rfind(SEPARATOR);
    if (last == std::string::npos) {
        remaining = resolved;
        resolved.clear();
        return;
    }
    remaining = path.substr(last + SEPARATOR.size());
    resolved.erase(last);
    while (!resolved.empty()) {
        // Byte for byte, on purpose: a directory in two letter cases has two entries.
        if (Element const* const hit = cache->find({resolved, 0}); hit != nullptr) {
            record = hit->inode;
            return;
        }
        last = resolved.rfind(SEPARATOR);
        if (last == std::string::npos) {
            remaining = path;
            resolved.clear();
            return;
        }
        remaining = path.substr(last + SEPARATOR.size());
        resolved.erase(last);
    }
}

void NTFSParser::resolve_uncached_portion(std::string resolved, std::string remaining, unsigned long& record) {
    while (true) {
        auto const end = remaining.find(SEPARATOR);
        std::string const component = remaining.substr(0, end);
        remaining.erase(0, end == std::string::npos ? end : end + SEPARATOR.size());

        ntfs_index_entry const entry = btree_lookup(record, BTreeKey{&component, kFileNameKey});
        record = entry.file_reference.value();
        if (record == kNotFound) {
            return;
        }
        record &= kRecordNumberMask;
        if (remaining.empty()) {
            return; // the final component is never cached
        }
        if (!resolved.empty()) {
            resolved += SEPARATOR;
        }
        resolved += component;
        cache->put({resolved, record});
    }
}

void NTFSParser::resetMftCache() {
    if (mftLcn != 0) {
        initVolumeMetaData();
    } else {
        reinit();
    }
    cache->clear();
}

std::vector<agent::BlockRange> NTFSParser::extents(std::string const& path) {
    read_upcase();
    unsigned long const record = convert_to_inode(path);
    if (record == kNotFound) {
        return {};
    }
    std::vector<agent::BlockRange> ranges = runs_to_blockRange(get_inode_runlist(record));
    std::sort(ranges.begin(), ranges.end());
    return ranges;
}

ntfs_standard_information NTFSParser::getStandardInfo(std::string const& path) {
    // Does not load the upcase table, on purpose: on a fresh parser a path with a component fails.
    unsigned long const record = convert_to_inode(path);
    ZeroedBuffer buffer(mftRecordSize);
    read_mft_record_throw(record, buffer.data(), path);
    AttributeHits const hits =
        get_attributes(record, reinterpret_cast<ntfs_mft_record_t*>(buffer.data()), kStandardInformation);
    if (hits.empty()) {
        throw std::runtime_error("Could not find STANDARD_INFORMATION for file " + path);
    }
    auto const [holder, offset] = hits.front();
    if (holder != record) {
        read_mft_record_throw(holder, buffer.data(), path);
    }
    Bytes const attribute = from(buffer.bytes(), static_cast<std::uint64_t>(offset));
    auto const form = readAt<ntfs_resident_form>(attribute, kAttributeForm);
    // 72 bytes whatever the value's length, on purpose.
    auto const value = form ? readAt<ntfs_standard_information>(attribute, form->value_offset.value()) : std::nullopt;
    if (!value) {
        throw std::runtime_error("Could not find STANDARD_INFORMATION for file " + path); // it is cut off
    }
    return *value;
}

} // namespace agent::core::fs
