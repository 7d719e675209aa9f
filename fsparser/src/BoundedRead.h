// The one place where variable on-disk structures are held against the bytes at hand.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <type_traits>

namespace agent::core::fs {

/// Whether `size` bytes from `offset` on lie inside `bytes`.
constexpr bool holds(std::span<std::uint8_t const> bytes, std::uint64_t offset, std::uint64_t size) {
    return size <= bytes.size() && offset <= bytes.size() - size;
}

/// A copy of the structure at `offset`, or nothing where it does not lie inside `bytes` as a whole.
template <typename Structure>
std::optional<Structure> readAt(std::span<std::uint8_t const> bytes, std::uint64_t offset) {
    static_assert(std::is_trivially_copyable_v<Structure> && alignof(Structure) == 1);
    if (!holds(bytes, offset, sizeof(Structure))) {
        return std::nullopt;
    }
    Structure result;
    std::memcpy(&result, bytes.data() + offset, sizeof result);
    return result;
}

/// The bytes from `offset` on; none where it lies past the end.
constexpr std::span<std::uint8_t const> from(std::span<std::uint8_t const> bytes, std::uint64_t offset) {
    return offset <= bytes.size() ? bytes.subspan(offset) : bytes.subspan(bytes.size());
}

} // namespace agent::core::fs
