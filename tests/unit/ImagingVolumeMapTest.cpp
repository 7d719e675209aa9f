// The map of a volume in a file: totals, warnings where the volume is not sound, reasons where there is no map.
#include "imaging/VolumeMap.h"

#include "imaging/Error.h"
#include "support/Files.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>

namespace {

using imaging::MapTotals;
using imaging::VolumeMap;
using namespace tests;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint32_t kBlocks = 100000;
constexpr std::uint64_t kVolumeBytes = std::uint64_t{kBlocks} * 4096;

/// Four groups of 4 KiB blocks with random bitmaps.
ExtBuilder makeVolume() {
    return makeSoundExtVolume(ExtGeometry::with4KiBBlocks(kBlocks)).fillBitmapsAtRandom(5).markOwnBlocks();
}

/// A volume in a file and its map.
struct Bench {
    explicit Bench(ExtBuilder const& builder, std::optional<std::uint64_t> size = {}) {
        writeExtVolume(path, builder);
        if (size) {
            std::filesystem::resize_file(path, *size);
        }
        volume.emplace(path, 0, logger);
        map.emplace(*volume);
    }

    /// Walks the map into `units`.
    MapTotals walk(VolumeMap::Progress const& progress = {}) {
        units.clear();
        auto const add = [this](imaging::Run const& run) {
            EXPECT_EQ(run.first, units.size());
            EXPECT_GE(run.count, 1U);
            EXPECT_TRUE(units.empty() || units.back() != run.used) << "runs alternate";
            units.insert(units.end(), run.count, run.used);
        };
        return map->walk(add, progress);
    }

    /// The sentence of the error that the walk ends with.
    std::string walkFailure() {
        try {
            walk();
            return "no failure";
        } catch (imaging::VolumeError const& error) {
            EXPECT_EQ(error.trouble(), imaging::Trouble::Io);
            return error.what();
        }
    }

