// The ext parser against the slow reference, in many geometries sane and hostile, and in whole walks.
#include "support/ExtRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstring>
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

struct HostileVolume {
    std::vector<std::uint8_t> bytes;
    ExtGeometry geometry;
};

std::uint32_t drawBlocksPerGroup(Dice& dice) {
    switch (dice.below(8)) {
    case 0:
        return dice.pick({0U, 1U, 7U, 0x80000000U, 0xFFFFFFF0U, 0xFFFFFFF9U, 0xFFFFFFFFU});
    case 1:
        return static_cast<std::uint32_t>(1 + dice.below(64)); // tiny groups, mostly no multiple of 8
    case 2:
        return static_cast<std::uint32_t>(8192 + dice.below(100000)); // more than a bitmap block has bits
    case 3:
    case 4:
        return static_cast<std::uint32_t>(1 + dice.below(5000));
    default:
        return dice.pick({256U, 8192U, 32768U});
    }
}

ExtGeometry drawGeometry(Dice& dice) {
    ExtGeometry geometry;
    geometry.logBlockSize =
        dice.once(6) ? dice.pick({7U, 21U, 22U, 31U, 32U, 33U, 0xFFFFFFF7U}) : dice.pick({0U, 1U, 2U});
    geometry.blocksPerGroup = drawBlocksPerGroup(dice);
    geometry.blocksCount = dice.once(8) ? dice.pick({0U, 1U, 2U, 0x80000000U, 0xFFFFFFFFU})
                                        : static_cast<std::uint32_t>(dice.below(100000));
    switch (dice.below(6)) {
    case 0:
        geometry.firstDataBlock = dice.pick({0xFFFFFFFFU, 0xFFFFFFF0U, 0xFFFF0000U, geometry.blocksCount,
                                             geometry.blocksCount + 1, geometry.blocksCount - 1});
        break;
    case 1:
        geometry.firstDataBlock = static_cast<std::uint32_t>(dice.below(300));
        break;
    default:
        geometry.firstDataBlock = dice.pick({0U, 1U});
    }
    geometry.is64Bit = dice.once(2);
    geometry.descriptorSize =
        dice.once(4) ? dice.pick<std::uint16_t>({0, 1, 18, 19, 33, 65535}) : dice.pick<std::uint16_t>({32, 64});
    return geometry;
}

