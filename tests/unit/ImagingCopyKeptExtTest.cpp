// Copies of ext volumes: what is taken along although the map calls it free, and that nothing else is.
#include "imaging/copy/CopyVolume.h"
#include "support/Files.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <set>

namespace {

using namespace tests;
using testing::IsEmpty;

constexpr std::uint64_t kInodesPerGroup = 0x28;
constexpr std::uint64_t kState = 0x3A;
constexpr std::uint64_t kRevision = 0x4C;
constexpr std::uint64_t kInodeSize = 0x58;
constexpr std::uint64_t kCompatible = 0x5C;
constexpr std::uint64_t kReadOnlyCompatible = 0x64;
constexpr std::uint64_t kReservedTableBlocks = 0xCE;
constexpr std::uint64_t kBackupGroups = 0x24C;
constexpr std::uint64_t kInodeBitmap = 0x04;
constexpr std::uint64_t kInodeTable = 0x08;

constexpr std::uint32_t kSparseSuper = 0x1;
constexpr std::uint32_t kSparseSuper2 = 0x200;

/// A volume that uses its own structures only, whose free space is noise, and its copy.
class ImagingCopyKeptExt : public testing::Test {
protected:
    static ExtBuilder makeBuilder(ExtGeometry const& geometry, std::uint32_t readOnlyCompatible) {
        ExtBuilder builder = makeSoundExtVolume(geometry);
        return builder.setSuper16(kState, 1)
            .setSuper32(kRevision, 1)
            .setSuper32(kInodesPerGroup, 64)
            .setSuper16(kInodeSize, 128)
            .setSuper32(kReadOnlyCompatible, readOnlyCompatible | ext_super::kChecksummedDescriptors);
    }

    static void putDescriptor(ExtBuilder& builder, std::uint64_t group, std::uint64_t field, std::uint32_t block) {
        for (unsigned i = 0; i < 4; ++i) {
            builder.bytes.at(builder.geometry().descriptorOffset(group) + field + i) =
                static_cast<std::uint8_t>(block >> (8 * i));
        }
    }

    /// Writes the volume with noise wherever the builder put nothing, and copies it.
    void copy(ExtBuilder const& builder) {
        ExtGeometry const& geometry = builder.geometry();
        source = builder.bytes;
        std::mt19937 generator(7);
        for (std::uint64_t i = 0; i < source.size() && i < kExtSuperBlockOffset; ++i) {
            source[i] = static_cast<std::uint8_t>(generator() | 1U); // the boot block
        }
        std::uint64_t const size = geometry.blocksCount * geometry.blockBytes() + bytesBehind;
        std::uint64_t const built = source.size();
        source.resize(size);
        for (std::uint64_t i = built; i < size; ++i) {
            source[i] = static_cast<std::uint8_t>(generator() | 1U);
        }
        writeFile(path, source);
        RecordingLogger logger;
        imaging::Volume volume(path, 0, logger);
        imaging::CopyPlan plan(volume, imaging::VolumeMap::Refused::IsError, 0);
        imaging::FileSource const file(path, size);
        std::string const output = directory.file("copy");
        imaging::FileDestination destination(output, path, size, imaging::OutputFile::Existing::IsReplaced);
        report = imaging::copyVolume(plan, file, destination, path, size, false, {});
        copied = readFile(output);
    }

    /// The blocks that arrived. Those that did not must be zeros, as they are noise in the source.
    std::set<std::uint64_t> blocksCopied(std::uint64_t blockBytes) const {
        std::set<std::uint64_t> blocks;
        EXPECT_EQ(copied.size(), source.size());
        for (std::uint64_t at = 0; at < copied.size(); at += blockBytes) {
            auto const from = static_cast<std::ptrdiff_t>(at);
            auto const to = static_cast<std::ptrdiff_t>(std::min<std::uint64_t>(at + blockBytes, copied.size()));
            if (std::equal(copied.begin() + from, copied.begin() + to, source.begin() + from)) {
                blocks.insert(at / blockBytes);
            } else {
                EXPECT_TRUE(std::all_of(copied.begin() + from, copied.begin() + to, [](auto b) { return b == 0; }))
                    << "block " << at / blockBytes << " is neither copied nor left out";
            }
        }
        return blocks;
    }

