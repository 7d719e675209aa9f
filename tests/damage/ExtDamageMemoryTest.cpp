// Ext volumes of few kilobytes that ask for gigabytes: what they claim takes addresses, not memory.
#include "support/ExtRun.h"
#include "support/ResidentMemory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <optional>
#include <string>
#include <vector>

namespace {

using namespace tests;

constexpr long kMostMiB = 64;

struct GreedyVolume {
    char const* name;
    std::uint32_t blocksCount;
    std::uint32_t blocksPerGroup;
    std::uint16_t descriptorSize; ///< 0: 32-byte descriptors
    std::uint8_t flagsOfGroup0;
    long result;
    std::uint64_t bytesAsked;
};

void PrintTo(GreedyVolume const& volume, std::ostream* out) {
    *out << volume.name;
}

ExtBuilder makeGreedy(GreedyVolume const& volume) {
    ExtGeometry geometry;
    geometry.is64Bit = volume.descriptorSize != 0;
    geometry.descriptorSize = volume.descriptorSize;
    geometry.blocksCount = 2; // the builder makes one group
    ExtBuilder builder = ExtBuilder(geometry).fillBitmapsAtRandom(14);
    builder.setSuper32(ext_super::kBlocksCountLow, volume.blocksCount);
    builder.setSuper32(ext_super::kBlocksPerGroup, volume.blocksPerGroup);
    builder.setFlags(0, volume.flagsOfGroup0);
    EXPECT_EQ(builder.super32(ext_super::kBlocksCountLow), volume.blocksCount);
    EXPECT_EQ(builder.super32(ext_super::kBlocksPerGroup), volume.blocksPerGroup);
    return builder;
}

class ExtGreedyVolume : public testing::TestWithParam<GreedyVolume> {};

TEST_P(ExtGreedyVolume, StaysSmall) {
    ExtBench bench(makeGreedy(GetParam()));
    ResidentPeak const peak;
    if (!peak.works) {
        GTEST_SKIP() << "the system does not let a process start its memory peak again";
    }
    ExtOutcome const outcome = bench.chunk(0, 1);
    EXPECT_EQ(outcome.result, GetParam().result);
    EXPECT_LT(peak.growthMiB(), kMostMiB);
    std::uint64_t asked = 0;
    for (auto const& call : outcome.calls) {
        asked += call.kind == ReaderCall::Kind::Read ? static_cast<std::uint64_t>(call.argument) : 0;
    }
    EXPECT_EQ(asked, GetParam().bytesAsked) << "the case must ask for as much as it is here for";
}

// One group's bitmap has up to 512 MiB less a byte, the table up to 4 GiB. Reads come in units of 512 bytes.
INSTANTIATE_TEST_SUITE_P(
    Cases, ExtGreedyVolume,
    testing::Values(GreedyVolume{"LargestBitmap", 20000, 0xFFFFFFF8, 0, 0, 8, 512 + (1UL << 29)},
                    GreedyVolume{"LargestBitmapUninitialised", 20000, 0xFFFFFFF8, 0, 2, 8, 512},
                    // 2^32 - 2 descriptors, of which the product keeps 2^32 - 64 bytes; then eight bitmaps of a byte.
                    GreedyVolume{"LargestTable", 0xFFFFFFFF, 1, 0, 0, 8, (1UL << 32) + 8 * 512},
                    // 65536 descriptors of 65535 bytes are 64 KiB less than 4 GiB; the bitmap has 8 KiB.
                    GreedyVolume{"LargestDescriptors", 0xFFFFFFFF, 65536, 65535, 0, 8, (1UL << 32) - 65536 + 8192},
                    // Two groups of half the blocks: 256 MiB of bitmap each.
                    GreedyVolume{"HalfTheBlocks", 0xFFFFFFFF, 0x80000000, 0, 0, 8, 512 + (1UL << 28)}),
    [](auto const& instance) { return std::string(instance.param.name); });

TEST(ExtResidentPeak, SeesMemoryThatIsTouchedAndGivenBack) {
    // Proves that the measure would notice: 128 MiB written and freed again.
    ResidentPeak const peak;
    if (!peak.works) {
        GTEST_SKIP() << "the system does not let a process start its memory peak again";
    }
    std::optional<std::vector<char>> memory(std::in_place, 128 << 20, '\1');
    EXPECT_EQ(memory->back(), '\1');
    memory.reset();
    EXPECT_GE(peak.growthMiB(), kMostMiB);
}

} // namespace
