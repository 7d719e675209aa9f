// FAT tables with damaged entries, numbers of clusters at the format's edges, and volumes that claim to be huge.
#include "support/FatRun.h"
#include "support/ResidentMemory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using namespace tests;
using testing::ElementsAre;

FatBuilder makeGood() {
    FatBuilder builder(FatGeometry::tiny());
    builder.fillAtRandom(41);
    return builder;
}

/// A file of clusters 10 to 19.
FatBuilder makeChain() {
    FatBuilder builder(FatGeometry::tiny());
    for (std::uint32_t cluster = 10; cluster < 19; ++cluster) {
        builder.setEntry(cluster, cluster + 1);
    }
    builder.setEntry(19, fat_entry::kEndOfChain);
    return builder;
}

/// The change must not show: the map tells what is used, not by whom.
void expectTheSameMap(FatBuilder const& damaged) {
    FatOutcome const expected = wholeFatMap(makeChain());
    ASSERT_NE(damaged.bytes, makeChain().bytes) << "nothing is damaged";
    EXPECT_EQ(wholeFatMap(damaged), expected);
}

TEST(FatDamageChain, LoopsMakeNoDifference) {
    expectTheSameMap(makeChain().setEntry(19, 10));
    expectTheSameMap(makeChain().setEntry(15, 15));
    expectTheSameMap(makeChain().setEntry(2, 2));
}

TEST(FatDamageChain, CrossLinksMakeNoDifference) {
    expectTheSameMap(makeChain().setEntry(12, 17));
    expectTheSameMap(makeChain().setEntry(2, 15));
}

TEST(FatDamageChain, LinksToNowhereMakeNoDifference) {
    for (std::uint32_t const target : {1U, 50U /* a free cluster */, 202U, 0x0FFFFFF0U, 0x0FFFFFF6U}) {
        expectTheSameMap(makeChain().setEntry(14, target));
    }
}

TEST(FatDamageChain, FirstTwoEntriesMakeNoDifference) {
    expectTheSameMap(makeChain().setEntry(0, 0));
    expectTheSameMap(makeChain().setEntry(1, 0));
}

TEST(FatDamageChain, BrokenChainFreesItsOneCluster) {
    auto expected = makeChain().map();
    expected.at(4 + 14 - 2) = false;
    EXPECT_EQ(fatUnits(wholeFatMap(makeChain().setEntry(14, fat_entry::kFree)).buffer, 204), expected);
    EXPECT_EQ(fatUnits(wholeFatMap(makeChain().setEntry(14, fat_entry::kBad)).buffer, 204), expected);
}

TEST(FatDamageUpperBits, MakeNoDifference) {
    FatBuilder const good = makeGood();
    FatOutcome const expected = wholeFatMap(good);
    for (std::uint32_t const upper : {0xF0000000U, 0x80000000U, 0x10000000U}) {
        FatBuilder damaged = good;
        for (std::uint64_t cluster = 0; cluster < 202; ++cluster) {
            damaged.setEntry(cluster, damaged.entry(cluster) ^ upper);
        }
        ASSERT_NE(damaged.bytes, good.bytes);
        EXPECT_EQ(wholeFatMap(damaged), expected);
    }
}

TEST(FatDamageTable, TablesThatDifferAreNotCompared) {
    FatBuilder damaged = makeGood();
    for (std::uint64_t cluster = 0; cluster < 202; ++cluster) {
        damaged.setEntryIn(1, cluster, ~damaged.entry(cluster));
    }
    EXPECT_EQ(wholeFatMap(damaged), wholeFatMap(makeGood()));
}

