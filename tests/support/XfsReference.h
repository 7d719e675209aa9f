// What an XFS map request must give, worked out slowly, one bit at a time, to compare the parser with.
#pragma once

#include "support/Readers.h"
#include "support/RecordingLogger.h"

#include <cstdint>
#include <optional>
#include <ostream>
#include <span>
#include <vector>

namespace tests {

/// Everything that a request leaves behind.
struct XfsOutcome {
    long result = 0;
    std::vector<std::uint8_t> buffer;
    std::vector<LogEntry> entries;
    std::vector<ReaderCall> calls;

    /// After an error the buffer means nothing and is not compared.
    bool operator==(XfsOutcome const& other) const {
        return result == other.result && entries == other.entries && calls == other.calls &&
               (result < 0 || buffer == other.buffer);
    }
};

void PrintTo(XfsOutcome const& outcome, std::ostream* out);

/// One request for the map of an XFS volume.
struct XfsRequest {
    std::uint64_t alignment = 512;
    std::uint64_t start = 0;
    std::uint64_t length = 0;
};

/// What `request` gives on a memory reader over `image`, whose superblock may hold anything, to a logger that wants
/// everything. Nothing when it would take more than a million nodes, groups or 64 million bits: too long to wait for.
std::optional<XfsOutcome> referenceXfsChunk(std::span<std::uint8_t const> image, XfsRequest const& request);

} // namespace tests
