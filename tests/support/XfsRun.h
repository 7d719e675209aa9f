// Runs the XFS parser on a volume in memory and keeps all that it does.
#pragma once

#include "agent/core/fs/XFSParser.h"
#include "support/XfsBuilder.h"
#include "support/XfsReference.h"

#include <string>

namespace tests {

/// The wrapper's entry that follows the entry of a cause.
inline LogEntry xfsWrapperEntry() {
    return errorEntry("A logical error occurred while attempting to parse XFS bitmap, err: -1");
}

/// The routines behind the parser's public operations.
class ExposedXfsParser : public agent::core::fs::XFSParser {
public:
    using XFSParser::bitmap_mark_range;
    using XFSParser::fs_bitmap_mark;
    using XFSParser::fs_get_blocks_bitmap_chunk;
    using XFSParser::read_agfl;
    using XFSParser::read_fsi;
    using XFSParser::xfs_sb_version_hascrc;
    using XFSParser::XFSBTreeNode;
    using XFSParser::XFSParser;
};

/// Whether a logger wants the parser's trace.
enum class XfsTrace { Off, On };

/// Keeps every entry, and says for each level but `Debug` that it is wanted; for that one, what it was told.
class XfsLogger : public RecordingLogger {
public:
    explicit XfsLogger(XfsTrace trace) : trace_(trace) {}

    bool isEnabled(agent::info::Level level) const override {
        return trace_ == XfsTrace::On || level != agent::info::Level::Debug;
    }

private:
    XfsTrace trace_;
};

/// A parser on a volume in memory, with the calls and entries that it causes. Changes to `volume.bytes` reach the
/// parser's next call.
struct XfsBench {
    explicit XfsBench(std::vector<std::uint8_t> bytes, unsigned alignment = 512, XfsTrace trace = XfsTrace::On)
        : volume(std::move(bytes)), reader(volume), logger(trace), parser(logger, alignment, reader) {}
    explicit XfsBench(XfsBuilder const& builder, unsigned alignment = 512, XfsTrace trace = XfsTrace::On)
        : XfsBench(builder.bytes, alignment, trace) {}

    /// One request, with only what it causes itself. The buffer holds 0xAA before.
    XfsOutcome chunk(std::uint64_t start, std::uint64_t length) {
        forget();
        XfsOutcome outcome;
        // A buffer of exactly the length: a write behind it is one that the sanitizer sees.
        outcome.buffer.assign(length, 0xAA);
        char unused = 0;
        char* const buffer = length == 0 ? &unused : reinterpret_cast<char*>(outcome.buffer.data());
        outcome.result = parser.getChunk(start, buffer, length);
        outcome.entries = logger.entries;
        outcome.calls = reader.calls;
        return outcome;
    }

    void forget() {
        reader.calls.clear();
        logger.entries.clear();
    }

    MemoryReader volume;
    RecordingReader reader;
    XfsLogger logger;
    ExposedXfsParser parser;
};

/// One request of a new parser on the bytes.
inline XfsOutcome runXfsChunk(std::vector<std::uint8_t> const& bytes, XfsRequest const& request) {
    return XfsBench(bytes, static_cast<unsigned>(request.alignment)).chunk(request.start, request.length);
}

/// The first `count` bits of a chunk, one element each.
inline std::vector<bool> xfsBits(std::vector<std::uint8_t> const& buffer, long count) {
    std::vector<bool> bits;
    for (std::uint64_t i = 0; i < static_cast<std::uint64_t>(count); ++i) {
        bits.push_back(((buffer.at(i / 8) >> (i % 8)) & 1) != 0);
    }
    return bits;
}

} // namespace tests
