// Maps of NTFS volumes: a scattered bitmap, and each reason to count all as used.
#include "imaging/Error.h"
#include "imaging/VolumeMap.h"
#include "support/Files.h"
#include "support/NtfsAccess.h"
#include "support/NtfsBuilder.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace {

using namespace tests;
using imaging::VolumeMap;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr std::uint64_t kBitmap = ntfs_record_number::kBitmap;

/// A volume in a file, and what imaging makes of it.
class ImagingNtfs : public testing::Test {
protected:
    void save() { writeFile(path, builder.bytes); }

    /// The map's units, one element each.
    std::vector<bool> walk(VolumeMap::Refused refused = VolumeMap::Refused::IsError) {
        save();
        imaging::Volume volume(path, 0, logger);
        VolumeMap map(volume, refused);
        geometry = map.geometry();
        pastLastUnit = map.bytesPastLastUnit();
        std::vector<bool> units;
        totals = map.walk([&units](imaging::Run const& run) { units.resize(units.size() + run.count, run.used); });
        EXPECT_EQ(units.size(), geometry.units);
        EXPECT_EQ(totals.used + totals.free, geometry.units);
        return units;
    }

    /// The sentence of a refusal, without the path.
    std::string refusal() {
        try {
            walk();
            return "mapped";
        } catch (imaging::VolumeError const& error) {
            EXPECT_EQ(error.trouble(), imaging::Trouble::Io);
            EXPECT_THAT(error.what(), StartsWith(path + ": "));
            return std::string(error.what()).substr(path.size() + 2);
        }
    }

    /// Walks, and expects that every unit counts as used, with this reason in the first warning.
    void expectAllUsed(std::string const& reason) {
        walk();
        EXPECT_EQ(totals.free, 0U) << reason;
        ASSERT_FALSE(totals.warnings.empty()) << reason;
        EXPECT_EQ(totals.warnings.front(), path + ": " + reason + "; every unit counts as used");
    }

    std::vector<bool> truth() const {
        std::vector<bool> units;
        for (std::uint64_t i = 0; i < builder.geometry().clusters; ++i) {
            units.push_back(builder.isUsed(i));
        }
        return units;
    }

    NtfsRecord& bitmap() { return builder.record(kBitmap); }

    TempDirectory directory;
    std::string path = directory.file("volume");
    RecordingLogger logger;
    NtfsBuilder builder = NtfsBuilder::standard();
    imaging::Geometry geometry;
    imaging::MapTotals totals;
    std::uint64_t pastLastUnit = 0;
};

TEST_F(ImagingNtfs, AMapIsThatOfTheClusters) {
    EXPECT_EQ(walk(), truth());
    EXPECT_EQ(geometry.unitSize, 4096U);
    EXPECT_EQ(geometry.units, 512U);
    EXPECT_EQ(geometry.notBelieved, std::nullopt);
    EXPECT_THAT(totals.warnings, IsEmpty());
    EXPECT_GT(totals.free, 0U);
}

TEST_F(ImagingNtfs, EveryClusterSizeIsMapped) {
    for (std::uint32_t size = 512; size <= 65536; size *= 2) {
        builder = NtfsBuilder::standard(NtfsGeometry::withClusters(size));
        EXPECT_EQ(walk(), truth()) << size;
        EXPECT_EQ(geometry.unitSize, size);
        EXPECT_THAT(totals.warnings, IsEmpty());
    }
}

TEST_F(ImagingNtfs, ClustersPast64KiBAreMappedWhereSectorsAreLarge) {
    NtfsGeometry wide = NtfsGeometry::withClusters(131072);
    wide.bytesPerSector = 4096;
    builder = NtfsBuilder::standard(wide);
    EXPECT_EQ(walk(), truth());
    EXPECT_EQ(geometry.unitSize, 131072U);
    EXPECT_EQ(pastLastUnit, 4096U);
}

TEST_F(ImagingNtfs, SectorsPerClusterMayBeAnExponentUpTo128) {
    builder = NtfsBuilder::standard(NtfsGeometry::withClusters(65536));
    ASSERT_EQ(builder.boot(ntfs_boot::kSectorsPerCluster, 1), 128U);
    builder.setBoot(ntfs_boot::kSectorsPerCluster, 0xF9, 1);
    EXPECT_EQ(walk(), truth());
    EXPECT_EQ(geometry.unitSize, 65536U);
    builder = NtfsBuilder::standard(NtfsGeometry::withClusters(131072));
    ASSERT_EQ(builder.boot(ntfs_boot::kSectorsPerCluster, 1), 0xF8U);
    EXPECT_THAT(refusal(), StartsWith("Invalid $MFT offset."));
}

