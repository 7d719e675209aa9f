// Runs the FAT parser on a volume and keeps all that it does.
#pragma once

#include "agent/core/fs/FATParser.h"
#include "support/FatBuilder.h"
#include "support/FatReference.h"

#include <ostream>
#include <string>
#include <vector>

namespace tests {

inline LogEntry fatWrapperEntry(long code) {
    return errorEntry("A logical error occurred while attempting to parse the FAT bitmap, err: " +
                      std::to_string(code));
}

/// The entries of a request that gave a negative code.
inline std::vector<LogEntry> fatFailureEntries(long code) {
    return {debugEntry("returning[2] " + std::to_string(code)), fatWrapperEntry(code)};
}

/// The one entry of a request that gave units.
inline std::vector<LogEntry> fatSuccessEntries(long units) {
    return {debugEntry("returning[3] " + std::to_string(units))};
}

/// The routines behind the parser's public operations.
class ExposedFatParser : public agent::core::fs::FATParser {
public:
    using FATParser::fat_blocks_in_use;
    using FATParser::fat_read_bootsector;
    using FATParser::FATParser;
    using FATParser::fs_get_blocks_bitmap_chunk;
};

/// A parser on any volume, with the calls and entries that it causes.
struct FatReaderBench {
    explicit FatReaderBench(agent::core::IVolumeReader const& volume, unsigned alignment = 512)
        : reader(volume), parser(logger, alignment, reader) {}

    /// One request, with only what it causes itself. The buffer holds 0xAA before.
    FatOutcome chunk(std::uint64_t start, std::uint64_t length) {
        reader.calls.clear();
        logger.entries.clear();
        FatOutcome outcome;
        // A buffer of exactly the length: a write behind it is one that the sanitizer sees.
        outcome.buffer.assign(length, 0xAA);
        char unused = 0;
        char* const buffer = length == 0 ? &unused : reinterpret_cast<char*>(outcome.buffer.data());
        outcome.result = parser.getChunk(start, buffer, length);
        outcome.entries = logger.entries;
        outcome.calls = reader.calls;
        return outcome;
    }

    RecordingReader reader;
    RecordingLogger logger;
    ExposedFatParser parser;
};

/// A volume in memory that stands before the parser on it is made.
struct FatVolumeInMemory {
    MemoryReader volume;
};

/// A parser on a volume in memory. Changes to `volume.bytes` reach the parser's next call.
struct FatBench : FatVolumeInMemory, FatReaderBench {
    explicit FatBench(std::vector<std::uint8_t> bytes, unsigned alignment = 512)
        : FatVolumeInMemory{MemoryReader(std::move(bytes))}, FatReaderBench(volume, alignment) {}
    explicit FatBench(FatBuilder const& builder, unsigned alignment = 512) : FatBench(builder.bytes, alignment) {}
};

/// The one request that gives an exact map.
inline FatOutcome wholeFatMap(FatBuilder const& builder) {
    return FatBench(builder).chunk(0, builder.geometry().mapBytes());
}

/// The first `count` bits of a chunk, one element each.
inline std::vector<bool> fatUnits(std::vector<std::uint8_t> const& buffer, long count) {
    std::vector<bool> units;
    for (std::uint64_t i = 0; i < static_cast<std::uint64_t>(count); ++i) {
        units.push_back(((unsigned{buffer.at(i / 8)} >> (i % 8)) & 1U) != 0);
    }
    return units;
}

inline void PrintTo(FatOutcome const& outcome, std::ostream* out) {
    *out << "end " << static_cast<int>(outcome.end) << ", result " << outcome.result << ", entries:";
    for (auto const& entry : outcome.entries) {
        *out << ' ' << entry;
    }
    *out << ", calls:";
    for (std::size_t i = 0; i < outcome.calls.size() && i < 20; ++i) {
        *out << ' ' << outcome.calls[i] << ';';
    }
    *out << ' ' << outcome.calls.size() << " in all; buffer of " << outcome.buffer.size() << " bytes";
}

} // namespace tests
