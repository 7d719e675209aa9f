// The HFS+ volume header, as far as imaging must know it.
#pragma once

#include "imaging/LoadInteger.h"

#include <array>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace imaging::hfs {

/// Reads bytes of the HFS+ volume: offset and length. Nothing comes of what lies outside the volume.
using ReadBytes = std::function<std::vector<std::uint8_t>(std::uint64_t offset, std::uint64_t length)>;

/// Consecutive allocation blocks.
struct Extent {
    std::uint64_t first;
    std::uint64_t count;
};

inline constexpr std::size_t kExtents = 8;

/// Where a file lies, as far as the header tells it.
struct Fork {
    std::uint64_t bytes;  ///< logical size
    std::uint64_t blocks; ///< all of the fork's, overflow extents included
    std::array<Extent, kExtents> extents;

    std::uint64_t blocksInHeader() const {
        std::uint64_t sum = 0;
        for (Extent const& extent : extents) {
            sum += extent.count;
        }
        return sum;
    }
};

struct Header {
    std::string signature;
    std::uint64_t version;
    std::uint64_t blockSize;
    std::uint64_t blocks;
    std::uint64_t attributes;
    std::uint64_t journalInfoBlock;
    Fork allocation; ///< the allocation file
    Fork overflow;   ///< the extents-overflow file
    std::uint64_t freeBlocks;
    std::array<Fork, 3> others; ///< catalog, attributes and startup file
};

inline Fork parseFork(std::span<std::uint8_t const> bytes) {
    Fork fork{loadBig(bytes, 0, 8), loadBig(bytes, 12, 4), {}};
    for (std::size_t i = 0; i < kExtents; ++i) {
        fork.extents[i] = {loadBig(bytes, 16 + 8 * i, 4), loadBig(bytes, 20 + 8 * i, 4)};
    }
    return fork;
}

/// @param bytes  the 512 bytes of the volume header
inline Header parseHeader(std::span<std::uint8_t const> bytes) {
    return {std::string(bytes.begin(), bytes.begin() + 2),
            loadBig(bytes, 2, 2),
            loadBig(bytes, 40, 4),
            loadBig(bytes, 44, 4),
            loadBig(bytes, 4, 4),
            loadBig(bytes, 12, 4),
            parseFork(bytes.subspan(112, 80)),
            parseFork(bytes.subspan(192, 80)),
            loadBig(bytes, 48, 4),
            {parseFork(bytes.subspan(272, 80)), parseFork(bytes.subspan(352, 80)), parseFork(bytes.subspan(432, 80))}};
}

} // namespace imaging::hfs
