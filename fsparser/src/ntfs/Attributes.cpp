// Attributes of an MFT record, those in extension records included.
#include "BoundedRead.h"
#include "ZeroedBuffer.h"
#include "agent/StringUtils.h"
#include "agent/core/fs/FSUtil.h"
#include "agent/core/fs/NTFSParser.h"
#include "ntfs/NtfsLayout.h"
#include "ntfs/Shifts.h"
#include "ntfs/Walks.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>
#include <unordered_set>

namespace agent::core::fs {

using agent::info::Level;
using agent::info::Logger;

namespace {

/// An attribute that begins less than this before the record's end (without its header) ends the walk with an error.
constexpr std::uint64_t kLeastRest = 72;

/// Past what the runs of a list deliver, the list is zero: one entry may begin before and end there.
constexpr std::uint64_t kLongestListEntry = 0x10000 + 0x20;

std::uint64_t saturatedSum(std::uint64_t left, std::uint64_t right) {
    std::uint64_t const sum = left + right;
    return sum < left ? std::numeric_limits<std::uint64_t>::max() : sum;
}

/// Record numbers that an attribute list named already. Most lists name a few, which need no table of their own.
class SeenRecords {
public:
    explicit SeenRecords(unsigned long first) : few_{first} {}

    /// @return whether the number is new
    bool insert(unsigned long number) {
        if (std::find(few_.begin(), few_.begin() + count_, number) != few_.begin() + count_) {
            return false;
        }
        if (count_ < kFew) {
            few_[static_cast<std::size_t>(count_++)] = number;
            return true;
        }
        return many_.insert(number).second;
    }

private:
    static constexpr std::ptrdiff_t kFew = 16;
    std::array<unsigned long, kFew> few_{};
    std::ptrdiff_t count_ = 1;
    std::unordered_set<unsigned long> many_;
};

} // namespace

NTFSParser::AttributeHits NTFSParser::get_attributes(unsigned long recordNumber, ntfs_mft_record_t* record,
                                                     NtfsAttrTypes type) const {
    Logger::Entry(logger, Level::Debug) << "Searching for attribute " << static_cast<std::uint32_t>(type);
    Bytes const bytes = recordBytes(record);
    auto const header = readAt<ntfs_mft_record_t>(bytes, 0);
    std::uint64_t const first = header->attrs_offset.value();
    if (first > mftRecordSize) {
        throw std::runtime_error("Invalid buffer passed in to traverse attributes for inode: " +
                                 std::to_string(recordNumber));
    }
    AttributeHits hits;
    // What was stepped over, the record's header not counted, on purpose: the walk may reach past the end.
    for (std::uint64_t consumed = 0;;) {
        std::uint64_t const offset = first + consumed;
        auto const attributeType = readAt<le32>(bytes, offset);
        if (attributeType &&
            (attributeType->value() == kEndOfAttributes || (type != kNoAttribute && attributeType->value() > type))) {
            return hits;
        }
        auto const attribute = readAt<ntfs_attribute_record>(bytes, offset);
        if (attribute && attributeType->value() == kAttributeList) {
            AttributeHits const external = externalHits(recordNumber, bytes.subspan(offset), type);
            hits.insert(hits.end(), external.begin(), external.end());
        }
        if (attribute && type == kNoAttribute) {
            return hits; // only what a list in front of all else gave, on purpose
        }
        if (attribute && attributeType->value() == type) {
            hits.emplace_back(recordNumber, static_cast<long>(offset));
        }
        std::uint32_t const length = attribute ? attribute->length.value() : 0;
        consumed += length;
        if (!attribute || consumed + kLeastRest > mftRecordSize) {
            throw std::runtime_error("Invalid buffer passed in to traverse attribute record for inode: " +
                                     std::to_string(recordNumber));
        }
        if (length == 0) {
            return hits; // it would never advance
        }
    }
}

NTFSParser::AttributeHits NTFSParser::get_attribute_external(unsigned long baseRecord,
                                                             ntfs_attribute_record* listAttribute,
                                                             NtfsAttrTypes type) const {
    if (listAttribute == nullptr) {
        return externalHits(baseRecord, {}, type);
    }
    // Alone, an attribute is as long as it says itself.
    std::size_t const length = std::max<std::size_t>(listAttribute->length.value(), sizeof(ntfs_attribute_record));
    return externalHits(baseRecord, {reinterpret_cast<std::uint8_t const*>(listAttribute), length}, type);
}

NTFSParser::AttributeHits NTFSParser::externalHits(unsigned long baseRecord, Bytes attribute,
                                                   NtfsAttrTypes type) const {
    Logger::Entry(logger, Level::Debug) << "Searching for attribute 0x" << std::hex << static_cast<std::uint32_t>(type)
                                        << std::dec << " in ATTRIBUTE LIST";
    auto const header = readAt<ntfs_attribute_record>(attribute, 0);
    if (!header) {
        Logger::Entry(logger, Level::Debug) << "Invalid attribute record.";
        throw std::invalid_argument("Attribute record is null.");
    }
    auto& lists = walks->lists;
    std::pair<unsigned long, std::uint32_t> const self{baseRecord, type};
    if (std::find(lists.begin(), lists.end(), self) != lists.end() || lists.size() >= Walks::kDeepestList) {
        return {}; // this list is being walked already
    }
    struct Walking {
        decltype(Walks::lists)& stack;
        decltype(Walks::nestedHolders)& nested;
        ~Walking() {
            stack.pop_back();
            if (stack.empty()) {
                nested.clear();
            }
        }
    };
    lists.push_back(self);
    Walking const walking{lists, walks->nestedHolders};

    if (header->non_resident != 0) {
        return nonResidentListHits(baseRecord, attribute, type);
    }
    auto const form = readAt<ntfs_resident_form>(attribute, kAttributeForm);
    if (!form) {
        return {};
    }
    return listHits(baseRecord, type, form->value_length.value(), from(attribute, form->value_offset.value()));
}

NTFSParser::AttributeHits NTFSParser::nonResidentListHits(unsigned long baseRecord, Bytes attribute,
                                                          NtfsAttrTypes type) const {
    Logger::Entry(logger, Level::Debug) << "Fetching non resident ATTRIBUTE LIST.";
    std::vector<ntfs_runlist> const runs = dataRuns(attribute);
    Logger::Entry(logger, Level::Debug) << "Found " << runs.size() << " extents of non resident attributes.";
    if (runs.empty()) {
        throw std::runtime_error("Found no run list for attribute.");
    }
    std::uint64_t const cluster = clusterSize16();
    std::uint32_t const shift = log2Of(cluster);
    auto const form = readAt<ntfs_non_resident_form>(attribute, kAttributeForm);
    std::uint64_t const dataSize = form ? form->data_size.value() : 0;
    std::uint64_t deliverable = kLongestListEntry;
    for (ntfs_runlist const& run : runs) {
        deliverable = saturatedSum(deliverable, static_cast<std::uint64_t>(run.length) * cluster);
    }
    if (static_cast<std::int64_t>(dataSize) < 0) {
        throw std::bad_alloc();
    }
    // Never more than the runs can fill: what lies past that is zero, and a zero entry ends the list.
    std::uint64_t const size = std::min(dataSize, deliverable);
    if (size > saturatedSum(volumeBytes(), kLongestListEntry)) {
        // Runs that overlap, or that the volume cannot hold.
        Logger::Entry(logger, Level::Debug) << "Unable to read data.";
        throw std::runtime_error("Could not read from device.");
    }
    ZeroedBuffer list(size);
    std::uint64_t done = 0;
    for (ntfs_runlist const& run : runs) {
        if (run.lcn < 0) {
            Logger::Entry(logger, Level::Debug) << "No support for compressed files yet.";
            return {};
        }
        std::uint64_t const bytes =
            std::min(static_cast<std::uint64_t>(run.length) * cluster, dataSize - done); // cut at the data size
        unsigned long count = 0;
        if (fs_seek_read_aligned(logger, volume, blockSize, shiftLeft(static_cast<std::uint64_t>(run.lcn), shift),
                                 list.data() + done, bytes, &count) != 0) {
            Logger::Entry(logger, Level::Debug) << "Unable to read data.";
            throw std::runtime_error("Could not read from device.");
        }
        done += count;
    }
    return listHits(baseRecord, type, dataSize, list.bytes());
}

NTFSParser::AttributeHits NTFSParser::traverse_attr_list(unsigned long baseRecord, NtfsAttrTypes type,
                                                         unsigned long listLength, unsigned char* list) const {
    return listHits(baseRecord, type, listLength, {list, listLength});
}

NTFSParser::AttributeHits NTFSParser::listHits(unsigned long baseRecord, NtfsAttrTypes type, unsigned long listLength,
                                               Bytes list) const {
    // Entries that point back into the base record are never followed: the direct walk finds its attributes.
    SeenRecords seen(baseRecord);
    AttributeHits hits;
    std::uint32_t length = 0;
    for (std::uint64_t position = 0; position < listLength; position += length) {
        auto const entry = readAt<ntfs_attr_list_entry>(list, position);
        auto const reference = readAt<le64>(list, position + kListEntryReference);
        length = entry ? entry->length.value() : 0;
        std::uint32_t const entryType = entry ? entry->type.value() : 0;
        bool const isCutOff = !entry || (entryType == type && !reference);
        if (length == 0 || isCutOff) {
            Logger::Entry(logger, Level::Debug) << "No more entries in ATTRIBUTE LIST";
            break;
        }
        if (entryType != type) {
            if (entryType == kEndOfAttributes) {
                Logger::Entry(logger, Level::Debug)
                    << "Found End attribute in ATTRIBUTE LIST, nothing more to traverse";
                break;
            }
            continue;
        }
        Logger::Entry(logger, Level::Debug)
            << "Found the type 0x" << std::hex << static_cast<std::uint32_t>(type) << std::dec << " in ATTRIBUTE_LIST.";
        unsigned long const holder = reference->value() & kRecordNumberMask;
        Logger::Entry(logger, Level::Debug) << "Found attribute 0x" << std::hex << entryType << std::dec << " in inode "
                                            << holder << " for base inode " << baseRecord;
        bool const isNested = walks->lists.size() > 1;
        if (!seen.insert(holder) || (isNested && !walks->nestedHolders.insert(holder).second)) {
            Logger::Entry(logger, Level::Debug) << "Already seen inode " << holder << ", skipping.";
            continue;
        }
        appendHolderHits(baseRecord, holder, type, hits);
    }
    return hits;
}

void NTFSParser::appendHolderHits(unsigned long baseRecord, unsigned long holder, NtfsAttrTypes type,
                                  AttributeHits& hits) const {
    ZeroedBuffer record(mftRecordSize);
    if (read_mft_record(holder, record.data()) != 0) {
        return;
    }
    auto const header = readAt<ntfs_mft_record_t>(record.bytes(), 0);
    if ((header->base_mft_record.value() & kRecordNumberMask) != baseRecord) {
        Logger::Entry(logger, Level::Debug)
            << "External inode " << holder << " doesn't refer to base inode " << baseRecord;
        return;
    }
    AttributeHits const found = get_attributes(holder, reinterpret_cast<ntfs_mft_record_t*>(record.data()), type);
    hits.insert(hits.end(), found.begin(), found.end());
}

NTFSParser::AttributeHit NTFSParser::findAttributeByName(unsigned long recordNumber, ntfs_mft_record_t* record,
                                                         AttributeHits const& hits, std::string const& name) {
    read_upcase();
    std::wstring const wanted = agent::StringUtils::StrToWStr(name);
    for (AttributeHit const& hit : hits) {
        auto const offset = static_cast<std::uint64_t>(hit.second);
        if (hit.first == recordNumber) {
            if (hasName(from(recordBytes(record), offset), wanted)) {
                return hit;
            }
            continue;
        }
        ZeroedBuffer other(mftRecordSize);
        read_mft_record_throw(hit.first, other.data(), "");
        if (hasName(from(other.bytes(), offset), wanted)) {
            return hit;
        }
    }
    throw std::runtime_error("Could not find attribute with name " + name);
}

bool NTFSParser::hasName(Bytes attribute, std::wstring const& name) const {
    auto const header = readAt<ntfs_attribute_record>(attribute, 0);
    if (!header || header->name_length == 0) {
        return false; // unnamed attributes never match
    }
    std::size_t const bytes = std::size_t{header->name_length} * sizeof(unsigned short);
    if (!holds(attribute, header->name_offset.value(), bytes)) {
        return false; // a name that is cut off is nobody's
    }
    std::array<unsigned short, 255> own; // what is looked at is copied next
    std::memcpy(own.data(), attribute.data() + header->name_offset.value(), bytes);
    // With case, unlike directory lookups; and the table's length in bytes, here as there. Both on purpose.
    return collate_unicode_names(name.data(), static_cast<unsigned>(name.size()), own.data(), header->name_length,
                                 false, upcaseTable(), upcaseLength) == 0;
}

} // namespace agent::core::fs