    TempDirectory directory;
    std::string path = directory.file("volume");
    RecordingLogger logger;
    std::optional<imaging::Volume> volume;
    std::optional<VolumeMap> map;
    std::vector<bool> units;
};

std::uint64_t countUsed(std::vector<bool> const& units) {
    return static_cast<std::uint64_t>(std::count(units.begin(), units.end(), true));
}

TEST(ImagingVolumeMap, ASoundVolumeGivesEveryUnitOfItsBitmaps) {
    ExtBuilder const builder = makeVolume();
    Bench bench(builder);
    MapTotals const totals = bench.walk();
    EXPECT_TRUE(bench.units == builder.map());
    EXPECT_EQ(totals.used, countUsed(builder.map()));
    EXPECT_EQ(totals.used + totals.free, kBlocks);
    EXPECT_THAT(totals.warnings, IsEmpty());
    EXPECT_EQ(bench.map->bytesPastLastUnit(), 0U);
}

TEST(ImagingVolumeMap, AWalkMayBeRepeated) {
    Bench bench(makeVolume());
    MapTotals const first = bench.walk();
    auto const units = bench.units;
    MapTotals const second = bench.walk();
    EXPECT_EQ(first.used, second.used);
    EXPECT_TRUE(units == bench.units);
}

TEST(ImagingVolumeMap, AVolumeOfManyChunksIsWhole) {
    // Chunks are 128 KiB, 1048576 units: this volume needs twenty, the last of them short.
    ExtBuilder builder = makeSoundExtVolume(ExtGeometry::with4KiBBlocks(20'000'000));
    std::uint64_t const own = builder.bitmapBlock(builder.geometry().groups()); // from block 0 on
    builder.setUsedFrom(8388600, 16).setUsedFrom(16777215, 1).setUsedFrom(19'999'990, 10);
    Bench bench(builder);
    std::vector<std::pair<std::uint64_t, std::uint64_t>> used;
    std::vector<std::uint64_t> progress;
    MapTotals const totals = bench.map->walk(
        [&used](imaging::Run const& run) {
            if (run.used) {
                used.emplace_back(run.first, run.count);
            }
        },
        [&progress](std::uint64_t units) { progress.push_back(units); });
    ASSERT_EQ(progress.size(), 20U);
    for (std::uint64_t chunk = 1; chunk < 20; ++chunk) {
        EXPECT_EQ(progress[chunk - 1], chunk * 1048576);
    }
    EXPECT_EQ(progress.back(), 20'000'000U);
    EXPECT_THAT(used, ElementsAre(testing::Pair(0U, own), testing::Pair(8388600U, 16U), testing::Pair(16777215U, 1U),
                                  testing::Pair(19'999'990U, 10U)));
    EXPECT_EQ(totals.used, own + 27);
    EXPECT_EQ(totals.free, 20'000'000U - own - 27);
}

TEST(ImagingVolumeMap, WhatProgressThrowsEndsTheWalk) {
    Bench bench(makeVolume());
    EXPECT_THROW(bench.walk([](std::uint64_t) { throw 1; }), int);
}

TEST(ImagingVolumeMap, BytesPastTheLastUnitAreCounted) {
    Bench bench(makeVolume(), kVolumeBytes + 4095);
    EXPECT_EQ(bench.map->bytesPastLastUnit(), 4095U);
    EXPECT_THAT(bench.walk().warnings, IsEmpty());
}

TEST(ImagingVolumeMap, ATruncatedVolumeWhoseBitmapsAreThereIsMappedWithAWarning) {
    ExtBuilder const builder = makeVolume();
    Bench bench(builder, builder.bytes.size());
    MapTotals const totals = bench.walk();
    EXPECT_TRUE(bench.units == builder.map());
    EXPECT_EQ(bench.map->bytesPastLastUnit(), 0U);
    std::uint64_t const missing = kVolumeBytes - builder.bytes.size();
    EXPECT_THAT(totals.warnings,
                ElementsAre(bench.path + ": ends at byte " + std::to_string(builder.bytes.size()) + ", " +
                            std::to_string(missing) + " bytes before the end of its ext file system"));
}

TEST(ImagingVolumeMap, OneMissingByteIsAWarning) {
    Bench bench(makeVolume(), kVolumeBytes - 1);
    EXPECT_THAT(bench.walk().warnings,
                ElementsAre(bench.path + ": ends at byte 409599999, 1 bytes before the end of its ext file system"));
}

TEST(ImagingVolumeMap, AVolumeThatEndsInsideABitmapHasNoMap) {
    ExtBuilder const builder = makeVolume();
    // The last group has 1696 blocks, whose bits are all in the half that is left: refused all the same, since nothing
    // but the reader looks at where the volume ends.
    std::uint64_t const end = builder.bitmapOffset(3) + 2048;
    Bench bench(builder, end);
    EXPECT_EQ(bench.walkFailure(),
              bench.path + ": the map cannot be read from unit 0 on: The volume delivers nothing at byte " +
                  std::to_string(end) + ", where 2048 more bytes were to be read (it has " + std::to_string(end) +
                  " bytes); Can't read bitmap; A logical error occurred while attempting to parse the EXT bitmap, "
                  "err: -1");
}

TEST(ImagingVolumeMap, ABitmapThatIsMissingAtTheEndIsAnErrorAndNeverFree) {
    ExtBuilder builder = makeVolume();
    builder.setBitmapLocation(2, 99999);
    Bench bench(builder, kVolumeBytes - 4096);
    EXPECT_EQ(bench.walkFailure(),
              bench.path + ": the map cannot be read from unit 0 on: The volume delivers nothing at byte 409595904, "
                           "where 4096 more bytes were to be read (it has 409595904 bytes); Can't read bitmap; A "
                           "logical error occurred while attempting to parse the EXT bitmap, err: -1");
}

TEST(ImagingVolumeMap, ABitmapWhereNoneCanBeMakesEverythingUsed) {
    for (std::uint32_t const block : {0U, 100000U, 200000U, 0xFFFFFFFFU}) {
        ExtBuilder builder = makeVolume();
        builder.setBitmapLocation(2, block);
        Bench bench(builder);
        MapTotals const totals = bench.walk();
        EXPECT_EQ(totals.used, kBlocks);
        EXPECT_THAT(totals.warnings,
                    ElementsAre(bench.path + ": the descriptor of group 2 puts its block bitmap at block " +
                                std::to_string(block) +
                                ", where none can be (the volume has 100000 blocks); every unit counts as used"));
    }
}

TEST(ImagingVolumeMap, AGroupWhoseBitmapIsNotInitialisedNeedsNone) {
    ExtBuilder builder = makeVolume();
    builder.setBitmapLocation(2, 200000).setFlags(2, ext_group::kBlocksUninitialised).setFreeBlocks(2, 32768);
    Bench bench(builder);
    EXPECT_THAT(bench.walk().warnings, IsEmpty());
    EXPECT_TRUE(bench.units == builder.map());
}

TEST(ImagingVolumeMap, AGeometryWithoutGroupsIsAnErrorWithItsReason) {
    ExtBuilder builder = makeVolume();
    setGroupSize(builder, 0);
    Bench bench(builder);
    EXPECT_EQ(bench.walkFailure(), bench.path + ": the map cannot be read from unit 0 on: Can't read bgd table; A "
                                                "logical error occurred while attempting to parse the EXT bitmap, "
                                                "err: -1");
}

TEST(ImagingVolumeMap, AMapThatIsNotBelievedIsAllUsedWithItsReason) {
    ExtBuilder builder = makeVolume();
    builder.setSuper32(ext_super::kIncompatibleFeatures, 0x10);
    Bench bench(builder, kVolumeBytes - 4096);
    MapTotals const totals = bench.walk();
    EXPECT_EQ(totals.used, kBlocks);
    EXPECT_EQ(totals.free, 0U);
    EXPECT_THAT(bench.units, testing::Each(true));
    EXPECT_THAT(totals.warnings,
                ElementsAre(bench.path + ": s_feature_incompat 0x10 has meta_bg (0x10): the group descriptors do not "
                                         "stand in one table; every unit counts as used",
                            bench.path + ": ends at byte 409595904, 4096 bytes before the end of its ext file system"));
}

TEST(ImagingVolumeMap, AVolumeThatIsNotRecognisedIsUsedAsAWhole) {
    TempDirectory const directory;
    RecordingLogger logger;
    std::string const path = writeFile(directory.file("zeros"), std::vector<std::uint8_t>(10000));
    imaging::Volume volume(path, 0, logger);
    for (std::uint64_t const unit : {0U, 512U, 4096U, 10000U}) {
        VolumeMap map(volume, VolumeMap::Refused::IsError, unit);
        std::uint64_t const unitSize = unit == 0 ? 4096 : unit;
        EXPECT_EQ(map.geometry().unitSize, unitSize);
        EXPECT_EQ(map.geometry().units, 10000 / unitSize);
        EXPECT_EQ(map.bytesPastLastUnit(), 10000 % unitSize);
        imaging::MapTotals const totals = map.walk([](imaging::Run const&) {});
        EXPECT_EQ(totals.used, map.geometry().units);
        EXPECT_EQ(totals.free, 0U);
        EXPECT_THAT(totals.warnings, testing::IsEmpty());
    }
}

TEST(ImagingVolumeMap, AVolumeOfLessThanAUnitHasNoMap) {
    TempDirectory const directory;
    RecordingLogger logger;
    std::string const path = writeFile(directory.file("zeros"), std::vector<std::uint8_t>(8192));
    imaging::Volume volume(path, 0, logger);
    try {
        VolumeMap const map(volume, VolumeMap::Refused::IsError, 16384);
        FAIL() << "half a unit is no unit";
    } catch (imaging::VolumeError const& error) {
        EXPECT_EQ(error.trouble(), imaging::Trouble::NotUnderstood);
        EXPECT_EQ(std::string(error.what()), path + ": has 8192 bytes, less than one unit of 16384");
    }
}

TEST(ImagingVolumeMap, EveryAlignmentGivesTheSameMap) {
    ExtBuilder const builder = makeVolume();
    TempDirectory const directory;
    std::string const path = writeExtVolume(directory.file("volume"), builder);
    for (std::uint64_t const alignment : {512U, 4096U, 65536U, 1048576U}) {
        RecordingLogger logger;
        imaging::Volume volume(path, alignment, logger);
        ASSERT_EQ(volume.alignment(), alignment);
        std::vector<bool> units;
        VolumeMap(volume).walk([&units](imaging::Run const& run) { units.insert(units.end(), run.count, run.used); });
        EXPECT_TRUE(units == builder.map()) << alignment;
    }
}

} // namespace
