// The FAT parser's limits that are kept on purpose: widths that wrap, entries that a later request shifts, and the
// routine behind it that callers reach through a derived class.
#include "support/FatRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <limits>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace tests;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

/// 300 units of 32 KiB whose data area starts at the end of unit `dataUnit` - 1, so early that later requests stay
/// among the entries they read.
FatBuilder makeEarlyData(std::uint16_t dataUnit) {
    FatBuilder builder({512, 64, static_cast<std::uint16_t>(dataUnit * 64 - 32), 1, 32, 64 * 300, 0});
    builder.fillAtRandom(dataUnit);
    return builder;
}

bool isUsedEntry(FatBuilder const& builder, std::uint64_t cluster) {
    std::uint32_t const value = builder.entry(cluster) & 0x0FFFFFFF;
    return value != 0 && value != 0x0FFFFFF7;
}

TEST(FATParserLaterRequest, BeforeTheDataIsAllUsed) {
    FatBench bench(FatBuilder{});
    FatOutcome const outcome = bench.chunk(100, 19); // units 100 to 251
    EXPECT_EQ(outcome.result, 152);
    EXPECT_THAT(outcome.buffer, Each(0xFF));
    EXPECT_EQ(outcome.entries, fatSuccessEntries(152));
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(16384), readCall(4096))) << "read all the same, from entry 0";
}

TEST(FATParserLaterRequest, FromUnitOneConsultsTheEntryBefore) {
    FatBuilder builder(FatGeometry::tiny());
    builder.fillAtRandom(7);
    FatOutcome const outcome = FatBench(builder).chunk(1, 26);
    EXPECT_EQ(outcome.result, 203);
    std::vector<bool> expected;
    for (std::uint64_t unit = 1; unit < 204; ++unit) {
        // Unit 4 is cluster 2, but at position 3 of the request entry 3 - 4 + 2 is taken for it.
        expected.push_back(unit < 4 || isUsedEntry(builder, unit - 3));
    }
    EXPECT_EQ(fatUnits(outcome.buffer, 203), expected);
}

TEST(FATParserLaterRequest, FromUnitTwoConsultsTheEntryTwoBefore) {
    FatBuilder builder(FatGeometry::tiny());
    builder.fillAtRandom(8);
    builder.setEntry(0, fat_entry::kFree); // so that entry 0 shows
    FatOutcome const outcome = FatBench(builder).chunk(2, 26);
    EXPECT_EQ(outcome.result, 202);
    std::vector<bool> expected;
    for (std::uint64_t unit = 2; unit < 204; ++unit) {
        expected.push_back(unit < 4 || isUsedEntry(builder, unit - 4));
    }
    EXPECT_EQ(fatUnits(outcome.buffer, 202), expected);
    EXPECT_FALSE(fatUnits(outcome.buffer, 202).at(2)) << "unit 4, by entry 0";
}

TEST(FATParserLaterRequest, InTheDataAreaIsReadFromItsOwnEntry) {
    // The data area begins with unit 2: entries that are read are those of the units, and the positions fit, too.
    FatBuilder const builder = makeEarlyData(2);
    auto const map = builder.map();
    FatBench bench(builder);
    for (std::uint64_t start = 2; start < 300; start += 13) {
        FatOutcome const outcome = bench.chunk(start, 5);
        auto const units = static_cast<long>(std::min<std::uint64_t>(40, 300 - start));
        ASSERT_EQ(outcome.result, units);
        auto const from = map.begin() + static_cast<std::ptrdiff_t>(start);
        EXPECT_EQ(fatUnits(outcome.buffer, units), std::vector<bool>(from, from + units)) << start;
        // Entry `start` of the table at byte 96 * 512.
        EXPECT_THAT(outcome.calls, ElementsAre(seekCall(32768), readCall(32768))) << start;
    }
}

TEST(FATParserLaterRequest, InADataAreaFromUnitOneOnConsultsTheEntryBehind) {
    FatBuilder const builder = makeEarlyData(1);
    FatBench bench(builder);
    FatOutcome const outcome = bench.chunk(50, 10);
    ASSERT_EQ(outcome.result, 80);
    std::vector<bool> expected;
    for (std::uint64_t unit = 50; unit < 130; ++unit) {
        expected.push_back(isUsedEntry(builder, unit + 2)); // its own is unit + 1
    }
    EXPECT_EQ(fatUnits(outcome.buffer, 80), expected);
}

TEST(FATParserWidths, StartBehindTheUnitsCountWrapsAndIsNotRejected) {
    FatBuilder builder = makeEarlyData(1);
    for (std::uint64_t cluster = 300; cluster < 330; ++cluster) {
        builder.setEntry(cluster, fat_entry::kFree);
    }
    builder.setEntry(304, fat_entry::kEndOfChain);
    FatBench bench(builder);
    FatOutcome const outcome = bench.chunk(301, 3);
    EXPECT_EQ(outcome.result, 24) << "as many as fit into the buffer";
    EXPECT_EQ(outcome.entries, fatSuccessEntries(24));
    EXPECT_THAT(outcome.buffer, ElementsAre(0x02, 0, 0)) << "position 1 consults entry 302 + 2";
}

