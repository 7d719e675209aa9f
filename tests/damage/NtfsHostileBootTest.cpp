// Boot sectors of NTFS that claim clusters, sectors and owners that are not there: what the parser and imaging say.
#include "support/NtfsBench.h"
#include "support/NtfsMapRun.h"
#include "support/ResidentMemory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace {

using namespace tests;
using testing::ElementsAre;

constexpr char const* kNotNtfs = "Not an NTFS filesystem";
constexpr std::size_t kMostGrowth = std::size_t{64} << 20;

/// The standard volume with one field changed; proves that the change took.
NtfsBuilder damaged(std::uint64_t offset, std::uint64_t value, std::size_t width) {
    NtfsBuilder builder = NtfsBuilder::standard();
    EXPECT_NE(builder.boot(offset, width), value) << "nothing is damaged";
    builder.setBoot(offset, value, width);
    return builder;
}

struct Exponent {
    unsigned stored;
    char const* size;
};

class NtfsHostileExponent : public testing::TestWithParam<Exponent> {};

TEST_P(NtfsHostileExponent, PastTwoMebibytesIsNoCluster) {
    NtfsOpening const opening = openNtfs(damaged(ntfs_boot::kSectorsPerCluster, GetParam().stored, 1));
    EXPECT_EQ(opening.refusal, kNotNtfs);
    EXPECT_THAT(opening.entries, ElementsAre(errorEntry(std::string("Unexpected cluster size 0x") + GetParam().size)));
}

INSTANTIATE_TEST_SUITE_P(Stored, NtfsHostileExponent,
                         testing::Values(Exponent{0xF1, "1000000"}, Exponent{0xF2, "800000"},
                                         Exponent{0xF3, "400000"}));

TEST(NtfsHostileBoot, ClustersOfTwoMebibytesAreRefused) {
    NtfsBuilder const builder = damaged(ntfs_boot::kSectorsPerCluster, 0xF4, 1);
    EXPECT_EQ(openNtfs(builder).refusal, "Invalid $MFT offset.");
    expectNoMap(builder, "Invalid $MFT offset. ($MFT LCN: 0x4 is greater than the number of clusters: 0x0)");
}

TEST(NtfsHostileBoot, MoreSectorsThanTheDeviceHasAreMoreThanTheMapHolds) {
    std::size_t const before = residentBytes();
    for (unsigned bit = 20; bit < 63; ++bit) {
        NtfsBuilder const builder = damaged(ntfs_boot::kTotalSectors, std::uint64_t{1} << bit, 8);
        NtfsBench bench(builder);
        std::vector<char> buffer(64, 'x');
        EXPECT_EQ(bench.parser.getChunk(0, buffer.data(), buffer.size()), -559) << bit;
        EXPECT_EQ(buffer, std::vector<char>(64, 'x')) << "nothing is free in it, since nothing is in it";
    }
    EXPECT_LT(residentBytes(), before + kMostGrowth);
}

TEST(NtfsHostileBoot, MoreSectorsThanTheDeviceHasAreAllUsed) {
    std::size_t const before = residentBytes();
    expectAllUsed(damaged(ntfs_boot::kTotalSectors, std::uint64_t{1} << 24, 8),
                  "$Bitmap holds 64 bytes, and the volume's 2097152 clusters need 262144");
    EXPECT_LT(residentBytes(), before + kMostGrowth);
}

TEST(NtfsHostileBoot, SectorsThatNoVolumeHasAreNoVolume) {
    for (std::uint64_t const sectors : {0x7FFFFFFFFFFFFFFFUL, 0x4000000000000000UL, 0x0100000000000000UL}) {
        expectNoMap(damaged(ntfs_boot::kTotalSectors, sectors, 8),
                    "the NTFS boot sector at byte 0 describes no volume: it has " + std::to_string(sectors) +
                        " sectors");
    }
}

TEST(NtfsHostileBoot, FewerSectorsThanTheUsedClustersTakeAreAllUsed) {
    NtfsBuilder const builder = damaged(ntfs_boot::kTotalSectors, 21 * 8, 8); // the mirror is the last cluster
    std::string const place = std::to_string(builder.bitmapRuns.at(0).lcn);
    expectAllUsed(builder, "$Bitmap has a run of 1 clusters at cluster " + place +
                               ", where none can be (the volume holds 21 clusters)");

    // The parser itself gives the bits as they stand, past the volume's end too.
    NtfsBench bench(builder);
    std::vector<char> buffer(8);
    EXPECT_EQ(bench.parser.getChunk(0, buffer.data(), buffer.size()), 64);
    EXPECT_EQ(bench.parser.getChunk(24, buffer.data(), buffer.size()), 0);
}

TEST(NtfsHostileBoot, WhatIsNotRecognisedIsAllUsed) {
    NtfsBuilder const good = NtfsBuilder::standard();
    NtfsBuilder encrypted = good;
    std::string const mark = "-FVE-FS-";
    std::copy(mark.begin(), mark.end(), encrypted.bytes.begin() + 3);
    NtfsBuilder onlyTheCopy = good;
    std::fill_n(onlyTheCopy.bytes.begin(), 512, std::uint8_t{0});
    NtfsBuilder withFats = good;
    withFats.setBoot(0x10, 2, 1);
    for (NtfsBuilder const& builder : {encrypted, onlyTheCopy, withFats}) {
        ASSERT_NE(builder.bytes, good.bytes);
        HostileAnswer const answer = askForMap(builder.bytes);
        EXPECT_EQ(answer.geometry.units, builder.bytes.size() / 4096);
        EXPECT_TRUE(answer.isAllUsed()) << testing::PrintToString(answer);
    }
}

TEST(NtfsHostileBoot, AMissingEndMarkerChangesNothingInTheMap) {
    expectRightMap(damaged(ntfs_boot::kEndMarker, 0, 2));
}

} // namespace
