// A volume on which one record has an attribute list, and what following the list must log.
#pragma once

#include "support/NtfsAccess.h"
#include "support/NtfsBuilder.h"
#include "support/Readers.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace tests {

inline constexpr std::uint64_t kListBase = 40; ///< the record with the list
using NtfsHits = std::vector<std::pair<unsigned long, long>>;
using LogEntries = std::vector<LogEntry>;

inline LogEntries operator+(LogEntries left, LogEntries const& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

/// An entry for a $DATA in a record.
inline NtfsListEntry dataIn(std::uint64_t record, std::uint64_t lowestVcn = 0) {
    return {ntfs_type::kData, record, lowestVcn, {}};
}

/// A volume on which record 40 gets an attribute list; extension records are numbered from 41 on.
class NtfsListVolume : public testing::Test {
protected:
    NtfsRecord& base() { return builder.record(kListBase); }

    /// An extension record with so many $DATA attributes of one cluster each.
    NtfsRecord& extension(std::uint64_t number, unsigned attributes = 1) {
        NtfsRecord& made = builder.record(number);
        made.baseReference = base().reference();
        for (unsigned i = 0; i < attributes; ++i) {
            made.nonResident(ntfs_type::kData, u"", {{static_cast<std::int64_t>(100 + number + i), 1}});
        }
        return made;
    }

    /// Writes the records and makes a parser on them.
    NtfsAccess& open() {
        builder.seal();
        volume.emplace(builder.bytes);
        reader.emplace(*volume);
        parser.emplace(logger, 512, *reader);
        forget();
        return *parser;
    }
    /// Drops what was logged and called so far.
    void forget() {
        logger.entries.clear();
        reader->calls.clear();
    }

    /// The hits of a type in record 40 as it stands on the volume; what reading that record logs is dropped.
    NtfsHits find(agent::core::fs::NtfsAttrTypes type = agent::core::fs::kData) {
        record.assign(builder.geometry().recordBytes, 0);
        EXPECT_EQ(parser->read_mft_record(kListBase, record.data()), 0);
        forget();
        return parser->get_attributes(kListBase, reinterpret_cast<agent::core::fs::ntfs_mft_record_t*>(record.data()),
                                      type);
    }

    /// The text with which find() is refused.
    std::string refusal() {
        try {
            find();
            return "walked";
        } catch (std::runtime_error const& error) {
            return error.what();
        }
    }

    /// The hit of the n-th attribute of a type in a record.
    std::pair<unsigned long, long> hit(std::uint64_t number, std::size_t n = 0, std::uint32_t type = ntfs_type::kData) {
        return {number, static_cast<long>(builder.record(number).offsetOf(type, n))};
    }

    /// What reading a record logs: $MFT's runs are decoded first.
    LogEntries reading(std::uint64_t number) const {
        return {debugEntry("Searching for attribute 128"),
                debugEntry("Reading $MFT for inode " + std::to_string(number) + " at offset " +
                           std::to_string(builder.byteOffsetOf(number)))};
    }
    /// What a search for $DATA logs up to its list.
    static LogEntries starting() {
        return {debugEntry("Searching for attribute 128"),
                debugEntry("Searching for attribute 0x80 in ATTRIBUTE LIST")};
    }
    /// What an entry for $DATA logs.
    static LogEntries found(std::uint64_t number) {
        return {debugEntry("Found the type 0x80 in ATTRIBUTE_LIST."),
                debugEntry("Found attribute 0x80 in inode " + std::to_string(number) + " for base inode 40")};
    }
    /// A holder that is read and walked.
    LogEntries followed(std::uint64_t number) const {
        return found(number) + reading(number) + LogEntries{debugEntry("Searching for attribute 128")};
    }
    static LogEntries one(std::string const& text) { return {debugEntry(text)}; }

    NtfsBuilder builder = NtfsBuilder::standard();
    RecordingLogger logger;
    std::optional<MemoryReader> volume;
    std::optional<RecordingReader> reader;
    std::optional<NtfsAccess> parser;
    NtfsBytes record;
};

} // namespace tests
