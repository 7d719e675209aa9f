// Attribute lists of NTFS that have runs of their own: what is read of them, and with which the search ends.
#include "support/NtfsListVolume.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace tests;
using namespace agent::core::fs;
using testing::ElementsAre;
using testing::IsEmpty;

class NtfsRunsOfAList : public NtfsListVolume {
protected:
    static LogEntries fetching(unsigned extents) {
        return starting() +
               LogEntries{debugEntry("Fetching non resident ATTRIBUTE LIST."),
                          debugEntry("Found " + std::to_string(extents) + " extents of non resident attributes.")};
    }
    long bytesOf(NtfsRun const& run) const { return static_cast<long>(builder.byteOfCluster(run.lcn)); }
};

TEST_F(NtfsRunsOfAList, AListInOneRunIsRead) {
    extension(41);
    auto const runs = builder.store(base(), ntfs_type::kAttributeList, u"", ntfsAttributeList({dataIn(41)}));
    open();
    EXPECT_THAT(find(), ElementsAre(hit(41)));
    EXPECT_EQ(logger.entries, fetching(1) + followed(41));
    EXPECT_THAT(reader->calls, ElementsAre(seekCall(bytesOf(runs[0])), readCall(512),
                                           seekCall(static_cast<long>(builder.byteOffsetOf(41))), readCall(1024)))
        << "no more than the data size";
}

TEST_F(NtfsRunsOfAList, AnEntryMayCrossTheRuns) {
    extension(41);
    extension(42);
    // 127 entries of 32 bytes and one of 48: the next entry, for record 42, lies across the first cluster's end.
    std::vector<NtfsListEntry> entries(126, dataIn(41));
    entries.push_back({ntfs_type::kData, 41, 0, u"some name"});
    entries.push_back(dataIn(42));
    NtfsBytes const list = ntfsAttributeList(entries);
    ASSERT_EQ(list.size() - 32, 4096U - 16U);
    auto const runs = builder.store(base(), ntfs_type::kAttributeList, u"", list, 2);
    ASSERT_EQ(runs.size(), 2U);
    open();
    EXPECT_THAT(find(), ElementsAre(hit(41), hit(42)));
    EXPECT_EQ(logger.entries[3], debugEntry("Found 2 extents of non resident attributes."));
    ASSERT_GE(reader->calls.size(), 4U);
    EXPECT_EQ(reader->calls[1], readCall(4096));
    EXPECT_EQ(reader->calls[2], seekCall(bytesOf(runs[1])));
    EXPECT_EQ(reader->calls[3], readCall(512)) << "16 bytes, in whole units";
}

TEST_F(NtfsRunsOfAList, RunsPastTheDataSizeAreSoughtButNotRead) {
    extension(41);
    builder.write({{200, 1}}, ntfsAttributeList({dataIn(41)}));
    base().nonResident(ntfs_type::kAttributeList, u"", {{200, 1}, {210, 3}}, 32);
    open();
    EXPECT_THAT(find(), ElementsAre(hit(41)));
    ASSERT_GE(reader->calls.size(), 4U);
    EXPECT_EQ(reader->calls[1], readCall(512));
    EXPECT_EQ(reader->calls[2], seekCall(210 * 4096));
    EXPECT_EQ(reader->calls[3], seekCall(static_cast<long>(builder.byteOffsetOf(41))));
}

TEST_F(NtfsRunsOfAList, TheDataSizeCutsTheList) {
    extension(41);
    extension(42);
    builder.write({{200, 1}}, ntfsAttributeList({dataIn(41), dataIn(42)}));
    base().nonResident(ntfs_type::kAttributeList, u"", {{200, 1}}, 32);
    open();
    EXPECT_THAT(find(), ElementsAre(hit(41)));
}

TEST_F(NtfsRunsOfAList, WhatTheRunsLackIsZeroAndEndsTheList) {
    extension(41);
    std::vector<NtfsListEntry> const entries(128, dataIn(41)); // a whole cluster
    builder.write({{200, 1}}, ntfsAttributeList(entries));
    base().nonResident(ntfs_type::kAttributeList, u"", {{200, 1}}, 3 * 4096);
    open();
    EXPECT_THAT(find(), ElementsAre(hit(41)));
    EXPECT_EQ(logger.entries.back(), debugEntry("No more entries in ATTRIBUTE LIST"));
}

TEST_F(NtfsRunsOfAList, AShortReadLetsTheNextRunFollowTooEarly) {
    extension(41);
    extension(42);
    builder.write({{200, 1}}, ntfsAttributeList(std::vector<NtfsListEntry>(128, dataIn(41)))); // a whole cluster
    builder.write({{210, 1}}, ntfsAttributeList({dataIn(42)}));
    base().nonResident(ntfs_type::kAttributeList, u"", {{200, 1}, {210, 1}}, 4096 + 32);
    open();
    FaultyReader const faulty(*volume, Fault::ReadShort, 4); // boot, records 0, 1 and 40, then the first run
    parser.emplace(logger, 512, faulty);
    EXPECT_THAT(find(), ElementsAre(hit(41), hit(42))) << "half of the first run, and the second behind it";
    EXPECT_TRUE(faulty.fired);
}

