// Reading integers from headers.
#pragma once

#include <cstdint>
#include <span>

namespace imaging {

/// The little-endian integer of `width` bytes (1 to 8) at `offset`, which must lie inside `bytes`.
inline std::uint64_t load(std::span<std::uint8_t const> bytes, std::size_t offset, std::size_t width) {
    std::uint64_t value = 0;
    for (std::size_t i = width; i-- > 0;) {
        value = (value << 8) | bytes[offset + i];
    }
    return value;
}

/// The big-endian one.
inline std::uint64_t loadBig(std::span<std::uint8_t const> bytes, std::size_t offset, std::size_t width) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i) {
        value = (value << 8) | bytes[offset + i];
    }
    return value;
}

} // namespace imaging