TEST_F(ImagingNtfs, TheCopyOfTheBootSectorLiesPastTheLastUnit) {
    walk();
    EXPECT_EQ(pastLastUnit, 512U);
    builder.bytes.resize(builder.bytes.size() + 4096);
    walk();
    EXPECT_EQ(pastLastUnit, 4608U);
    builder.setBoot(ntfs_boot::kTotalSectors, 512 * 8 - 1, 8); // the last cluster is not whole
    walk();
    EXPECT_EQ(geometry.units, 511U);
    EXPECT_EQ(pastLastUnit, 8704U);
}

TEST_F(ImagingNtfs, ABitmapInSeveralRunsIsReadFromThem) {
    NtfsGeometry scattered = NtfsGeometry::withClusters(512);
    scattered.bitmapPieces = 2;
    scattered.clusters = 12000; // three clusters of bitmap
    builder = NtfsBuilder::standard(scattered);
    EXPECT_EQ(walk(), truth());
    EXPECT_THAT(totals.warnings, IsEmpty());

    // Chunk by chunk, the same volume gives other bits.
    MemoryReader const reader(builder.bytes);
    NtfsAccess const parser(logger, 512, reader);
    std::vector<bool> units;
    std::vector<char> chunk(100);
    for (long count = 1; units.size() < 12000 && count > 0;) {
        count = parser.getChunk(units.size(), chunk.data(), chunk.size());
        for (long i = 0; i < count && units.size() < 12000; ++i) {
            units.push_back((chunk[static_cast<std::size_t>(i / 8)] >> (i % 8) & 1) != 0);
        }
    }
    EXPECT_NE(units, truth());
}

TEST_F(ImagingNtfs, ABitmapInManyRunsIsMapped) {
    NtfsGeometry scattered = NtfsGeometry::withClusters(512);
    scattered.bitmapPieces = 6;
    scattered.clusters = 24000;
    builder = NtfsBuilder::standard(scattered);
    ASSERT_GE(builder.bitmapRuns.size(), 3U);
    EXPECT_EQ(walk(), truth());
}

TEST_F(ImagingNtfs, PartsOfTheBitmapInOtherRecordsAreNotBelieved) {
    // The last 900 clusters are used, and the map's last part stands in the record that the list gives first.
    NtfsGeometry scattered = NtfsGeometry::withClusters(512);
    scattered.clusters = 12000;
    for (std::vector<NtfsRun> const& mftRuns : {std::vector<NtfsRun>{}, {{20, 8}, {100, 120}}}) {
        scattered.mftRuns = mftRuns; // record 6 is also found in the second run of $MFT
        builder = NtfsBuilder::standard(scattered);
        builder.markUsed({11000, 900});
        builder.bitmapRuns = builder.allocatePieces(3, 2);
        ASSERT_EQ(builder.bitmapRuns.size(), 2U);
        NtfsRun const head = builder.bitmapRuns[0];
        bitmap().remove(ntfs_type::kData).attributeList({{ntfs_type::kData, 6, 0, {}}, {ntfs_type::kData, 40, 1, {}}});
        bitmap().nonResident(ntfs_type::kData, u"", {head});
        builder.record(40).baseReference = bitmap().reference();
        builder.record(40).nonResident(ntfs_type::kData, u"", {builder.bitmapRuns[1]}, {}, head.length);
        builder.seal();
        expectAllUsed(
            "the data of $Bitmap (record 6) stand in 2 parts, and not in one that stands whole in that record: their "
            "order cannot be told");
    }
}

TEST_F(ImagingNtfs, AnAttributeListBesideAWholeBitmapDoesNotMatter) {
    bitmap().attributeList({{ntfs_type::kData, kBitmap, 0, {}}});
    builder.seal();
    EXPECT_EQ(walk(), truth());
    EXPECT_THAT(totals.warnings, IsEmpty());
    builder.store(bitmap().remove(ntfs_type::kAttributeList), ntfs_type::kAttributeList, u"",
                  ntfsAttributeList({{ntfs_type::kData, kBitmap, 0, {}}}));
    builder.seal();
    EXPECT_EQ(walk(), truth()) << "also when the list has a run of its own, which is given as one of the bitmap's";
}

