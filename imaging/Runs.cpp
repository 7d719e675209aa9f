// Finding the borders of runs, a word at a time.
#include "imaging/Runs.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

namespace imaging {

namespace {

constexpr unsigned kWordBits = 64;

/// Reverses the bits inside each of the eight bytes.
std::uint64_t reverseBitsInBytes(std::uint64_t word) {
    word = ((word >> 1) & 0x5555555555555555U) | ((word & 0x5555555555555555U) << 1);
    word = ((word >> 2) & 0x3333333333333333U) | ((word & 0x3333333333333333U) << 2);
    return ((word >> 4) & 0x0F0F0F0F0F0F0F0FU) | ((word & 0x0F0F0F0F0F0F0F0FU) << 4);
}

/// How many of the words, of which the first is `word`, are equal to it; most of a map is.
std::uint64_t equalWords(std::uint8_t const* bytes, std::uint64_t words, std::uint64_t word) {
    constexpr std::uint64_t kAtOnce = 4;
    std::uint64_t same = 1;
    for (; same + kAtOnce <= words; same += kAtOnce) {
        std::array<std::uint64_t, kAtOnce> next{};
        std::memcpy(next.data(), bytes + same * sizeof word, sizeof next);
        if (((next[0] ^ word) | (next[1] ^ word) | (next[2] ^ word) | (next[3] ^ word)) != 0) {
            break;
        }
    }
    return same;
}

} // namespace

void RunBuilder::addBits(std::span<std::uint8_t const> bits, std::uint64_t count, BitOrder order) {
    std::uint8_t const* bytes = bits.data();
    while (count != 0) {
        auto const inWord = static_cast<unsigned>(std::min<std::uint64_t>(kWordBits, count));
        std::uint64_t word = 0;
        std::memcpy(&word, bytes, (inWord + 7) / 8);
        if (inWord == kWordBits && (word == 0 || ~word == 0)) {
            std::uint64_t const same = equalWords(bytes, count / kWordBits, word);
            addRun(same * kWordBits, word != 0);
            bytes += same * sizeof word;
            count -= same * kWordBits;
            continue;
        }
        addWord(order == BitOrder::MostSignificantFirst ? reverseBitsInBytes(word) : word, inWord);
        bytes += sizeof word;
        count -= inWord;
    }
}

void RunBuilder::addWord(std::uint64_t word, unsigned count) {
    while (count != 0) {
        bool const used = (word & 1) != 0;
        auto const same = std::min(static_cast<unsigned>(used ? std::countr_one(word) : std::countr_zero(word)), count);
        addRun(same, used);
        count -= same;
        word = same == 64 ? 0 : word >> same;
    }
}

void RunBuilder::addRun(std::uint64_t count, bool used) {
    if (count == 0) {
        return;
    }
    if (used != run_.used) {
        emit();
        run_.used = used;
    }
    run_.count += count;
    used_ += used ? count : 0;
}

void RunBuilder::emit() {
    if (run_.count != 0) {
        sink_(run_);
        run_ = {run_.first + run_.count, 0, run_.used};
    }
}

void RunBuilder::finish() {
    emit();
}

} // namespace imaging
