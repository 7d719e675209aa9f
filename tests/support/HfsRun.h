// Runs the HFS+ parser on a volume in memory and keeps all that it does.
#pragma once

#include "agent/core/fs/HFSParser.h"
#include "support/HfsBuilder.h"
#include "support/HfsReader.h"
#include "support/Readers.h"
#include "support/RecordingLogger.h"

#include <deque>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace tests {

/// Everything that a request leaves behind.
struct HfsOutcome {
    long result = 0;
    std::vector<std::uint8_t> buffer;
    std::vector<LogEntry> entries;
    std::vector<ReaderCall> calls;

    bool operator==(HfsOutcome const&) const = default;
};

/// Everything that a search of the extents-overflow tree leaves behind.
struct HfsSearch {
    bool found = false;
    HfsExtents extents;
    std::vector<LogEntry> entries;
    std::vector<ReaderCall> calls;

    bool operator==(HfsSearch const&) const = default;
};

/// What the buffer of a request holds before it.
inline constexpr std::uint8_t kHfsUntouched = 0xAA;

/// The wrapper's entry that follows the entry of a cause.
inline LogEntry hfsWrapperEntry() {
    return errorEntry("A logical error occurred while attempting to parse the HFS bitmap, err: -1");
}

/// The entry before a search.
inline LogEntry hfsSearchEntry() {
    return debugEntry("Bitmap extents overflow file needed.");
}

/// The entries of a request whose search failed.
inline std::vector<LogEntry> hfsFailedSearchEntries(std::string const& cause) {
    return {hfsSearchEntry(), errorEntry(cause), errorEntry("Couldn't parse extent overflow file for bitmap extents."),
            hfsWrapperEntry()};
}

/// The routines behind the parser's public operations.
class ExposedHfsParser : public agent::core::fs::HFSParser {
public:
    using HFSParser::fs_get_blocks_bitmap_chunk;
    using HFSParser::fs_get_num_blocks;
    using HFSParser::fs_search_overflow;
    using HFSParser::fs_traverse_index_node;
    using HFSParser::HFSParser;
};

/// The volume header of a volume's bytes.
inline agent::core::fs::HFSPlusVolumeHeader hfsHeaderOf(std::vector<std::uint8_t> const& bytes) {
    agent::core::fs::HFSPlusVolumeHeader header{};
    std::memcpy(&header, bytes.data() + kHfsHeaderOffset, sizeof header);
    return header;
}

inline HfsExtents toHfsExtents(std::vector<agent::core::fs::HFSPlusExtentDescriptor> const& descriptors) {
    HfsExtents extents;
    for (auto const& descriptor : descriptors) {
        extents.push_back({descriptor.startBlock.value(), descriptor.blockCount.value()});
    }
    return extents;
}

/// A parser on a volume in memory, with the calls and entries that it causes.
struct HfsBench {
    explicit HfsBench(std::vector<std::uint8_t> bytes, unsigned alignment = 512)
        : volume(std::move(bytes)), front(volume), reader(front), parser(logger, alignment, reader) {}
    explicit HfsBench(HfsBuilder const& builder, unsigned alignment = 512) : HfsBench(builder.bytes, alignment) {}

    /// One request, with only what it causes itself.
    HfsOutcome chunk(std::uint64_t offset, std::uint64_t length) {
        reader.calls.clear();
        logger.entries.clear();
        HfsOutcome outcome;
        // A buffer of exactly the length: a write behind it is one that the sanitizer sees.
        outcome.buffer.assign(length, kHfsUntouched);
        char unused = 0;
        char* const buffer = length == 0 ? &unused : reinterpret_cast<char*>(outcome.buffer.data());
        outcome.result = parser.getChunk(offset, buffer, length);
        outcome.entries = logger.entries;
        outcome.calls = reader.calls;
        return outcome;
    }

    /// A search for a file's extents, into a list that holds `before`.
    HfsSearch search(std::uint32_t fileId = kHfsAllocationFileId, HfsExtents const& before = {}) {
        reader.calls.clear();
        logger.entries.clear();
        std::vector<agent::core::fs::HFSPlusExtentDescriptor> extents(before.size());
        for (std::size_t i = 0; i < before.size(); ++i) {
            std::uint8_t raw[8];
            putBig(raw, 0, before[i].start, 4);
            putBig(raw, 4, before[i].count, 4);
            std::memcpy(&extents[i], raw, sizeof raw);
        }
        HfsSearch outcome;
        outcome.found = parser.fs_search_overflow(hfsHeaderOf(volume.bytes), fileId, extents);
        outcome.extents = toHfsExtents(extents);
        outcome.entries = logger.entries;
        outcome.calls = reader.calls;
        return outcome;
    }

    MemoryReader volume;
    HfsFrontReader front;
    RecordingReader reader;
    RecordingLogger logger;
    ExposedHfsParser parser;
};

/// The bit of unit `index` in a chunk.
inline bool hfsBitAt(std::vector<std::uint8_t> const& buffer, std::uint64_t index) {
    return ((buffer.at(index / 8) << (index % 8)) & 0x80) != 0;
}

/// The first `count` bits of a chunk, one element each.
inline std::vector<bool> hfsBitsOf(std::vector<std::uint8_t> const& buffer, long count) {
    std::vector<bool> bits;
    for (long i = 0; i < count; ++i) {
        bits.push_back(hfsBitAt(buffer, static_cast<std::uint64_t>(i)));
    }
    return bits;
}

inline void PrintTo(HfsExtent const& extent, std::ostream* out) {
    *out << extent.count << " from " << extent.start;
}

inline void printHfsTrace(std::vector<LogEntry> const& entries, std::vector<ReaderCall> const& calls,
                          std::ostream* out) {
    *out << ", entries:";
    for (auto const& entry : entries) {
        *out << ' ' << entry;
    }
    *out << ", calls:";
    for (std::size_t i = 0; i < calls.size() && i < 20; ++i) {
        *out << ' ' << calls[i] << ';';
    }
    *out << ' ' << calls.size() << " in all";
}

inline void PrintTo(HfsOutcome const& outcome, std::ostream* out) {
    *out << "result " << outcome.result;
    printHfsTrace(outcome.entries, outcome.calls, out);
    *out << "; buffer of " << outcome.buffer.size() << " bytes";
}

inline void PrintTo(HfsSearch const& search, std::ostream* out) {
    *out << (search.found ? "found " : "failed with ") << search.extents.size() << " extents";
    printHfsTrace(search.entries, search.calls, out);
}

} // namespace tests
