// Making a bitmap from runs, against the slow way: one bit at a time.
#include "imaging/BitmapWriter.h"

#include "imaging/Runs.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <stdexcept>
#include <vector>

namespace {

using imaging::BitmapWriter;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t kBufferBytes = std::uint64_t{256} * 1024;
constexpr std::uint64_t kBufferUnits = kBufferBytes * 8;

struct Piece {
    std::uint64_t count;
    bool used;
};

std::vector<std::uint8_t> slowBitmap(std::vector<Piece> const& pieces) {
    std::vector<std::uint8_t> bytes;
    std::uint64_t unit = 0;
    for (Piece const& piece : pieces) {
        for (std::uint64_t i = 0; i < piece.count; ++i, ++unit) {
            if (unit % 8 == 0) {
                bytes.push_back(0);
            }
            unsigned const bit = piece.used ? 1U << (unit % 8) : 0U;
            bytes.back() = static_cast<std::uint8_t>(bytes.back() | bit);
        }
    }
    return bytes;
}

/// What reached the sink: the bytes, and how they were cut.
struct Collected {
    std::vector<std::uint8_t> bytes;
    std::vector<std::size_t> sizes;
};

Collected write(std::vector<Piece> const& pieces) {
    Collected collected;
    BitmapWriter writer([&collected](std::span<std::uint8_t const> bytes) {
        collected.bytes.insert(collected.bytes.end(), bytes.begin(), bytes.end());
        collected.sizes.push_back(bytes.size());
    });
    for (Piece const& piece : pieces) {
        writer.addRun(piece.count, piece.used);
    }
    writer.finish();
    EXPECT_EQ(writer.bytesWritten(), collected.bytes.size());
    return collected;
}

std::vector<Piece> randomPieces(std::uint64_t units, unsigned longest, unsigned seed) {
    std::mt19937 generator(seed);
    std::vector<Piece> pieces;
    for (std::uint64_t left = units; left != 0;) {
        std::uint64_t const count = std::min<std::uint64_t>(left, generator() % longest + 1);
        pieces.push_back({count, generator() % 2 == 0});
        left -= count;
    }
    return pieces;
}

TEST(ImagingBitmapWriter, RandomRunsGiveTheirBitsOneByOne) {
    for (unsigned const longest : {1U, 3U, 9U, 17U, 100U, 5000U}) {
        for (unsigned seed = 0; seed < 20; ++seed) {
            std::vector<Piece> const pieces = randomPieces(5000 + seed, longest, seed);
            ASSERT_EQ(write(pieces).bytes, slowBitmap(pieces)) << "runs up to " << longest << ", seed " << seed;
        }
    }
}

TEST(ImagingBitmapWriter, ThreeRunsOfEveryLengthMeetAtEveryBit) {
    for (std::uint64_t head = 0; head <= 17; ++head) {
        for (std::uint64_t middle = 0; middle <= 33; ++middle) {
            for (bool const used : {false, true}) {
                std::vector<Piece> const pieces{{head, used}, {middle, !used}, {3, used}};
                ASSERT_EQ(write(pieces).bytes, slowBitmap(pieces)) << head << ", " << middle << ", " << used;
            }
        }
    }
}

TEST(ImagingBitmapWriter, BitsPastTheLastUnitAreClear) {
    for (std::uint64_t count = 1; count <= 24; ++count) {
        Collected const collected = write({{count, true}});
        ASSERT_EQ(collected.bytes.size(), (count + 7) / 8);
        unsigned const inLast = static_cast<unsigned>((count - 1) % 8) + 1;
        ASSERT_EQ(collected.bytes.back(), (1U << inLast) - 1) << count << " units";
    }
}

TEST(ImagingBitmapWriter, NothingAddedReachesNobody) {
    Collected const collected = write({});
    EXPECT_THAT(collected.bytes, IsEmpty());
    EXPECT_THAT(collected.sizes, IsEmpty());
    EXPECT_THAT(write({{0, true}, {0, false}}).sizes, IsEmpty());
}

TEST(ImagingBitmapWriter, TheLeastSignificantBitIsTheFirstUnit) {
    EXPECT_THAT(write({{1, true}, {7, false}, {7, false}, {1, true}}).bytes, ElementsAre(0x01, 0x80));
}

TEST(ImagingBitmapWriter, RunsAcrossTheBufferLoseNoBit) {
    for (std::uint64_t const first : {kBufferUnits - 9, kBufferUnits - 8, kBufferUnits - 1, kBufferUnits,
                                      kBufferUnits + 1, kBufferUnits + 8, 2 * kBufferUnits - 3, 2 * kBufferUnits}) {
        for (bool const used : {false, true}) {
            std::vector<Piece> const pieces{{first, used}, {20, !used}, {1, used}};
            ASSERT_EQ(write(pieces).bytes, slowBitmap(pieces)) << first << " units first";
        }
    }
}

TEST(ImagingBitmapWriter, SingleBitsAcrossTheBufferLoseNoBit) {
    std::vector<Piece> const pieces = randomPieces(kBufferUnits + 4000, 2, 7);
    EXPECT_EQ(write(pieces).bytes, slowBitmap(pieces));
}

TEST(ImagingBitmapWriter, ABufferThatIsExactlyFullIsHandedOverOnce) {
    EXPECT_THAT(write({{kBufferUnits, true}}).sizes, ElementsAre(kBufferBytes));
    EXPECT_THAT(write({{kBufferUnits - 1, true}, {1, false}}).sizes, ElementsAre(kBufferBytes));
    EXPECT_THAT(write({{kBufferUnits, true}, {1, false}}).sizes, ElementsAre(kBufferBytes, 1U));
    EXPECT_THAT(write({{2 * kBufferUnits, true}}).sizes, ElementsAre(kBufferBytes, kBufferBytes));
}

TEST(ImagingBitmapWriter, AHugeRunArrivesInPiecesOfTheBuffersSize) {
    std::uint64_t bytes = 0;
    std::size_t largest = 0;
    bool allSet = true;
    BitmapWriter writer([&](std::span<std::uint8_t const> piece) {
        bytes += piece.size();
        largest = std::max(largest, piece.size());
        allSet = allSet && piece.front() == 0xFF && piece.back() == 0xFF;
    });
    writer.addRun(std::uint64_t{1} << 33, true); // a count that 32 bits do not hold: 1 GiB of bitmap
    writer.finish();
    EXPECT_EQ(bytes, std::uint64_t{1} << 30);
    EXPECT_EQ(largest, kBufferBytes);
    EXPECT_TRUE(allSet);
    EXPECT_EQ(writer.bytesWritten(), bytes);
}

TEST(ImagingBitmapWriter, WrittenBitsReadAsRunsAreTheRunsAgain) {
    std::vector<Piece> const pieces = randomPieces(20000, 30, 3);
    std::vector<std::uint8_t> const bytes = write(pieces).bytes;
    std::vector<Piece> again;
    imaging::RunBuilder builder([&again](imaging::Run const& run) { again.push_back({run.count, run.used}); });
    builder.addBits(bytes, 20000, imaging::BitOrder::LeastSignificantFirst);
    builder.finish();
    EXPECT_EQ(write(again).bytes, bytes);
    EXPECT_EQ(slowBitmap(again), slowBitmap(pieces));
}

TEST(ImagingBitmapWriter, WhatTheSinkThrowsComesOut) {
    BitmapWriter writer([](std::span<std::uint8_t const>) { throw std::runtime_error("full"); });
    writer.addRun(9, true);
    EXPECT_THROW(writer.finish(), std::runtime_error);
}

} // namespace
