// What a FAT map request must give, worked out step by step in the plainest way, to compare the parser with.
#pragma once

#include "support/Readers.h"
#include "support/RecordingLogger.h"

#include <cstdint>
#include <span>
#include <vector>

namespace tests {

/// How a request ends.
enum class FatEnd {
    Answers, ///< it returns
    Throws,  ///< the memory cannot be had
    Aborts,  ///< it consults an entry that it never read
};

/// Everything that a request leaves behind. Only its end counts where it does not return.
struct FatOutcome {
    FatEnd end = FatEnd::Answers;
    long result = 0;
    std::vector<std::uint8_t> buffer;
    std::vector<LogEntry> entries;
    std::vector<ReaderCall> calls;

    bool operator==(FatOutcome const&) const = default;
};

/// One request for the map of a FAT volume.
struct FatRequest {
    std::uint64_t start = 0;
    std::uint64_t length = 0;
};

/// What `request` gives on a memory reader over `image`, whose boot sector may hold anything.
FatOutcome referenceFatChunk(std::span<std::uint8_t const> image, FatRequest const& request);

} // namespace tests