TEST(FatDamageTable, CutVolumeComesShort) {
    FatBuilder const good = makeGood();
    // 205 entries are read with one cluster of 1 KiB at byte 2048; 820 bytes must be there.
    for (std::uint64_t const size : {std::uint64_t{512}, std::uint64_t{2048}, std::uint64_t{2048 + 819}}) {
        FatBuilder damaged = good;
        FatOutcome const outcome = FatBench(damaged.resize(size)).chunk(0, 26);
        EXPECT_EQ(outcome.result, -400) << size;
        EXPECT_EQ(outcome.entries, fatFailureEntries(-400));
        EXPECT_THAT(outcome.buffer, testing::Each(0));
    }
    FatBuilder enough = good;
    EXPECT_EQ(fatUnits(FatBench(enough.resize(2048 + 820)).chunk(0, 26).buffer, 204), good.map());
}

TEST(FatDamageTable, StretchCutByLessThanWhatStandsBeforeItInItsClusterReadsAsFree) {
    // The table one sector into a cluster: a volume that lacks up to 512 bytes of the stretch is not noticed, and what
    // it lacks is zero. Callers that must not take that for free space read through a reader that refuses short reads.
    FatBuilder builder({512, 2, 5, 2, 2, 409, 0});
    for (std::uint64_t cluster = 2; cluster < 202; ++cluster) {
        builder.setEntry(cluster, fat_entry::kEndOfChain);
    }
    FatOutcome const whole = wholeFatMap(builder);
    ASSERT_EQ(whole.result, 205);
    // 206 entries from byte 2560 on: 824 bytes.
    FatBench cut(FatBuilder(builder).resize(2560 + 824 - 512));
    FatOutcome const outcome = cut.chunk(0, 26);
    EXPECT_EQ(outcome.result, 205);
    EXPECT_EQ(outcome.entries, fatSuccessEntries(205));
    auto expected = fatUnits(whole.buffer, 205);
    // The entries from 78 on are missing: units straddle, so that of cluster 77 is the last that is used.
    std::fill(expected.begin() + 5 + 77 - 2 + 1, expected.end(), false);
    EXPECT_EQ(fatUnits(outcome.buffer, 205), expected);
    FatBench more(FatBuilder(builder).resize(2560 + 824 - 513));
    EXPECT_EQ(more.chunk(0, 26).result, -400);
}

/// The format takes a volume of fewer than 65525 clusters for FAT16, and knows no more than 0x0FFFFFF5 of them. Here
/// only the label counts.
TEST(FatDamageClusterCount, EdgeOfFat16MakesNoDifference) {
    for (std::uint32_t const clusters : {4084U, 4085U, 65524U, 65525U}) {
        FatGeometry geometry{512, 1, 32, 2, 600, 0, 0};
        geometry.totalSectors = 32 + 1200 + clusters;
        FatBuilder builder(geometry);
        builder.fillAtRandom(clusters);
        ASSERT_EQ(geometry.clusters(), clusters);
        FatOutcome const outcome = wholeFatMap(builder);
        EXPECT_EQ(outcome.result, static_cast<long>(geometry.units()));
        EXPECT_TRUE(fatUnits(outcome.buffer, outcome.result) == builder.map()) << clusters;
    }
}

/// Clusters that the format has no numbers for: 2^32 - 1 sectors, a cluster each.
FatGeometry makeTooManyClusters() {
    return {512, 1, 32, 2, 65535, 0xFFFFFFFF, 0};
}

TEST(FatDamageClusterCount, MoreThanTheFormatHasNumbersForAreMappedAsFarAsAsked) {
    SyntheticReader const volume = makeSyntheticFatVolume(makeTooManyClusters(), [](std::uint64_t cluster) {
        return cluster % 5 == 0 ? fat_entry::kEndOfChain : fat_entry::kFree;
    });
    FatReaderBench bench(volume);
    constexpr std::uint64_t kDataUnit = 32 + 2 * 65535;
    FatOutcome const outcome = bench.chunk(0, 20000);
    EXPECT_EQ(outcome.result, 160000);
    EXPECT_EQ(outcome.entries, fatSuccessEntries(160000));
    std::vector<bool> expected(160000, true);
    for (std::uint64_t unit = kDataUnit; unit < expected.size(); ++unit) {
        expected.at(unit) = (unit - kDataUnit + 2) % 5 == 0;
    }
    EXPECT_TRUE(fatUnits(outcome.buffer, 160000) == expected);
}

