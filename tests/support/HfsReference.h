// What an HFS+ request must give, worked out step by step in the simplest way, to compare the parser with.
#pragma once

#include "support/HfsRun.h"

#include <optional>

namespace tests {

/// The same requests as the parser answers, made of the same reader calls. The reader presents the header at byte 0.
/// Meant for volumes whose tree has no cycles: there is no limit of any kind.
class HfsReference {
public:
    HfsReference(agent::core::IVolumeReader const& volume, std::vector<std::uint8_t> header);

    /// As getChunk() does it; the buffer starts from kHfsUntouched.
    HfsOutcome chunk(std::uint64_t offset, std::uint64_t length);

    /// The search alone.
    HfsSearch search(std::uint32_t fileId, HfsExtents const& before = {});

private:
    struct Fork {
        std::uint64_t totalBlocks;
        HfsExtents extents;
        std::uint64_t blocks() const;
    };

    Fork fork(std::uint64_t field) const;
    bool read(std::uint64_t address, std::uint8_t* to, std::uint64_t length);
    bool fail(std::string const& text);
    long copyChunk(std::uint64_t offset, std::vector<std::uint8_t>& buffer);
    long copyFrom(HfsExtents const& extents, std::uint64_t offset, std::vector<std::uint8_t>& buffer);
    bool searchInto(std::uint32_t fileId, HfsExtents& found);
    bool findRoot(std::vector<std::uint32_t>& queue, std::vector<std::uint8_t>& node);
    std::optional<std::uint64_t> findNode(std::uint64_t position) const;
    bool takeNode(std::vector<std::uint8_t> const& node, std::uint32_t fileId, std::vector<std::uint32_t>& queue,
                  HfsExtents& found, std::string& cause);
    static bool takeLeaf(std::vector<std::uint8_t> const& node, std::uint32_t fileId, HfsExtents& found);
    static bool takeChildren(std::vector<std::uint8_t> const& node, std::uint64_t records, bool oneMore,
                             std::vector<std::uint32_t>& queue);

    RecordingReader volume_;
    std::vector<std::uint8_t> header_;
    std::uint64_t blockSize_;
    std::vector<LogEntry> entries_;
};

} // namespace tests
