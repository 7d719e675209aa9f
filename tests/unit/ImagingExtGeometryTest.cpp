// The ext superblock as imaging reads it: units, and one changed field for each reason not to believe the parser.
#include "imaging/ext/ExtGeometry.h"

#include "imaging/Error.h"
#include "support/Files.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fmt/format.h>
#include <functional>

namespace {

using imaging::Geometry;
using namespace tests;
using testing::HasSubstr;
using testing::StartsWith;

constexpr std::uint64_t kReadOnlyCompatible = 0x64;

/// Three groups of 1 KiB blocks, with one thing changed.
ExtBuilder changed(std::function<void(ExtBuilder&)> const& change) {
    ExtBuilder builder = makeSoundExtVolume();
    auto const before = builder.bytes;
    change(builder);
    EXPECT_NE(builder.bytes, before) << "the change changes something";
    return builder;
}

/// What imaging makes of a volume's superblock; the file holds the builder's bytes and no more.
Geometry geometryOf(ExtBuilder const& builder) {
    TempDirectory const directory;
    RecordingLogger logger;
    imaging::Volume volume(writeFile(directory.file("volume"), builder.bytes), 0, logger);
    return imaging::ext::readGeometry(volume);
}

/// The reason not to believe the parser, or "believed".
std::string reasonOf(ExtBuilder const& builder) {
    return geometryOf(builder).notBelieved.value_or("believed");
}

std::string incompatibleReason(std::uint32_t features) {
    return reasonOf(changed([features](ExtBuilder& b) {
        b.setSuper32(ext_super::kIncompatibleFeatures, features);
        b.setSuper16(ext_super::kDescriptorSize, 64);
    }));
}

/// The sentence with which a superblock is refused, without the path.
std::string refusalOf(ExtBuilder const& builder) {
    TempDirectory const directory;
    RecordingLogger logger;
    std::string const path = writeFile(directory.file("volume"), builder.bytes);
    imaging::Volume volume(path, 0, logger);
    try {
        imaging::ext::readGeometry(volume);
        return "accepted";
    } catch (imaging::VolumeError const& error) {
        EXPECT_EQ(error.trouble(), imaging::Trouble::NotUnderstood);
        EXPECT_THAT(error.what(), StartsWith(path + ": "));
        return std::string(error.what()).substr(path.size() + 2);
    }
}

TEST(ImagingExtGeometry, UnitsAreTheBlocks) {
    Geometry const geometry = geometryOf(makeSoundExtVolume());
    EXPECT_EQ(geometry.unitSize, 1024U);
    EXPECT_EQ(geometry.units, 20000U);
    EXPECT_EQ(geometry.notBelieved, std::nullopt);
    Geometry const larger = geometryOf(makeSoundExtVolume(ExtGeometry::with4KiBBlocks(100000)));
    EXPECT_EQ(larger.unitSize, 4096U);
    EXPECT_EQ(larger.units, 100000U);
    EXPECT_EQ(larger.notBelieved, std::nullopt);
}

TEST(ImagingExtGeometry, EveryBlockSizeOfTheFormatIsTaken) {
    for (std::uint32_t log = 1; log <= 6; ++log) {
        Geometry const geometry =
            geometryOf(changed([log](ExtBuilder& b) { b.setSuper32(ext_super::kLogBlockSize, log); }));
        EXPECT_EQ(geometry.unitSize, std::uint64_t{1024} << log);
        EXPECT_EQ(geometry.units, 20000U);
    }
}

TEST(ImagingExtGeometry, ALargerBlockSizeIsRefused) {
    for (std::uint32_t const log : {7U, 21U, 31U, 32U, 0xFFFFFFF7U, 0xFFFFFFFFU}) {
        EXPECT_EQ(refusalOf(changed([log](ExtBuilder& b) { b.setSuper32(ext_super::kLogBlockSize, log); })),
                  "the ext superblock at byte 1024 describes no volume: s_log_block_size is " + std::to_string(log) +
                      ", and blocks go up to 6 (64 KiB)");
    }
}

TEST(ImagingExtGeometry, NoBlocksAreRefused) {
    EXPECT_EQ(refusalOf(changed([](ExtBuilder& b) { b.setSuper32(ext_super::kBlocksCountLow, 0); })),
              "the ext superblock at byte 1024 describes no volume: s_blocks_count is 0");
}

/// A volume with 64-bit numbers whose count of blocks has these high bits.
ExtBuilder withBlocksHigh(std::uint32_t high) {
    return changed([high](ExtBuilder& b) {
        b.setSuper32(ext_super::kIncompatibleFeatures, kExt64Bit);
        b.setSuper16(ext_super::kDescriptorSize, 64);
        b.setSuper32(ext_super::kBlocksCountHigh, high);
    });
}

TEST(ImagingExtGeometry, TheHighBitsOfTheCountMatterOnlyWith64BitNumbers) {
    EXPECT_EQ(geometryOf(withBlocksHigh(1)).units, (std::uint64_t{1} << 32) + 20000);
    EXPECT_EQ(geometryOf(changed([](ExtBuilder& b) { b.setSuper32(ext_super::kBlocksCountHigh, 1); })).units, 20000U);
}

TEST(ImagingExtGeometry, MoreBlocksThanTheMapCanNumberAreNotBelieved) {
    EXPECT_EQ(reasonOf(withBlocksHigh(0)), "believed");
    EXPECT_EQ(reasonOf(withBlocksHigh(1)),
              "s_blocks_count 4294987296 is more than the 4294967295 blocks that the map can number");
    EXPECT_EQ(reasonOf(changed([](ExtBuilder& b) { b.setSuper32(ext_super::kBlocksCountLow, 0xFFFFFFFF); })),
              "believed");
}

TEST(ImagingExtGeometry, AVolumeOfMoreThan63BitsIsRefused) {
    // 2^53 blocks of 1 KiB are 2^63 bytes.
    EXPECT_EQ(refusalOf(withBlocksHigh(0x00200000)),
              "the ext superblock at byte 1024 describes no volume: s_blocks_count is 9007199254760992");
    EXPECT_EQ(refusalOf(withBlocksHigh(0xFFFFFFFF)),
              "the ext superblock at byte 1024 describes no volume: s_blocks_count is 18446744069414604320");
    EXPECT_EQ(geometryOf(withBlocksHigh(0x001FFFFF)).units, (std::uint64_t{0x001FFFFF} << 32) + 20000);
}

TEST(ImagingExtGeometry, AJournalDeviceIsNotBelieved) {
    EXPECT_EQ(incompatibleReason(0x8), "s_feature_incompat 0x8 has journal_dev (0x8): this is a journal device, which "
                                       "has no block bitmaps");
}

TEST(ImagingExtGeometry, DescriptorsInManyPlacesAreNotBelieved) {
    EXPECT_EQ(incompatibleReason(0x52),
              "s_feature_incompat 0x52 has meta_bg (0x10): the group descriptors do not stand in one table");
}

TEST(ImagingExtGeometry, ClustersAreNotBelieved) {
    EXPECT_EQ(reasonOf(changed([](ExtBuilder& b) { b.setSuper32(kReadOnlyCompatible, 0x246); })),
              "s_feature_ro_compat 0x246 has bigalloc (0x200): a bit of the bitmaps stands for a cluster of several "
              "blocks");
}

TEST(ImagingExtGeometry, OtherReadOnlyFeaturesAreBelieved) {
    EXPECT_EQ(reasonOf(changed([](ExtBuilder& b) { b.setSuper32(kReadOnlyCompatible, 0xFFFFFDFF); })), "believed");
}

TEST(ImagingExtGeometry, GroupsLargerThanABitmapBlockAreNotBelieved) {
    auto const withGroups = [](std::uint32_t blocks) {
        return changed([blocks](ExtBuilder& b) { setGroupSize(b, blocks); });
    };
    EXPECT_EQ(reasonOf(withGroups(8191)), "believed");
    EXPECT_EQ(reasonOf(withGroups(8193)),
              "s_blocks_per_group 8193 is more than the 8192 bits that a bitmap block holds");
    EXPECT_EQ(reasonOf(withGroups(0xFFFFFFFF)),
              "s_blocks_per_group 4294967295 is more than the 8192 bits that a bitmap block holds");
}

TEST(ImagingExtGeometry, EveryFeatureThatIsNotKnownIsNotBelieved) {
    for (unsigned bit : {5U, 11U, 18U, 19U, 20U, 24U, 31U}) {
        std::uint32_t const feature = 1U << bit;
        EXPECT_EQ(incompatibleReason(feature | 0x2),
                  fmt::format("s_feature_incompat 0x{:x} has a feature that is not known here (0x{:x}): the bitmaps "
                              "may lie elsewhere or mean something else",
                              feature | 0x2, feature));
    }
}

TEST(ImagingExtGeometry, EveryFeatureThatLeavesTheBitmapsAloneIsBelieved) {
    // compression, filetype, recover, extents, 64bit, mmp, flex_bg, ea_inode, dirdata, csum_seed, largedir,
    // inline_data, encrypt, casefold
    for (unsigned bit : {0U, 1U, 2U, 6U, 7U, 8U, 9U, 10U, 12U, 13U, 14U, 15U, 16U, 17U}) {
        EXPECT_EQ(incompatibleReason(1U << bit), "believed") << "bit " << bit;
    }
}

TEST(ImagingExtGeometry, AFirstDataBlockThatDoesNotFitTheBlockSizeIsNotBelieved) {
    auto const withFirst = [](std::uint32_t log, std::uint32_t first) {
        return reasonOf(changed([=](ExtBuilder& b) {
            b.setSuper32(ext_super::kLogBlockSize, log);
            b.setSuper32(ext_super::kFirstDataBlock, first);
            setGroupSize(b, 8000);
        }));
    };
    EXPECT_EQ(withFirst(0, 1), "believed");
    EXPECT_EQ(withFirst(2, 0), "believed");
    EXPECT_EQ(withFirst(0, 0), "s_first_data_block is 0, and with blocks of 1024 bytes it must be 1: the groups cannot "
                               "be told apart");
    EXPECT_EQ(withFirst(0, 20000), "s_first_data_block is 20000, and with blocks of 1024 bytes it must be 1: the "
                                   "groups cannot be told apart");
    EXPECT_EQ(withFirst(2, 1), "s_first_data_block is 1, and with blocks of 4096 bytes it must be 0: the groups cannot "
                               "be told apart");
}

TEST(ImagingExtGeometry, ClustersThatDifferFromBlocksAreNotBelieved) {
    EXPECT_EQ(reasonOf(changed([](ExtBuilder& b) { b.setSuper32(kClustersPerGroupField, 8191); })),
              "s_blocks_per_group 8192 and s_clusters_per_group 8191 differ: the groups cannot be told apart");
}

TEST(ImagingExtGeometry, ADescriptorSizeThat64BitNumbersDoNotHaveIsNotBelieved) {
    auto const withSize = [](std::uint16_t size) {
        return reasonOf(changed([size](ExtBuilder& b) {
            b.setSuper32(ext_super::kIncompatibleFeatures, kExt64Bit);
            b.setSuper16(ext_super::kDescriptorSize, size);
        }));
    };
    for (unsigned const size : {64U, 128U, 1024U}) {
        EXPECT_EQ(withSize(static_cast<std::uint16_t>(size)), "believed") << size;
    }
    for (unsigned const size : {0U, 1U, 32U, 63U, 65U, 65535U}) {
        EXPECT_EQ(withSize(static_cast<std::uint16_t>(size)),
                  "s_desc_size is " + std::to_string(size) +
                      ", and with 64bit it is a power of two from 64 on: the "
                      "group descriptors cannot be told apart");
    }
    EXPECT_EQ(reasonOf(changed([](ExtBuilder& b) { b.setSuper16(ext_super::kDescriptorSize, 33); })), "believed")
        << "without 64bit the field means nothing";
}

TEST(ImagingExtGeometry, OfSeveralReasonsOneIsTold) {
    EXPECT_THAT(incompatibleReason(0x80000018), HasSubstr("journal_dev"));
}

TEST(ImagingExtGeometry, ASuperblockThatIsCutOffIsRefused) {
    for (std::size_t const size : {1536U, 1900U, 2047U}) {
        EXPECT_EQ(refusalOf(changed([size](ExtBuilder& b) { b.resize(size); })),
                  "ends at byte " + std::to_string(size) + ", inside the ext superblock (bytes 1024 to 2047)");
    }
    EXPECT_EQ(geometryOf(changed([](ExtBuilder& b) { b.resize(2048); })).units, 20000U);
}

} // namespace
