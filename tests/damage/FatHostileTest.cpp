// FAT32 boot sectors and tables that lie, as the imaging layer sees them: refused, all used, doubted, or without
// effect.
#include "support/FatBuilder.h"
#include "support/HostileVolume.h"

namespace {

using namespace tests;

using End = HostileEnd;

constexpr std::uint64_t kInfo = 512;    ///< the FSInfo sector
constexpr std::uint64_t kBackup = 3072; ///< sector 6

/// Clusters of 1 KiB, 200 of them: the tables in sectors 32 to 35, the data from byte 18432 on, which is unit 18. Used
/// are clusters 2, 10 to 59 and 150.
FatBuilder makeGood() {
    FatBuilder builder(FatGeometry{512, 2, 32, 2, 2, 36 + 400, 0});
    for (std::uint64_t cluster = 10; cluster < 60; ++cluster) {
        builder.setEntry(cluster, fat_entry::kEndOfChain);
    }
    builder.setEntry(150, fat_entry::kEndOfChain);
    return builder.resize(builder.geometry().totalBytes());
}

HostileAnswer ask(FatBuilder const& builder) {
    return askForMap(builder.bytes);
}

void expectRight(FatBuilder const& builder) {
    expectEnd(ask(builder), End::Right, "", makeGood().map(), 1024);
}

FatBuilder with(HostileField const& field) {
    FatBuilder builder = makeGood();
    EXPECT_NE(builder.boot(field.offset, field.width), field.value) << "nothing is changed";
    return builder.setBoot(field.offset, field.value, field.width);
}

TEST(FatHostile, TheVolumeItselfIsSound) {
    expectRight(makeGood());
}

class FatHostileField : public testing::TestWithParam<HostileField> {};

TEST_P(FatHostileField, HasItsEnd) {
    expectEnd(ask(with(GetParam())), GetParam().end, GetParam().text, makeGood().map(), 1024);
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, FatHostileField,
    testing::Values(
        HostileField{"SectorsOf511", fat_boot::kBytesPerSector, 511, 2, End::Error, "it has 511 bytes per sector"},
        HostileField{"SectorsOfAllOnes", fat_boot::kBytesPerSector, 0xFFFF, 2, End::Error, "65535 bytes per sector"},
        HostileField{"SectorsOf256", fat_boot::kBytesPerSector, 256, 2, End::Error, "it has 256 bytes per sector"},
        HostileField{"SectorsOf1024", fat_boot::kBytesPerSector, 1024, 2, End::AllUsed, "the table begins with"},
        HostileField{"SectorsOf4096", fat_boot::kBytesPerSector, 4096, 2, End::AllUsed, "the table begins with"},
        HostileField{"ClustersOf128", fat_boot::kSectorsPerCluster, 128, 1, End::AllUsed, "the data area begins at"},
        HostileField{"ClustersOf6", fat_boot::kSectorsPerCluster, 6, 1, End::Error, "6 sectors per cluster"},
        HostileField{"OneReservedSectorMore", fat_boot::kReservedSectors, 33, 2, End::AllUsed,
                     "in the copy of the boot sector"},
        HostileField{"OneReservedSectorLess", fat_boot::kReservedSectors, 31, 2, End::AllUsed,
                     "in the copy of the boot sector"},
        HostileField{"OneReservedSector", fat_boot::kReservedSectors, 1, 2, End::AllUsed, "the table begins with"},
        HostileField{"255Tables", fat_boot::kNumberOfFats, 255, 1, End::AllUsed, "the data area begins at sector 542"},
        HostileField{"NeitherTotal", fat_boot::kTotalSectors32, 0, 4, End::Error, "it has 0 sectors"},
        HostileField{"TotalBeforeTheData", fat_boot::kTotalSectors32, 36, 4, End::AllUsed, "the data area begins at"},
        HostileField{"BothTotalsAndOneIsTooLong", fat_boot::kTotalSectors16, 0xFFFF, 2, End::AllUsed,
                     "a table has 256 entries"},
        HostileField{"TablesOfAllOnes", fat_boot::kSectorsPerFat32, 0xFFFFFFFF, 4, End::AllUsed,
                     "sectors per FAT is 4294967295"},
        HostileField{"TablesAsLongAsTheVolume", fat_boot::kSectorsPerFat32, 436, 4, End::AllUsed, "the data area"},
        HostileField{"RootEntries", fat_boot::kRootEntries, 512, 2, End::Right},
        HostileField{"RootEntriesOfAllOnes", fat_boot::kRootEntries, 0xFFFF, 2, End::Right},
        HostileField{"Fat16TableLengthToo", fat_boot::kSectorsPerFat16, 0xFFFF, 2, End::AllUsed, "(16 bits) is 65535"}),
    [](auto const& instance) { return hostileName(instance); });

INSTANTIATE_TEST_SUITE_P(
    Root, FatHostileField,
    testing::Values(
        HostileField{"Cluster0", fat_boot::kRootCluster, 0, 4, End::AllUsed, "begins at cluster 0, where none"},
        HostileField{"Cluster1", fat_boot::kRootCluster, 1, 4, End::AllUsed, "begins at cluster 1, where none"},
        HostileField{"FirstBeyond", fat_boot::kRootCluster, 202, 4, End::AllUsed, "begins at cluster 202, where none"},
        HostileField{"AllOnes", fat_boot::kRootCluster, 0xFFFFFFFF, 4, End::AllUsed, "cluster 4294967295, where none"},
        HostileField{"LastButFree", fat_boot::kRootCluster, 201, 4, End::AllUsed, "calls cluster 201 free"},
        HostileField{"AnotherInUse", fat_boot::kRootCluster, 10, 4, End::Right}),
    [](auto const& instance) { return hostileName(instance); });

INSTANTIATE_TEST_SUITE_P(Flags, FatHostileField,
                         testing::Values(HostileField{"Table3Of2Active", fat_boot::kExtFlags, 0x83, 2, End::AllUsed,
                                                      "table 3 is the active one"},
                                         HostileField{"Table1Active", fat_boot::kExtFlags, 0x81, 2, End::AllUsed,
                                                      "table 1 is the active one"},
                                         HostileField{"MirroredWithANumber", fat_boot::kExtFlags, 0x03, 2, End::Right},
                                         HostileField{"FirstAlone", fat_boot::kExtFlags, 0x80, 2, End::Right},
                                         HostileField{"AllButMirrored", fat_boot::kExtFlags, 0xFF7F, 2, End::Right}),
                         [](auto const& instance) { return hostileName(instance); });

INSTANTIATE_TEST_SUITE_P(
    Elsewhere, FatHostileField,
    testing::Values(HostileField{"InfoSector0", fat_boot::kFsInfoSector, 0, 2, End::Right},
                    HostileField{"InfoSectorBeyond", fat_boot::kFsInfoSector, 0xFFFF, 2, End::Right},
                    HostileField{"InfoFreeCountOfAllOnes", kInfo + fat_info::kFreeCount, 0xFFFFFFFE, 4, End::Right},
                    HostileField{"InfoFreeCountOf0", kInfo + fat_info::kFreeCount, 0, 4, End::Right},
                    HostileField{"InfoNextFreeBeyond", kInfo + fat_info::kNextFree, 0x7FFFFFFF, 4, End::Right},
                    HostileField{"InfoSignature", kInfo + fat_info::kLeadSignature, 0, 4, End::Right},
                    HostileField{"BackupSectorBeyond", fat_boot::kBackupSector, 0xFFFF, 2, End::Right},
                    HostileField{"BackupWithoutALabel", kBackup + fat_boot::kFat32Label, 0, 8, End::Right}),
    [](auto const& instance) { return hostileName(instance); });

/// Fields that move every cluster, and leave the first table where it is: the map is that of another volume. The second
/// table, or the copy of the boot sector, tells.
class FatHostilePlace : public testing::TestWithParam<HostileField> {};

TEST_P(FatHostilePlace, LosesNothing) {
    expectNothingLost(ask(with(GetParam())), makeGood().map(), 1024);
}

INSTANTIATE_TEST_SUITE_P(
    Fields, FatHostilePlace,
    testing::Values(HostileField{"OneTable", fat_boot::kNumberOfFats, 1, 1, End::Doubted},
                    HostileField{"ThreeTables", fat_boot::kNumberOfFats, 3, 1, End::Doubted},
                    HostileField{"ManyTables", fat_boot::kNumberOfFats, 100, 1, End::Doubted},
                    HostileField{"LongerTables", fat_boot::kSectorsPerFat32, 3, 4, End::Doubted},
                    HostileField{"MuchLongerTables", fat_boot::kSectorsPerFat32, 100, 4, End::Doubted},
                    HostileField{"LongerClusters", fat_boot::kSectorsPerCluster, 4, 1, End::Doubted},
                    HostileField{"MuchLongerClusters", fat_boot::kSectorsPerCluster, 32, 1, End::Doubted},
                    HostileField{"ShorterTotal", fat_boot::kTotalSectors32, 200, 4, End::Right},
                    HostileField{"ShorterTotalOf16Bits", fat_boot::kTotalSectors16, 200, 2, End::Right}),
    [](auto const& instance) { return hostileName(instance); });

TEST(FatHostileTable, ThatIsOneEntryShortMakesEverythingUsed) {
    // 254 clusters fill a table of 256 entries; one more is one too many.
    FatBuilder const full(FatGeometry{512, 2, 32, 2, 2, 36 + 2 * 254, 0});
    expectEnd(askForMap(full.bytes, full.geometry().totalBytes()), End::Right, "", full.map(), 1024);
    FatBuilder const short1(FatGeometry{512, 2, 32, 2, 2, 36 + 2 * 255, 0});
    expectEnd(askForMap(short1.bytes, short1.geometry().totalBytes()), End::AllUsed,
              "a table has 256 entries, and the volume's 255 clusters need 257", std::vector<bool>(273, true), 1024);
}

TEST(FatHostileTable, WhoseLastSectorsAreNoWholeClusterIsRight) {
    FatBuilder builder(FatGeometry{512, 2, 32, 2, 2, 36 + 2 * 254 + 1, 0});
    builder.setEntry(255, fat_entry::kEndOfChain);
    HostileAnswer const answer = ask(builder.resize(builder.geometry().totalBytes()));
    EXPECT_FALSE(answer.isDoubted());
    EXPECT_FALSE(answer.firstLost(builder.map(), 1024).has_value());
}

struct ClusterEdge {
    char const* name;
    std::uint32_t clusters;
    std::uint32_t sectorsPerFat;
};

void PrintTo(ClusterEdge const& edge, std::ostream* out) {
    *out << edge.name;
}

class FatHostileClusters : public testing::TestWithParam<ClusterEdge> {};

TEST_P(FatHostileClusters, AtAnEdgeOfOtherTypesAreMappedByTheLabel) {
    FatGeometry geometry{512, 1, 32, 2, static_cast<std::uint16_t>(GetParam().sectorsPerFat), 0, 0};
    geometry.totalSectors = 32 + 2 * GetParam().sectorsPerFat + GetParam().clusters;
    FatBuilder builder(geometry);
    builder.setEntry(GetParam().clusters + 1, fat_entry::kEndOfChain);
    expectEnd(askForMap(builder.bytes, geometry.totalBytes()), End::Right, "", builder.map(), 512);
}

INSTANTIATE_TEST_SUITE_P(Edges, FatHostileClusters,
                         testing::Values(ClusterEdge{"Of4084", 4084, 32}, ClusterEdge{"Of4085", 4085, 32},
                                         ClusterEdge{"Of65524", 65524, 512}, ClusterEdge{"Of65525", 65525, 512}),
                         [](auto const& instance) { return std::string(instance.param.name); });

TEST(FatHostileClusters, OfMoreThanThereAreNumbersMakeEverythingUsed) {
    FatBuilder builder = makeGood();
    builder.setBoot(fat_boot::kSectorsPerCluster, 1, 1);
    for (std::uint32_t const clusters : {0x0FFFFFF5U, 0x0FFFFFF6U, 0x0FFFFFF7U}) {
        builder.setBoot(fat_boot::kTotalSectors32, 36 + clusters, 4);
        std::string const reason = clusters == 0x0FFFFFF5 ? "a table has 256 entries" : "more than the 268435445";
        expectEnd(ask(builder), End::AllUsed, reason, makeGood().map(), 512);
    }
}

/// What the entries say beyond used or free.
class FatHostileEntry : public testing::TestWithParam<HostileField> {};

TEST_P(FatHostileEntry, DoesNotMatterToTheMap) {
    FatBuilder builder = makeGood();
    auto const cluster = GetParam().offset;
    ASSERT_NE(builder.entry(cluster), GetParam().value);
    expectRight(builder.setEntry(cluster, static_cast<std::uint32_t>(GetParam().value)));
}

INSTANTIATE_TEST_SUITE_P(Values, FatHostileEntry,
                         testing::Values(HostileField{"TopNibbleOfAUsedOne", 12, 0xFFFFFFFF, 4, End::Right},
                                         HostileField{"TopNibbleOfAFreeOne", 70, 0xF0000000, 4, End::Right},
                                         HostileField{"BadCluster", 70, 0x0FFFFFF7, 4, End::Right},
                                         HostileField{"BadClusterWithATopNibble", 70, 0xAFFFFFF7, 4, End::Right},
                                         HostileField{"LoopToItself", 12, 12, 4, End::Right},
                                         HostileField{"LoopBack", 20, 10, 4, End::Right},
                                         HostileField{"CrossLink", 12, 150, 4, End::Right},
                                         HostileField{"LinkToEntry1", 12, 1, 4, End::Right},
                                         HostileField{"LinkBeyond", 12, 0x0FFFFFF6, 4, End::Right}),
                         [](auto const& instance) { return hostileName(instance); });

TEST(FatHostileMirror, ThatLacksWhatTheFirstTableHoldsTakesNothingAway) {
    FatBuilder builder = makeGood();
    for (std::uint64_t cluster = 2; cluster < 202; ++cluster) {
        builder.setEntryIn(1, cluster, fat_entry::kFree);
    }
    expectNothingLost(ask(builder), makeGood().map(), 1024);
}

TEST(FatHostileMirror, ThatHoldsWhatTheFirstTableLostIsDoubted) {
    // The first table was overwritten with zeros behind its first sector's beginning.
    FatBuilder builder = makeGood();
    for (std::uint64_t cluster = 10; cluster < 60; ++cluster) {
        builder.setEntryIn(0, cluster, fat_entry::kFree);
    }
    expectNothingLost(ask(builder), makeGood().map(), 1024);
}

} // namespace
