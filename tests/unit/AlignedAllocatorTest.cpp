// Aligned, zeroed memory: addresses, zeros, cost, refusals, and containers on top of it.
#include "agent/AlignedAllocator.h"
#include "support/ResidentMemory.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using agent::AlignedAllocator;
using agent::kFreshPagesThreshold;

constexpr std::size_t kLargest = std::numeric_limits<std::size_t>::max();

bool isAligned(void const* memory, std::size_t alignment) {
    return reinterpret_cast<std::uintptr_t>(memory) % alignment == 0;
}

bool isZero(void const* memory, std::size_t bytes) {
    auto const* first = static_cast<unsigned char const*>(memory);
    return std::all_of(first, first + bytes, [](unsigned char byte) { return byte == 0; });
}

/// One block, given back at the end of its scope.
class Block {
public:
    Block(std::size_t bytes, std::size_t alignment)
        : bytes_(bytes), alignment_(alignment), memory_(agent::allocateAligned(bytes, alignment)) {}
    Block(Block const&) = delete;
    Block& operator=(Block const&) = delete;
    ~Block() { agent::deallocateAligned(memory_, bytes_, alignment_); }

    void* memory() const { return memory_; }

private:
    std::size_t bytes_;
    std::size_t alignment_;
    void* memory_;
};

TEST(AlignedAllocator, StartsAtEveryPowerOfTwo) {
    for (unsigned shift = 0; shift <= 30; ++shift) {
        std::size_t const alignment = std::size_t{1} << shift;
        for (std::size_t const bytes : {std::size_t{1}, std::size_t{513}, std::size_t{4096}, kFreshPagesThreshold}) {
            Block const block(bytes, alignment);
            EXPECT_TRUE(isAligned(block.memory(), alignment)) << bytes << " bytes at " << alignment;
            EXPECT_TRUE(isZero(block.memory(), bytes)) << bytes << " bytes at " << alignment;
            std::memset(block.memory(), 0xA5, bytes);
        }
    }
}

TEST(AlignedAllocator, MemoryIsZeroAfterADirtyBlockWasGivenBack) {
    for (std::size_t const bytes : {std::size_t{24}, std::size_t{4096}, std::size_t{100000}, kFreshPagesThreshold - 1,
                                    kFreshPagesThreshold, kFreshPagesThreshold + 1, std::size_t{4} << 20}) {
        for (int round = 0; round < 8; ++round) {
            Block const block(bytes, 512);
            EXPECT_TRUE(isZero(block.memory(), bytes)) << bytes << " bytes, round " << round;
            std::memset(block.memory(), 0xFF, bytes);
        }
    }
}

TEST(AlignedAllocator, EmptyBlocksAreTakenAndGivenBack) {
    for (std::size_t const alignment : {std::size_t{1}, std::size_t{4096}, std::size_t{1} << 20}) {
        EXPECT_NO_THROW(Block(0, alignment));
    }
    agent::deallocateAligned(nullptr, 100, 512);
}

TEST(AlignedAllocator, AnUntouchedGigabyteTakesNoMemory) {
    std::size_t const before = tests::residentBytes();
    if (before == 0) {
        GTEST_SKIP() << tests::kWhyNotResident;
    }
    constexpr std::size_t kGigabyte = std::size_t{1} << 30;
    constexpr std::size_t kAllowed = std::size_t{32} << 20;
    AlignedAllocator<char> allocator(4096);
    char* const memory = allocator.allocate(kGigabyte);
    EXPECT_LT(tests::residentBytes(), before + kAllowed);
    EXPECT_EQ(memory[0], 0);
    EXPECT_EQ(memory[kGigabyte / 2], 0);
    EXPECT_EQ(memory[kGigabyte - 1], 0);
    EXPECT_LT(tests::residentBytes(), before + kAllowed);
    allocator.deallocate(memory, kGigabyte);
}

TEST(AlignedVector, ResizingWritesNoElement) {
    std::size_t const before = tests::residentBytes();
    if (before == 0) {
        GTEST_SKIP() << tests::kWhyNotResident;
    }
    std::vector<char, AlignedAllocator<char>> buffer{AlignedAllocator<char>(4096)};
    buffer.resize(std::size_t{64} << 20);
    EXPECT_LT(tests::residentBytes(), before + (std::size_t{16} << 20));
    EXPECT_EQ(buffer.back(), 0);
}

TEST(AlignedAllocator, AWideAlignmentTakesNoMemoryForTheGap) {
    std::size_t const before = tests::residentBytes();
    if (before == 0) {
        GTEST_SKIP() << tests::kWhyNotResident;
    }
    Block const block(4096, std::size_t{1} << 30);
    std::memset(block.memory(), 1, 4096);
    EXPECT_LT(tests::residentBytes(), before + (std::size_t{16} << 20));
}

