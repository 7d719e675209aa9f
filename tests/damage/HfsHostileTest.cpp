// HFS+ volume headers and wrappers that lie, as the imaging layer sees them: refused, all used, doubted, or without
// effect.
#include "support/HfsBuilder.h"
#include "support/HostileVolume.h"

namespace {

using namespace tests;
using testing::HasSubstr;
using testing::IsEmpty;

using End = HostileEnd;

/// Fields of the volume header that only this file changes.
constexpr std::uint64_t kJournalInfo = 12;

/// A field of the header and of the two forks, from the volume's start.
constexpr std::uint64_t at(std::uint64_t field) {
    return kHfsHeaderOffset + field;
}
constexpr std::uint64_t inMap(std::uint64_t field) {
    return at(hfs_header::kAllocationFile + field);
}
constexpr std::uint64_t inTree(std::uint64_t field) {
    return at(hfs_header::kExtentsFile + field);
}

/// 4096 blocks of 512 bytes, the map in block 3.
HfsBuilder makeGood() {
    return HfsBuilder().useBlocksAtRandom(71);
}

HostileAnswer ask(HfsBuilder const& builder) {
    return askForMap(builder.image());
}

TEST(HfsHostile, TheVolumeItselfIsSound) {
    expectEnd(ask(makeGood()), End::Right, "", makeGood().map(), 512);
}

class HfsHostileField : public testing::TestWithParam<HostileField> {};

TEST_P(HfsHostileField, HasItsEnd) {
    HfsBuilder builder = makeGood();
    ASSERT_NE(builder.get(GetParam().offset, GetParam().width), GetParam().value) << "nothing is changed";
    builder.put(GetParam().offset, GetParam().value, GetParam().width);
    expectEnd(ask(builder), GetParam().end, GetParam().text, makeGood().map(), 512);
}

INSTANTIATE_TEST_SUITE_P(
    Header, HfsHostileField,
    testing::Values(
        HostileField{"PlusWithVersion5", at(hfs_header::kVersion), 5, 2, End::AllUsed,
                     "version is 5, and with the signature H+ it must be 4"},
        HostileField{"VersionOf0", at(hfs_header::kVersion), 0, 2, End::AllUsed, "version is 0"},
        HostileField{"XWithVersion4", at(hfs_header::kSignature), 0x4858, 2, End::AllUsed,
                     "version is 4, and with the signature HX it must be 5"},
        HostileField{"BlockSizeOf2GiB", at(hfs_header::kBlockSize), 0x80000000, 4, End::Error},
        HostileField{"BlockSizeOfTwice", at(hfs_header::kBlockSize), 1024, 4, End::Doubted},
        HostileField{"BlockSizeOf4096", at(hfs_header::kBlockSize), 4096, 4, End::Doubted},
        HostileField{"BlocksOfAllOnes", at(hfs_header::kTotalBlocks), 0xFFFFFFFF, 4, End::AllUsed,
                     "the allocation file holds 512 bytes, and the volume's 4294967295 blocks need 536870912"},
        HostileField{"OneBlockMore", at(hfs_header::kTotalBlocks), 4097, 4, End::AllUsed, "4097 blocks need 513"},
        HostileField{"FewerBlocks", at(hfs_header::kTotalBlocks), 4000, 4, End::Doubted},
        HostileField{"ThreeBlocks", at(hfs_header::kTotalBlocks), 3, 4, End::AllUsed},
        HostileField{"FreeBlocksOfOneMore", at(hfs_header::kFreeBlocks), 4000, 4, End::Doubted, "4000"},
        HostileField{"FreeBlocksOfAllOnes", at(hfs_header::kFreeBlocks), 0xFFFFFFFF, 4, End::Doubted, "4294967295"},
        HostileField{"NotUnmounted", at(hfs_header::kAttributes), 0, 4, End::Right},
        HostileField{"Inconsistent", at(hfs_header::kAttributes), 0x900, 4, End::Right},
        HostileField{"JournaledWithoutAJournal", at(hfs_header::kAttributes), 0x2100, 4, End::Right},
        HostileField{"JournalInfoBeyond", at(kJournalInfo), 0xFFFFFFFF, 4, End::Right}),
    [](auto const& instance) { return hostileName(instance); });

INSTANTIATE_TEST_SUITE_P(
    Map, HfsHostileField,
    testing::Values(
        HostileField{"LogicalSizeOf0", inMap(hfs_fork::kLogicalSize), 0, 8, End::AllUsed, "file holds 0 bytes"},
        HostileField{"LogicalSizeTooShort", inMap(hfs_fork::kLogicalSize), 511, 8, End::AllUsed, "holds 511 bytes"},
        HostileField{"LogicalSizeOfAllOnes", inMap(hfs_fork::kLogicalSize), ~std::uint64_t{0}, 8, End::Right},
        HostileField{"NoBlocks", inMap(hfs_fork::kTotalBlocks), 0, 4, End::AllUsed, "file holds 0 bytes"},
        HostileField{"MoreBlocksThanExtents", inMap(hfs_fork::kTotalBlocks), 2, 4, End::Error,
                     "First node is not an index node"},
        HostileField{"BlocksOfAllOnes", inMap(hfs_fork::kTotalBlocks), 0xFFFFFFFF, 4, End::Error,
                     "First node is not an index node"},
        HostileField{"ExtentAtTheEnd", inMap(hfs_fork::kExtents), 4096, 4, End::AllUsed,
                     "an extent of 1 blocks at block 4096"},
        HostileField{"ExtentOfAllOnes", inMap(hfs_fork::kExtents + 4), 0xFFFFFFFF, 4, End::AllUsed,
                     "an extent of 4294967295 blocks at block 3"},
        HostileField{"ExtentThatWraps", inMap(hfs_fork::kExtents), 0xFFFFFFFF, 4, End::AllUsed,
                     "an extent of 1 blocks at block 4294967295"},
        HostileField{"ExtentOverTheHeader", inMap(hfs_fork::kExtents), 2, 4, End::AllUsed},
        HostileField{"ExtentInTheTree", inMap(hfs_fork::kExtents), 4, 4, End::AllUsed},
        HostileField{"ExtentInZeros", inMap(hfs_fork::kExtents), 2000, 4, End::AllUsed,
                     "calls block 2000 free, which holds its own beginning"}),
    [](auto const& instance) { return hostileName(instance); });

// The tree is not looked at while the map's extents have room in the header.
INSTANTIATE_TEST_SUITE_P(
    UnusedTree, HfsHostileField,
    testing::Values(HostileField{"NeedsItself", inTree(hfs_fork::kTotalBlocks), 0xFFFFFFFF, 4, End::Right},
                    HostileField{"LogicalSizeOf0", inTree(hfs_fork::kLogicalSize), 0, 8, End::Right},
                    HostileField{"ExtentOutside", inTree(hfs_fork::kExtents), 0xFFFFFFFF, 4, End::Right}),
    [](auto const& instance) { return hostileName(instance); });

TEST(HfsHostileHeader, AtItsEndAloneIsNotLookedFor) {
    std::vector<std::uint8_t> image = makeGood().image();
    std::fill_n(image.begin() + kHfsHeaderOffset, kHfsHeaderBytes, std::uint8_t{0});
    HostileAnswer const answer = askForMap(image);
    EXPECT_THAT(answer.error, IsEmpty());
    EXPECT_TRUE(answer.isAllUsed());
}

/// Blocks of the volume's own that its map calls free; the number of free blocks is as the map has it.
class HfsHostileOwnBlock : public testing::TestWithParam<std::uint32_t> {};

TEST_P(HfsHostileOwnBlock, CalledFreeIsDoubted) {
    HfsBuilder builder = makeGood();
    std::vector<bool> const truth = builder.map();
    builder.setUsed(GetParam(), false);
    HostileAnswer const answer = ask(builder);
    expectEnd(answer, GetParam() == 3 ? End::AllUsed : End::Doubted,
              GetParam() == 3 ? "holds its own beginning" : "the map calls unit " + std::to_string(GetParam()), truth,
              512);
    EXPECT_TRUE(answer.units(4096)[GetParam()]) << "it must count as used";
}

// The header, the map, the tree, and the catalog.
INSTANTIATE_TEST_SUITE_P(Blocks, HfsHostileOwnBlock, testing::Values(2U, 3U, 4U, 5U, 20U),
                         [](auto const& instance) { return std::to_string(instance.param); });

TEST(HfsHostileOwnBlock, OfTheAlternateHeaderCountsAsUsedThoughItIsCalledFree) {
    constexpr std::uint64_t kAlternate = 4094; // 1024 bytes before the end
    EXPECT_TRUE(ask(makeGood().setUsed(kAlternate, false)).units(4096)[kAlternate]);
}

/// Two blocks of map.
HfsBuilder makeTwoBlocksOfMap(HfsExtents const& extents) {
    HfsGeometry geometry;
    geometry.totalBlocks = 8192;
    geometry.allocationFile = extents;
    return HfsBuilder(geometry).useBlocksAtRandom(72);
}

HostileAnswer askWithExtents(HfsExtents const& extents) {
    HfsBuilder builder = makeTwoBlocksOfMap({{3, 1}, {10, 1}});
    builder.setForkExtents(hfs_header::kAllocationFile, extents);
    return ask(builder);
}

TEST(HfsHostileExtents, BehindAnEmptyOneEndTheMapEarly) {
    std::vector<bool> const truth = makeTwoBlocksOfMap({{3, 1}, {10, 1}}).map();
    expectEnd(askWithExtents({{3, 1}, {10, 1}}), End::Right, "", truth, 512);
    expectEnd(askWithExtents({{3, 1}, {0, 0}, {10, 1}}), End::Doubted, "the map ends at unit 4096 of 8192", truth, 512);
}

TEST(HfsHostileExtents, OfNoBlocksWithAPlaceAreNoEnd) {
    std::vector<bool> const truth = makeTwoBlocksOfMap({{3, 1}, {10, 1}}).map();
    expectEnd(askWithExtents({{3, 1}, {50, 0}, {10, 1}}), End::Right, "", truth, 512);
}

TEST(HfsHostileExtents, ThatOverlapOrAreInAnotherOrderAreDoubted) {
    std::vector<bool> const truth = makeTwoBlocksOfMap({{3, 1}, {10, 1}}).map();
    expectEnd(askWithExtents({{3, 1}, {3, 1}}), End::Doubted, "", truth, 512);
    expectEnd(askWithExtents({{3, 2}}), End::Doubted, "", truth, 512);
    expectEnd(askWithExtents({{10, 1}, {3, 1}}), End::Doubted, "", truth, 512);
}

/// A field of a wrapper, from its header's start.
class HfsHostileWrapper : public testing::TestWithParam<HostileField> {};

TEST_P(HfsHostileWrapper, HasItsEnd) {
    HfsBuilder const inner = makeGood();
    std::vector<std::uint8_t> bytes = wrapHfsVolume(inner.image());
    std::uint64_t const place = kHfsHeaderOffset + GetParam().offset;
    ASSERT_NE(getBig(bytes, place, GetParam().width), GetParam().value) << "nothing is changed";
    putBig(bytes, place, GetParam().value, GetParam().width);
    HostileAnswer const answer = askForMap(bytes);
    EXPECT_EQ(answer.isDoubted(), GetParam().end == End::Error);
    EXPECT_THAT(answer.error, HasSubstr(GetParam().text));
    if (GetParam().end == End::AllUsed) { // where no volume is found, nothing is recognised
        EXPECT_TRUE(answer.isAllUsed());
    }
    if (GetParam().end == End::Right) {
        EXPECT_EQ(answer.units(4096), inner.map());
        EXPECT_EQ(answer.geometry.start, HfsWrapper().volumeOffset());
    }
}

INSTANTIATE_TEST_SUITE_P(Fields, HfsHostileWrapper,
                         testing::Values(HostileField{"OtherSignatureInside", 0x7C, 0x4848, 2, End::AllUsed},
                                         HostileField{"NothingInside", 0x7C, 0, 2, End::AllUsed},
                                         HostileField{"BlockSizeOf0", 0x14, 0, 4, End::AllUsed},
                                         HostileField{"BlockSizeOfAllOnes", 0x14, 0xFFFFFFFF, 4, End::AllUsed},
                                         HostileField{"BlockSizeOf2GiB", 0x14, 0x80000000, 4, End::AllUsed},
                                         HostileField{"FirstSectorOutside", 0x1C, 0xFFFF, 2, End::AllUsed},
                                         HostileField{"FirstBlockOutside", 0x7E, 0xFFFF, 2, End::AllUsed},
                                         HostileField{"FirstBlockElsewhere", 0x7E, 4, 2, End::AllUsed},
                                         HostileField{"LengthOutside", 0x80, 0xFFFF, 2, End::Error,
                                                      "the HFS wrapper names"},
                                         HostileField{"LengthOf0", 0x80, 0, 2, End::Error},
                                         HostileField{"LengthOfTooLittle", 0x80, 1000, 2, End::Right}),
                         [](auto const& instance) { return hostileName(instance); });

} // namespace