TEST_F(ImagingNtfs, ANamedStreamBesideTheBitmapDoesNotMatter) {
    // Volumes of current systems have a small $SRAT there.
    bitmap().resident(ntfs_type::kData, u"$SRAT", NtfsBytes(24, 1));
    builder.seal();
    EXPECT_EQ(walk(), truth());
    EXPECT_THAT(totals.warnings, IsEmpty());
}

TEST_F(ImagingNtfs, ABitmapThatIsNotPlainIsNotBelieved) {
    std::uint64_t const data = bitmap().offsetOf(ntfs_type::kData);
    NtfsBuilder const sound = builder;
    builder.pokeRecord(kBitmap, data + 0x0C, 0x8001, 2);
    expectAllUsed("the data of $Bitmap (record 6) have the attribute flags 32769: they are compressed, sparse or "
                  "encrypted");
    for (std::uint64_t const field : {0x30UL, 0x38UL}) { // data size, initialized size
        builder = sound;
        ASSERT_EQ(builder.peekRecord(kBitmap, data + field, 8), 64U);
        builder.pokeRecord(kBitmap, data + field, 63, 8);
        expectAllUsed("$Bitmap holds 63 bytes, and the volume's 512 clusters need 64");
    }
}

TEST_F(ImagingNtfs, ABitmapThatCallsItselfOrTheMftFreeIsNotBelieved) {
    std::int64_t const own = builder.bitmapRuns.front().lcn;
    std::uint64_t const place = builder.byteOfCluster(own);
    NtfsBuilder const sound = builder;
    for (std::int64_t const cluster : {std::int64_t{0}, builder.geometry().mftRuns.front().lcn, own}) {
        builder = sound;
        auto const byte = place + static_cast<std::uint64_t>(cluster) / 8;
        std::uint64_t const before = builder.peek(byte, 1);
        builder.poke(byte, before & ~(std::uint64_t{1} << (cluster % 8)), 1);
        ASSERT_NE(builder.peek(byte, 1), before);
        expectAllUsed("$Bitmap calls cluster " + std::to_string(cluster) +
                      " free, which holds the boot sector, $MFT or $Bitmap itself");
    }
}

TEST_F(ImagingNtfs, ARunOutsideTheVolumeIsNotBelieved) {
    auto const reasonFor = [](std::int64_t cluster, std::int64_t length) {
        return "$Bitmap has a run of " + std::to_string(length) + " clusters at cluster " + std::to_string(cluster) +
               ", where none can be (the volume holds 512 clusters)";
    };
    auto const withRuns = [this](std::vector<NtfsRun> const& runs) {
        bitmap().remove(ntfs_type::kData).nonResident(ntfs_type::kData, u"", runs);
        builder.bitmapRuns.clear();
        builder.seal();
    };
    for (NtfsRun const& run : {NtfsRun{512, 1}, NtfsRun{511, 2}, NtfsRun{1000000, 1}, NtfsRun{400, 1000}}) {
        withRuns({run});
        expectAllUsed(reasonFor(run.lcn, run.length));
        withRuns({{400, 1}, run});
        expectAllUsed(reasonFor(run.lcn, run.length));
    }
    bitmap().remove(ntfs_type::kData).nonResidentRaw(ntfs_type::kData, u"", {0x11, 1, 0x9C, 0}, 4096);
    builder.seal();
    expectAllUsed(reasonFor(-100, 1));
    bitmap().remove(ntfs_type::kData).nonResidentRaw(ntfs_type::kData, u"", {0x21, 0xFF, 100, 1, 0}, 4096);
    builder.seal();
    expectAllUsed(reasonFor(356, -1));
    bitmap()
        .remove(ntfs_type::kData)
        .nonResidentRaw(ntfs_type::kData, u"", {0x21, 1, 100, 1, 0x40, 0, 0, 0, 0, 0}, 4096);
    builder.seal();
    expectAllUsed(reasonFor(-1, -1));
}

TEST_F(ImagingNtfs, ABitmapWithoutRunsIsNeverFree) {
    for (std::uint8_t const bits : {std::uint8_t{0x00}, std::uint8_t{0xFF}}) {
        bitmap().remove(ntfs_type::kData).resident(ntfs_type::kData, u"", NtfsBytes(64, bits));
        builder.bitmapRuns.clear();
        builder.seal();
        walk();
        EXPECT_EQ(totals.free, 0U);
        EXPECT_EQ(totals.warnings.size(), 1U);
    }
    bitmap().remove(ntfs_type::kData);
    builder.seal();
    expectAllUsed(
        "the data of $Bitmap (record 6) stand in 0 parts, and not in one that stands whole in that record: their order "
        "cannot be told");
}

