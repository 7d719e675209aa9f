// Zeroed working memory.
#include "ZeroedBuffer.h"

#include "support/ResidentMemory.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <new>
#include <stdexcept>

namespace {

using agent::core::fs::ZeroedBuffer;

TEST(ZeroedBuffer, IsZeroAlsoAfterADirtyOne) {
    for (std::size_t const size : {std::size_t{1}, std::size_t{1000}, std::size_t{1} << 20}) {
        for (int round = 0; round < 4; ++round) {
            ZeroedBuffer buffer(size);
            auto const bytes = buffer.bytes();
            ASSERT_EQ(bytes.size(), size);
            EXPECT_TRUE(std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t byte) { return byte == 0; })) << size;
            std::memset(buffer.data(), 0xFF, size);
        }
    }
}

TEST(ZeroedBuffer, ShowsTheBytesThatAreWrittenToIt) {
    ZeroedBuffer buffer(16);
    buffer.data()[15] = 9;
    EXPECT_EQ(buffer.bytes()[15], 9);
    EXPECT_EQ(buffer.size(), 16U);
}

TEST(ZeroedBuffer, AClaimedSizeTakesNoMemoryUntilItIsWritten) {
    std::size_t const before = tests::residentBytes();
    if (before == 0) {
        GTEST_SKIP() << tests::kWhyNotResident;
    }
    ZeroedBuffer buffer(std::size_t{1} << 30);
    buffer.data()[12345] = 1;
    EXPECT_LT(tests::residentBytes(), before + (std::size_t{32} << 20));
}

TEST(ZeroedBuffer, StartsAtTheAlignmentAskedFor) {
    for (std::size_t const alignment : {std::size_t{1}, std::size_t{512}, std::size_t{4096}, std::size_t{1} << 20}) {
        ZeroedBuffer buffer(1000, alignment);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(buffer.data()) % alignment, 0U);
    }
    ZeroedBuffer buffer(1000);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(buffer.data()) % __STDCPP_DEFAULT_NEW_ALIGNMENT__, 0U)
        << "what the heap gives when nothing is asked for";
}

TEST(ZeroedBuffer, OfNoBytesHoldsNoMemory) {
    ZeroedBuffer buffer(0, 4096);
    EXPECT_EQ(buffer.size(), 0U);
    EXPECT_EQ(buffer.data(), nullptr);
    EXPECT_TRUE(buffer.bytes().empty());
}

TEST(ZeroedBuffer, ASizeThatCannotBeHadThrows) {
    EXPECT_THROW(ZeroedBuffer(std::size_t{1} << 62), std::bad_alloc);
    EXPECT_THROW(ZeroedBuffer(~std::size_t{0}, 512), std::bad_alloc);
}

TEST(ZeroedBuffer, AnAlignmentThatIsNoPowerOfTwoThrows) {
    EXPECT_THROW(ZeroedBuffer(16, 3), std::invalid_argument);
    EXPECT_THROW(ZeroedBuffer(16, 0), std::invalid_argument);
}

} // namespace
