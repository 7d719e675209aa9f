// Ext group descriptors that lie, as the imaging layer sees them.
#include "support/ExtHostile.h"

namespace {

using namespace tests;

using End = HostileEnd;

/// A field of the descriptor of group 1; its offset counts from there.
class ExtHostileDescriptor : public testing::TestWithParam<HostileField> {};

TEST_P(ExtHostileDescriptor, HasItsEnd) {
    for (bool const is64Bit : {false, true}) {
        ExtBuilder const builder = makeHostileExt(is64Bit);
        HostileField field = GetParam();
        field.offset += builder.geometry().descriptorOffset(1);
        expectExtEnd(builder, field);
    }
}

constexpr std::uint64_t kInodeBitmap = 0x04;
constexpr std::uint64_t kInodeTable = 0x08;
constexpr std::uint64_t kFreeInodes = 0x0E;
constexpr std::uint64_t kChecksum = 0x1E;

INSTANTIATE_TEST_SUITE_P(
    BlockBitmap, ExtHostileDescriptor,
    testing::Values(HostileField{"AtBlock0", 0, 0, 4, End::AllUsed, "puts its block bitmap at block 0"},
                    HostileField{"AtTheEnd", 0, 100000, 4, End::AllUsed, "puts its block bitmap at block 100000"},
                    HostileField{"AtAllOnes", 0, 0xFFFFFFFF, 4, End::AllUsed, "at block 4294967295"},
                    HostileField{"InTheDescriptors", 0, 1, 4, End::AllUsed, "puts its block bitmap at block 1"},
                    HostileField{"OfAnotherGroup", 0, 2, 4, End::Doubted, "in group 1"},
                    HostileField{"InAnInodeBitmap", 0, 7, 4, End::Doubted, "in group 1"},
                    HostileField{"InItsInodeTable", 0, 42, 4, End::Doubted, "in group 1"},
                    HostileField{"InAnotherInodeTable", 0, 15, 4, End::Doubted, "in group 1"},
                    HostileField{"InADataBlock", 0, 50000, 4, End::Doubted, "in group 1"}),
    [](auto const& instance) { return hostileName(instance); });

INSTANTIATE_TEST_SUITE_P(
    Others, ExtHostileDescriptor,
    testing::Values(
        HostileField{"InodeBitmapBeyond", kInodeBitmap, 100000, 4, End::Right},
        HostileField{"InodeTableBeyond", kInodeTable, 0xFFFFFFFF, 4, End::Right},
        HostileField{"InodeTableReachingPastTheEnd", kInodeTable, 99990, 4, End::Doubted, "the map calls unit 9999"},
        HostileField{"InodeTableInData", kInodeTable, 60000, 4, End::Doubted, "the map calls unit 600"},
        HostileField{"FreeBlocksOf0", ext_group::kFreeBlocksLow, 0, 2, End::Doubted, "in group 1"},
        HostileField{"FreeBlocksOfAllOnes", ext_group::kFreeBlocksLow, 0xFFFF, 2, End::Doubted, "in group 1"},
        HostileField{"FreeInodesOfAllOnes", kFreeInodes, 0xFFFF, 2, End::Right},
        HostileField{"InodesUninitialised", ext_group::kFlags, ext_group::kInodesUninitialised, 1, End::Right},
        HostileField{"BlocksUninitialisedWithoutTheFeature", ext_group::kFlags, ext_group::kBlocksUninitialised, 1,
                     End::AllUsed, "has no feature for that"},
        HostileField{"Checksum", kChecksum, 0xDEAD, 2, End::Right}),
    [](auto const& instance) { return hostileName(instance); });

/// A half of a number that only descriptors of 64 bytes have.
class ExtHostileHighHalf : public testing::TestWithParam<HostileField> {};

TEST_P(ExtHostileHighHalf, HasItsEnd) {
    ExtBuilder const builder = makeHostileExt(true);
    HostileField field = GetParam();
    field.offset += builder.geometry().descriptorOffset(1);
    expectExtEnd(builder, field);
}

INSTANTIATE_TEST_SUITE_P(Fields, ExtHostileHighHalf,
                         testing::Values(HostileField{"BlockBitmap", ext_group::kBitmapLocationHigh, 1, 4, End::AllUsed,
                                                      "4294967299"},
                                         HostileField{"BlockBitmapOf2To63", ext_group::kBitmapLocationHigh, 0x80000000,
                                                      4, End::AllUsed, "at block 9223372036854775811"},
                                         HostileField{"InodeTable", 0x28, 0x80000000, 4, End::Right},
                                         HostileField{"FreeBlocks", 0x2C, 1, 2, End::Doubted, "in group 1"}),
                         [](auto const& instance) { return hostileName(instance); });

/// A volume that may have groups whose bitmap is not initialised, and one that says so though blocks of it are in use.
class ExtHostileUninitialised : public testing::TestWithParam<std::uint64_t> {};

TEST_P(ExtHostileUninitialised, LosesNothing) {
    for (std::uint32_t const feature : {0x10U, 0x400U}) {
        ExtBuilder builder = makeHostileExt();
        builder.setSuper32(ext_super::kReadOnlyFeatures, 0x1 | feature);
        std::vector<bool> const truth = builder.map();
        expectEnd(askForExtMap(builder), End::Right, "", truth, 4096);
        builder.setFlags(GetParam(), ext_group::kBlocksUninitialised);
        expectNothingLost(askForExtMap(builder), truth, 4096);
    }
}

INSTANTIATE_TEST_SUITE_P(Groups, ExtHostileUninitialised, testing::Values(0U, 1U, 2U, 3U),
                         [](auto const& instance) { return std::to_string(instance.param); });

TEST(ExtHostileBitmaps, OfAllGroupsInOneBlockAreDoubted) {
    ExtBuilder builder = makeHostileExt();
    std::vector<bool> const truth = builder.map();
    for (std::uint64_t group = 0; group < 4; ++group) {
        builder.setBitmapLocation(group, builder.bitmapBlock(1));
    }
    expectEnd(askForExtMap(builder), End::Doubted, "in group 0", truth, 4096);
}

TEST(ExtHostileBitmaps, OfAllGroupsInOneBlockThatIsAllZeroAreDoubted) {
    ExtBuilder builder = makeHostileExt();
    std::vector<bool> const truth = builder.map();
    for (std::uint64_t group = 0; group < 4; ++group) {
        builder.setBitmapLocation(group, 70000);
        putLittle(builder.bytes, builder.geometry().descriptorOffset(group) + ext_group::kFreeBlocksLow,
                  group == 3 ? 1696 : 32768, 2);
    }
    expectEnd(askForExtMap(builder), End::Doubted, "the map calls unit 0 free", truth, 4096);
}

TEST(ExtHostileBitmaps, WithoutThePaddingOfTheLastGroupAreRight) {
    for (std::uint8_t const padding : {std::uint8_t{0}, std::uint8_t{0xFF}}) {
        ExtBuilder builder = makeHostileExt();
        std::vector<bool> const truth = builder.map();
        auto const end = builder.bytes.begin() + static_cast<std::ptrdiff_t>(builder.bitmapOffset(4));
        std::fill(end - 4096 + 1696 / 8, end, padding);
        expectEnd(askForExtMap(builder), End::Right, "", truth, 4096);
    }
}

} // namespace
