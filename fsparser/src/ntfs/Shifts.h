// Shifts as the parser's arithmetic has them: counts are taken modulo the width, and a size of 0 counts as 2^63.
#pragma once

#include <bit>
#include <cstdint>

namespace agent::core::fs {

/// The base-2 logarithm by counting trailing zero bits; all ones when the value is 0.
constexpr std::uint32_t log2Of(std::uint64_t value) {
    return value == 0 ? ~std::uint32_t{0} : static_cast<std::uint32_t>(std::countr_zero(value));
}

constexpr std::uint64_t shiftLeft(std::uint64_t value, std::uint32_t count) {
    return value << (count & 63U);
}

constexpr std::uint64_t shiftRight(std::uint64_t value, std::uint32_t count) {
    return value >> (count & 63U);
}

/// Arithmetic: the sign stays.
constexpr std::int64_t shiftRight(std::int64_t value, std::uint32_t count) {
    return value >> (count & 63U);
}

/// Powers of two, and 0.
constexpr bool isPowerOfTwoOrZero(std::uint64_t value) {
    return (value & (value - 1)) == 0;
}

} // namespace agent::core::fs
