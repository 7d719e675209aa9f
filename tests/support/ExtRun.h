// Runs the ext parser on a volume in memory and keeps all that it does.
#pragma once

#include "agent/core/fs/EXTParser.h"
#include "support/ExtBuilder.h"
#include "support/ExtReference.h"

#include <string>

namespace tests {

/// The wrapper's entry that follows the entry of a cause.
inline LogEntry extWrapperEntry() {
    return errorEntry("A logical error occurred while attempting to parse the EXT bitmap, err: -1");
}

/// The routines behind the parser's public operations.
class ExposedExtParser : public agent::core::fs::EXTParser {
public:
    using EXTParser::EXTParser;
    using EXTParser::fs_get_block_bitmap;
    using EXTParser::fs_get_blocks_bitmap_chunk;
};

/// A parser on a volume in memory, with the calls and entries that it causes. Changes to `volume.bytes` reach the
/// parser's next call.
struct ExtBench {
    explicit ExtBench(std::vector<std::uint8_t> bytes, unsigned alignment = 512)
        : volume(std::move(bytes)), reader(volume), parser(logger, alignment, reader) {}
    explicit ExtBench(ExtBuilder const& builder, unsigned alignment = 512) : ExtBench(builder.bytes, alignment) {}

    /// One request, with only what it causes itself. The buffer holds 0xAA before.
    ExtOutcome chunk(std::uint64_t start, std::uint64_t length) {
        reader.calls.clear();
        logger.entries.clear();
        ExtOutcome outcome;
        // A buffer of exactly the length: a write behind it is one that the sanitizer sees.
        outcome.buffer.assign(length, 0xAA);
        char unused = 0;
        char* const buffer = length == 0 ? &unused : reinterpret_cast<char*>(outcome.buffer.data());
        outcome.result = parser.getChunk(start, buffer, length);
        outcome.entries = logger.entries;
        outcome.calls = reader.calls;
        return outcome;
    }

    MemoryReader volume;
    RecordingReader reader;
    RecordingLogger logger;
    ExposedExtParser parser;
};

/// One request of a new parser on the bytes.
inline ExtOutcome runExtChunk(std::vector<std::uint8_t> const& bytes, ExtRequest const& request) {
    return ExtBench(bytes, static_cast<unsigned>(request.alignment)).chunk(request.start, request.length);
}

/// The bit of unit `index` in a chunk.
inline bool bitAt(std::vector<std::uint8_t> const& buffer, std::uint64_t index) {
    return ((buffer.at(index / 8) >> (index % 8)) & 1U) != 0;
}

/// The first `count` bits of a chunk, one element each.
inline std::vector<bool> bitsOf(std::vector<std::uint8_t> const& buffer, long count) {
    std::vector<bool> bits;
    for (long i = 0; i < count; ++i) {
        bits.push_back(bitAt(buffer, static_cast<std::uint64_t>(i)));
    }
    return bits;
}

inline void PrintTo(ExtOutcome const& outcome, std::ostream* out) {
    *out << "result " << outcome.result << ", entries:";
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
