// Bits in whole words where the stretch allows it.
#include "ext/GroupBits.h"

#include <algorithm>
#include <cstring>

namespace agent::core::fs {

namespace {

/// The `count` bits (1 to 8) from bit `bit` on, in the low bits of the result.
std::uint8_t takeBits(std::span<std::uint8_t const> bitmap, std::uint64_t bit, unsigned count) {
    std::uint64_t const byte = bit >> 3;
    unsigned const shift = bit & 7;
    unsigned bits = bitmap[byte] >> shift;
    if (shift + count > 8) {
        bits |= static_cast<unsigned>(bitmap[byte + 1]) << (8 - shift);
    }
    return static_cast<std::uint8_t>(bits & ((1U << count) - 1));
}

/// The 64 bits from bit `bit` on; needs nine bytes from that byte on unless the bit begins a byte.
std::uint64_t takeWord(std::uint8_t const* bytes, unsigned shift) {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes, sizeof word);
    if (shift != 0) {
        word = (word >> shift) | (static_cast<std::uint64_t>(bytes[8]) << (64 - shift));
    }
    return word;
}

} // namespace

void mergeBits(std::span<std::uint8_t const> source, std::uint64_t sourceBit, std::span<std::uint8_t> target,
               std::uint64_t targetBit, std::uint64_t count) {
    // Up to the next byte of the target.
    if (unsigned const within = targetBit & 7; within != 0 && count != 0) {
        auto const head = static_cast<unsigned>(std::min<std::uint64_t>(8 - within, count));
        unsigned const bits = takeBits(source, sourceBit, head);
        target[targetBit >> 3] = static_cast<std::uint8_t>(target[targetBit >> 3] | (bits << within));
        sourceBit += head;
        targetBit += head;
        count -= head;
    }
    unsigned const shift = sourceBit & 7;
    std::uint8_t const* from = source.data() + (sourceBit >> 3);
    std::uint8_t* to = target.data() + (targetBit >> 3);
    for (; count >= 64; count -= 64, from += 8, to += 8, sourceBit += 64, targetBit += 64) {
        std::uint64_t word = 0;
        std::memcpy(&word, to, sizeof word);
        word |= takeWord(from, shift);
        std::memcpy(to, &word, sizeof word);
    }
    while (count != 0) {
        auto const piece = static_cast<unsigned>(std::min<std::uint64_t>(8, count));
        target[targetBit >> 3] = static_cast<std::uint8_t>(target[targetBit >> 3] | takeBits(source, sourceBit, piece));
        sourceBit += piece;
        targetBit += piece;
        count -= piece;
    }
}

} // namespace agent::core::fs
