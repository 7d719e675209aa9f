// Finding the borders of runs, a word at a time.
#include "imaging/Runs.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace imaging {

namespace {

/// Reverses the bits inside each of the eight bytes.
std::uint64_t reverseBitsInBytes(std::uint64_t word) {
    word = ((word >> 1) & 0x5555555555555555U) | ((word & 0x5555555555555555U) << 1);
    word = ((word >> 2) & 0x3333333333333333U) | ((word & 0x3333333333333333U) << 2);
    return ((word >> 4) & 0x0F0F0F0F0F0F0F0FU) | ((word & 0x0F0F0F0F0F0F0F0FU) << 4);
}

} // namespace

void RunBuilder::addBits(std::span<std::uint8_t const> bits, std::uint64_t count, BitOrder order) {
    std::uint8_t const* bytes = bits.data();
    while (count != 0) {
        auto const inWord = static_cast<unsigned>(std::min<std::uint64_t>(64, count));
        std::uint64_t word = 0;
        std::memcpy(&word, bytes, (inWord + 7) / 8);
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
