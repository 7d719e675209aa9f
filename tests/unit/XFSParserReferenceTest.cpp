// Random XFS volumes: the parser against a slow model, entries and reads included, and walks in chunks of any length.
#include "support/XfsRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

using namespace tests;

struct Shape {
    char const* name;
    XfsGeometry geometry;
    unsigned alignment;
};

void PrintTo(Shape const& shape, std::ostream* out) {
    *out << shape.name;
}

XfsGeometry shaped(std::uint32_t blockSize, std::uint16_t sectorSize, std::uint32_t groupBlocks, std::uint64_t blocks,
                   bool hasChecksums) {
    XfsGeometry geometry;
    geometry.blockSize = blockSize;
    geometry.sectorSize = sectorSize;
    geometry.groupBlocks = groupBlocks;
    geometry.totalBlocks = blocks;
    geometry.hasChecksums = hasChecksums;
    return geometry;
}

class XFSParserReference : public testing::TestWithParam<Shape> {
protected:
    static constexpr unsigned kVolumes = 12;

    static XfsBuilder makeVolume(unsigned seed) { return XfsBuilder(GetParam().geometry).fillAtRandom(seed); }
};

TEST_P(XFSParserReference, GivesTheSameToTheLastEntryAndRead) {
    std::mt19937 generator(71);
    for (unsigned seed = 0; seed < kVolumes; ++seed) {
        XfsBuilder const builder = makeVolume(seed);
        XfsBench bench(builder, GetParam().alignment);
        XfsBench quiet(builder, GetParam().alignment, XfsTrace::Off);
        for (unsigned round = 0; round < 25; ++round) {
            std::uint64_t const blocks = builder.geometry().totalBlocks;
            std::uint64_t const step = round % 8 == 0 ? 1 : 8; // now and then no multiple of 8, which fails
            std::uint64_t const start = generator() % (blocks + 40) / step * step;
            XfsRequest const request{GetParam().alignment, start, generator() % (blocks / 6)};
            auto const expected = referenceXfsChunk(builder.bytes, request);
            ASSERT_TRUE(expected.has_value());
            XfsOutcome const outcome = bench.chunk(request.start, request.length);
            ASSERT_EQ(outcome, *expected) << "volume " << seed << ", " << request.length << " from " << request.start;
            XfsOutcome const untraced = quiet.chunk(request.start, request.length);
            ASSERT_EQ(untraced.result, outcome.result);
            ASSERT_TRUE(outcome.result < 0 || untraced.buffer == outcome.buffer);
            ASSERT_EQ(untraced.calls, outcome.calls);
        }
    }
}

TEST_P(XFSParserReference, WalksOfEveryChunkLengthGiveOneMap) {
    XfsBuilder const builder = makeVolume(100);
    std::vector<bool> const expected = builder.map();
    ASSERT_GT(std::count(expected.begin(), expected.end(), false), 50);
    XfsBench bench(builder, GetParam().alignment, XfsTrace::Off);
    for (std::uint64_t const length : {1U, 2U, 3U, 7U, 8U, 13U, 62U, 63U, 64U, 100U, 161U, 4096U}) {
        std::vector<bool> map;
        for (long result = 1; result > 0;) {
            XfsOutcome const outcome = bench.chunk(map.size(), length);
            result = outcome.result;
            ASSERT_GE(result, 0);
            auto const bits = xfsBits(outcome.buffer, result);
            map.insert(map.end(), bits.begin(), bits.end());
        }
        ASSERT_EQ(map, expected) << "in chunks of " << length << " bytes";
    }
}

INSTANTIATE_TEST_SUITE_P(Shapes, XFSParserReference,
                         testing::Values(Shape{"Blocks512", shaped(512, 512, 500, 1300, false), 512},
                                         Shape{"Blocks512InLargeUnits", shaped(512, 512, 500, 1300, false), 4096},
                                         Shape{"Blocks1024", shaped(1024, 512, 512, 1536, false), 1024},
                                         Shape{"Blocks1024Checksummed", shaped(1024, 512, 333, 950, true), 512},
                                         Shape{"Blocks2048Checksummed", shaped(2048, 512, 400, 1111, true), 512},
                                         Shape{"Blocks4096", shaped(4096, 512, 300, 851, false), 512},
                                         Shape{"Blocks4096Checksummed", shaped(4096, 512, 300, 1199, true), 4096},
                                         Shape{"Sectors4096", shaped(4096, 4096, 256, 700, false), 4096},
                                         Shape{"Sectors4096Checksummed", shaped(4096, 4096, 256, 1024, true), 512},
                                         Shape{"OneGroup", shaped(1024, 512, 2000, 1999, true), 512}),
                         [](auto const& instance) { return std::string(instance.param.name); });

TEST(XFSParserReferenceVolumes, HaveTreesOfOneToThreeLevels) {
    std::set<std::uint64_t> levels;
    for (unsigned seed = 0; seed < 12; ++seed) {
        XfsBuilder const builder = XfsBuilder().fillAtRandom(seed);
        for (std::uint32_t group = 0; group < 3; ++group) {
            levels.insert(builder.get(builder.geometry().headerOffset(group) + xfs_header::kLevels, 4));
        }
    }
    EXPECT_THAT(levels, testing::IsSupersetOf({1U, 2U, 3U}));
}

TEST(XFSParserReferenceNumbers, OfAHandMadeVolume) {
    // The model itself, against a map written down by hand: 4 blocks of headers, the root, one run, one listed block.
    XfsGeometry geometry;
    geometry.groupBlocks = 24;
    geometry.totalBlocks = 24;
    XfsBuilder builder(geometry);
    builder.plantTree(0, {{10, 3}});
    builder.setFreeList(0, 0, {23});
    auto const expected = referenceXfsChunk(builder.bytes, {512, 0, 4});
    ASSERT_TRUE(expected.has_value());
    EXPECT_EQ(expected->buffer, (std::vector<std::uint8_t>{0xFF, 0xE3, 0x7F, 0x00}));
    EXPECT_EQ(expected->result, 24);
}

} // namespace