TEST_F(NtfsRunsOfAList, ADataSizeOfZeroIsAnEmptyList) {
    base().nonResident(ntfs_type::kAttributeList, u"", {{200, 1}}, 0);
    open();
    EXPECT_THAT(find(), IsEmpty());
    EXPECT_EQ(logger.entries, fetching(1));
}

TEST_F(NtfsRunsOfAList, WithoutRunsItIsRefused) {
    base().nonResidentRaw(ntfs_type::kAttributeList, u"", {0}, 32);
    open();
    EXPECT_EQ(refusal(), "Found no run list for attribute.");
    EXPECT_EQ(logger.entries, fetching(0));
}

TEST_F(NtfsRunsOfAList, ANegativeClusterEndsItWithoutAnyHit) {
    extension(41);
    builder.write({{200, 1}}, ntfsAttributeList({dataIn(41)}));
    // One cluster at 200, then one at 200 - 201: what was read before does not count either.
    base().nonResidentRaw(ntfs_type::kAttributeList, u"", {0x21, 0x01, 200, 0, 0x21, 0x01, 0x37, 0xFF, 0}, 8192);
    base().resident(ntfs_type::kData, u"", {1});
    open();
    EXPECT_THAT(find(), ElementsAre(hit(kListBase))) << "the walk goes on";
    EXPECT_EQ(logger.entries, fetching(2) + one("No support for compressed files yet."));
}

TEST_F(NtfsRunsOfAList, AMarkerIsNegativeToo) {
    base().nonResidentRaw(ntfs_type::kAttributeList, u"", {0x40, 0, 0, 0, 0, 0}, 64);
    open();
    EXPECT_THAT(find(), IsEmpty());
    EXPECT_EQ(logger.entries, fetching(1) + one("No support for compressed files yet."));
}

TEST_F(NtfsRunsOfAList, AReadThatFailsIsRefused) {
    base().nonResidentRaw(ntfs_type::kAttributeList, u"", {0x18, 1, 0, 0, 0, 0, 0, 0, 0, 1, 0}, 64);
    auto& attribute = base().attributes.back();
    putNumber(attribute, 0x40, 0x81, 1); // a length of one byte, a cluster of eight: 2^60
    putNumber(attribute, 0x42, 1UL << 60, 8);
    open();
    // 2^60 clusters of 4 KiB are 0 after the shift; 2^51 are past what a volume can be.
    EXPECT_THAT(find(), IsEmpty());
    builder.pokeRecord(kListBase, builder.record(kListBase).offsetOf(ntfs_type::kAttributeList) + 0x42, 1UL << 51, 8);
    volume->bytes = builder.bytes;
    EXPECT_EQ(refusal(), "Could not read from device.");
    EXPECT_EQ(logger.entries, fetching(1) + one("Unable to read data."));
}

TEST_F(NtfsRunsOfAList, DamagedMappingPairsAreRefusedByTheirText) {
    base().nonResidentRaw(ntfs_type::kAttributeList, u"", {0x8F, 1, 1, 1, 1, 1, 1, 1}, 64);
    open();
    EXPECT_EQ(refusal(), "Invalid runlist");
}

TEST_F(NtfsRunsOfAList, A64KiBClusterCountsAsNothing) {
    builder = NtfsBuilder::standard(NtfsGeometry::withClusters(65536));
    extension(41);
    // An even cluster leads to byte 0, an odd one to byte 2^63, which no volume has; nothing is taken from either.
    NtfsBytes const list = ntfsAttributeList({dataIn(41)});
    builder.write({{30, 2}}, list);
    base().nonResident(ntfs_type::kAttributeList, u"", {{30, 1}}, list.size());
    open();
    EXPECT_THAT(find(), IsEmpty());
    EXPECT_EQ(logger.entries, fetching(1) + one("No more entries in ATTRIBUTE LIST"));
    EXPECT_THAT(reader->calls, ElementsAre(seekCall(0)));
    base().remove(ntfs_type::kAttributeList).nonResident(ntfs_type::kAttributeList, u"", {{31, 1}}, list.size());
    open();
    EXPECT_EQ(refusal(), "Could not read from device.");
}

TEST_F(NtfsRunsOfAList, A32KiBClusterIsReadAsItStands) {
    builder = NtfsBuilder::standard(NtfsGeometry::withClusters(32768));
    extension(41);
    builder.store(base(), ntfs_type::kAttributeList, u"", ntfsAttributeList({dataIn(41)}));
    open();
    EXPECT_THAT(find(), ElementsAre(hit(41)));
}

} // namespace
