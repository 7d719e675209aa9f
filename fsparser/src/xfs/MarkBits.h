// Setting runs of bits.
#pragma once

#include <cstdint>
#include <span>

namespace agent::core::fs {

/// Sets `count` bits from bit `first` on, least significant bit first, whole words at a time.
/// @param bits  holds bits first to first + count - 1
/// @return how many of them were clear before
std::uint64_t setBits(std::span<std::uint8_t> bits, std::uint64_t first, std::uint64_t count);

} // namespace agent::core::fs
