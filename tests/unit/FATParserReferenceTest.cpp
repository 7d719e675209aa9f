// The FAT parser against the plain reference, in thousands of geometries sane and hostile.
#include "support/FatRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <csignal>
#include <initializer_list>
#include <random>
#include <vector>

namespace {

using namespace tests;

/// Draws from lists of telling values and from ranges; fixed by its seed on every machine.
class Dice {
public:
    explicit Dice(unsigned seed) : generator_(seed) {}

    std::uint64_t below(std::uint64_t bound) { return generator_() % bound; }
    std::uint32_t word() { return static_cast<std::uint32_t>(generator_()); }
    bool once(unsigned in) { return below(in) == 0; }

    template <typename Value>
    Value pick(std::initializer_list<Value> values) {
        return *(values.begin() + below(values.size()));
    }

private:
    std::mt19937_64 generator_;
};

std::uint32_t drawEntry(Dice& dice) {
    std::uint32_t const upper = dice.once(3) ? dice.word() & 0xF0000000 : 0;
    switch (dice.below(5)) {
    case 0:
    case 1:
        return upper;
    case 2:
        return upper | fat_entry::kBad;
    default:
        return upper | (dice.word() & 0x0FFFFFFF);
    }
}

/// A boot sector whose fields are mostly small, before up to 64 KiB of entries.
std::vector<std::uint8_t> drawVolume(Dice& dice) {
    FatGeometry geometry;
    geometry.bytesPerSector = dice.once(8) ? dice.pick<std::uint16_t>({0, 1, 2, 511, 513, 0x8000, 0xFFFF})
                                           : dice.pick<std::uint16_t>({512, 1024, 2048, 4096, 128});
    geometry.sectorsPerCluster =
        dice.once(8) ? dice.pick<std::uint8_t>({0, 3, 128, 255}) : dice.pick<std::uint8_t>({1, 2, 4, 8, 16});
    geometry.reservedSectors =
        static_cast<std::uint16_t>(dice.once(16) ? dice.pick({0xFFFFU, 0x8000U}) : dice.below(12));
    geometry.numberOfFats = static_cast<std::uint8_t>(dice.once(16) ? 255 : dice.below(4));
    geometry.sectorsPerFat = dice.once(8) ? dice.pick({0U, 0x10000U, 0x10003U, 0xFFFFFFFFU, 0x8000U})
                                          : static_cast<std::uint32_t>(dice.below(10));
    geometry.totalSectors = dice.once(16) ? dice.pick({0U, 0xFFFFFFFFU}) : static_cast<std::uint32_t>(dice.below(9000));
    geometry.totalSectors16 = static_cast<std::uint16_t>(dice.once(6) ? dice.word() : 0);
    std::vector<std::uint8_t> bytes = makeFatBootSector(geometry);
    bytes.resize(512 + dice.below(65536));
    for (std::size_t at = 512; at + 4 <= bytes.size(); at += 4) {
        std::uint32_t const entry = drawEntry(dice);
        for (unsigned i = 0; i < 4; ++i) {
            bytes[at + i] = static_cast<std::uint8_t>(entry >> (8 * i));
        }
    }
    return bytes;
}

FatRequest drawRequest(Dice& dice) {
    std::uint64_t const start = [&]() -> std::uint64_t {
        switch (dice.below(8)) {
        case 0:
            return dice.pick<std::uint64_t>({~std::uint64_t{0}, std::uint64_t{1} << 32, (std::uint64_t{1} << 32) + 5,
                                             (std::uint64_t{1} << 48), ~std::uint64_t{0} - 40});
        case 1:
        case 2:
            return dice.below(4);
        case 3:
            return dice.below(3000);
        default:
            return 0;
        }
    }();
    return {start, dice.once(20) ? 0 : 1 + dice.below(dice.pick({4U, 40U, 600U}))};
}

TEST(FATParserReference, RandomRequestsThatDoNotAbortAreAnsweredAlike) {
    Dice dice(20260101);
    unsigned answered = 0;
    unsigned failed = 0;
    unsigned thrown = 0;
    unsigned later = 0;
    for (unsigned n = 0; n < 6000; ++n) {
        auto const image = drawVolume(dice);
        FatRequest const request = drawRequest(dice);
        FatOutcome const expected = referenceFatChunk(image, request);
        if (expected.end == FatEnd::Aborts) {
            continue;
        }
        FatBench bench(image, dice.pick({512U, 1024U, 4096U}));
        if (expected.end == FatEnd::Throws) {
            ASSERT_THROW(bench.chunk(request.start, request.length), std::exception) << "volume " << n;
            ++thrown;
            continue;
        }
        ASSERT_EQ(bench.chunk(request.start, request.length), expected) << "volume " << n;
        answered += expected.result > 0 ? 1U : 0U;
        failed += expected.result < 0 ? 1U : 0U;
        later += expected.result > 0 && request.start != 0 ? 1U : 0U;
    }
    EXPECT_GT(answered, 2000U);
    EXPECT_GT(failed, 200U);
    EXPECT_GT(thrown, 200U);
    EXPECT_GT(later, 100U);
}

TEST(FATParserReferenceDeathTest, RandomRequestsThatAbortDoSo) {
    Dice dice(20260102);
    unsigned fromUnitZero = 0;
    for (unsigned found = 0; found < 60;) {
        auto const image = drawVolume(dice);
        FatRequest const request = drawRequest(dice);
        if (referenceFatChunk(image, request).end != FatEnd::Aborts) {
            continue;
        }
        FatBench bench(image);
        EXPECT_EXIT(bench.chunk(request.start, request.length), testing::KilledBySignal(SIGABRT), "");
        ++found;
        fromUnitZero += request.start == 0 ? 1U : 0U;
    }
    EXPECT_GT(fromUnitZero, 5U);
}

/// A volume as a format program would make it, but for its size, with its data area at unit 1 or behind.
FatGeometry drawSaneGeometry(Dice& dice) {
    FatGeometry geometry;
    geometry.bytesPerSector = dice.pick<std::uint16_t>({512, 1024, 2048, 4096});
    geometry.sectorsPerCluster = dice.pick<std::uint8_t>({1, 2, 4, 8, 16, 32, 64, 128});
    geometry.numberOfFats = dice.pick<std::uint8_t>({1, 2, 2, 2, 4});
    auto const clusters = static_cast<std::uint32_t>(1 + dice.below(3000));
    geometry.sectorsPerFat =
        (clusters + 5) * 4 / geometry.bytesPerSector + 1 + static_cast<std::uint32_t>(dice.below(3));
    geometry.reservedSectors =
        static_cast<std::uint16_t>(std::max<std::uint64_t>(geometry.sectorsPerCluster, 2) + dice.below(40));
    geometry.totalSectors =
        static_cast<std::uint32_t>(geometry.dataStart() / geometry.bytesPerSector +
                                   clusters * geometry.sectorsPerCluster + dice.below(geometry.sectorsPerCluster));
    return geometry;
}

TEST(FATParserReference, SaneVolumesAreMappedAsTheirClustersLie) {
    Dice dice(20260103);
    unsigned unaligned = 0;
    for (unsigned n = 0; n < 1500; ++n) {
        FatBuilder builder(drawSaneGeometry(dice));
        builder.fillAtRandom(n);
        ASSERT_EQ(referenceFatChunk(builder.bytes, {0, builder.geometry().mapBytes()}).end, FatEnd::Answers);
        FatOutcome const outcome = wholeFatMap(builder);
        ASSERT_EQ(outcome.result, static_cast<long>(builder.geometry().units()));
        ASSERT_TRUE(fatUnits(outcome.buffer, outcome.result) == builder.map()) << "volume " << n;
        unaligned += builder.geometry().dataStart() % builder.geometry().clusterBytes() != 0 ? 1U : 0U;
    }
    EXPECT_GT(unaligned, 300U);
    EXPECT_LT(unaligned, 1400U);
}

TEST(FATParserReference, LargeVolumeThatNothingBacksIsCountedExactly) {
    // 2 TiB in clusters of 64 KiB: 2^25 units, whose entries have 128 MiB.
    FatGeometry const geometry{4096, 16, 32, 1, 32769, 1U << 29, 0};
    SyntheticReader const volume = makeSyntheticFatVolume(
        geometry, [](std::uint64_t cluster) { return cluster % 3 == 0 ? fat_entry::kEndOfChain : fat_entry::kFree; });
    FatReaderBench bench(volume, 4096);
    FatOutcome const outcome = bench.chunk(0, geometry.mapBytes());
    EXPECT_EQ(outcome.result, 1L << 25);
    std::uint64_t used = 0;
    for (auto const byte : outcome.buffer) {
        used += static_cast<unsigned>(std::popcount(byte));
    }
    // One sector more than whole clusters stands before the data: a unit is used by one cluster in three or the next.
    ASSERT_EQ(geometry.dataStart() % geometry.clusterBytes(), 4096U);
    std::uint64_t expected = geometry.dataUnit();
    for (std::uint64_t cluster = 2; cluster - 2 + geometry.dataUnit() < geometry.units(); ++cluster) {
        expected += cluster % 3 == 0 || cluster % 3 == 2 ? 1U : 0U;
    }
    EXPECT_EQ(used, expected);
}

} // namespace
