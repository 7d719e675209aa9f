// Setting runs of bits: compared with one bit at a time, with guard bytes around.
#include "xfs/MarkBits.h"

#include <gtest/gtest.h>

#include <random>
#include <span>
#include <utility>
#include <vector>

namespace {

using agent::core::fs::setBits;
using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kGuard = 16; // bytes on each side that no run reaches

Bytes randomBytes(std::size_t count, unsigned seed) {
    std::mt19937 generator(seed);
    Bytes bytes(count);
    for (auto& byte : bytes) {
        byte = static_cast<std::uint8_t>(generator());
    }
    return bytes;
}

/// The bytes after, and how many bits were clear before.
std::pair<Bytes, std::uint64_t> setBitByBit(Bytes bytes, std::uint64_t first, std::uint64_t count) {
    std::uint64_t newlySet = 0;
    for (std::uint64_t bit = first; bit < first + count; ++bit) {
        auto const mask = static_cast<std::uint8_t>(1U << (bit % 8));
        newlySet += (bytes.at(bit / 8) & mask) == 0 ? 1U : 0U;
        bytes.at(bit / 8) = static_cast<std::uint8_t>(bytes.at(bit / 8) | mask);
    }
    return {bytes, newlySet};
}

void expectAsBitByBit(Bytes const& before, std::uint64_t first, std::uint64_t count) {
    auto const [expected, newlySet] = setBitByBit(before, kGuard * 8 + first, count);
    Bytes bytes = before;
    std::span const inner = std::span(bytes).subspan(kGuard, before.size() - 2 * kGuard);
    ASSERT_EQ(setBits(inner, first, count), newlySet) << count << " bits from bit " << first;
    ASSERT_EQ(bytes, expected) << count << " bits from bit " << first;
}

class SetBits : public testing::TestWithParam<std::uint64_t> {};

TEST_P(SetBits, EqualsBitByBitForEveryLength) {
    std::uint64_t const first = GetParam();
    for (std::uint64_t count = 0; count <= 300; ++count) {
        std::size_t const size = (first + count + 7) / 8 + 2 * kGuard;
        expectAsBitByBit(Bytes(size), first, count);
        expectAsBitByBit(Bytes(size, 0xFF), first, count);
        expectAsBitByBit(randomBytes(size, static_cast<unsigned>(first * 1000 + count)), first, count);
    }
}

INSTANTIATE_TEST_SUITE_P(FromBit, SetBits,
                         testing::Values(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 15, 16, 31, 33, 63, 64, 65, 127));

TEST(SetBitsOfABufferOfItsOwn, TouchesNoByteBehindIt) {
    // Nothing behind the last byte: a step outside is one that the sanitizer sees.
    for (std::uint64_t first = 0; first < 70; ++first) {
        for (std::uint64_t count = 1; count < 140; ++count) {
            Bytes bytes((first + count + 7) / 8);
            ASSERT_EQ(setBits(bytes, first, count), count);
            ASSERT_EQ(bytes, setBitByBit(Bytes(bytes.size()), first, count).first);
        }
    }
}

TEST(SetBitsTwice, CountsOnce) {
    Bytes bytes(100);
    EXPECT_EQ(setBits(bytes, 13, 700), 700U);
    EXPECT_EQ(setBits(bytes, 13, 700), 0U);
    EXPECT_EQ(setBits(bytes, 10, 4), 3U) << "bit 13 was set before";
    EXPECT_EQ(setBits(bytes, 700, 100), 87U) << "up to bit 712 they were set before";
}

TEST(SetBitsOfNothing, NeedsNoBuffer) {
    EXPECT_EQ(setBits({}, 0, 0), 0U);
    Bytes bytes{0x5A};
    EXPECT_EQ(setBits(bytes, 0, 0), 0U);
    EXPECT_EQ(setBits(bytes, 7, 0), 0U);
    EXPECT_EQ(bytes, Bytes{0x5A});
}

TEST(SetBitsOfManyWords, EqualsBitByBitOverKilobytes) {
    for (std::uint64_t const first : {0U, 1U, 63U, 64U}) {
        expectAsBitByBit(randomBytes(8192 + 2 * kGuard, 5), first, 8192 * 8 - 64);
    }
}

} // namespace