TEST(FatDamageClusterCount, UnitsAreCountedIn32Bits) {
    SyntheticReader const volume =
        makeSyntheticFatVolume(makeTooManyClusters(), [](std::uint64_t) { return fat_entry::kFree; });
    // Requests near the end that come short tell how many units there are by what they read.
    for (std::uint64_t const left : {1U, 3U, 500U}) {
        FaultyReader const faulty(volume, Fault::ReadEmpty, 1);
        FatReaderBench bench(faulty);
        std::uint64_t const start = 0xFFFFFFFF - left;
        FatOutcome const outcome = bench.chunk(start, 1000);
        EXPECT_EQ(outcome.result, -400);
        std::uint64_t const first = 32 * 512 + (start - (32 + 2 * 65535)) * 4 + 8;
        std::uint64_t const end = first + (left + 1) * 4;
        std::uint64_t const from = first / 512 * 512;
        EXPECT_THAT(outcome.calls, ElementsAre(seekCall(static_cast<long>(from)),
                                               readCall(static_cast<long>((end + 511) / 512 * 512 - from))));
    }
    FatReaderBench bench(volume);
    EXPECT_EQ(bench.chunk(0xFFFFFFFF, 1000).result, 0);
}

/// Notes the most memory that was resident at a read.
class WatchingReader : public agent::core::IVolumeReader {
public:
    explicit WatchingReader(agent::core::IVolumeReader const& inner) : inner_(inner) {}

    long read(void* buffer, long length) const override {
        long const result = inner_.read(buffer, length);
        most = std::max(most, residentBytes());
        asked += length;
        return result;
    }

    long seek(long offset, int whence) const override { return inner_.seek(offset, whence); }

    mutable std::size_t most = 0;
    mutable long asked = 0;

private:
    agent::core::IVolumeReader const& inner_;
};

TEST(FatDamageMemory, ClaimOfAllSectorsTakesAddressesNotMemory) {
    if (residentBytes() == 0) {
        GTEST_SKIP() << kWhyNotResident;
    }
    FatBuilder builder(FatGeometry::tiny());
    builder.setBoot(fat_boot::kTotalSectors32, 0xFFFFFFFF, 4).setBoot(fat_boot::kSectorsPerCluster, 1, 1);
    MemoryReader const volume = builder.reader();
    WatchingReader const watching(volume);
    RecordingLogger logger;
    ExposedFatParser const parser(logger, 512, watching);
    std::vector<char> buffer(std::size_t{8} << 20, '\xAA');
    watching.asked = 0;
    std::size_t const before = residentBytes();
    EXPECT_EQ(parser.getChunk(0, buffer.data(), buffer.size()), -400);
    EXPECT_EQ(logger.entries, fatFailureEntries(-400));
    EXPECT_EQ(watching.asked, (64L << 22) + 512) << "the case must ask for as much as it is here for";
    constexpr std::size_t kMost = std::size_t{32} << 20;
    EXPECT_LT(std::max(watching.most, before) - before, kMost);
    EXPECT_LT(std::max(residentBytes(), before) - before, kMost);
}

TEST(FatDamageMemory, NothingIsKeptAfterALargeRequest) {
    if (residentBytes() == 0) {
        GTEST_SKIP() << kWhyNotResident;
    }
    SyntheticReader const volume =
        makeSyntheticFatVolume(makeTooManyClusters(), [](std::uint64_t) { return fat_entry::kFree; });
    RecordingLogger logger;
    ExposedFatParser const parser(logger, 512, volume);
    std::vector<char> buffer(std::size_t{1} << 20, '\xAA');
    std::size_t const before = residentBytes();
    EXPECT_EQ(parser.getChunk(0, buffer.data(), buffer.size()), 1 << 23);
    // The entries had 32 MiB, and their read 32 more.
    EXPECT_LT(std::max(residentBytes(), before) - before, std::size_t{16} << 20);
}

} // namespace
