// What an ext map request must give, worked out slowly, one bit at a time, to compare the parser with.
#pragma once

#include "support/Readers.h"
#include "support/RecordingLogger.h"

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace tests {

/// Everything that a request leaves behind.
struct ExtOutcome {
    long result = 0;
    std::vector<std::uint8_t> buffer;
    std::vector<LogEntry> entries;
    std::vector<ReaderCall> calls;

    bool operator==(ExtOutcome const&) const = default;
};

/// One request for the map of an ext volume.
struct ExtRequest {
    std::uint64_t alignment = 512;
    std::uint64_t start = 0;
    std::uint64_t length = 0;
};

/// What `request` gives on a memory reader over `image`, whose superblock may hold anything. Nothing when the
/// geometry asks for more than `mostGroups` groups in one request: walking them would take too long.
std::optional<ExtOutcome> referenceExtChunk(std::span<std::uint8_t const> image, ExtRequest const& request,
                                            std::uint64_t mostGroups = 20000);

} // namespace tests