TEST(FATParserWidths, StartIsTakenInItsLow32Bits) {
    FatBench bench(makeEarlyData(1));
    constexpr std::uint64_t kWrap = std::uint64_t{1} << 32;
    FatOutcome const end = bench.chunk(kWrap + 300, 3);
    EXPECT_EQ(end.result, 0);
    EXPECT_EQ(end.entries, fatSuccessEntries(0));
    // 300 units seem to remain; their entries would stand where the volume has long ended.
    FatOutcome const far = bench.chunk(kWrap, 3);
    EXPECT_EQ(far.result, -400);
    EXPECT_THAT(far.calls, ElementsAre(seekCall((16384 + (4294967295 * 4 + 8)) / 32768 * 32768), readCall(32768)));
}

TEST(FATParserWidths, LargestStartIsTheUnitBeforeTheFirst) {
    FatBuilder const builder = makeEarlyData(1);
    FatOutcome const outcome = FatBench(builder).chunk(std::numeric_limits<std::uint64_t>::max(), 2);
    EXPECT_EQ(outcome.result, 16);
    std::vector<bool> expected{true, true}; // units -1 and 0
    for (std::uint64_t i = 2; i < 16; ++i) {
        expected.push_back(isUsedEntry(builder, i + 1));
    }
    EXPECT_EQ(fatUnits(outcome.buffer, 16), expected);
}

