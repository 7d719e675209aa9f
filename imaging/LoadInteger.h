// Integers in headers.
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

/// Puts the low `width` bytes of a value, little-endian, at `offset`; they must lie inside `bytes`.
inline void store(std::span<std::uint8_t> bytes, std::size_t offset, std::uint64_t value, std::size_t width) {
    for (std::size_t i = 0; i < width; ++i) {
        bytes[offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
    }
}

} // namespace imaging
