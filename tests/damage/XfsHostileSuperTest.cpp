// XFS superblocks that lie, as the imaging layer sees them: refused, all used, doubted, or without effect.
#include "support/HostileVolume.h"
#include "support/XfsBuilder.h"

#include <chrono>
#include <stdexcept>

namespace {

using namespace tests;
using testing::HasSubstr;
using testing::IsEmpty;

using End = HostileEnd;

/// Fields of the superblock that only this file changes.
constexpr std::uint64_t kRealtimeExtents = 0x18;
constexpr std::uint64_t kUuid = 0x20;
constexpr std::uint64_t kInodeSize = 0x68;
constexpr std::uint64_t kInodesPerBlock = 0x6A;
constexpr std::uint64_t kInodeLog = 0x7A;
constexpr std::uint64_t kInodesPerBlockLog = 0x7B;
constexpr std::uint64_t kInProgress = 0x7E;
constexpr std::uint64_t kFreeBlocks = 0x90;
constexpr std::uint64_t kFeatures2 = 0xC8;
constexpr std::uint64_t kBadFeatures2 = 0xCC;
constexpr std::uint64_t kIncompatible = 0xD8;
constexpr std::uint64_t kChecksum = 0xE0;
constexpr std::uint64_t kMetaUuid = 0xF8;

/// Three groups of 500, 500 and 300 blocks of 512 bytes. Free are blocks 100 to 199 of group 0 and three in its free
/// list, 20 to 39 of group 1, 290 to 299 of group 2. The journal is the 50 blocks from block 800 on.
XfsBuilder makeGood(bool hasChecksums) {
    XfsGeometry geometry;
    geometry.hasChecksums = hasChecksums;
    geometry.logStart = (1 << 9) + 300;
    geometry.logBlocks = 50;
    XfsBuilder builder(geometry);
    builder.plantTree(0, {{100, 100}});
    builder.plantTree(1, {{20, 20}});
    builder.plantTree(2, {{290, 10}});
    return builder.setFreeList(0, 10, {50, 51, 52});
}

void expectEndOf(XfsBuilder builder, HostileField const& field) {
    std::vector<bool> const truth = builder.map();
    ASSERT_NE(builder.get(field.offset, field.width), field.value) << "nothing is changed";
    builder.put(field.offset, field.value, field.width);
    expectEnd(askForMap(builder.bytes), field.end, field.text, truth, builder.geometry().blockSize);
}

TEST(XfsHostileSuper, TheVolumesThemselvesAreSound) {
    for (bool const hasChecksums : {false, true}) {
        XfsBuilder const builder = makeGood(hasChecksums);
        expectEnd(askForMap(builder.bytes), End::Right, "", builder.map(), 512);
    }
}

class XfsHostileSuperField : public testing::TestWithParam<HostileField> {};

TEST_P(XfsHostileSuperField, HasItsEnd) {
    expectEndOf(makeGood(false), GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, XfsHostileSuperField,
    testing::Values(
        HostileField{"BlockSizeOfMoreThanItsLog", xfs_super::kBlockSize, 1024, 4, End::AllUsed,
                     "sb_blocklog is 9, and sb_blocksize 1024"},
        HostileField{"SectorSizeOf32KiB", xfs_super::kSectorSize, 0x8000, 2, End::AllUsed,
                     "sb_sectsize is 32768, with blocks of 512 bytes: the groups' headers cannot be found"},
        HostileField{"SectorSizeOfAllOnes", xfs_super::kSectorSize, 0xFFFF, 2, End::AllUsed, "sb_sectsize is 65535"},
        HostileField{"SectorLog", xfs_super::kSectorSizeLog, 16, 1, End::Right},
        HostileField{"InodeSize", kInodeSize, 0xFFFF, 2, End::Right},
        HostileField{"InodesPerBlock", kInodesPerBlock, 0xFFFF, 2, End::Right},
        HostileField{"InodeLog", kInodeLog, 255, 1, End::Right},
        HostileField{"InodesPerBlockLog", kInodesPerBlockLog, 255, 1, End::Right},
        HostileField{"BlocksOfOneMoreThanItsGroups", xfs_super::kTotalBlocks, 1501, 8, End::AllUsed,
                     "sb_dblocks 1501 is not filled by sb_agcount 3 groups of sb_agblocks 500"},
        HostileField{"BlocksThatFillTheLastGroup", xfs_super::kTotalBlocks, 1500, 8, End::AllUsed,
                     "the free-space header of group 2 says that the group has 300 blocks, and it has 500"},
        HostileField{"OneBlockLess", xfs_super::kTotalBlocks, 1299, 8, End::AllUsed,
                     "the free-space header of group 2 says that the group has 300 blocks, and it has 299"},
        HostileField{"LastGroupOfOneBlock", xfs_super::kTotalBlocks, 1001, 8, End::AllUsed,
                     "the free-space header of group 2 says that the group has 300 blocks, and it has 1"},
        HostileField{"LastGroupOfNone", xfs_super::kTotalBlocks, 1000, 8, End::AllUsed,
                     "sb_dblocks 1000 is not filled by sb_agcount 3 groups of sb_agblocks 500"},
        HostileField{"OneGroupLess", xfs_super::kGroups, 2, 4, End::AllUsed, "is not filled by sb_agcount 2"},
        HostileField{"OneGroupMore", xfs_super::kGroups, 4, 4, End::AllUsed, "is not filled by sb_agcount 4"},
        HostileField{"GroupsOfOneBlockLess", xfs_super::kGroupBlocks, 499, 4, End::AllUsed,
                     "the free-space header of group 0 says that the group has 500 blocks, and it has 499"},
        HostileField{"GroupLogOfOneLess", xfs_super::kGroupBlocksLog, 8, 1, End::AllUsed,
                     "sb_agblklog is 8, and sb_agblocks 500"},
        HostileField{"GroupLogOf0", xfs_super::kGroupBlocksLog, 0, 1, End::AllUsed, "sb_agblklog is 0"},
        HostileField{"GroupLogOf255", xfs_super::kGroupBlocksLog, 255, 1, End::AllUsed, "sb_agblklog is 255"},
        HostileField{"FreeBlocks", kFreeBlocks, 1000000, 8, End::Right}),
    [](auto const& instance) { return hostileName(instance); });

INSTANTIATE_TEST_SUITE_P(
    Journal, XfsHostileSuperField,
    testing::Values(
        HostileField{"InFreeSpace", xfs_super::kLogStart, 120, 8, End::Doubted, "the map calls unit 120 free"},
        HostileField{"OverABorderOfGroups", xfs_super::kLogStart, 480, 8, End::Doubted, "the map calls unit 520 free"},
        HostileField{"OverABorderOfGroupsWhereAllIsUsed", xfs_super::kLogStart, 460, 8, End::Right},
        HostileField{"InTheGapBehindAGroup", xfs_super::kLogStart, 505, 8, End::Doubted, "the map calls unit 520 free"},
        HostileField{"ReachingPastTheEnd", xfs_super::kLogStart, (2 << 9) + 251, 8, End::AllUsed,
                     "the journal of 50 blocks begins at block 1251, where it cannot be"},
        HostileField{"InAGroupThatIsNotThere", xfs_super::kLogStart, 3 << 9, 8, End::AllUsed,
                     "the journal of 50 blocks begins at block 1500, where it cannot be"},
        HostileField{"AtTheHighestBit", xfs_super::kLogStart, std::uint64_t{1} << 63, 8, End::AllUsed,
                     "where it cannot be"},
        HostileField{"AtAllOnes", xfs_super::kLogStart, ~std::uint64_t{0}, 8, End::AllUsed, "where it cannot be"},
        HostileField{"OfAllOnesBlocks", xfs_super::kLogBlocks, 0xFFFFFFFF, 4, End::AllUsed,
                     "the journal of 4294967295 blocks begins at block 800, where it cannot be"},
        HostileField{"OfNoBlocks", xfs_super::kLogBlocks, 0, 4, End::Right}),
    [](auto const& instance) { return hostileName(instance); });

INSTANTIATE_TEST_SUITE_P(
    Features, XfsHostileSuperField,
    testing::Values(HostileField{"Features2OfAllOnes", kFeatures2, 0xFFFFFFFF, 4, End::Right},
                    HostileField{"BadFeatures2OfAllOnes", kBadFeatures2, 0xFFFFFFFF, 4, End::Right},
                    HostileField{"WithoutMoreBits", xfs_super::kVersion, 0x34A4, 2, End::Right},
                    HostileField{"Version1", xfs_super::kVersion, 0xB4A1, 2, End::AllUsed, "sb_versionnum is 0xb4a1"},
                    HostileField{"VersionOfNothing", xfs_super::kVersion, 0, 2, End::AllUsed, "sb_versionnum is 0x0"},
                    HostileField{"InProgressOf255", kInProgress, 255, 1, End::AllUsed, "sb_inprogress is 255"},
                    HostileField{"RealtimeExtentsWithoutBlocks", kRealtimeExtents, 5, 8, End::Right},
                    HostileField{"OtherUuid", kUuid, 0x1234567890ABCDEF, 8, End::Right}),
    [](auto const& instance) { return hostileName(instance); });

class XfsHostileSuperFieldOfVersion5 : public testing::TestWithParam<HostileField> {};

TEST_P(XfsHostileSuperFieldOfVersion5, HasItsEnd) {
    expectEndOf(makeGood(true), GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    Features, XfsHostileSuperFieldOfVersion5,
    testing::Values(HostileField{"EveryHarmlessFeature", kIncompatible, 0xEF, 4, End::Right},
                    HostileField{"NeedsRepair", kIncompatible, 0x10, 4, End::AllUsed, "says that the volume needs"},
                    HostileField{"MetadataDirectories", kIncompatible, 0x100, 4, End::AllUsed,
                                 "not known here (0x100)"},
                    HostileField{"Zones", kIncompatible, 0x200, 4, End::AllUsed, "not known here (0x200)"},
                    HostileField{"GapsInZones", kIncompatible, 0x400, 4, End::AllUsed, "not known here (0x400)"},
                    HostileField{"LastFeature", kIncompatible, 0x80000000, 4, End::AllUsed, "(0x80000000)"},
                    HostileField{"Checksum", kChecksum, 0xDEADBEEF, 4, End::Right},
                    HostileField{"OtherUuid", kUuid, 0x1234567890ABCDEF, 8, End::Right},
                    HostileField{"OtherMetaUuid", kMetaUuid, 0x1234567890ABCDEF, 8, End::Right}),
    [](auto const& instance) { return hostileName(instance); });

TEST(XfsHostileVersion, OfChecksumsOnAVolumeWithoutLosesNothing) {
    // The free list is read behind a header that is not there: what was in it once may be in use now.
    XfsBuilder builder = makeGood(false);
    builder.setFreeList(0, 19, {70, 71, 72}).setFreeList(0, 10, {50, 51, 52});
    std::vector<bool> const truth = builder.map();
    builder.setSuper(xfs_super::kVersion, 0xB4A5, 2);
    expectNothingLost(askForMap(builder.bytes), truth, 512);
}

TEST(XfsHostileVersion, WithoutChecksumsOnAVolumeWithThemLosesNothing) {
    XfsBuilder builder = makeGood(true);
    builder.setFreeList(0, 11, {70, 71, 72}).setFreeList(0, 20, {50, 51, 52});
    std::vector<bool> const truth = builder.map();
    builder.setSuper(xfs_super::kVersion, 0xB4A4, 2);
    expectNothingLost(askForMap(builder.bytes), truth, 512);
}

TEST(XfsHostileSectorSize, OfAnotherPowerOfTwoFindsNoHeaders) {
    XfsGeometry geometry;
    geometry.blockSize = 4096;
    XfsBuilder builder(geometry);
    builder.plantTree(0, {{100, 100}});
    expectEnd(askForMap(builder.bytes), End::Right, "", builder.map(), 4096);
    for (unsigned const size : {1024U, 2048U, 4096U}) {
        builder.setSuper(xfs_super::kSectorSize, size, 2);
        expectEnd(askForMap(builder.bytes), End::Error, "Invalid fsi magic number.", builder.map(), 4096);
    }
}

TEST(XfsHostileLastGroup, OfOneBlockHasNoHeaderInTheVolume) {
    XfsBuilder builder = makeGood(false);
    builder.setSuper(xfs_super::kTotalBlocks, 1001, 8).setHeader32(2, 12, 1);
    std::vector<bool> truth = builder.map();
    truth.resize(1001);
    std::vector<std::uint8_t> cut = builder.bytes;
    cut.resize(std::size_t{1001} * 512);
    expectEnd(askForMap(cut), End::Error, "", truth, 512);
    // With bytes behind the volume its header is there, and its tree is not.
    expectEnd(askForMap(builder.bytes), End::AllUsed,
              "the free-space header of group 2 puts the root of its tree at block 4 of the group, which has 1", truth,
              512);
}

TEST(XfsHostileCopies, OfTheSuperblockAreNotLookedFor) {
    // The first one is gone, those of the other groups are good: nothing is recognised, everything is used.
    XfsBuilder builder = makeGood(false);
    for (std::uint32_t const group : {1U, 2U}) {
        std::copy_n(builder.bytes.begin(), 512,
                    builder.bytes.begin() + static_cast<std::ptrdiff_t>(builder.geometry().blockOffset(group, 0)));
    }
    builder.setSuper32(xfs_super::kMagic, 0);
    HostileAnswer const answer = askForMap(builder.bytes);
    EXPECT_THAT(answer.error, IsEmpty());
    EXPECT_TRUE(answer.isAllUsed());
    EXPECT_EQ(answer.geometry.unitSize, 4096U);
}

TEST(XfsHostileGroups, OfAsManyAsThereAreNumbersAreNotLookedAt) {
    XfsBuilder builder = makeGood(false);
    builder.setSuper32(xfs_super::kGroupBlocks, 64).setSuper(xfs_super::kGroupBlocksLog, 6, 1);
    builder.setSuper32(xfs_super::kGroups, 0xFFFFFFFF);
    builder.setSuper(xfs_super::kTotalBlocks, std::uint64_t{0xFFFFFFFF} * 64, 8);
    builder.setSuper(xfs_super::kLogStart, 0, 8);
    HostileAnswer const answer = askForMap(builder.bytes, 1 << 20);
    EXPECT_THAT(answer.error, IsEmpty());
    EXPECT_TRUE(answer.isAllUsed());
    EXPECT_THAT(answer.geometry.notBelieved.value_or(""),
                HasSubstr("sb_agcount is 4294967295, more than the 1048576 groups whose headers are looked at"));
}

TEST(XfsHostileBlocks, OfAsManyAsCanBeAddressedEndWithinTheTimeAllowed) {
    // Nothing is read of a volume whose superblock is not believed; its units are told all the same.
    XfsBuilder builder = makeGood(false);
    builder.setSuper(xfs_super::kTotalBlocks, (std::uint64_t{1} << 54) - 2, 8);
    TempDirectory const directory(TempDirectory::Place::Memory);
    std::string const path = writeFile(directory.file("volume"), builder.bytes);
    RecordingLogger logger;
    imaging::Volume volume(path, 512, logger, {}, {.time = std::chrono::seconds(1)});
    imaging::VolumeMap map(volume);
    auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    auto const watch = [end](std::uint64_t) {
        if (std::chrono::steady_clock::now() > end) {
            throw std::runtime_error("the walk goes on and on");
        }
    };
    try {
        map.walk([](imaging::Run const&) {}, watch);
    } catch (imaging::VolumeError const& error) {
        EXPECT_EQ(error.trouble(), imaging::Trouble::Unending);
    }
}

} // namespace
