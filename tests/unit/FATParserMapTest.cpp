// The FAT parser's maps: which units count as used, where the data begins, and what each entry means.
#include "support/FatRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace {

using namespace tests;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(FATParserMap, AlignedVolumeIsExactInOneRequest) {
    FatBuilder builder;
    builder.fillAtRandom(1);
    ASSERT_EQ(builder.geometry().dataStart(), 1040384U);
    FatBench bench(builder);
    FatOutcome const outcome = bench.chunk(0, 15625);
    EXPECT_EQ(outcome.result, 125000);
    EXPECT_EQ(outcome.entries, fatSuccessEntries(125000));
    EXPECT_TRUE(fatUnits(outcome.buffer, 125000) == builder.map());
}

TEST(FATParserMap, UnitsBeforeTheDataCountAsUsed) {
    FatBuilder builder;
    builder.setEntry(2, fat_entry::kFree);
    auto const units = fatUnits(wholeFatMap(builder).buffer, 125000);
    EXPECT_EQ(std::vector<bool>(units.begin(), units.begin() + 254), std::vector<bool>(254, true));
    EXPECT_EQ(std::vector<bool>(units.begin() + 254, units.end()), std::vector<bool>(125000 - 254, false));
}

struct EntryCase {
    char const* name;
    std::uint32_t value;
    bool isUsed;
};

void PrintTo(EntryCase const& entry, std::ostream* out) {
    *out << entry.name;
}

class FATParserEntry : public testing::TestWithParam<EntryCase> {};