    std::uint64_t bytesBehind = 0;
    TempDirectory directory;
    std::string path = directory.file("volume");
    std::vector<std::uint8_t> source;
    std::vector<std::uint8_t> copied;
    imaging::CopyReport report;
};

void addBlocks(std::set<std::uint64_t>& blocks, std::uint64_t first, std::uint64_t count) {
    for (std::uint64_t block = first; block < first + count; ++block) {
        blocks.insert(block);
    }
}

/// Sixty groups of 256 blocks of 1 KiB, with copies of two blocks of descriptors and three reserved ones.
constexpr ExtGeometry kManyGroups{0, 1, 256, 1 + 60 * 256, false, 0};
constexpr std::uint64_t kCopyBlocks = 1 + 2 + 3;

/// What is kept of it beside the copies: the boot block and each group's own bitmap, inode bitmap and inode table.
class ImagingCopyKeptExtCopies : public ImagingCopyKeptExt {
protected:
    static ExtBuilder makeVolume(std::uint32_t readOnlyCompatible) {
        ExtBuilder builder = makeBuilder(kManyGroups, readOnlyCompatible);
        builder.setSuper16(kReservedTableBlocks, 3);
        for (std::uint64_t group = 0; group < kManyGroups.groups(); ++group) {
            putDescriptor(builder, group, kInodeBitmap, builder.bitmapBlock(group));
            putDescriptor(builder, group, kInodeTable, builder.bitmapBlock(group));
            builder.setUsedFrom(builder.bitmapBlock(group), 8); // 64 inodes of 128 bytes
        }
        return builder;
    }

