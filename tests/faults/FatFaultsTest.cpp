// The FAT parser when the n-th seek or read goes wrong: the documented code and entries, and on it goes.
#include "support/FatRun.h"
#include "support/FaultMatrix.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace {

using namespace tests;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StrEq;
using testing::ThrowsMessage;

FatBuilder makeVolume() {
    FatBuilder builder(FatGeometry::tiny());
    builder.fillAtRandom(51);
    return builder.resize(408 * 512);
}

/// The entries that go before the code of a request whose seek or read went wrong.
std::vector<LogEntry> entriesOf(Fault fault, long offset, long size) {
    std::vector<LogEntry> entries;
    if (fault == Fault::ReadFails) {
        entries.push_back(failedReadEntry(offset, size));
    }
    return entries;
}

long codeOf(Fault fault) {
    return fault == Fault::SeekFails || fault == Fault::ReadFails ? -1 : -400;
}

class FatConstructionFault : public testing::TestWithParam<FaultAndSize> {};

TEST_P(FatConstructionFault, IsAnUnreadableBootSector) {
    Fault const fault = std::get<0>(GetParam());
    unsigned const alignment = std::get<1>(GetParam());
    MemoryReader const volume = makeVolume().reader();
    unsigned const calls = forEachCall(volume, fault, 0, [&](FaultyReader const& faulty, unsigned n) {
        RecordingLogger logger;
        if (n == 0 && fault == Fault::ReadShort && alignment == 4096) {
            // Half of 4096 bytes still holds the whole sector.
            EXPECT_NO_THROW(ExposedFatParser(logger, alignment, faulty));
            EXPECT_TRUE(faulty.fired);
            return;
        }
        if (n == 0) {
            EXPECT_THAT([&] { ExposedFatParser(logger, alignment, faulty); },
                        ThrowsMessage<std::runtime_error>(StrEq("Can't read fat boot sector")));
            EXPECT_TRUE(faulty.fired);
            EXPECT_EQ(logger.entries, entriesOf(fault, 0, alignment));
            logger.entries.clear();
        }
        // The fault is over, or comes later: the same reader serves a parser.
        ExposedFatParser const parser(logger, alignment, faulty);
        EXPECT_THAT(logger.entries, IsEmpty());
    });
    EXPECT_EQ(calls, 1U) << "construction takes one seek and one read";
}

INSTANTIATE_TEST_SUITE_P(Faults, FatConstructionFault, testing::Combine(everyFault(), testing::Values(512U, 4096U)),
                         faultAndSizeName);

class FatRequestFault : public testing::TestWithParam<FaultAndSize> {};

TEST_P(FatRequestFault, GivesItsCodeAndTheNextRequestSucceeds) {
    Fault const fault = std::get<0>(GetParam());
    unsigned const alignment = std::get<1>(GetParam());
    FatBuilder const builder = makeVolume();
    MemoryReader const volume = builder.reader();
    // Call 0 is the constructor's.
    unsigned const calls = forEachCall(volume, fault, 1, [&](FaultyReader const& faulty, unsigned) {
        FatReaderBench bench(faulty, alignment);
        FatOutcome outcome = bench.chunk(0, 26);
        if (faulty.fired) {
            long const code = codeOf(fault);
            EXPECT_EQ(outcome.result, code);
            auto expected = entriesOf(fault, 2048, 1024);
            auto const codes = fatFailureEntries(code);
            expected.insert(expected.end(), codes.begin(), codes.end());
            EXPECT_EQ(outcome.entries, expected);
            EXPECT_THAT(outcome.buffer, testing::Each(0)) << "no bit of a map that was not read";
            outcome = bench.chunk(0, 26);
        }
        EXPECT_EQ(outcome.result, 204);
        EXPECT_EQ(fatUnits(outcome.buffer, 204), builder.map());
        EXPECT_EQ(outcome.entries, fatSuccessEntries(204));
    });
    EXPECT_EQ(calls, 2U) << "a request takes one seek and one read";
}

INSTANTIATE_TEST_SUITE_P(Faults, FatRequestFault, testing::Combine(everyFault(), testing::Values(512U, 4096U)),
                         faultAndSizeName);

/// A table that is read in four pieces; every third cluster is used.
FatGeometry makeLargeGeometry() {
    return {512, 1, 32, 1, 30000, 3500000, 0};
}

