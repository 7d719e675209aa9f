// The provider contract's defaults, and the provider for volumes that nothing understands.
#include "agent/core/fs/EXTParser.h"
#include "agent/core/fs/IBlockBitmapChunkProvider.h"
#include "agent/core/fs/UnrecognizedParser.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <type_traits>
#include <vector>

namespace {

using agent::core::fs::IBlockBitmapChunkProvider;
using agent::core::fs::UnrecognizedParser;

class SmallestProvider : public IBlockBitmapChunkProvider {
public:
    explicit SmallestProvider(bool* destroyed) : destroyed_(destroyed) {}
    SmallestProvider(SmallestProvider const&) = delete;
    SmallestProvider& operator=(SmallestProvider const&) = delete;
    ~SmallestProvider() override { *destroyed_ = true; }

    long getChunk(unsigned long, char*, unsigned long) const override { return 0; }

private:
    bool* destroyed_;
};

TEST(Provider, OrdersBitsFromTheLeastSignificantByDefault) {
    bool destroyed = false;
    SmallestProvider const provider(&destroyed);
    EXPECT_FALSE(provider.isMostSignificantBitFirst());
}

TEST(Provider, IsAbstractAndDestroyedThroughTheInterface) {
    bool destroyed = false;
    std::unique_ptr<IBlockBitmapChunkProvider> provider = std::make_unique<SmallestProvider>(&destroyed);
    provider.reset();
    EXPECT_TRUE(destroyed);
    EXPECT_TRUE(std::is_abstract_v<IBlockBitmapChunkProvider>);
    EXPECT_TRUE((std::is_base_of_v<IBlockBitmapChunkProvider, UnrecognizedParser>));
    EXPECT_TRUE((std::is_base_of_v<IBlockBitmapChunkProvider, agent::core::fs::EXTParser>));
}

constexpr char kMark = '\x11';

/// What one chunk of four bytes gives, in a buffer with a guard byte on each side.
struct ChunkOfFour {
    explicit ChunkOfFour(UnrecognizedParser const& parser, unsigned long offset) {
        memory.fill(kMark);
        units = parser.getChunk(offset, memory.data() + 1, 4);
    }

    bool bytesAre(char value) const {
        return std::all_of(memory.begin() + 1, memory.end() - 1, [value](char byte) { return byte == value; });
    }
    bool guardsAreWhole() const { return memory.front() == kMark && memory.back() == kMark; }

    std::array<char, 6> memory{};
    long units = 0;
};

TEST(UnrecognizedParser, OrdersBitsFromTheLeastSignificant) {
    EXPECT_FALSE(UnrecognizedParser(1).isMostSignificantBitFirst());
}

TEST(UnrecognizedParser, AFullChunkIsAllUsed) {
    UnrecognizedParser const parser(100);
    ChunkOfFour const chunk(parser, 0);
    EXPECT_EQ(chunk.units, 32);
    EXPECT_TRUE(chunk.bytesAre('\xFF'));
    EXPECT_TRUE(chunk.guardsAreWhole());
}

TEST(UnrecognizedParser, TheLastChunkEndsWithTheVolumeAndFillsTheWholeBuffer) {
    UnrecognizedParser const parser(100);
    ChunkOfFour const chunk(parser, 96);
    EXPECT_EQ(chunk.units, 4);
    EXPECT_TRUE(chunk.bytesAre('\xFF'));
    EXPECT_TRUE(chunk.guardsAreWhole());
    EXPECT_EQ(ChunkOfFour(parser, 99).units, 1);
    EXPECT_EQ(ChunkOfFour(parser, 68).units, 32);
    EXPECT_EQ(ChunkOfFour(parser, 69).units, 31);
}

TEST(UnrecognizedParser, AtAndPastTheEndLeavesTheBufferAlone) {
    UnrecognizedParser const parser(100);
    for (unsigned long const offset : {100UL, 101UL, 150UL, std::numeric_limits<unsigned long>::max()}) {
        ChunkOfFour const chunk(parser, offset);
        EXPECT_EQ(chunk.units, 0) << offset;
        EXPECT_TRUE(chunk.bytesAre(kMark)) << offset;
    }
}

TEST(UnrecognizedParser, AnEmptyBufferIsNotTouched) {
    UnrecognizedParser const parser(100);
    char byte = kMark;
    EXPECT_EQ(parser.getChunk(0, &byte, 0), 0);
    EXPECT_EQ(byte, kMark);
    EXPECT_EQ(parser.getChunk(0, nullptr, 0), 0);
}

TEST(UnrecognizedParser, AnEmptyVolumeEndsAtOnce) {
    UnrecognizedParser const parser(0);
    ChunkOfFour const chunk(parser, 0);
    EXPECT_EQ(chunk.units, 0);
    EXPECT_TRUE(chunk.bytesAre(kMark));
}

TEST(UnrecognizedParser, CountsInSixtyFourBits) {
    constexpr unsigned long kTotal = std::numeric_limits<unsigned long>::max();
    UnrecognizedParser const parser(kTotal);
    EXPECT_EQ(ChunkOfFour(parser, 0).units, 32);
    EXPECT_EQ(ChunkOfFour(parser, 1UL << 63).units, 32);
    EXPECT_EQ(ChunkOfFour(parser, kTotal - 5).units, 5);
}

TEST(UnrecognizedParser, AWalkEndsExactlyAtTheTotal) {
    for (unsigned long const total : {1UL, 7UL, 8UL, 9UL, 100UL, 4096UL, 100003UL}) {
        for (unsigned long const length : {1UL, 3UL, 64UL}) {
            UnrecognizedParser const parser(total);
            std::vector<char> buffer(length);
            unsigned long offset = 0;
            for (long units = 0; (units = parser.getChunk(offset, buffer.data(), length)) > 0;) {
                offset += static_cast<unsigned long>(units);
            }
            EXPECT_EQ(offset, total) << "in chunks of " << length;
        }
    }
}

} // namespace
