// Making an NTFS parser when the n-th seek or read goes wrong: one exact outcome each.
#include "support/FaultMatrix.h"
#include "support/NtfsBench.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace tests;

constexpr char const* kMade = "";
constexpr char const* kMagic = "MFT Record 0x0 has invalid file magic";
constexpr char const* kProof = "Could not read MFT record for inode number 1";

/// The fault, the place it strikes, and what comes of it.
struct FaultCase {
    char const* name;
    Fault fault;
    unsigned n; ///< 0 the boot sector, 1 record 0, 2 record 1
    unsigned alignment;
    char const* refusal;
    std::vector<LogEntry> entries;
    std::size_t calls;
};

LogEntry const kRecord0 = readingEntry(0, 16384);
LogEntry const kRecord1 = readingEntry(1, 17408);
LogEntry const kSearch = searchingDataEntry();

class NtfsConstructionFaults : public testing::TestWithParam<FaultCase> {};

TEST_P(NtfsConstructionFaults, HaveOneOutcome) {
    FaultCase const& expected = GetParam();
    MemoryReader const volume(NtfsBuilder::standard().bytes);
    FaultyReader const reader(volume, expected.fault, expected.n);
    NtfsOpening const opening = openNtfs(reader, expected.alignment);
    EXPECT_TRUE(reader.fired);
    EXPECT_EQ(opening.refusal, expected.refusal);
    EXPECT_EQ(opening.entries, expected.entries);
    EXPECT_EQ(opening.calls.size(), expected.calls);
}

INSTANTIATE_TEST_SUITE_P(
    BootSector, NtfsConstructionFaults,
    testing::Values(
        FaultCase{"SeekFails", Fault::SeekFails, 0, 512, "Can't read ntfs boot sector", {}, 1},
        FaultCase{"ReadFails", Fault::ReadFails, 0, 512, "Can't read ntfs boot sector", {failedReadEntry(0, 512)}, 2},
        FaultCase{
            "ReadFailsWide", Fault::ReadFails, 0, 4096, "Can't read ntfs boot sector", {failedReadEntry(0, 4096)}, 2},
        FaultCase{
            "ReadEmpty", Fault::ReadEmpty, 0, 512, "Not an NTFS filesystem", {debugEntry("Invalid NTFS magic.")}, 2},
        // Half of it holds every field; the end marker alone is missed.
        FaultCase{"ReadShort",
                  Fault::ReadShort,
                  0,
                  512,
                  kMade,
                  {warningEntry("Bootsector has invalid end of sector marker."), kRecord0, kSearch, kRecord1},
                  6},
        FaultCase{"ReadShortWide", Fault::ReadShort, 0, 4096, kMade, {kRecord0, kSearch, kRecord1}, 6}),
    [](auto const& fault) { return fault.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Record0, NtfsConstructionFaults,
    testing::Values(
        FaultCase{"SeekFails", Fault::SeekFails, 1, 512, kMagic, {kRecord0}, 3},
        FaultCase{"ReadFails", Fault::ReadFails, 1, 512, kMagic, {kRecord0, failedReadEntry(16384, 1024)}, 4},
        FaultCase{"ReadEmpty", Fault::ReadEmpty, 1, 512, kMagic, {kRecord0}, 4},
        // The code of a short record is not asked for: what came passes the checks when all in use is there.
        FaultCase{"ReadShort", Fault::ReadShort, 1, 512, kMade, {kRecord0, kSearch, kRecord1}, 6},
        FaultCase{"ReadShortWide", Fault::ReadShort, 1, 4096, kMade, {kRecord0, kSearch, kRecord1}, 6}),
    [](auto const& fault) { return fault.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Record1, NtfsConstructionFaults,
    testing::Values(FaultCase{"SeekFails", Fault::SeekFails, 2, 512, kProof, {kRecord0, kSearch, kRecord1}, 5},
                    FaultCase{"ReadFails",
                              Fault::ReadFails,
                              2,
                              512,
                              kProof,
                              {kRecord0, kSearch, kRecord1, failedReadEntry(17408, 1024)},
                              6},
                    FaultCase{"ReadEmpty", Fault::ReadEmpty, 2, 512, kProof, {kRecord0, kSearch, kRecord1}, 6},
                    FaultCase{"ReadShort", Fault::ReadShort, 2, 512, kProof, {kRecord0, kSearch, kRecord1}, 6},
                    // The record lies in the delivered half of its unit.
                    FaultCase{"ReadShortWide", Fault::ReadShort, 2, 4096, kMade, {kRecord0, kSearch, kRecord1}, 6}),
    [](auto const& fault) { return fault.param.name; });

TEST(NtfsConstructionFaultsBehindTheEnd, ThereAreThreeAccesses) {
    MemoryReader const volume(NtfsBuilder::standard().bytes);
    for (Fault const fault : {Fault::SeekFails, Fault::ReadFails, Fault::ReadShort, Fault::ReadEmpty}) {
        FaultyReader const reader(volume, fault, 3);
        EXPECT_EQ(openNtfs(reader).refusal, kMade);
        EXPECT_FALSE(reader.fired);
    }
}

TEST(NtfsFaultsLater, AFailedReadOfMetadataLeavesAParserThatCanTryAgain) {
    NtfsBuilder const builder = NtfsBuilder::standard();
    MemoryReader const volume(builder.bytes);
    for (unsigned const n : {3U, 4U, 5U}) { // of the second round
        FaultyReader const reader(volume, Fault::ReadFails, n);
        RecordingLogger logger;
        NtfsAccess parser(logger, 512, reader);
        EXPECT_THROW(parser.reinit(), std::runtime_error) << n;
        EXPECT_TRUE(reader.fired);
        parser.reinit();
        EXPECT_EQ(parser.extents(24).size(), 2U);
    }
}

} // namespace
