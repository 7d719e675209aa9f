// Runs of bits in whole words where the stretch allows it.
#include "xfs/MarkBits.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace agent::core::fs {

namespace {

/// Sets the bits of `mask` in the integer at `place`; how many were clear.
template <typename Word>
std::uint64_t setMask(std::uint8_t* place, Word mask) {
    Word word = 0;
    std::memcpy(&word, place, sizeof word);
    auto const clear = static_cast<Word>(mask & ~word);
    word = static_cast<Word>(word | mask);
    std::memcpy(place, &word, sizeof word);
    return static_cast<std::uint64_t>(std::popcount(clear));
}

/// `count` (0 to 8) bits of a byte from bit `from` on.
std::uint8_t byteMask(unsigned from, std::uint64_t count) {
    return static_cast<std::uint8_t>(((1U << count) - 1) << from);
}

/// Sets the 64 bits at `place`; how many were clear. Nearly always all are, and then they need no counting.
std::uint64_t setWord(std::uint8_t* place) {
    std::uint64_t word = 0;
    std::memcpy(&word, place, sizeof word);
    std::memset(place, 0xFF, sizeof word);
    return word == 0 ? 64 : static_cast<std::uint64_t>(std::popcount(~word));
}

} // namespace

std::uint64_t setBits(std::span<std::uint8_t> bits, std::uint64_t first, std::uint64_t count) {
    std::uint8_t* place = bits.data() + first / 8;
    std::uint64_t newlySet = 0;
    if (auto const within = static_cast<unsigned>(first % 8); within != 0) {
        std::uint64_t const head = std::min<std::uint64_t>(8 - within, count);
        newlySet += setMask<std::uint8_t>(place++, byteMask(within, head));
        count -= head;
    }
    for (; count >= 64; count -= 64, place += 8) {
        newlySet += setWord(place);
    }
    for (; count >= 8; count -= 8) {
        newlySet += setMask<std::uint8_t>(place++, 0xFF);
    }
    return count == 0 ? newlySet : newlySet + setMask<std::uint8_t>(place, byteMask(0, count));
}

} // namespace agent::core::fs