TEST_F(ImagingNtfs, ARecordOfTheBitmapThatIsTornIsAnErrorAndNeverFree) {
    builder.poke(builder.byteOffsetOf(kBitmap, 1022), 0xDEAD, 2);
    EXPECT_EQ(refusal(), "$Bitmap (record 6) cannot be read: Could not read MFT record 6");
}

TEST_F(ImagingNtfs, DamagedRunsAreAnErrorWithTheirText) {
    bitmap().remove(ntfs_type::kData).nonResidentRaw(ntfs_type::kData, u"", {0xFF, 1, 2, 3}, 4096);
    builder.seal();
    EXPECT_EQ(refusal(), "$Bitmap (record 6) cannot be read: Invalid runlist");
}

TEST_F(ImagingNtfs, AVolumeThatIsRefusedIsAnErrorWithTheParsersText) {
    builder.poke(builder.byteOffsetOf(1), 0x44414142, 4); // record 1 is "BAAD"
    EXPECT_EQ(refusal(), "Could not read MFT record for inode number 1");
    builder = NtfsBuilder::standard();
    builder.setBoot(ntfs_boot::kMftLcn, 5000000, 8);
    EXPECT_EQ(refusal(), "Invalid $MFT offset. ($MFT LCN: 0x4c4b40 is greater than the number of clusters: 0x200)");
}

TEST_F(ImagingNtfs, AVolumeThatIsRefusedCountsAsUsedWhereThatIsWanted) {
    builder.poke(builder.byteOffsetOf(1), 0x44414142, 4);
    walk(VolumeMap::Refused::CountsAsUsed);
    EXPECT_EQ(totals.free, 0U);
    EXPECT_EQ(geometry.unitSize, 4096U);
    EXPECT_EQ(geometry.units, builder.bytes.size() / 4096);
    EXPECT_EQ(pastLastUnit, 512U);
    EXPECT_THAT(totals.warnings, ElementsAre(path + ": the volume is refused (" + path +
                                             ": Could not read MFT record for inode number 1); every unit counts as "
                                             "used"));
    builder = NtfsBuilder::standard();
    EXPECT_EQ(walk(VolumeMap::Refused::CountsAsUsed), truth()) << "others are mapped as ever";
}

TEST_F(ImagingNtfs, AFragmentedMftIsRefusedOrAllUsed) {
    NtfsRecord& mft = builder.record(0);
    mft.remove(ntfs_type::kData).attributeList({{ntfs_type::kData, 15, 0, {}}});
    builder.seal();
    EXPECT_EQ(refusal(), "Could not read MFT record for inode number 1");
    walk(VolumeMap::Refused::CountsAsUsed);
    EXPECT_EQ(totals.free, 0U);
}

TEST_F(ImagingNtfs, ATruncatedVolumeIsToldAndItsBitmapIsNeverZero) {
    std::uint64_t const whole = builder.bytes.size();
    builder.bytes.resize(500 * 4096);
    walk();
    EXPECT_THAT(totals.warnings, ElementsAre(path + ": ends at byte 2048000, 49152 bytes before the end of its ntfs "
                                                    "file system"));
    EXPECT_LT(builder.bytes.size(), whole);
    // Now the end lies in the middle of the bitmap.
    std::int64_t const cluster = builder.bitmapRuns.front().lcn;
    builder.bytes.resize(builder.byteOfCluster(cluster) + 20);
    std::string const number = std::to_string(cluster);
    expectAllUsed("$Bitmap has a run of 1 clusters at cluster " + number + ", where none can be (the volume holds " +
                  number + " clusters)");
}

TEST_F(ImagingNtfs, ABitmapThatIsLongerThanTheVolumeIsCutAtItsUnits) {
    builder.setBoot(ntfs_boot::kTotalSectors, 300 * 8, 8);
    bitmap().remove(ntfs_type::kData).nonResident(ntfs_type::kData, u"", {{200, 1}});
    builder.bitmapRuns = {{200, 1}};
    builder.markUsed({200, 1});
    builder.seal();
    auto const units = walk();
    auto expected = truth();
    expected.resize(300);
    EXPECT_EQ(units, expected);
}

TEST_F(ImagingNtfs, NoSectorsAreRefused) {
    builder.setBoot(ntfs_boot::kTotalSectors, 0, 8);
    EXPECT_EQ(refusal(), "volume size is set to zero.");
}

} // namespace
