// Stretches of a volume, in bytes.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

namespace imaging {

/// The bytes from begin to end, end excluded.
struct ByteRange {
    std::uint64_t begin;
    std::uint64_t end;

    std::uint64_t size() const { return end - begin; }
    bool isEmpty() const { return begin >= end; }
    bool operator==(ByteRange const&) const = default;
};

/// Puts ranges in order, joins those that touch, and drops empty ones and what lies past `limit`.
inline std::vector<ByteRange> normalized(std::vector<ByteRange> ranges, std::uint64_t limit) {
    std::sort(ranges.begin(), ranges.end(), [](ByteRange a, ByteRange b) { return a.begin < b.begin; });
    std::vector<ByteRange> result;
    for (ByteRange range : ranges) {
        range.end = std::min(range.end, limit);
        if (range.isEmpty()) {
            continue;
        }
        if (!result.empty() && range.begin <= result.back().end) {
            result.back().end = std::max(result.back().end, range.end);
        } else {
            result.push_back(range);
        }
    }
    return result;
}

} // namespace imaging
