// Maps that contradict what the volume says of itself elsewhere.
#include "imaging/VolumeMap.h"
#include "support/Files.h"
#include "support/HfsBuilder.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace tests;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::uint64_t kExtState = 0x3A;
constexpr std::uint64_t kExtInodesPerGroup = 0x28;
constexpr std::uint64_t kExtInodeTable = 0x08;
constexpr std::uint32_t kHfsUnmounted = 0x100;

/// Walks the map of the volume in a file.
imaging::MapTotals walk(std::string const& path) {
    RecordingLogger logger;
    imaging::Volume volume(path, 0, logger);
    imaging::VolumeMap map(volume);
    return map.walk([](imaging::Run const&) {});
}

class ImagingVolumeDoubt : public testing::Test {
protected:
    imaging::MapTotals walkExt(ExtBuilder const& builder) { return walk(writeExtVolume(path, builder)); }
    imaging::MapTotals walkHfs(HfsBuilder const& builder) { return walk(writeHfsVolume(path, builder)); }

    TempDirectory directory;
    std::string path = directory.file("volume");
};

/// Four groups of 32,768 blocks, the last of them short; unmounted cleanly.
ExtBuilder makeExt() {
    ExtBuilder builder = makeSoundExtVolume(ExtGeometry::with4KiBBlocks(100'000));
    return builder.setUsedFrom(40'000, 1000).setSuper16(kExtState, 1);
}

void zeroBitmap(ExtBuilder& builder, std::uint64_t group) {
    std::fill_n(builder.bytes.begin() + static_cast<std::ptrdiff_t>(builder.bitmapOffset(group)), 4096, 0);
}

TEST_F(ImagingVolumeDoubt, AnExtBitmapThatWasZeroedIsNotTrusted) {
    ExtBuilder builder = makeExt();
    zeroBitmap(builder, 1);
    imaging::MapTotals const totals = walkExt(builder);
    EXPECT_TRUE(totals.isDoubtful);
    EXPECT_THAT(totals.warnings,
                ElementsAre(path +
                            ": the map has 32768 free units in group 1, and the group's own header counts 31768: "
                            "the map is not to be trusted"));
}

TEST_F(ImagingVolumeDoubt, AnExtGroupThatIsNotInitialisedIsAsFreeAsItsCountSays) {
    ExtBuilder builder = makeExt();
    zeroBitmap(builder, 1);
    builder.setFlags(1, ext_group::kBlocksUninitialised).setFreeBlocks(1, 32768 - 2); // a copy of the superblock
    EXPECT_THAT(walkExt(builder).warnings, IsEmpty());
    imaging::MapTotals const totals = walkExt(builder.setFreeBlocks(1, 32768 - 3));
    EXPECT_EQ(totals.free, 0U);
    EXPECT_THAT(totals.warnings,
                ElementsAre(path + ": the descriptor of group 1 says that its block bitmap is not initialised (0x2), "
                                   "and counts 32765 free blocks where an unused group has 32766; every unit counts "
                                   "as used"));
}

TEST_F(ImagingVolumeDoubt, AnExtGroupsNumberIsTheGroupsWhereABlockLiesBeforeTheFirst) {
    ExtBuilder builder = makeSoundExtVolume(); // blocks of 1 KiB
    builder.setSuper16(kExtState, 1).setUsed(9000);
    EXPECT_FALSE(walkExt(builder).isDoubtful);
    builder.bytes.at(builder.bitmapOffset(1) + (9000 - 1 - 8192) / 8) = 0;
    EXPECT_THAT(walkExt(builder).warnings, ElementsAre(HasSubstr("8192 free units in group 1, and the group's own "
                                                                 "header counts 8191")));
}

TEST_F(ImagingVolumeDoubt, ExtCountsOfAVolumeInUseMayBeLate) {
    ExtBuilder builder = makeExt();
    zeroBitmap(builder, 1);
    EXPECT_FALSE(walkExt(builder.setSuper16(kExtState, 0)).isDoubtful);
}

TEST_F(ImagingVolumeDoubt, ExtStructuresThatTheMapCallsFreeCountAsUsed) {
    ExtBuilder builder = makeExt();
    builder.setSuper16(kExtState, 0).setSuper32(kExtInodesPerGroup, 64); // of 128 bytes: two blocks
    std::uint64_t const field = builder.geometry().descriptorOffset(1) + kExtInodeTable;
    builder.bytes.at(field) = 0xE8;
    builder.bytes.at(field + 1) = 0x80; // block 33000
    imaging::MapTotals const totals = walkExt(builder);
    EXPECT_TRUE(totals.isDoubtful);
    EXPECT_EQ(totals.used, builder.bitmapBlock(4) + 1000 + 2);
    EXPECT_THAT(totals.warnings,
                ElementsAre(path + ": the map calls unit 33000 free, which holds the file system's own "
                                   "structures; those count as used, and the rest of the map is not "
                                   "to be trusted"));
}

TEST_F(ImagingVolumeDoubt, ExtStructuresInAGroupThatIsNotInitialisedMayBeFreeInTheMap) {
    ExtBuilder builder = makeExt();
    builder.setSuper32(kExtInodesPerGroup, 64).setFlags(2, ext_group::kBlocksUninitialised);
    std::uint64_t const field = builder.geometry().descriptorOffset(1) + kExtInodeTable;
    builder.bytes.at(field + 2) = 1; // block 65536, the first of group 2
    EXPECT_FALSE(walkExt(builder).isDoubtful);
}

TEST_F(ImagingVolumeDoubt, AnHfsPlusMapWithOtherFreeBlocksThanTheHeaderCountsIsNotTrusted) {
    HfsBuilder builder;
    builder.setUsedFrom(2000, 10);
    std::uint32_t const free = builder.header32(hfs_header::kFreeBlocks);
    builder.setHeader32(hfs_header::kAttributes, kHfsUnmounted);
    EXPECT_FALSE(walkHfs(builder).isDoubtful);
    imaging::MapTotals const totals = walkHfs(builder.setHeader32(hfs_header::kFreeBlocks, free - 1));
    EXPECT_TRUE(totals.isDoubtful);
    EXPECT_THAT(totals.warnings, ElementsAre(path + ": the map has " + std::to_string(free) +
                                             " free units, and the volume's own header counts " +
                                             std::to_string(free - 1) + ": the map is not to be trusted"));
    EXPECT_FALSE(walkHfs(builder.setHeader32(hfs_header::kAttributes, 0)).isDoubtful)
        << "in use: the count may be late";
}

TEST_F(ImagingVolumeDoubt, AnHfsPlusMapThatFreesTheVolumesOwnFilesIsNotTrusted) {
    HfsBuilder builder;
    std::uint32_t const block = builder.catalogFile().front().start;
    builder.setUsed(block, false);
    imaging::MapTotals const totals = walkHfs(builder);
    EXPECT_TRUE(totals.isDoubtful);
    EXPECT_THAT(totals.warnings, ElementsAre(HasSubstr("the map calls unit " + std::to_string(block) + " free")));
}

} // namespace