/// Bytes of a seed, a superblock of the geometry, and descriptors that mostly point into the volume.
HostileVolume drawVolume(Dice& dice) {
    HostileVolume volume{{}, drawGeometry(dice)};
    volume.bytes.resize(4096 + dice.below(300000));
    for (auto& byte : volume.bytes) {
        byte = static_cast<std::uint8_t>(dice.word());
    }
    auto store = [&](std::uint64_t at, std::uint64_t value, unsigned width) {
        for (unsigned i = 0; i < width && at + i < volume.bytes.size(); ++i) {
            volume.bytes[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
        }
    };
    std::uint64_t const blockBytes = std::uint64_t{1024} << (volume.geometry.logBlockSize % 32);
    std::uint64_t const table = blockBytes * (volume.geometry.firstDataBlock + std::uint64_t{1});
    std::uint64_t const step = std::max<std::uint64_t>(volume.geometry.descriptorBytes(), 1);
    for (std::uint64_t at = table, group = 0; at < volume.bytes.size() && group < 300; at += step, ++group) {
        store(at, dice.below(volume.bytes.size() / blockBytes + 2), 4);
        store(at + ext_group::kFlags, dice.once(5) ? dice.word() & 0xFF : 0, 1);
    }
    store(kExtSuperBlockOffset + ext_super::kBlocksCountLow, volume.geometry.blocksCount, 4);
    store(kExtSuperBlockOffset + ext_super::kFirstDataBlock, volume.geometry.firstDataBlock, 4);
    store(kExtSuperBlockOffset + ext_super::kLogBlockSize, volume.geometry.logBlockSize, 4);
    store(kExtSuperBlockOffset + ext_super::kBlocksPerGroup, volume.geometry.blocksPerGroup, 4);
    store(kExtSuperBlockOffset + ext_super::kMagic, 0xEF53, 2);
    std::uint32_t const others = dice.word() & ~kExt64Bit;
    store(kExtSuperBlockOffset + ext_super::kIncompatibleFeatures, others | (volume.geometry.is64Bit ? kExt64Bit : 0),
          4);
    store(kExtSuperBlockOffset + ext_super::kDescriptorSize, volume.geometry.descriptorSize, 2);
    return volume;
}

ExtRequest drawRequest(Dice& dice, ExtGeometry const& geometry) {
    ExtRequest request;
    request.alignment = dice.pick({512U, 1024U, 4096U});
    switch (dice.below(6)) {
    case 0:
        request.start = 0;
        break;
    case 1:
        request.start = geometry.blocksCount + dice.below(2);
        break;
    case 2:
        request.start = dice.pick({1U, geometry.firstDataBlock, geometry.firstDataBlock - 1});
        break;
    case 3: // a bit before or behind a group's border
        request.start =
            geometry.firstDataBlock + std::uint64_t{geometry.blocksPerGroup} * dice.below(5) + dice.below(3);
        break;
    default:
        request.start = dice.below(std::uint64_t{geometry.blocksCount} + 1);
    }
    request.length = dice.once(3) ? dice.below(12) : dice.below(6000);
    return request;
}

class EXTParserAgainstReference : public testing::TestWithParam<unsigned> {};

TEST_P(EXTParserAgainstReference, ResultBitsEntriesAndCallsAreEqual) {
    Dice dice(GetParam());
    unsigned compared = 0;
    for (unsigned round = 0; round < 25; ++round) {
        HostileVolume const volume = drawVolume(dice);
        for (unsigned i = 0; i < 5; ++i) {
            ExtRequest const request = drawRequest(dice, volume.geometry);
            auto const expected = referenceExtChunk(volume.bytes, request, 3000);
            if (!expected) {
                continue; // endless groups; the damage tests look at some of them
            }
            ++compared;
            ASSERT_EQ(runExtChunk(volume.bytes, request), *expected)
                << "round " << round << ", first data block " << volume.geometry.firstDataBlock << ", blocks "
                << volume.geometry.blocksCount << ", a group " << volume.geometry.blocksPerGroup << ", log "
                << volume.geometry.logBlockSize << ", descriptors " << volume.geometry.descriptorBytes() << ", start "
                << request.start << ", length " << request.length << ", alignment " << request.alignment;
        }
    }
    EXPECT_GT(compared, 25U * 5 * 3 / 4) << "most requests must be comparable for the test to mean anything";
}

INSTANTIATE_TEST_SUITE_P(Seed, EXTParserAgainstReference, testing::Range(0U, 20U));

/// The whole map of a volume in chunks of `length` bytes.
std::vector<bool> walk(ExtBench& bench, std::uint64_t length) {
    std::vector<bool> map;
    for (;;) {
        ExtOutcome const chunk = bench.chunk(map.size(), length);
        EXPECT_THAT(chunk.entries, testing::IsEmpty());
        if (chunk.result <= 0) {
            EXPECT_EQ(chunk.result, 0);
            return map;
        }
        auto const bits = bitsOf(chunk.buffer, chunk.result);
        map.insert(map.end(), bits.begin(), bits.end());
    }
}

TEST(EXTParserWalk, ChunksOfEveryLengthGiveTheSameMap) {
    ExtGeometry geometry;
    geometry.blocksPerGroup = 1000; // borders of groups inside bytes
    geometry.blocksCount = 3457;
    ExtBuilder builder = ExtBuilder(geometry).fillBitmapsAtRandom(8);
    builder.setFlags(2, ext_group::kBlocksUninitialised);
    std::vector<bool> const expected = builder.map();
    ExtBench bench(builder);
    for (std::uint64_t length = 1; length <= 64; ++length) {
        ASSERT_EQ(walk(bench, length), expected) << "chunks of " << length << " bytes";
    }
    ASSERT_EQ(walk(bench, 4096), expected);
}

TEST(EXTParserWalk, TwoWalksMayInterleave) {
    ExtBuilder const builder = ExtBuilder().fillBitmapsAtRandom(9);
    ExtBench bench(builder);
    std::vector<bool> const expected = builder.map();
    for (std::uint64_t block = 0; block < 20000; block += 800) {
        std::uint64_t const other = (block * 7) % 19000;
        for (std::uint64_t const start : {block, other}) {
            ExtOutcome const chunk = bench.chunk(start, 100);
            auto const from = expected.begin() + static_cast<long>(start);
            ASSERT_EQ(bitsOf(chunk.buffer, chunk.result), std::vector<bool>(from, from + chunk.result));
        }
    }
}

/// 2^32 - 1 blocks of 4 KiB: the largest volume there is, 16 TiB that no file backs.
SyntheticReader makeLargestVolume() {
    return makeSyntheticExtVolume(
        ExtGeometry::with4KiBBlocks(0xFFFFFFFF), [](std::uint64_t group) { return static_cast<std::uint8_t>(group); },
        [](std::uint64_t group) { return group % 1024 == 7 ? ext_group::kBlocksUninitialised : std::uint8_t{0}; });
}

TEST(EXTParserLargestVolume, WalkInChunksOfFourMiBCountsEveryBlock) {
    SyntheticReader const volume = makeLargestVolume();
    RecordingLogger logger;
    ExposedExtParser const parser(logger, 4096, volume);
    std::vector<char> buffer(4194304);
    std::uint64_t offset = 0;
    std::uint64_t used = 0;
    unsigned chunks = 0;
    for (long units; (units = parser.getChunk(offset, buffer.data(), buffer.size())) > 0; ++chunks) {
        for (std::size_t i = 0; i < buffer.size(); i += 8) {
            std::uint64_t word = 0;
            std::memcpy(&word, buffer.data() + i, sizeof word);
            used += static_cast<unsigned>(std::popcount(word)); // bits past the count are clear
        }
        offset += static_cast<std::uint64_t>(units);
    }
    EXPECT_EQ(offset, 0xFFFFFFFFU);
    EXPECT_EQ(chunks, 128U);
    // Each of 512 rounds through the 256 patterns sets 1024 bits in each of a group's 4096 bytes. Group 7 of every
    // 1024 is not initialised, which takes three bits a byte from 128 groups. The last group lacks its last block.
    EXPECT_EQ(used, std::uint64_t{512} * 1024 * 4096 - std::uint64_t{128} * 3 * 4096 - 1);
    EXPECT_THAT(logger.entries, testing::IsEmpty());
}

TEST(EXTParserLargestVolume, LastGroupIsReadFromBehind15TiB) {
    SyntheticReader const volume = makeLargestVolume();
    RecordingReader const recording(volume);
    RecordingLogger logger;
    ExposedExtParser const parser(logger, 4096, recording);
    recording.calls.clear();
    std::vector<std::uint8_t> buffer(16, 0xAA);
    // 69 blocks before the end: eight bytes of 0xFF and five bits.
    EXPECT_EQ(parser.getChunk(0xFFFFFFFF - 69, reinterpret_cast<char*>(buffer.data()), buffer.size()), 69);
    EXPECT_EQ(buffer, (std::vector<std::uint8_t>{255, 255, 255, 255, 255, 255, 255, 255, 31, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_THAT(recording.calls, testing::ElementsAre(seekCall(4096), readCall(4194304),
                                                      seekCall((131071L * 32768 + 2000) * 4096), readCall(4096)));
}

TEST(EXTParserLargestVolume, PatternOfAGroupInTheMiddleIsItsOwn) {
    SyntheticReader const volume = makeLargestVolume();
    RecordingLogger logger;
    ExposedExtParser const parser(logger, 4096, volume);
    std::vector<std::uint8_t> buffer(4096 * 3);
    EXPECT_EQ(parser.getChunk(70000UL * 32768, reinterpret_cast<char*>(buffer.data()), buffer.size()), 3 * 32768);
    for (unsigned i = 0; i < 3; ++i) {
        EXPECT_EQ(buffer[i * 4096], static_cast<std::uint8_t>(70000 + i));
        EXPECT_EQ(buffer[i * 4096 + 4095], static_cast<std::uint8_t>(70000 + i));
    }
    EXPECT_EQ(parser.getChunk(0xFFFFFFFF, reinterpret_cast<char*>(buffer.data()), buffer.size()), 0);
}

} // namespace