/// A long buffer of little memory: the same pages again and again.
class FoldedBuffer {
public:
    explicit FoldedBuffer(std::size_t size) : size_((size + kFold - 1) / kFold * kFold) {
        int const file = ::memfd_create("folded", MFD_CLOEXEC);
        void* const start = ::mmap(nullptr, size_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (file == -1 || start == MAP_FAILED || ::ftruncate(file, kFold) != 0) {
            throw std::runtime_error("no memory for a folded buffer");
        }
        start_ = static_cast<char*>(start);
        for (std::size_t at = 0; at < size_; at += kFold) {
            if (::mmap(start_ + at, kFold, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, file, 0) == MAP_FAILED) {
                throw std::runtime_error("no folded memory");
            }
        }
        ::close(file);
    }
    FoldedBuffer(FoldedBuffer const&) = delete;
    FoldedBuffer& operator=(FoldedBuffer const&) = delete;
    ~FoldedBuffer() { ::munmap(start_, size_); }

    char* data() const { return start_; }

private:
    static constexpr std::size_t kFold = std::size_t{2} << 20;

    std::size_t size_;
    char* start_ = nullptr;
};

TEST(FATParserWidths, BufferOf512MiBHasRoomForNoUnit) {
    constexpr std::uint64_t kLength = std::uint64_t{1} << 29; // eight times this is 2^32
    FoldedBuffer const buffer(kLength + 1);
    FatBench bench(FatBuilder{FatGeometry::tiny()});
    std::fill_n(buffer.data(), 4096, '\xAA');
    bench.reader.calls.clear();
    EXPECT_EQ(bench.parser.getChunk(0, buffer.data(), kLength), 0);
    EXPECT_EQ(bench.logger.entries, fatSuccessEntries(0));
    EXPECT_THAT(bench.reader.calls, IsEmpty());
    EXPECT_EQ(buffer.data()[0], 0) << "it is cleared all the same";

    EXPECT_EQ(bench.parser.getChunk(0, buffer.data(), kLength + 1), 8);
    EXPECT_EQ(buffer.data()[0], 0x1F) << "four units before the data, then the root directory";
}

TEST(FATParserWidths, TablesOf65536SectorsCountAsEmpty) {
    // The data area seems to start right behind the reserved sectors, at unit 4.
    FatGeometry const geometry{512, 8, 32, 2, 65536, 60000000, 0};
    SyntheticReader const volume =
        makeSyntheticFatVolume(geometry, [](std::uint64_t cluster) { return cluster < 100 ? 0x0FFFFFFFU : 0U; });
    FatReaderBench bench(volume);
    FatOutcome const outcome = bench.chunk(0, 1000);
    EXPECT_EQ(outcome.result, 8000);
    std::vector<bool> expected(8000, false);
    std::fill_n(expected.begin(), 4 + 98, true);
    EXPECT_EQ(fatUnits(outcome.buffer, 8000), expected);
}

TEST(FATParserWidths, OnlyTheLow16BitsOfTheSectorsPerTableCount) {
    FatGeometry geometry = FatGeometry::tiny();
    FatBuilder builder(geometry);
    builder.fillAtRandom(9);
    FatOutcome const expected = wholeFatMap(builder);
    builder.setBoot(fat_boot::kSectorsPerFat32, 0xABCD0002, 4);
    EXPECT_EQ(FatBench(builder).chunk(0, 26), expected);
}

TEST(FATParserWidths, The16BitTotalWinsUnlessItIsZero) {
    FatBuilder builder(FatGeometry::tiny());
    builder.setBoot(fat_boot::kTotalSectors16, 100, 2);
    EXPECT_EQ(FatBench(builder).chunk(0, 100).result, 50);
    builder.setBoot(fat_boot::kTotalSectors16, 0, 2);
    EXPECT_EQ(FatBench(builder).chunk(0, 100).result, 204);
}

TEST(FATParserWidths, HalfFilledLastUnitCounts) {
    FatBuilder builder(FatGeometry::tiny());
    builder.setBoot(fat_boot::kTotalSectors32, 401, 4);
    EXPECT_EQ(FatBench(builder).chunk(0, 100).result, 201);
    builder.setBoot(fat_boot::kTotalSectors32, 400, 4);
    EXPECT_EQ(FatBench(builder).chunk(0, 100).result, 200);
    builder.setBoot(fat_boot::kTotalSectors32, 1, 4);
    EXPECT_EQ(FatBench(builder).chunk(0, 100).result, 1);
}

/// The routine behind a request on the tiny volume: table at byte 2048, data at 4096, clusters of 1 KiB.
struct InUse {
    long tableOffset = 2048;
    long dataStart = 4096;
    long clusterBytes = 1024;
    long start = 0;
    unsigned count = 204;
};

/// Flags for each unit, all 7 before, with one more behind them.
struct InUseOutcome {
    int result;
    std::vector<int> flags;
};

InUseOutcome runInUse(FatBench& bench, InUse const& request) {
    bench.reader.calls.clear();
    InUseOutcome outcome{0, std::vector<int>(request.count + 1, 7)};
    outcome.result = bench.parser.fat_blocks_in_use(request.tableOffset, request.dataStart, request.clusterBytes,
                                                    request.start, outcome.flags.data(), request.count);
    EXPECT_EQ(outcome.flags.back(), 7) << "nothing is written behind the flags";
    outcome.flags.pop_back();
    return outcome;
}

TEST(FATParserBlocksInUse, GivesOneFlagAUnit) {
    FatBuilder builder(FatGeometry::tiny());
    auto const map = builder.fillAtRandom(10).map();
    FatBench bench(builder);
    InUseOutcome const outcome = runInUse(bench, {});
    EXPECT_EQ(outcome.result, 0);
    EXPECT_THAT(outcome.flags, ElementsAreArray(map.begin(), map.end()));
    EXPECT_THAT(bench.logger.entries, IsEmpty());
    EXPECT_THAT(bench.reader.calls, ElementsAre(seekCall(2048), readCall(1024)));
}

TEST(FATParserBlocksInUse, NothingAskedIsNothingDone) {
    FatBench bench(FatBuilder{FatGeometry::tiny()});
    bench.reader.calls.clear();
    EXPECT_EQ(bench.parser.fat_blocks_in_use(2048, 4096, 1024, 0, nullptr, 204), 0);
    EXPECT_EQ(runInUse(bench, {2048, 4096, 1024, 0, 0}).result, 0);
    EXPECT_THAT(bench.reader.calls, IsEmpty());
}

TEST(FATParserBlocksInUse, ClusterWithoutASizeIsAFailedRead) {
    FatBench bench(FatBuilder{FatGeometry::tiny()});
    for (long const clusterBytes : {0L, -1L, std::numeric_limits<long>::min()}) {
        InUseOutcome const outcome = runInUse(bench, {2048, 4096, clusterBytes, 0, 10});
        EXPECT_EQ(outcome.result, -1);
        EXPECT_THAT(outcome.flags, Each(0));
        EXPECT_THAT(bench.reader.calls, IsEmpty());
    }
}

TEST(FATParserBlocksInUse, TableBeforeTheVolumeIsAFailedRead) {
    FatBench bench(FatBuilder{FatGeometry::tiny()});
    InUseOutcome const outcome = runInUse(bench, {-2048, 4096, 1024, 0, 10});
    EXPECT_EQ(outcome.result, -1);
    EXPECT_THAT(outcome.flags, Each(0)) << "cleared before the read";
    EXPECT_THAT(bench.reader.calls, ElementsAre(seekCall(-2048)));
}

TEST(FATParserBlocksInUse, TableBehindTheVolumeComesShort) {
    FatBench bench(FatBuilder{FatGeometry::tiny()});
    InUseOutcome const outcome = runInUse(bench, {1 << 20, 4096, 1024, 0, 10});
    EXPECT_EQ(outcome.result, -400);
    EXPECT_THAT(outcome.flags, Each(0));
}

TEST(FATParserBlocksInUse, StartBeforeTheVolumeIsAllUsed) {
    FatBench bench(FatBuilder{FatGeometry::tiny()});
    InUseOutcome const outcome = runInUse(bench, {2048, 4096, 1024, -100, 100});
    EXPECT_EQ(outcome.result, 0);
    EXPECT_THAT(outcome.flags, Each(1));
}

} // namespace
