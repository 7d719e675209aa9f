// Ext superblocks that lie, as the imaging layer sees them: refused, all used, doubted, or without effect.
#include "support/ExtHostile.h"

namespace {

using namespace tests;

using End = HostileEnd;

constexpr std::uint64_t at(std::uint64_t field) {
    return kExtSuperBlockOffset + field;
}

class ExtHostileField : public testing::TestWithParam<HostileField> {};

TEST_P(ExtHostileField, HasItsEnd) {
    expectExtEnd(makeHostileExt(), GetParam());
}

TEST(ExtHostile, TheVolumesThemselvesAreSound) {
    expectEnd(askForExtMap(makeHostileExt()), End::Right, "", makeHostileExt().map(), 4096);
    expectEnd(askForExtMap(makeHostileExt(true)), End::Right, "", makeHostileExt(true).map(), 4096);
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, ExtHostileField,
    testing::Values(
        HostileField{"LogBlockSizeOf7", at(ext_super::kLogBlockSize), 7, 4, End::Error, "s_log_block_size is 7"},
        HostileField{"LogBlockSizeOf31", at(ext_super::kLogBlockSize), 31, 4, End::Error, "s_log_block_size is 31"},
        HostileField{"LogBlockSizeThatShiftsItOut", at(ext_super::kLogBlockSize), 0xFFFFFFF7, 4, End::Error,
                     "s_log_block_size is 4294967287"},
        HostileField{"LogBlockSizeOf0", at(ext_super::kLogBlockSize), 0, 4, End::AllUsed, "s_blocks_per_group 32768"},
        HostileField{"LogBlockSizeOfOneLess", at(ext_super::kLogBlockSize), 1, 4, End::AllUsed,
                     "s_blocks_per_group 32768 is more than the 16384 bits"},
        HostileField{"LogBlockSizeOfOneMore", at(ext_super::kLogBlockSize), 3, 4, End::AllUsed, "block bitmap"},
        HostileField{"LogBlockSizeOf6", at(ext_super::kLogBlockSize), 6, 4, End::AllUsed, "block bitmap"},
        HostileField{"LogClusterSizeOf0", at(kExtLogClusterSize), 0, 4, End::Right},
        HostileField{"LogClusterSizeOf31", at(kExtLogClusterSize), 31, 4, End::Right},
        HostileField{"LogClusterSizeOfAllOnes", at(kExtLogClusterSize), 0xFFFFFFFF, 4, End::Right},
        HostileField{"OneBlock", at(ext_super::kBlocksCountLow), 1, 4, End::AllUsed,
                     "puts its block bitmap at block 2, where none can be (the volume has 1 blocks)"},
        HostileField{"FewerBlocks", at(ext_super::kBlocksCountLow), 99000, 4, End::Doubted, "in group 3"},
        HostileField{"OneBlockMore", at(ext_super::kBlocksCountLow), 100001, 4, End::Doubted, "ends at byte 409600000"},
        HostileField{"OneGroupMore", at(ext_super::kBlocksCountLow), 131073, 4, End::AllUsed,
                     "the descriptor of group 4 puts its block bitmap at block 0"},
        HostileField{"BlocksOfAllOnes", at(ext_super::kBlocksCountLow), 0xFFFFFFFF, 4, End::AllUsed,
                     "the descriptor of group 0 puts its block bitmap at block 2"},
        HostileField{"HighBlocksWithout64Bit", at(ext_super::kBlocksCountHigh), 0xFFFFFFFF, 4, End::Right},
        HostileField{"FirstDataBlockOf1", at(ext_super::kFirstDataBlock), 1, 4, End::AllUsed,
                     "s_first_data_block is 1"},
        HostileField{"FirstDataBlockAtTheEnd", at(ext_super::kFirstDataBlock), 100000, 4, End::AllUsed,
                     "s_first_data_block is 100000"},
        HostileField{"FirstDataBlockOfAllOnes", at(ext_super::kFirstDataBlock), 0xFFFFFFFF, 4, End::AllUsed,
                     "s_first_data_block is 4294967295"}),
    [](auto const& instance) { return hostileName(instance); });

INSTANTIATE_TEST_SUITE_P(
    Groups, ExtHostileField,
    testing::Values(
        HostileField{"BlocksOf7", at(ext_super::kBlocksPerGroup), 7, 4, End::AllUsed, "differ"},
        HostileField{"BlocksOfNoWholeBytes", at(ext_super::kBlocksPerGroup), 32761, 4, End::AllUsed, "differ"},
        HostileField{"BlocksOfMoreThanABitmap", at(ext_super::kBlocksPerGroup), 32769, 4, End::AllUsed,
                     "s_blocks_per_group 32769 is more than the 32768 bits"},
        HostileField{"BlocksOfAllOnes", at(ext_super::kBlocksPerGroup), 0xFFFFFFFF, 4, End::AllUsed, "is more than"},
        HostileField{"ClustersOfHalf", at(kClustersPerGroupField), 16384, 4, End::AllUsed, "differ"},
        HostileField{"NoInodes", at(kExtInodesPerGroup), 0, 4, End::Right},
        HostileField{"InodesOfMoreThanABitmap", at(kExtInodesPerGroup), 32769, 4, End::Doubted, "the map calls unit"},
        HostileField{"InodesOfAllOnes", at(kExtInodesPerGroup), 0xFFFFFFFF, 4, End::Doubted, "the map calls unit"},
        HostileField{"InodeSizeOf0", at(kExtInodeSize), 0, 2, End::Right},
        HostileField{"InodeSizeOf127", at(kExtInodeSize), 127, 2, End::Right},
        HostileField{"InodeSizeOfMoreThanABlock", at(kExtInodeSize), 8192, 2, End::Doubted, "the map calls unit"},
        HostileField{"InodeSizeOfAllOnes", at(kExtInodeSize), 0xFFFF, 2, End::Doubted, "the map calls unit"},
        HostileField{"ReservedTableBlocksOfAllOnes", at(kExtReservedTableBlocks), 0xFFFF, 2, End::Right},
        HostileField{"LogGroupsPerFlexOf32", at(kExtLogGroupsPerFlex), 32, 1, End::Right},
        HostileField{"LogGroupsPerFlexOf255", at(kExtLogGroupsPerFlex), 255, 1, End::Right},
        HostileField{"FirstMetaGroupOfAllOnes", at(kExtFirstMetaGroup), 0xFFFFFFFF, 4, End::Right}),
    [](auto const& instance) { return hostileName(instance); });

INSTANTIATE_TEST_SUITE_P(
    Features, ExtHostileField,
    testing::Values(
        HostileField{"Revision0", at(kExtRevision), 0, 4, End::Right},
        HostileField{"RevisionOfAllOnes", at(kExtRevision), 0xFFFFFFFF, 4, End::Right},
        HostileField{"Unknown", at(ext_super::kIncompatibleFeatures), 0x80000000, 4, End::AllUsed, "(0x80000000)"},
        HostileField{"JournalDevice", at(ext_super::kIncompatibleFeatures), 0x8, 4, End::AllUsed, "journal_dev"},
        HostileField{"MetaGroups", at(ext_super::kIncompatibleFeatures), 0x10, 4, End::AllUsed, "meta_bg"},
        HostileField{"NeedsRecovery", at(ext_super::kIncompatibleFeatures), 0x4, 4, End::Right},
        HostileField{"MultipleMounts", at(ext_super::kIncompatibleFeatures), 0x100, 4, End::Right},
        HostileField{"Numbers64WithoutASize", at(ext_super::kIncompatibleFeatures), 0x80, 4, End::AllUsed,
                     "s_desc_size is 0"},
        HostileField{"Bigalloc", at(ext_super::kReadOnlyFeatures), 0x201, 4, End::AllUsed, "bigalloc"},
        HostileField{"DescriptorSizeWithout64Bit", at(ext_super::kDescriptorSize), 65535, 2, End::Right},
        HostileField{"NotUnmounted", at(kExtState), 0, 2, End::Right},
        HostileField{"WithErrors", at(kExtState), 3, 2, End::Right},
        HostileField{"FreeBlocksOfTheVolume", at(kExtFreeBlocks), 0xFFFFFFFF, 4, End::Right},
        HostileField{"ChecksumType", at(kExtChecksumType), 255, 1, End::Right},
        HostileField{"Checksum", at(kExtChecksum), 0xDEADBEEF, 4, End::Right}),
    [](auto const& instance) { return hostileName(instance); });

class ExtHostileFieldOf64Bit : public testing::TestWithParam<HostileField> {};

TEST_P(ExtHostileFieldOf64Bit, HasItsEnd) {
    expectExtEnd(makeHostileExt(true), GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, ExtHostileFieldOf64Bit,
    testing::Values(
        HostileField{"NoDescriptor", at(ext_super::kDescriptorSize), 0, 2, End::AllUsed, "s_desc_size is 0"},
        HostileField{"DescriptorOf1", at(ext_super::kDescriptorSize), 1, 2, End::AllUsed, "s_desc_size is 1"},
        HostileField{"DescriptorOf33", at(ext_super::kDescriptorSize), 33, 2, End::AllUsed, "s_desc_size is 33"},
        HostileField{"DescriptorOf32", at(ext_super::kDescriptorSize), 32, 2, End::AllUsed, "s_desc_size is 32"},
        HostileField{"DescriptorOf128", at(ext_super::kDescriptorSize), 128, 2, End::AllUsed, "block bitmap"},
        HostileField{"DescriptorOf65535", at(ext_super::kDescriptorSize), 65535, 2, End::AllUsed, "65535"},
        HostileField{"WithoutTheFeature", at(ext_super::kIncompatibleFeatures), 0, 4, End::AllUsed, "block bitmap"},
        HostileField{"HighBlocks", at(ext_super::kBlocksCountHigh), 0xFFFFFFFF, 4, End::Error, "s_blocks_count"},
        HostileField{"BlocksPast32Bits", at(ext_super::kBlocksCountHigh), 1, 4, End::AllUsed,
                     "is more than the 4294967295 blocks"}),
    [](auto const& instance) { return hostileName(instance); });

class ExtHostileGroupSize : public testing::TestWithParam<std::uint32_t> {};

TEST_P(ExtHostileGroupSize, OfBlocksAndClustersAlikeLosesNothing) {
    ExtBuilder builder = makeHostileExt();
    setGroupSize(builder, GetParam());
    expectNothingLost(askForExtMap(builder), makeHostileExt().map(), 4096);
}

INSTANTIATE_TEST_SUITE_P(Sizes, ExtHostileGroupSize,
                         testing::Values(0U, 1U, 7U, 8U, 16384U, 32760U, 32761U, 32767U, 0xFFFFFFFFU),
                         [](auto const& instance) { return std::to_string(instance.param); });

TEST(ExtHostileBackups, InGroupsThatAreNotThereAreNotSought) {
    ExtBuilder builder = makeHostileExt();
    builder.setSuper32(kExtCompatible, 0x200).setSuper32(0x24C, 4).setSuper32(0x250, 0xFFFFFFFF);
    expectEnd(askForExtMap(builder), End::Right, "", makeHostileExt().map(), 4096);
}

TEST(ExtHostileBackups, ThatAreNewerAreNotLookedAt) {
    ExtBuilder builder = makeHostileExt();
    builder.resize(std::uint64_t{32769} * 4096);
    auto const backup = builder.bytes.begin() + std::ptrdiff_t{32768} * 4096;
    std::copy_n(builder.bytes.begin() + kExtSuperBlockOffset, 1024, backup);
    std::fill_n(backup + 0x30, 4, std::uint8_t{0xFF}); // when it was written
    std::fill_n(backup + 0x04, 4, std::uint8_t{0x11}); // blocks
    expectEnd(askForExtMap(builder), End::Right, "", makeHostileExt().map(), 4096);
}

} // namespace