TEST_P(FATParserEntry, DecidesItsUnit) {
    FatBuilder builder(FatGeometry::tiny());
    // Among used and among free neighbours, at both ends of the table.
    for (std::uint32_t const others : {fat_entry::kFree, fat_entry::kEndOfChain}) {
        for (std::uint64_t cluster = 2; cluster < 202; ++cluster) {
            builder.setEntry(cluster, others);
        }
        for (std::uint64_t const cluster : {std::uint64_t{2}, std::uint64_t{100}, std::uint64_t{201}}) {
            builder.setEntry(cluster, GetParam().value);
            auto const units = fatUnits(wholeFatMap(builder).buffer, 204);
            EXPECT_EQ(units.at(4 + cluster - 2), GetParam().isUsed) << cluster;
            EXPECT_EQ(units, builder.map());
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Values, FATParserEntry,
    testing::Values(EntryCase{"Free", 0, false}, EntryCase{"FreeWithUpperBits", 0xF0000000, false},
                    EntryCase{"FreeWithOneUpperBit", 0x10000000, false}, EntryCase{"Bad", 0x0FFFFFF7, false},
                    EntryCase{"BadWithUpperBits", 0xFFFFFFF7, false},
                    EntryCase{"BadWithOneUpperBit", 0x8FFFFFF7, false}, EntryCase{"One", 1, true},
                    EntryCase{"OneWithUpperBits", 0xF0000001, true}, EntryCase{"Link", 3, true},
                    EntryCase{"LinkToItself", 100, true}, EntryCase{"LinkPastTheLastCluster", 0x0ABCDEF0, true},
                    EntryCase{"HighestLink", 0x0FFFFFEF, true}, EntryCase{"ReservedBelowBad", 0x0FFFFFF6, true},
                    EntryCase{"FirstEnd", 0x0FFFFFF8, true}, EntryCase{"LastEnd", 0x0FFFFFFF, true},
                    EntryCase{"AllBits", 0xFFFFFFFF, true}, EntryCase{"BadOf16Bits", 0x0000FFF7, true}),
    [](auto const& instance) { return std::string(instance.param.name); });

TEST(FATParserMap, EachEntryStandsForItsOwnUnit) {
    FatBuilder builder(FatGeometry::tiny());
    FatBench bench(builder);
    for (std::uint64_t cluster = 3; cluster < 202; ++cluster) {
        FatBuilder one = builder;
        one.setEntry(cluster, fat_entry::kEndOfChain);
        bench.volume.bytes = one.bytes;
        std::vector<bool> expected(204, false);
        std::fill_n(expected.begin(), 5, true); // up to the root directory
        expected.at(cluster + 2) = true;
        EXPECT_EQ(fatUnits(bench.chunk(0, 26).buffer, 204), expected) << cluster;
    }
}

TEST(FATParserMap, UnalignedUnitStandsForTwoClusters) {
    FatBuilder builder(FatGeometry::unaligned());
    builder.fillAtRandom(2);
    ASSERT_EQ(builder.geometry().dataStart(), 1040896U);
    ASSERT_EQ(builder.geometry().dataUnit(), 255U);
    FatBench bench(builder);
    FatOutcome const outcome = bench.chunk(0, 15625);
    EXPECT_EQ(outcome.result, 125000);
    EXPECT_TRUE(fatUnits(outcome.buffer, 125000) == builder.map());
}

TEST(FATParserMap, OneClusterOfAnUnalignedVolumeMakesTwoUnitsUsed) {
    FatBuilder builder(FatGeometry::unaligned());
    builder.setEntry(2, fat_entry::kFree).setEntry(1000, fat_entry::kEndOfChain);
    auto const units = fatUnits(wholeFatMap(builder).buffer, 125000);
    std::vector<bool> expected(125000, false);
    std::fill_n(expected.begin(), 255, true);
    // Cluster 1000 begins 512 bytes into unit 254 + 998.
    expected.at(1252) = true;
    expected.at(1253) = true;
    EXPECT_TRUE(units == expected);
}

TEST(FATParserMap, FirstClusterOfAnUnalignedVolumeBeginsInAUnitThatIsUsedAnyway) {
    FatBuilder builder(FatGeometry::unaligned());
    builder.setEntry(2, fat_entry::kFree);
    FatBench bench(builder);
    auto const whole = [&] { return fatUnits(bench.chunk(0, 15625).buffer, 125000); };
    auto const without = whole();
    EXPECT_TRUE(without.at(254));
    EXPECT_FALSE(without.at(255));
    bench.volume.bytes = builder.setEntry(2, fat_entry::kEndOfChain).bytes;
    auto const with = whole();
    EXPECT_TRUE(with.at(254));
    EXPECT_TRUE(with.at(255));
    EXPECT_FALSE(with.at(256));
}

TEST(FATParserMap, BytesBehindTheLastClusterAreFree) {
    // Three sectors remain: the last unit holds no cluster, and its entry is padding of the table.
    FatGeometry geometry;
    geometry.totalSectors = 1000003;
    FatBuilder builder(geometry);
    builder.fillAtRandom(3);
    ASSERT_EQ(geometry.units(), 125001U);
    ASSERT_EQ(geometry.clusters(), 125001U - 254 - 1);
    FatOutcome const outcome = wholeFatMap(builder);
    EXPECT_EQ(outcome.result, 125001);
    auto const units = fatUnits(outcome.buffer, 125001);
    EXPECT_TRUE(units == builder.map());
    EXPECT_FALSE(units.back());
}

struct GeometryCase {
    char const* name;
    FatGeometry geometry;
};

void PrintTo(GeometryCase const& geometry, std::ostream* out) {
    *out << geometry.name;
}

class FATParserGeometry : public testing::TestWithParam<GeometryCase> {};

TEST_P(FATParserGeometry, IsMappedExactly) {
    FatBuilder builder(GetParam().geometry);
    for (unsigned seed = 0; seed < 3; ++seed) {
        builder.fillAtRandom(seed);
        FatOutcome const outcome = wholeFatMap(builder);
        ASSERT_EQ(outcome.result, static_cast<long>(builder.geometry().units()));
        EXPECT_EQ(outcome.entries, fatSuccessEntries(outcome.result));
        EXPECT_TRUE(fatUnits(outcome.buffer, outcome.result) == builder.map());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, FATParserGeometry,
    testing::Values(GeometryCase{"Clusters512", {512, 1, 32, 2, 600, 70000, 0}},
                    GeometryCase{"Clusters1K", {512, 2, 32, 2, 600, 140000, 0}},
                    GeometryCase{"Clusters8K", {512, 16, 32, 2, 600, 16 * 68000, 0}},
                    GeometryCase{"Clusters32K", {512, 64, 32, 2, 600, 64 * 70000, 0}},
                    GeometryCase{"Clusters64K", {512, 128, 32, 2, 600, 128 * 70000, 0}},
                    GeometryCase{"Sectors1K", {1024, 1, 32, 2, 300, 70000, 0}},
                    GeometryCase{"Sectors2K", {2048, 4, 33, 2, 150, 4 * 70000, 0}},
                    GeometryCase{"Sectors4K", {4096, 1, 32, 2, 80, 70000, 0}},
                    GeometryCase{"Sectors32KInClustersOf4M", {32768, 128, 500, 2, 100, 128 * 1000, 0}},
                    GeometryCase{"OneTable", {512, 8, 32, 1, 600, 560000, 0}},
                    GeometryCase{"FourTables", {512, 8, 32, 4, 600, 560000, 0}},
                    GeometryCase{"OneTableJustLargeEnough", {512, 1, 32, 1, 512, 66078, 0}},
                    GeometryCase{"UnalignedBySevenSectors", {512, 8, 39, 2, 600, 560000, 0}},
                    GeometryCase{"SixteenBitTotal", {512, 1, 32, 2, 600, 0, 65535}},
                    GeometryCase{"LargestTableThatIsSizedRight", {512, 8, 32, 1, 65535, 300000, 0}},
                    GeometryCase{"DataFromUnitOneOn", {512, 64, 32, 1, 32, 64 * 300, 0}},
                    GeometryCase{"DataFromTheMiddleOfUnitOneOn", {512, 64, 64, 1, 32, 64 * 300, 0}}),
    [](auto const& instance) { return std::string(instance.param.name); });

TEST(FATParserMap, ShorterBufferGetsTheFirstUnits) {
    FatBuilder builder(FatGeometry::tiny());
    auto const map = builder.fillAtRandom(4).map();
    FatBench bench(builder);
    for (std::uint64_t length = 1; length <= 25; ++length) {
        FatOutcome const outcome = bench.chunk(0, length);
        auto const units = static_cast<long>(length * 8);
        EXPECT_EQ(outcome.result, units);
        EXPECT_EQ(outcome.entries, fatSuccessEntries(units));
        EXPECT_EQ(fatUnits(outcome.buffer, units), std::vector<bool>(map.begin(), map.begin() + units));
    }
}

TEST(FATParserMap, LongerBufferIsClearedToItsEnd) {
    FatBuilder builder(FatGeometry::tiny());
    builder.fillAtRandom(5);
    FatBench bench(builder);
    FatOutcome const outcome = bench.chunk(0, 1000);
    EXPECT_EQ(outcome.result, 204);
    EXPECT_EQ(fatUnits(outcome.buffer, 204), builder.map());
    // 204 units end in the middle of byte 25.
    EXPECT_EQ(outcome.buffer.at(25) & 0xF0, 0);
    EXPECT_THAT(std::vector(outcome.buffer.begin() + 26, outcome.buffer.end()), Each(0));
}

TEST(FATParserMap, EmptyRequestIsAnsweredWithZero) {
    FatBench bench(FatBuilder{FatGeometry::tiny()});
    FatOutcome const outcome = bench.chunk(0, 0);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.entries, fatSuccessEntries(0));
    EXPECT_THAT(outcome.calls, IsEmpty());
}

TEST(FATParserMap, RequestAtTheUnitsCountIsAnsweredWithZero) {
    FatBench bench(FatBuilder{FatGeometry::tiny()});
    FatOutcome const outcome = bench.chunk(204, 26);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.entries, fatSuccessEntries(0));
    EXPECT_THAT(outcome.calls, IsEmpty());
    EXPECT_THAT(outcome.buffer, Each(0)) << "cleared before the count is looked at";
}

TEST(FATParserMap, RoutineBehindTheWrapperLogsNoError) {
    FatBench bench(FatBuilder{FatGeometry::tiny()});
    std::vector<char> buffer(26);
    EXPECT_EQ(bench.parser.fs_get_blocks_bitmap_chunk(buffer.size(), 0, buffer.data()), 204);
    bench.volume.bytes.resize(2048);
    EXPECT_EQ(bench.parser.fs_get_blocks_bitmap_chunk(buffer.size(), 0, buffer.data()), -400);
    EXPECT_THAT(bench.logger.entries, ElementsAre(debugEntry("returning[3] 204"), debugEntry("returning[2] -400")));
}

TEST(FATParserMap, OtherTablesAreNotLookedAt) {
    FatBuilder builder(FatGeometry::tiny());
    auto const expected = builder.fillAtRandom(6).map();
    for (std::uint64_t cluster = 0; cluster < 256; ++cluster) {
        builder.setEntryIn(1, cluster, 0x05050505);
    }
    EXPECT_EQ(fatUnits(wholeFatMap(builder).buffer, 204), expected);
}

} // namespace