    /// Copies, and expects these groups' copies of the superblock, and nothing beside what every volume keeps.
    void expectCopiesOf(std::vector<std::uint64_t> const& groups, ExtBuilder const& builder) {
        copy(builder);
        std::set<std::uint64_t> expected{0};
        for (std::uint64_t const group : groups) {
            addBlocks(expected, 1 + group * 256, kCopyBlocks);
        }
        std::uint64_t used = 0;
        for (std::uint64_t block = 0; block < kManyGroups.blocksCount; ++block) {
            used += builder.isUsed(block) ? 1U : 0U;
            expected.merge(builder.isUsed(block) ? std::set{block} : std::set<std::uint64_t>());
        }
        EXPECT_EQ(blocksCopied(1024), expected);
        EXPECT_EQ(report.totals, (imaging::CopyTotals{used * 1024, (expected.size() - used) * 1024,
                                                      source.size() - expected.size() * 1024}));
        EXPECT_THAT(report.warnings, IsEmpty());
    }
};

TEST_F(ImagingCopyKeptExtCopies, OfSparseSuperblocksAreKeptInGroups0And1AndPowersOf3And5And7) {
    expectCopiesOf({0, 1, 3, 5, 7, 9, 25, 27, 49}, makeVolume(kSparseSuper));
}

TEST_F(ImagingCopyKeptExtCopies, OfTheSuperblockAreKeptInEveryGroupOfAnOldVolume) {
    std::vector<std::uint64_t> groups(kManyGroups.groups());
    for (std::uint64_t group = 0; group < groups.size(); ++group) {
        groups[group] = group;
    }
    expectCopiesOf(groups, makeVolume(0));
}

TEST_F(ImagingCopyKeptExtCopies, OfSparseSuper2AreKeptInTheTwoGroupsThatTheSuperblockNames) {
    ExtBuilder builder = makeVolume(kSparseSuper);
    builder.setSuper32(kCompatible, kSparseSuper2).setSuper32(kBackupGroups, 4);
    expectCopiesOf({0, 4, 59}, builder.setSuper32(kBackupGroups + 4, 59));
}

TEST_F(ImagingCopyKeptExtCopies, OfSparseSuper2AreNotSoughtWhereTheSuperblockNamesNone) {
    expectCopiesOf({0}, makeVolume(kSparseSuper).setSuper32(kCompatible, kSparseSuper2));
}

TEST_F(ImagingCopyKeptExtCopies, AreKeptInGroupsWhoseBitmapIsNotInitialised) {
    ExtBuilder builder = makeVolume(kSparseSuper);
    for (std::uint64_t group = 1; group < kManyGroups.groups(); ++group) {
        // The bits say "used" and count for nothing.
        builder.setUsedFrom(1 + group * 256, 256).setFlags(group, ext_group::kBlocksUninitialised);
        builder.setFreeBlocks(group, 256);
    }
    expectCopiesOf({0, 1, 3, 5, 7, 9, 25, 27, 49}, builder);
}

TEST_F(ImagingCopyKeptExt, MetadataOfOtherGroupsInAGroupThatIsNotInitialisedIsKept) {
    ExtBuilder builder = makeBuilder({}, kSparseSuper);
    // As flex_bg does it: all three groups keep theirs in group 2, whose own bitmap is not initialised.
    constexpr std::uint32_t kFirst = 17000;
    std::set<std::uint64_t> expected{0};
    addBlocks(expected, 1, 2);    // superblock and descriptors
    addBlocks(expected, 8193, 2); // and their copy in group 1
    addBlocks(expected, builder.bitmapBlock(0), 3);
    for (std::uint32_t group = 0; group < 3; ++group) {
        putDescriptor(builder, group, kInodeBitmap, kFirst + group);
        putDescriptor(builder, group, kInodeTable, kFirst + 100 + 8 * group);
    }
    addBlocks(expected, kFirst, 3);
    addBlocks(expected, kFirst + 100, 24);
    copy(builder.setFlags(2, ext_group::kBlocksUninitialised | ext_group::kInodesUninitialised));
    EXPECT_EQ(blocksCopied(1024), expected);
    EXPECT_THAT(report.warnings, IsEmpty());
}

TEST_F(ImagingCopyKeptExt, ABitmapThatLiesInAGroupThatIsNotInitialisedIsKept) {
    ExtBuilder builder = makeBuilder({}, kSparseSuper);
    builder.setSuper32(kInodesPerGroup, 0).setFlags(2, ext_group::kBlocksUninitialised);
    std::uint64_t const before = builder.bitmapOffset(2);
    std::fill_n(builder.bytes.begin() + static_cast<std::ptrdiff_t>(before), 1024, std::uint8_t{0xFF});
    builder.setBitmapLocation(2, 19'000); // in group 2 itself, and no longer where the builder put it
    copy(builder);
    EXPECT_EQ(blocksCopied(1024), (std::set<std::uint64_t>{0, 1, 2, 3, 4, 5, 8193, 8194, 19'000}));
}

TEST_F(ImagingCopyKeptExt, BytesBehindTheLastBlockAreKept) {
    ExtBuilder const builder = makeBuilder({}, kSparseSuper);
    bytesBehind = 3000;
    copy(builder);
    EXPECT_TRUE(std::equal(copied.end() - 3000, copied.end(), source.end() - 3000));
    std::set<std::uint64_t> const blocks = blocksCopied(1024);
    EXPECT_TRUE(blocks.contains(20000));
    EXPECT_TRUE(blocks.contains(20002));
    EXPECT_FALSE(blocks.contains(19999));
}

TEST_F(ImagingCopyKeptExt, UsedBlocksAndKeptOnesAreCountedApart) {
    ExtBuilder builder = makeBuilder({}, kSparseSuper);
    builder.setSuper32(kInodesPerGroup, 0).setUsedFrom(1, 5).setUsedFrom(15000, 3000);
    copy(builder);
    std::set<std::uint64_t> expected{0, 8193, 8194};
    addBlocks(expected, 1, 5);
    addBlocks(expected, 15000, 3000);
    EXPECT_EQ(blocksCopied(1024), expected);
    EXPECT_EQ(report.totals.used, 3005U * 1024);
    EXPECT_EQ(report.totals.kept, 3U * 1024);
    EXPECT_EQ(report.totals.taken() + report.totals.free, source.size());
    EXPECT_EQ(report.result.copied, report.totals.taken());
}

TEST_F(ImagingCopyKeptExt, AVolumeOfWhichNothingIsBelievedIsCopiedWhole) {
    ExtBuilder builder = makeBuilder({}, kSparseSuper);
    copy(builder.setSuper32(ext_super::kIncompatibleFeatures, 0x10));
    EXPECT_TRUE(copied == source);
    ASSERT_EQ(report.warnings.size(), 1U);
    EXPECT_THAT(report.warnings.front(), testing::HasSubstr("meta_bg (0x10)"));
    EXPECT_EQ(report.totals.used, source.size());
}

} // namespace