TEST(AlignedAllocator, GivesBackWhatItTook) {
    std::size_t const before = tests::residentBytes();
    if (before == 0) {
        GTEST_SKIP() << tests::kWhyNotResident;
    }
    for (int round = 0; round < 64; ++round) {
        Block const block(std::size_t{8} << 20, round % 2 == 0 ? 512 : std::size_t{1} << 20);
        std::memset(block.memory(), 0xFF, std::size_t{8} << 20);
    }
    EXPECT_LT(tests::residentBytes(), before + (std::size_t{64} << 20)) << "512 MiB were written in all";
}

TEST(AlignedAllocator, RefusesAlignmentsThatAreNoPowerOfTwo) {
    for (std::size_t const alignment :
         {std::size_t{0}, std::size_t{3}, std::size_t{513}, std::size_t{4095}, std::size_t{6} << 20, kLargest}) {
        EXPECT_THROW(agent::allocateAligned(64, alignment), std::invalid_argument) << alignment;
        EXPECT_THROW(AlignedAllocator<char>(alignment).allocate(64), std::invalid_argument) << alignment;
    }
    EXPECT_THROW(AlignedAllocator<std::max_align_t>(0).allocate(1), std::invalid_argument);
}

TEST(AlignedAllocator, ImpossibleSizesThrowBadAlloc) {
    for (std::size_t const alignment : {std::size_t{1}, std::size_t{512}, std::size_t{4096}, std::size_t{1} << 21}) {
        for (std::size_t const bytes : {kLargest, kLargest - 4095, kLargest / 2, kLargest / 2 + 1, kLargest / 2 - 4096,
                                        std::size_t{1} << 62, std::size_t{1} << 48}) {
            EXPECT_THROW(agent::allocateAligned(bytes, alignment), std::bad_alloc) << bytes << " at " << alignment;
        }
    }
}

TEST(AlignedAllocator, ImpossibleAlignmentsThrowBadAlloc) {
    for (unsigned const shift : {48U, 62U, 63U}) {
        EXPECT_THROW(agent::allocateAligned(4096, std::size_t{1} << shift), std::bad_alloc) << shift;
    }
}

TEST(AlignedAllocator, ElementCountsThatOverflowThrowBadAlloc) {
    AlignedAllocator<std::uint64_t> allocator(512);
    EXPECT_THROW(allocator.allocate(kLargest / 4), std::bad_array_new_length);
    EXPECT_THROW(allocator.allocate(kLargest), std::bad_array_new_length);
    EXPECT_THROW(allocator.allocate(kLargest / 16), std::bad_alloc);
}

TEST(AlignedAllocator, LeavesErrnoAlone) {
    errno = 77;
    { Block const block(std::size_t{1} << 20, 1 << 16); }
    EXPECT_EQ(errno, 77);
    EXPECT_THROW(agent::allocateAligned(std::size_t{1} << 62, 512), std::bad_alloc);
    EXPECT_EQ(errno, 77);
    errno = 0;
}

TEST(AlignedAllocator, BelowAnElementsOwnAlignmentThatOneCounts) {
    struct alignas(64) Line {
        char bytes[64];
    };
    for (std::size_t const alignment : {std::size_t{1}, std::size_t{2}, std::size_t{64}, std::size_t{4096}}) {
        AlignedAllocator<Line> allocator(alignment);
        Line* const lines = allocator.allocate(3);
        EXPECT_TRUE(isAligned(lines, std::max(alignment, alignof(Line))));
        EXPECT_TRUE(isZero(lines, 3 * sizeof(Line)));
        allocator.deallocate(lines, 3);
    }
}

TEST(AlignedVector, ResizeGivesAlignedZeros) {
    for (std::size_t const size : {std::size_t{1}, std::size_t{512}, std::size_t{70000}, std::size_t{10} << 20}) {
        std::vector<char, AlignedAllocator<char>> buffer{AlignedAllocator<char>(4096)};
        buffer.resize(size);
        EXPECT_EQ(buffer.size(), size);
        EXPECT_TRUE(isAligned(buffer.data(), 4096)) << size;
        EXPECT_TRUE(isZero(buffer.data(), size)) << size;
    }
}

TEST(AlignedVector, ReusedHeapMemoryComesAsZeros) {
    for (int round = 0; round < 4; ++round) {
        std::vector<char, AlignedAllocator<char>> buffer{AlignedAllocator<char>(512)};
        buffer.resize(20000);
        EXPECT_TRUE(isZero(buffer.data(), buffer.size()));
        std::fill(buffer.begin(), buffer.end(), '\x5A');
    }
}