SyntheticReader makeLargeVolume() {
    return makeSyntheticFatVolume(makeLargeGeometry(), [](std::uint64_t cluster) {
        return cluster % 3 == 0 ? fat_entry::kEndOfChain : fat_entry::kFree;
    });
}

class FatLargeTableFault : public testing::TestWithParam<Fault> {};

TEST_P(FatLargeTableFault, InAnyPieceIsNoticed) {
    Fault const fault = GetParam();
    SyntheticReader const volume = makeLargeVolume();
    std::uint64_t const length = makeLargeGeometry().mapBytes();
    FatOutcome const clean = FatReaderBench(volume).chunk(0, length);
    ASSERT_EQ(clean.result, 3500000);
    // 3500001 entries in sectors of 512 bytes.
    ASSERT_THAT(clean.calls, ElementsAre(seekCall(16384), readCall(4194304), readCall(4194304), readCall(4194304),
                                         readCall(1417216)));
    unsigned const calls = forEachCall(volume, fault, 1, [&](FaultyReader const& faulty, unsigned) {
        FatReaderBench bench(faulty);
        FatOutcome const outcome = bench.chunk(0, length);
        if (!faulty.fired) {
            EXPECT_EQ(outcome, clean);
            return;
        }
        long const code = codeOf(fault);
        EXPECT_EQ(outcome.result, code);
        auto expected = entriesOf(fault, 16384, 14000128);
        auto const codes = fatFailureEntries(code);
        expected.insert(expected.end(), codes.begin(), codes.end());
        EXPECT_EQ(outcome.entries, expected);
        EXPECT_TRUE(bench.chunk(0, length) == clean);
    });
    EXPECT_EQ(calls, fault == Fault::SeekFails ? 2U : 5U) << "every call had its turn";
}

INSTANTIATE_TEST_SUITE_P(Faults, FatLargeTableFault, everyFault(),
                         [](auto const& instance) { return faultName(instance.param); });

/// Delivers all but the last bytes of every read.
class StingyReader : public agent::core::IVolumeReader {
public:
    StingyReader(agent::core::IVolumeReader const& inner, long missing) : inner_(inner), missing_(missing) {}

    long read(void* buffer, long length) const override {
        return inner_.read(buffer, std::max(0L, length - (isOn ? missing_ : 0)));
    }
    long seek(long offset, int whence) const override { return inner_.seek(offset, whence); }

    bool isOn = false;

private:
    agent::core::IVolumeReader const& inner_;
    long missing_;
};

TEST(FatStretchShort, PaddingOfTheStretchIsNotNeeded) {
    // 205 entries are 820 bytes of the 1024 that are read.
    FatBuilder const builder = makeVolume();
    MemoryReader const volume = builder.reader();
    for (long missing = 0; missing <= 1024; ++missing) {
        StingyReader reader(volume, missing);
        RecordingLogger logger;
        ExposedFatParser const parser(logger, 512, reader);
        reader.isOn = true;
        std::vector<std::uint8_t> buffer(26, 0xAA);
        long const result = parser.getChunk(0, reinterpret_cast<char*>(buffer.data()), buffer.size());
        if (missing <= 204) {
            ASSERT_EQ(result, 204) << missing;
            ASSERT_EQ(fatUnits(buffer, 204), builder.map()) << missing;
        } else {
            ASSERT_EQ(result, -400) << missing;
            ASSERT_EQ(logger.entries, fatFailureEntries(-400)) << missing;
        }
    }
}

TEST(FatBlocksInUseFault, GivesTheCodeAndLogsNothing) {
    MemoryReader const volume = makeVolume().reader();
    for (Fault const fault : {Fault::SeekFails, Fault::ReadShort, Fault::ReadEmpty}) {
        FaultyReader const faulty(volume, fault, 1);
        RecordingLogger logger;
        ExposedFatParser const parser(logger, 512, faulty);
        std::vector<int> flags(204, 7);
        EXPECT_EQ(parser.fat_blocks_in_use(2048, 4096, 1024, 0, flags.data(), 204), codeOf(fault));
        EXPECT_THAT(flags, testing::Each(0));
        EXPECT_THAT(logger.entries, IsEmpty());
    }
}

} // namespace
