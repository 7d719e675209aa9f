// Merging stretches of bits: compared with one bit at a time, with nothing touched beside them.
#include "ext/GroupBits.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

using agent::core::fs::mergeBits;
using Bytes = std::vector<std::uint8_t>;

Bytes randomBytes(std::size_t count, unsigned seed) {
    std::mt19937 generator(seed);
    Bytes bytes(count);
    for (auto& byte : bytes) {
        byte = static_cast<std::uint8_t>(generator());
    }
    return bytes;
}

Bytes mergedBitByBit(Bytes const& source, std::uint64_t sourceBit, Bytes target, std::uint64_t targetBit,
                     std::uint64_t count) {
    for (std::uint64_t i = 0; i < count; ++i) {
        unsigned const bit = (source.at((sourceBit + i) / 8) >> ((sourceBit + i) % 8)) & 1U;
        std::uint8_t& byte = target.at((targetBit + i) / 8);
        byte = static_cast<std::uint8_t>(byte | (bit << ((targetBit + i) % 8)));
    }
    return target;
}

/// The bytes that a stretch of bits needs: both buffers end right behind it, so that a step outside is one that the
/// sanitizer sees.
std::size_t bytesFor(std::uint64_t bit, std::uint64_t count) {
    return (bit + count + 7) / 8;
}

class MergeBits : public testing::TestWithParam<unsigned> {};

TEST_P(MergeBits, EqualsBitByBitForEveryShiftAndLength) {
    std::uint64_t const sourceBit = GetParam();
    for (std::uint64_t targetBit = 0; targetBit < 16; ++targetBit) {
        for (std::uint64_t count = 0; count <= 200; ++count) {
            auto const seed = static_cast<unsigned>(targetBit * 1000 + count);
            Bytes const source = randomBytes(bytesFor(sourceBit, count), seed);
            Bytes target(bytesFor(targetBit, count));
            Bytes const expected = mergedBitByBit(source, sourceBit, target, targetBit, count);
            mergeBits(source, sourceBit, target, targetBit, count);
            ASSERT_EQ(target, expected) << "to bit " << targetBit << ", " << count << " bits";
        }
    }
}

TEST_P(MergeBits, TouchesNoOtherBitOfAnyByte) {
    // Guard bytes of both kinds around the stretch: set bits stay set, clear bits stay clear.
    std::uint64_t const sourceBit = GetParam();
    Bytes const source = randomBytes(40, 99);
    Bytes const ones(40, 0xFF);
    constexpr std::uint64_t kGuardBits = 64;
    for (std::uint64_t within = 0; within < 8; ++within) {
        for (std::uint64_t count = 0; count <= 200; ++count) {
            std::uint64_t const targetBit = kGuardBits + within;
            Bytes const before = randomBytes(48, static_cast<unsigned>(count));
            Bytes target = before;
            mergeBits(source, sourceBit, target, targetBit, count);
            ASSERT_EQ(target, mergedBitByBit(source, sourceBit, before, targetBit, count)) << count;
            Bytes clear(48);
            mergeBits(ones, sourceBit, clear, targetBit, count);
            ASSERT_EQ(clear, mergedBitByBit(ones, sourceBit, Bytes(48), targetBit, count)) << count;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(FromBit, MergeBits, testing::Range(0U, 16U));

TEST(MergeBitsOfNothing, NeedsNoBuffers) {
    mergeBits({}, 0, {}, 0, 0);
    Bytes target{0x5A};
    mergeBits({}, 0, target, 3, 0);
    mergeBits({}, 0, target, 8, 0);
    EXPECT_EQ(target, Bytes{0x5A});
}

TEST(MergeBitsOfSetTarget, KeepsBitsThatTheSourceLacks) {
    Bytes const source(16, 0);
    Bytes target(16, 0xFF);
    mergeBits(source, 3, target, 5, 100);
    EXPECT_EQ(target, Bytes(16, 0xFF));
}

TEST(MergeBitsOfManyWords, EqualsBitByBitOverKilobytes) {
    Bytes const source = randomBytes(4096, 1);
    for (std::uint64_t const shift : {0U, 1U, 7U}) {
        Bytes const before = randomBytes(4096, 2);
        Bytes target = before;
        std::uint64_t const count = 4096 * 8 - 8;
        mergeBits(source, shift, target, 8 - shift, count - shift);
        EXPECT_EQ(target, mergedBitByBit(source, shift, before, 8 - shift, count - shift));
    }
}

} // namespace
