// Copying stretches of bits between bitmaps of the same bit order.
#pragma once

#include <cstdint>
#include <span>

namespace agent::core::fs {

/// Sets, in `target` from bit `targetBit` on, those of `count` bits that are set in `source` from bit `sourceBit` on.
/// Bits are least significant first; bits of the target that are set stay set, and no other bit is touched.
/// Both stretches must lie inside their bitmaps.
void mergeBits(std::span<std::uint8_t const> source, std::uint64_t sourceBit, std::span<std::uint8_t> target,
               std::uint64_t targetBit, std::uint64_t count);

} // namespace agent::core::fs
