// Making an NTFS parser: what is read, the geometry that follows from the boot sector, and what is refused.
#include "support/NtfsBench.h"

#include "agent/IConfig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

namespace {

using namespace tests;
using agent::core::fs::SEPARATOR;
using testing::ElementsAre;
using testing::IsEmpty;

class CapacityConfig : public agent::IConfig {
public:
    explicit CapacityConfig(std::optional<unsigned long> value) : value_(value) {}

    bool get(std::string const& key, unsigned long& value) const override {
        asked.push_back(key);
        value = value_.value_or(value);
        return value_.has_value();
    }

    mutable std::vector<std::string> asked;

private:
    std::optional<unsigned long> value_;
};

/// The entries of a construction with this capacity, without those of the records' reads.
std::vector<LogEntry> entriesWith(CapacityConfig const& config) {
    MemoryReader const volume(NtfsBuilder::standard().bytes);
    RecordingLogger logger;
    NtfsAccess const parser(logger, 512, volume, config);
    EXPECT_GE(logger.entries.size(), 3U);
    return {logger.entries.begin(), logger.entries.end() - 3};
}

TEST(NtfsConstruction, ReadsTheBootSectorAndTwoRecords) {
    NtfsOpening const opening = openNtfs(NtfsBuilder::standard());
    EXPECT_EQ(opening.refusal, "");
    EXPECT_THAT(opening.entries, ElementsAre(readingEntry(0, 16384), searchingDataEntry(), readingEntry(1, 17408)));
    EXPECT_THAT(opening.calls, ElementsAre(seekCall(0), readCall(512), seekCall(16384), readCall(1024), seekCall(17408),
                                           readCall(1024)));
}

TEST(NtfsConstruction, AnAlignmentWidensEveryRead) {
    NtfsOpening const opening = openNtfs(NtfsBuilder::standard(), 4096);
    EXPECT_EQ(opening.refusal, "");
    EXPECT_THAT(opening.calls, ElementsAre(seekCall(0), readCall(4096), seekCall(16384), readCall(4096),
                                           seekCall(16384), readCall(4096)));
}

TEST(NtfsConstruction, TheSeparatorIsOneBackslash) {
    EXPECT_EQ(SEPARATOR, std::string(1, '\\'));
}

TEST(NtfsConstruction, BitsCountFromTheLeastSignificant) {
    EXPECT_FALSE(NtfsBench(NtfsBuilder::standard()).parser.isMostSignificantBitFirst());
}

TEST(NtfsConstruction, ACapacityOf1000LeavesNoLine) {
    CapacityConfig const config(1000);
    EXPECT_THAT(entriesWith(config), IsEmpty());
    EXPECT_THAT(config.asked, ElementsAre("ntfsparser.cache.capacity"));
}

TEST(NtfsConstruction, AMissingKeyKeepsTheDefault) {
    CapacityConfig const config(std::nullopt);
    EXPECT_THAT(entriesWith(config), IsEmpty());
    EXPECT_THAT(config.asked, ElementsAre("ntfsparser.cache.capacity"));
}

TEST(NtfsConstruction, AnotherCapacityIsSaid) {
    EXPECT_THAT(entriesWith(CapacityConfig(5)),
                ElementsAre(debugEntry("NTFSParser LRU cache size re-configured to 5")));
    EXPECT_THAT(entriesWith(CapacityConfig(0)),
                ElementsAre(debugEntry("NTFSParser LRU cache size re-configured to 0")));
    EXPECT_THAT(entriesWith(CapacityConfig(0xFFFFFFFFFFFFFFFF)),
                ElementsAre(debugEntry("NTFSParser LRU cache size re-configured to 18446744073709551615")));
}

TEST(NtfsConstruction, TheCapacityIsSaidBeforeTheVolumeIsRead) {
    MemoryReader const empty({});
    RecordingLogger logger;
    EXPECT_EQ(textThrown([&] { NtfsAccess(logger, 512, empty, CapacityConfig(7)); }), "Not an NTFS filesystem");
    EXPECT_THAT(logger.entries, ElementsAre(debugEntry("NTFSParser LRU cache size re-configured to 7"),
                                            debugEntry("Invalid NTFS magic.")));
}

/// What the boot sector of the standard volume becomes, and what the parser says.
struct BootCase {
    char const* name;
    std::uint64_t offset;
    std::uint64_t value;
    std::size_t width;
    std::string refusal;
    std::vector<LogEntry> entries;
};

class NtfsConstructionGeometry : public testing::TestWithParam<BootCase> {};

TEST_P(NtfsConstructionGeometry, IsRefusedAfterOneRead) {
    BootCase const& damage = GetParam();
    NtfsBuilder builder = NtfsBuilder::standard();
    ASSERT_NE(builder.boot(damage.offset, damage.width), damage.value);
    builder.setBoot(damage.offset, damage.value, damage.width);
    EXPECT_EQ(openNtfs(builder), (NtfsOpening{damage.refusal, damage.entries, {seekCall(0), readCall(512)}}));
}

INSTANTIATE_TEST_SUITE_P(
    Fields, NtfsConstructionGeometry,
    testing::Values(BootCase{"NoSectors", ntfs_boot::kTotalSectors, 0, 8, "volume size is set to zero.", {}},
                    BootCase{"MftBehindTheLastCluster",
                             ntfs_boot::kMftLcn,
                             513,
                             8,
                             "Invalid $MFT offset.",
                             {errorEntry("$MFT LCN: 0x201 is greater than the number of clusters: 0x200")}},
                    BootCase{"MirrorBehindTheLastCluster",
                             ntfs_boot::kMirrorLcn,
                             513,
                             8,
                             "Invalid $MFTMirr offset.",
                             {errorEntry("$MFTMirr LCN: 0x201 is greater than the number of clusters: 200")}},
                    BootCase{
                        "MftFarAway",
                        ntfs_boot::kMftLcn,
                        0x7FFFFFFFFFFFFFFF,
                        8,
                        "Invalid $MFT offset.",
                        {errorEntry("$MFT LCN: 0x7fffffffffffffff is greater than the number of clusters: 0x200")}},
                    BootCase{"NegativeSectors",
                             ntfs_boot::kTotalSectors,
                             0x8000000000000000,
                             8,
                             "Invalid $MFT offset.",
                             {errorEntry("$MFT LCN: 0x4 is greater than the number of clusters: 0xf000000000000000")}},
                    BootCase{"SectorsEndBeforeTheMft",
                             ntfs_boot::kTotalSectors,
                             31,
                             8,
                             "Invalid $MFT offset.",
                             {errorEntry("$MFT LCN: 0x4 is greater than the number of clusters: 0x3")}},
                    BootCase{"SectorsEndBeforeTheMirror",
                             ntfs_boot::kTotalSectors,
                             159,
                             8,
                             "Invalid $MFTMirr offset.",
                             {errorEntry("$MFTMirr LCN: 0x14 is greater than the number of clusters: 13")}},
                    BootCase{"ClustersOf65536Sectors",
                             ntfs_boot::kSectorsPerCluster,
                             0xF0,
                             1,
                             "Invalid $MFT offset.",
                             {errorEntry("$MFT LCN: 0x4 is greater than the number of clusters: 0x0")}},
                    BootCase{"ClustersOf4096Sectors",
                             ntfs_boot::kSectorsPerCluster,
                             0xF4,
                             1,
                             "Invalid $MFT offset.",
                             {errorEntry("$MFT LCN: 0x4 is greater than the number of clusters: 0x0")}},
                    BootCase{"ClustersOf256Sectors",
                             ntfs_boot::kSectorsPerCluster,
                             0xF8,
                             1,
                             "Invalid $MFT offset.",
                             {errorEntry("$MFT LCN: 0x4 is greater than the number of clusters: 0x0")}},
                    BootCase{"SectorsOf768Bytes",
                             ntfs_boot::kBytesPerSector,
                             768,
                             2,
                             "Cluster size isn't power of two. ClusterSize: 0x1800",
                             {errorEntry("Cluster size isn't power of two. ClusterSize: 0x1800")}},
                    BootCase{"ClustersOf4Mebibytes",
                             ntfs_boot::kSectorsPerCluster,
                             0xF3,
                             1,
                             "Not an NTFS filesystem",
                             {errorEntry("Unexpected cluster size 0x400000")}},
                    BootCase{"ThreeSectorsInACluster",
                             ntfs_boot::kSectorsPerCluster,
                             3,
                             1,
                             "Not an NTFS filesystem",
                             {errorEntry("Unexpected sectors per cluster value: 0x\x03")}},
                    BootCase{"ThreeClustersInARecord",
                             ntfs_boot::kClustersPerMftRecord,
                             3,
                             1,
                             "Not an NTFS filesystem",
                             {errorEntry("Unexpected clusters per mft record: 0x\x03")}},
                    BootCase{"NoClustersInARecord",
                             ntfs_boot::kClustersPerMftRecord,
                             0,
                             1,
                             "Not an NTFS filesystem",
                             {errorEntry(std::string("Unexpected clusters per mft record: 0x") + '\0')}},
                    BootCase{"MftWhereTheMirrorIs",
                             ntfs_boot::kMftLcn,
                             20,
                             8,
                             "Not an NTFS filesystem",
                             {errorEntry("Invalid location of MFT or MFTMirr.")}}),
    [](auto const& boot) { return boot.param.name; });

TEST(NtfsConstruction, SingleSectorsOf768BytesAreNamed) {
    NtfsBuilder builder = NtfsBuilder::standard();
    builder.setBoot(ntfs_boot::kBytesPerSector, 768, 2).setBoot(ntfs_boot::kSectorsPerCluster, 1, 1);
    EXPECT_EQ(openNtfs(builder).refusal, "Cluster size isn't power of two. ClusterSize: 0x300");
}

TEST(NtfsConstruction, PlacesThatEqualTheNumberOfClustersPass) {
    NtfsBuilder builder = NtfsBuilder::standard();
    builder.setBoot(ntfs_boot::kMirrorLcn, 512, 8);
    EXPECT_EQ(openNtfs(builder).refusal, "");
    builder.setBoot(ntfs_boot::kMirrorLcn, 20, 8).setBoot(ntfs_boot::kMftLcn, 512, 8);
    EXPECT_EQ(openNtfs(builder), (NtfsOpening{"MFT Record 0x0 has invalid file magic",
                                              {readingEntry(0, 2097152)}, // short: what is there is not looked at

                                              {seekCall(0), readCall(512), seekCall(2097152), readCall(1024)}}));
}

TEST(NtfsConstruction, AMissingEndMarkerIsOneWarning) {
    NtfsBuilder builder = NtfsBuilder::standard();
    builder.setBoot(ntfs_boot::kEndMarker, 0, 2);
    NtfsOpening const opening = openNtfs(builder);
    EXPECT_EQ(opening.refusal, "");
    ASSERT_EQ(opening.entries.size(), 4U);
    EXPECT_EQ(opening.entries.front(), warningEntry("Bootsector has invalid end of sector marker."));
}

TEST(NtfsConstruction, TheSizeOfAnIndexBlockIsNotKept) {
    NtfsBuilder builder = NtfsBuilder::standard();
    builder.setBoot(ntfs_boot::kClustersPerIndexBlock, 0xE1, 1);
    EXPECT_EQ(openNtfs(builder), openNtfs(NtfsBuilder::standard()));
}

/// Sizes that a boot sector can tell, and the record size that follows.
struct Sizes {
    std::uint32_t bytesPerSector;
    std::uint32_t clusterBytes;
    std::uint32_t recordBytes;
    std::uint8_t storedSectors;
    std::uint8_t storedRecord;
};

class NtfsConstructionSizes : public testing::TestWithParam<Sizes> {};

TEST_P(NtfsConstructionSizes, RecordsAreReadInTheirSize) {
    Sizes const& sizes = GetParam();
    NtfsGeometry geometry = NtfsGeometry::withClusters(sizes.clusterBytes);
    geometry.bytesPerSector = sizes.bytesPerSector;
    geometry.recordBytes = sizes.recordBytes;
    NtfsBuilder const builder = NtfsBuilder::standard(geometry);
    ASSERT_EQ(builder.boot(ntfs_boot::kSectorsPerCluster, 1), sizes.storedSectors);
    ASSERT_EQ(builder.boot(ntfs_boot::kClustersPerMftRecord, 1), sizes.storedRecord);
    NtfsOpening const opening = openNtfs(builder);
    EXPECT_EQ(opening.refusal, "");
    auto const first = static_cast<long>(builder.byteOffsetOf(0));
    auto const size = static_cast<long>(sizes.recordBytes);
    EXPECT_THAT(opening.calls, ElementsAre(seekCall(0), readCall(512), seekCall(first), readCall(size),
                                           seekCall(first + size), readCall(size)));
}

INSTANTIATE_TEST_SUITE_P(Sizes, NtfsConstructionSizes,
                         testing::Values(Sizes{512, 512, 1024, 1, 2}, Sizes{256, 1024, 1024, 4, 1},
                                         Sizes{512, 4096, 1024, 8, 0xF6}, Sizes{512, 4096, 2048, 8, 0xF5},
                                         Sizes{512, 4096, 4096, 8, 1}, Sizes{512, 1024, 4096, 2, 4},
                                         Sizes{4096, 4096, 4096, 1, 1}, Sizes{512, 65536, 1024, 128, 0xF6},
                                         Sizes{4096, 65536, 4096, 16, 0xF4}),
                         [](auto const& sizes) {
                             return "Sectors" + std::to_string(sizes.param.bytesPerSector) + "Clusters" +
                                    std::to_string(sizes.param.clusterBytes) + "Records" +
                                    std::to_string(sizes.param.recordBytes);
                         });

TEST(NtfsConstruction, SectorsPerClusterMayBeANegativeExponent) {
    NtfsBuilder builder = NtfsBuilder::standard();
    builder.setBoot(ntfs_boot::kSectorsPerCluster, 0xFD, 1); // two to the power of 3, as the count 8 says
    EXPECT_EQ(openNtfs(builder), openNtfs(NtfsBuilder::standard()));
}

TEST(NtfsConstruction, ReadingAgainTakesWhatTheVolumeHoldsNow) {
    NtfsBench bench(NtfsBuilder::standard());
    NtfsBuilder changed = NtfsBuilder::standard();
    bench.forget();
    bench.parser.reinit();
    EXPECT_EQ(bench.reader.calls, openNtfs(changed).calls);

    changed.setBoot(ntfs_boot::kTotalSectors, 0, 8);
    bench.volume.bytes = changed.bytes;
    EXPECT_EQ(textThrown([&] { bench.parser.reinit(); }), "volume size is set to zero.");
    bench.volume.bytes.assign(512, 0);
    EXPECT_EQ(textThrown([&] { bench.parser.reinit(); }), "Not an NTFS filesystem");
}

TEST(NtfsConstruction, ASilentLogHearsNothing) {
    MemoryReader const volume(NtfsBuilder::standard().bytes);
    SilentLogger logger;
    NtfsAccess const parser(logger, 512, volume);
    EXPECT_EQ(logger.written, 0);
}

} // namespace