TEST(AlignedVector, GrowthKeepsTheElementsAndZeroesTheRest) {
    std::vector<std::uint32_t, AlignedAllocator<std::uint32_t>> numbers{AlignedAllocator<std::uint32_t>(64)};
    numbers.resize(10);
    std::fill(numbers.begin(), numbers.end(), 7U);
    numbers.resize(100000);
    EXPECT_TRUE(std::all_of(numbers.begin(), numbers.begin() + 10, [](auto n) { return n == 7; }));
    EXPECT_TRUE(std::all_of(numbers.begin() + 10, numbers.end(), [](auto n) { return n == 0; }));
    EXPECT_TRUE(isAligned(numbers.data(), 64));
}

TEST(AlignedVector, ElementsWithConstructorsAreConstructedAndDestroyed) {
    auto const shared = std::make_shared<int>(1);
    {
        using Pair = std::pair<std::string, std::shared_ptr<int>>;
        std::vector<Pair, AlignedAllocator<Pair>> pairs{AlignedAllocator<Pair>(256)};
        pairs.resize(3);
        EXPECT_EQ(pairs[2].first, "");
        EXPECT_EQ(pairs[2].second, nullptr);
        for (int i = 0; i < 200; ++i) {
            pairs.emplace_back("a text that is too long for a small string " + std::to_string(i), shared);
        }
        EXPECT_EQ(pairs.back().first, "a text that is too long for a small string 199");
        EXPECT_TRUE(isAligned(pairs.data(), 256));
        EXPECT_EQ(shared.use_count(), 201);
        auto const copy = pairs;
        EXPECT_EQ(copy.size(), 203U);
        EXPECT_EQ(shared.use_count(), 401);
    }
    EXPECT_EQ(shared.use_count(), 1);
}

TEST(AlignedVector, ASizeBeyondTheSignedRangeIsALengthError) {
    std::vector<char, AlignedAllocator<char>> buffer{AlignedAllocator<char>(512)};
    EXPECT_THROW(buffer.resize(std::size_t{1} << 63), std::length_error);
    EXPECT_THROW(buffer.resize(std::size_t{1} << 62), std::bad_alloc);
    EXPECT_TRUE(buffer.empty());
    buffer.resize(16);
    EXPECT_TRUE(isZero(buffer.data(), 16));
}

TEST(AlignedAllocator, IsEqualToOneOfTheSameAlignmentWhateverTheElement) {
    EXPECT_TRUE(AlignedAllocator<char>(512) == AlignedAllocator<char>(512));
    EXPECT_TRUE(AlignedAllocator<char>(512) == AlignedAllocator<long>(512));
    EXPECT_FALSE(AlignedAllocator<char>(512) == AlignedAllocator<char>(4096));
    EXPECT_TRUE(AlignedAllocator<char>(512) != AlignedAllocator<char>(4096));
}

TEST(AlignedAllocator, KeepsItsAlignmentWhenItIsReboundToAnotherElement) {
    using Rebound = std::allocator_traits<AlignedAllocator<char>>::rebind_alloc<std::uint64_t>;
    EXPECT_TRUE((std::is_same_v<Rebound, AlignedAllocator<std::uint64_t>>));
    Rebound const rebound(AlignedAllocator<char>(2048));
    EXPECT_EQ(rebound.alignment(), 2048U);
    EXPECT_EQ(AlignedAllocator<char>(rebound).alignment(), 2048U);
}

TEST(AlignedVector, AlignmentGoesWithTheContentOnCopyMoveAndSwap) {
    using Buffer = std::vector<char, AlignedAllocator<char>>;
    Buffer narrow(8, 'n', AlignedAllocator<char>(64));
    Buffer wide(8, 'w', AlignedAllocator<char>(8192));

    Buffer copied(AlignedAllocator<char>(64));
    copied = wide;
    EXPECT_EQ(copied.get_allocator().alignment(), 8192U);
    EXPECT_TRUE(isAligned(copied.data(), 8192));

    std::swap(narrow, wide);
    EXPECT_EQ(narrow.get_allocator().alignment(), 8192U);
    EXPECT_EQ(narrow.front(), 'w');

    char const* const memory = narrow.data();
    Buffer moved(AlignedAllocator<char>(64));
    moved = std::move(narrow);
    EXPECT_EQ(moved.get_allocator().alignment(), 8192U);
    EXPECT_EQ(moved.data(), memory) << "a move takes the memory along";
}

} // namespace
