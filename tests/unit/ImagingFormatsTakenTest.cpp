// What the lists for other programs take from a volume: the same at each walk, everything of a doubtful one.
#include "imaging/Error.h"
#include "imaging/copy/TakenRanges.h"
#include "support/Files.h"
#include "support/RecordingLogger.h"
#include "support/XfsBuilder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace tests;
using imaging::ByteRange;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::uint64_t kExtState = 0x3A;
constexpr std::uint64_t kBlock = 4096;

class ImagingFormatsTaken : public testing::Test {
protected:
    /// 64 blocks, of which 0 to 9 and these are used.
    void writeExt(std::uint64_t first, std::uint64_t count, std::uint16_t state = 1) {
        ExtBuilder builder = makeSoundExtVolume(ExtGeometry::with4KiBBlocks(64));
        builder.setSuper16(kExtState, state).setUsedFrom(0, 10).setUsedFrom(first, count);
        writeFile(path, builder.resize(64 * kBlock).bytes);
    }

    static std::vector<ByteRange> walk(imaging::TakenRanges& ranges) {
        std::vector<ByteRange> found;
        ranges.walk([&found](ByteRange const& range) { found.push_back(range); });
        return found;
    }

    TempDirectory directory;
    std::string path = directory.file("volume");
    RecordingLogger logger;
};

TEST_F(ImagingFormatsTaken, EachWalkGivesTheSame) {
    writeExt(30, 4);
    imaging::Volume volume(path, 0, logger);
    imaging::CopyPlan plan(volume, imaging::VolumeMap::Refused::IsError, 0);
    imaging::TakenRanges ranges(plan, path, {}, {"listed", "the list is not whole", true});
    EXPECT_THAT(ranges.warnings(), IsEmpty());
    auto const first = walk(ranges);
    EXPECT_EQ(first.back(), (ByteRange{30 * kBlock, 34 * kBlock}));
    EXPECT_EQ(walk(ranges), first);
}

TEST_F(ImagingFormatsTaken, AMapThatChangesBetweenWalksIsAnError) {
    writeExt(30, 4);
    imaging::Volume volume(path, 0, logger);
    imaging::CopyPlan plan(volume, imaging::VolumeMap::Refused::IsError, 0);
    imaging::TakenRanges ranges(plan, path, {}, {"listed", "the list is not whole", true});
    writeExt(30, 5);
    try {
        walk(ranges);
        FAIL() << "no error";
    } catch (imaging::VolumeError const& error) {
        EXPECT_THAT(error.what(),
                    HasSubstr(path + ": changed while it was listed: 61440 bytes are in use, and 57344 were "
                                     "before; the list is not whole"));
    }
}

TEST_F(ImagingFormatsTaken, AnUncleanVolumeIsWalkedWithAWarning) {
    writeExt(30, 4, 0);
    imaging::Volume volume(path, 0, logger);
    imaging::CopyPlan plan(volume, imaging::VolumeMap::Refused::IsError, 0);
    imaging::TakenRanges ranges(plan, path, {}, {"listed", "the list is not whole", true});
    EXPECT_THAT(ranges.warnings(), ElementsAre(HasSubstr("was not unmounted cleanly")));
    EXPECT_EQ(walk(ranges).back(), (ByteRange{30 * kBlock, 34 * kBlock}));
}

TEST_F(ImagingFormatsTaken, ADoubtfulMapListsEverything) {
    XfsGeometry geometry;
    geometry.totalBlocks = 1000;
    XfsBuilder builder(geometry);
    builder.plantTree(0, {{100, 100}});
    builder.plantTree(1, {{0, 40}}); // over the second group's own header
    writeFile(path, builder.bytes);
    imaging::Volume volume(path, 0, logger);
    imaging::CopyPlan plan(volume, imaging::VolumeMap::Refused::IsError, 0);
    imaging::TakenRanges ranges(plan, path, {}, {"listed", "the list is not whole", true});
    EXPECT_TRUE(plan.takesEverything());
    ASSERT_FALSE(ranges.warnings().empty());
    EXPECT_EQ(ranges.warnings().back(), path + ": everything is listed");
    EXPECT_THAT(walk(ranges), ElementsAre(ByteRange{0, volume.size()}));
}

} // namespace
