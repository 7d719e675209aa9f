// XFS volumes of many TiB that nothing backs: block numbers and addresses beyond 32 bits.
#include "support/XfsRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace tests;
using testing::Each;
using testing::ElementsAre;

/// 24 groups of the largest size that mkfs makes, 1 TiB less a block; the last one shorter: 6.4 thousand million
/// blocks, 23.5 TiB.
XfsGeometry makeLargeGeometry(bool hasChecksums) {
    XfsGeometry geometry;
    geometry.blockSize = 4096;
    geometry.groupBlocks = 268435455;
    geometry.totalBlocks = std::uint64_t{23} * 268435455 + 100000001;
    geometry.hasChecksums = hasChecksums;
    return geometry;
}

/// Group g has runs that are its own.
std::vector<XfsRun> runsOf(std::uint32_t group) {
    return {{100 + group, 3}, {100000, 1 + group}, {200000000, 40}};
}

SyntheticReader makeLargeVolume(XfsGeometry const& geometry) {
    return makeSyntheticXfsVolume(geometry, runsOf, [](std::uint32_t group) { return 50 + group; });
}

struct LargeBench {
    explicit LargeBench(XfsGeometry const& geometry)
        : volume(makeLargeVolume(geometry)), reader(volume), logger(XfsTrace::On), parser(logger, 512, reader) {}

    std::vector<std::uint8_t> chunk(std::uint64_t start, std::uint64_t length, long result) {
        reader.calls.clear();
        logger.entries.clear();
        std::vector<std::uint8_t> buffer(length, 0xAA);
        EXPECT_EQ(parser.getChunk(start, reinterpret_cast<char*>(buffer.data()), length), result);
        return buffer;
    }

    SyntheticReader volume;
    RecordingReader reader;
    XfsLogger logger;
    ExposedXfsParser parser;
};

class XFSParserLargeVolume : public testing::TestWithParam<bool> {};

TEST_P(XFSParserLargeVolume, GroupBeyondThirtyTwoBitsOfBlocks) {
    XfsGeometry const geometry = makeLargeGeometry(GetParam());
    LargeBench bench(geometry);
    constexpr std::uint64_t kGroup = 17;
    std::uint64_t const groupStart = kGroup * geometry.groupBlocks;
    ASSERT_GT(groupStart, 0x1'0000'0000U);
    std::uint64_t const start = groupStart / 8 * 8 + 8; // the first whole byte in the group
    auto const buffer = bench.chunk(start, 100, 800);
    std::vector<bool> expected(800, true);
    for (std::uint64_t const block : {67U, 117U, 118U, 119U}) { // the listed one and the first run
        expected.at(groupStart + block - start) = false;
    }
    EXPECT_EQ(xfsBits(buffer, 800), expected);
    auto const at = static_cast<long>(groupStart * 4096);
    EXPECT_THAT(bench.reader.calls,
                ElementsAre(seekCall(at + 512), readCall(512), seekCall(at + 1536), readCall(512), seekCall(at + 4096),
                            readCall(512), seekCall(at + 4096), readCall(512)));
    EXPECT_EQ(bench.logger.entries.at(1), debugEntry("Iterating over allocation group(s) 17 - 18"));
    EXPECT_EQ(bench.logger.entries.at(3), debugEntry("fsi addr = " + std::to_string(at + 512)));
    EXPECT_EQ(bench.logger.entries.back(), debugEntry("count = 4"));
}

TEST_P(XFSParserLargeVolume, BoundaryOfTwoGroups) {
    XfsGeometry const geometry = makeLargeGeometry(GetParam());
    LargeBench bench(geometry);
    std::uint64_t const boundary = std::uint64_t{21} * geometry.groupBlocks;
    std::uint64_t const start = boundary / 8 * 8 - 80;
    auto const buffer = bench.chunk(start, 30, 240);
    std::vector<bool> expected(240, true);
    for (std::uint64_t const block : {71U, 121U, 122U, 123U}) {
        expected.at(boundary + block - start) = false;
    }
    EXPECT_EQ(xfsBits(buffer, 240), expected);
    EXPECT_EQ(bench.logger.entries.at(1), debugEntry("Iterating over allocation group(s) 20 - 22"));
}

TEST_P(XFSParserLargeVolume, LastBlocks) {
    XfsGeometry const geometry = makeLargeGeometry(GetParam());
    LargeBench bench(geometry);
    std::uint64_t const start = geometry.totalBlocks / 8 * 8 - 8;
    auto const rest = static_cast<long>(geometry.totalBlocks - start);
    EXPECT_THAT(bench.chunk(start, 10, rest), Each(0xFF)) << "the run at 200000000 is past the end";
    EXPECT_EQ(bench.logger.entries.at(1), debugEntry("Iterating over allocation group(s) 23 - 24"));
    EXPECT_THAT(bench.chunk(geometry.totalBlocks, 10, 0), Each(0));
}

TEST_P(XFSParserLargeVolume, LongRunInTheMiddleOfAGroup) {
    XfsGeometry const geometry = makeLargeGeometry(GetParam());
    LargeBench bench(geometry);
    std::uint64_t const first = std::uint64_t{22} * geometry.groupBlocks + 200000000;
    std::uint64_t const start = first / 8 * 8;
    std::vector<bool> expected(80, true);
    std::fill_n(expected.begin() + static_cast<std::ptrdiff_t>(first - start), 40, false);
    EXPECT_EQ(xfsBits(bench.chunk(start, 10, 80), 80), expected);
}

INSTANTIATE_TEST_SUITE_P(Versions, XFSParserLargeVolume, testing::Bool(),
                         [](auto const& instance) { return instance.param ? "Checksummed" : "Plain"; });

TEST(XFSParserLargestGroups, OfFourThousandMillionBlocks) {
    // Nearly 2^61 bytes: a million groups of 2^32 - 1 blocks of 512 bytes.
    XfsGeometry geometry;
    geometry.groupBlocks = 0xFFFFFFFF;
    geometry.totalBlocks = std::uint64_t{1000000} * 0xFFFFFFFF;
    auto const volume = makeSyntheticXfsVolume(
        geometry,
        [](std::uint32_t) {
            return std::vector<XfsRun>{{0xFFFFFFF0, 15}};
        },
        [](std::uint32_t) { return 0xFFFFFFE0; });
    RecordingReader const reader(volume);
    XfsLogger logger(XfsTrace::Off);
    ExposedXfsParser const parser(logger, 512, reader);
    std::uint64_t const next = std::uint64_t{999999} * 0xFFFFFFFF; // the last group's first block
    std::uint64_t const start = next / 8 * 8 - 64;
    std::vector<std::uint8_t> buffer(16);
    EXPECT_EQ(parser.getChunk(start, reinterpret_cast<char*>(buffer.data()), buffer.size()), 128);
    std::vector<bool> expected(128, true);
    std::uint64_t const before = next - 0xFFFFFFFF;
    expected.at(before + 0xFFFFFFE0 - start) = false;
    std::fill_n(expected.begin() + static_cast<std::ptrdiff_t>(before + 0xFFFFFFF0 - start), 15, false);
    EXPECT_EQ(xfsBits(buffer, 128), expected);
    EXPECT_EQ(reader.calls.at(2), seekCall(static_cast<long>(before * 512 + 512)));
}

} // namespace
