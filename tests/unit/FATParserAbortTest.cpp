// Where the FAT parser ends the process on purpose, where it just does not, and what it does without memory.
#include "support/FatRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define FAT_TESTS_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define FAT_TESTS_SANITIZED 1
#endif
#endif

namespace {

using namespace tests;
using testing::Each;
using testing::IsEmpty;
using testing::KilledBySignal;

/// A request must end the process by its own hand.
void expectAbort(FatBuilder const& builder, std::uint64_t start, std::uint64_t length) {
    FatBench bench(builder);
    EXPECT_EXIT(bench.chunk(start, length), KilledBySignal(SIGABRT), "") << start << ", " << length;
}

TEST(FATParserAbortDeathTest, LaterRequestInTheDataArea) {
    FatBuilder const builder;
    expectAbort(builder, 254, 1);
    expectAbort(builder, 255, 100);
    expectAbort(builder, 124999, 1);
}

TEST(FATParserAbortDeathTest, LaterRequestInTheDataAreaOfAnUnalignedVolume) {
    FatBuilder const builder(FatGeometry::unaligned());
    expectAbort(builder, 255, 1);
    expectAbort(builder, 100000, 100);
}

TEST(FATParserAbortDeathTest, LaterRequestThatReachesIntoTheDataArea) {
    FatBuilder const builder(FatGeometry::tiny());
    FatBench bench(builder);
    // From unit 3 on, the first entry would be number -1 or below.
    expectAbort(builder, 3, 1);
    EXPECT_EQ(bench.chunk(1, 26).result, 203);
    EXPECT_EQ(bench.chunk(2, 26).result, 202);
}

TEST(FATParserAbortDeathTest, RequestBehindTheLastUnit) {
    FatBuilder builder(FatGeometry::tiny());
    // The stretch at entry 203 is there to be read.
    expectAbort(builder, 205, 1);
    // Where it is not, that is noticed first.
    builder.resize(2048);
    EXPECT_EQ(FatBench(builder).chunk(205, 1).result, -400);
}

/// Clusters of 32 KiB, 300 of them, so large that reserved sectors and table fill less than a few of them.
FatBuilder makeLargeClusters(std::uint16_t reservedSectors) {
    FatBuilder builder({512, 64, reservedSectors, 1, 32, 64 * 300, 0});
    return builder;
}

TEST(FATParserAbortDeathTest, DataFromByteZeroOn) {
    FatBuilder builder(FatGeometry::tiny());
    builder.setBoot(fat_boot::kReservedSectors, 0, 2).setBoot(fat_boot::kNumberOfFats, 0, 1);
    expectAbort(builder, 0, 26);
    // The position decides, not the volume: the last of the units asked for is the one too many.
    expectAbort(builder, 0, 1);
}

TEST(FATParserAbortDeathTest, DataFromInsideUnitZeroOn) {
    FatBuilder builder = makeLargeClusters(8);
    ASSERT_EQ(builder.geometry().dataStart(), 40U * 512);
    expectAbort(builder, 0, 38);
    expectAbort(builder, 0, 1);
}

TEST(FATParserNoAbort, DataFromInsideUnitZeroOnWithAUsedClusterAtTheEnd) {
    // The entry too many is looked at only when the one before it is free.
    FatBuilder builder = makeLargeClusters(8);
    builder.setEntry(300, fat_entry::kEndOfChain);
    FatOutcome const outcome = wholeFatMap(builder);
    EXPECT_EQ(outcome.result, 300);
    EXPECT_TRUE(fatUnits(outcome.buffer, 300).back());
}

TEST(FATParserNoAbort, DataFromUnitOneOn) {
    FatBuilder const builder = makeLargeClusters(32);
    ASSERT_EQ(builder.geometry().dataStart(), 32768U);
    EXPECT_EQ(fatUnits(wholeFatMap(builder).buffer, 300), builder.map());
}

TEST(FATParserNoAbort, DataFromInsideUnitOneOn) {
    FatBuilder const builder = makeLargeClusters(33);
    ASSERT_EQ(builder.geometry().dataStart(), 32768U + 512);
    FatBench bench(builder);
    for (std::uint64_t length = 1; length <= 40; ++length) {
        FatOutcome const outcome = bench.chunk(0, length);
        auto const map = builder.map();
        EXPECT_EQ(fatUnits(outcome.buffer, outcome.result),
                  std::vector<bool>(map.begin(), map.begin() + outcome.result));
    }
}

TEST(FATParserNoAbort, FirstRequestOfAnyLength) {
    for (FatGeometry const& geometry : {FatGeometry::tiny(), FatGeometry{512, 2, 5, 2, 2, 409, 0}}) {
        FatBuilder builder(geometry);
        FatBench bench(builder.fillAtRandom(11));
        auto const map = builder.map();
        for (std::uint64_t length = 0; length <= 30; ++length) {
            FatOutcome const outcome = bench.chunk(0, length);
            EXPECT_EQ(fatUnits(outcome.buffer, outcome.result),
                      std::vector<bool>(map.begin(), map.begin() + outcome.result));
        }
    }
}

/// A volume whose cluster size, 1536 bytes, is no alignment: 136 units.
FatBuilder makeOddClusters() {
    FatBuilder builder(FatGeometry::tiny());
    builder.setBoot(fat_boot::kSectorsPerCluster, 3, 1);
    return builder;
}

constexpr char const* kOddAllocation =
    "Failed to create aligned memory of size: 548, alignment: 1536 from line: [0-9]+ in file: FATParser\\.cpp, error: "
    "alignment is not a power of two";

TEST(FATParserAllocation, ClusterSizeThatIsNoPowerOfTwoReachesTheCaller) {
    FatBench bench(makeOddClusters());
    bench.reader.calls.clear();
    std::vector<char> buffer(20, '\xAA');
    EXPECT_THAT([&] { bench.parser.getChunk(0, buffer.data(), buffer.size()); },
                testing::ThrowsMessage<std::invalid_argument>(testing::StrEq("alignment is not a power of two")));
    ASSERT_EQ(bench.logger.entries.size(), 1U) << "neither a code nor an error";
    EXPECT_EQ(bench.logger.entries[0].level, agent::info::Level::Debug);
    EXPECT_THAT(bench.logger.entries[0].text, testing::MatchesRegex(kOddAllocation));
    EXPECT_THAT(bench.reader.calls, IsEmpty());
    EXPECT_THAT(buffer, Each(0));
}

TEST(FATParserAllocation, EntryIsTheSameEachTime) {
    FatBench bench(makeOddClusters());
    char buffer[20];
    std::vector<int> flags(136);
    EXPECT_THROW(bench.parser.getChunk(0, buffer, sizeof buffer), std::invalid_argument);
    EXPECT_THROW(bench.parser.fs_get_blocks_bitmap_chunk(sizeof buffer, 0, buffer), std::invalid_argument);
    EXPECT_THROW(bench.parser.fat_blocks_in_use(2048, 4096, 1536, 0, flags.data(), 136), std::invalid_argument);
    ASSERT_EQ(bench.logger.entries.size(), 3U);
    EXPECT_THAT(bench.logger.entries, Each(bench.logger.entries[0]));
}

TEST(FATParserAllocation, RequestForNothingNeedsNoMemory) {
    FatBench bench(makeOddClusters());
    EXPECT_EQ(bench.chunk(0, 0).result, 0);
    EXPECT_EQ(bench.chunk(136, 10).result, 0);
}

#ifndef FAT_TESTS_SANITIZED // the sanitizer's shadow memory does not live with such a limit

/// Addresses that the process has taken so far.
std::size_t takenBytes() {
    std::ifstream statm("/proc/self/statm");
    std::size_t pages = 0;
    statm >> pages;
    return pages * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

/// In a process that may take `more` MiB of addresses, asks for units whose entries have 128 MiB; prints what came of
/// it and ends the process.
[[noreturn]] void requestWithLittleMemory(std::size_t more) {
    SyntheticReader const volume =
        makeSyntheticFatVolume({512, 1, 32, 2, 65535, 0xFFFFFFFF, 0}, [](std::uint64_t) { return fat_entry::kFree; });
    FatReaderBench bench(volume);
    std::vector<char> buffer(std::size_t{4} << 20);
    rlimit const limit{takenBytes() + (more << 20), RLIM_INFINITY};
    if (::setrlimit(RLIMIT_AS, &limit) != 0) {
        std::_Exit(3);
    }
    bench.reader.calls.clear();
    try {
        bench.parser.getChunk(0, buffer.data(), buffer.size());
    } catch (std::bad_alloc const&) {
        std::cerr << bench.reader.calls.size() << " calls; " << bench.logger.entries.size() << " entries; "
                  << bench.logger.entries.front().text << std::endl;
        std::_Exit(0);
    }
    std::_Exit(4);
}

TEST(FATParserAllocationDeathTest, NoMemoryForTheEntries) {
    EXPECT_EXIT(requestWithLittleMemory(64), testing::ExitedWithCode(0),
                "^0 calls; 1 entries; Failed to create aligned memory of size: 134217732, alignment: 512 from line: "
                "[0-9]+ in file: FATParser\\.cpp, error: std::bad_alloc");
}

TEST(FATParserAllocationDeathTest, NoMemoryForTheReadOfTheEntries) {
    EXPECT_EXIT(requestWithLittleMemory(192), testing::ExitedWithCode(0),
                "^0 calls; 1 entries; Failed to create aligned memory of size: 134218240, alignment: 512 from line: 81 "
                "in file: FSUtil\\.cpp, error: std::bad_alloc");
}

#endif

} // namespace
