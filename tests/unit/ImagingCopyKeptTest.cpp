// Copies of NTFS, FAT32, HFS+ and XFS volumes: what is taken along although the map calls it free, and nothing else.
#include "imaging/copy/CopyVolume.h"
#include "support/FatBuilder.h"
#include "support/Files.h"
#include "support/HfsBuilder.h"
#include "support/NtfsBuilder.h"
#include "support/RecordingLogger.h"
#include "support/XfsBuilder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

namespace {

using namespace tests;
using imaging::ByteRange;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// A volume, its copy, and what the copy must hold.
class ImagingCopyKept : public testing::Test {
protected:
    /// Copies the bytes.
    void copy(std::vector<std::uint8_t> volumeBytes) {
        source = std::move(volumeBytes);
        writeFile(path, source);
        RecordingLogger logger;
        imaging::Volume volume(path, 0, logger);
        imaging::CopyPlan plan(volume, imaging::VolumeMap::Refused::IsError, 0);
        imaging::FileSource const file(path, source.size());
        std::string const output = directory.file("copy");
        imaging::FileDestination destination(output, path, source.size(), imaging::OutputFile::Existing::IsReplaced);
        report = imaging::copyVolume(plan, file, destination, path, source.size(), false, {});
        copied = readFile(output);
    }

    /// Expects the units of a map and the kept ranges, and zeros everywhere else.
    void expectCopied(std::vector<bool> const& map, std::uint64_t start, std::uint64_t unit,
                      std::vector<ByteRange> const& kept) {
        std::vector<std::uint8_t> expected(source.size());
        auto const take = [&](std::uint64_t begin, std::uint64_t end) {
            for (std::uint64_t i = begin; i < std::min<std::uint64_t>(end, source.size()); ++i) {
                expected[i] = source[i];
            }
        };
        for (std::uint64_t i = 0; i < map.size(); ++i) {
            if (map[i]) {
                take(start + i * unit, start + (i + 1) * unit);
            }
        }
        for (ByteRange const& range : kept) {
            take(range.begin, range.end);
        }
        ASSERT_EQ(copied.size(), expected.size());
        auto const at = std::mismatch(copied.begin(), copied.end(), expected.begin()).first - copied.begin();
        EXPECT_TRUE(copied == expected) << "first at byte " << at;
        EXPECT_FALSE(copied == source) << "nothing was left out";
        EXPECT_EQ(report.totals.taken() + report.totals.free, source.size());
    }

    /// Makes bytes that no hole can be mistaken for.
    static void addNoise(std::vector<std::uint8_t>& bytes, std::uint64_t begin, std::uint64_t end) {
        std::mt19937 generator(static_cast<unsigned>(begin));
        for (std::uint64_t i = begin; i < end; ++i) {
            bytes.at(i) = static_cast<std::uint8_t>(generator() | 1U);
        }
    }

    /// The same in every unit that a map calls free.
    static void addNoise(std::vector<std::uint8_t>& bytes, std::vector<bool> const& map, std::uint64_t unit) {
        for (std::uint64_t i = 0; i < map.size(); ++i) {
            if (!map[i]) {
                addNoise(bytes, i * unit, std::min<std::uint64_t>((i + 1) * unit, bytes.size()));
            }
        }
    }

    TempDirectory directory;
    std::string path = directory.file("volume");
    std::vector<std::uint8_t> source;
    std::vector<std::uint8_t> copied;
    imaging::CopyReport report;
};

std::vector<bool> mapOf(NtfsBuilder const& builder) {
    std::vector<bool> map;
    for (std::uint64_t i = 0; i < builder.geometry().clusters; ++i) {
        map.push_back(builder.isUsed(i));
    }
    return map;
}

TEST_F(ImagingCopyKept, TheNtfsBackupBootSectorBehindTheLastClusterIsKept) {
    NtfsBuilder builder = NtfsBuilder::standard();
    std::uint64_t const end = builder.geometry().clusters * 4096;
    ASSERT_EQ(builder.bytes.size(), end + 512);
    addNoise(builder.bytes, mapOf(builder), 4096);
    copy(builder.bytes);
    expectCopied(mapOf(builder), 0, 4096, {{end, end + 512}});
    EXPECT_EQ(report.totals.kept, 512U);
    EXPECT_TRUE(std::equal(copied.end() - 512, copied.end(), copied.begin()))
        << "the copy of the boot sector is missing";
    EXPECT_THAT(report.warnings, IsEmpty());
}

TEST_F(ImagingCopyKept, EverythingBehindTheLastClusterOfNtfsIsKept) {
    NtfsBuilder builder = NtfsBuilder::standard(NtfsGeometry::withClusters(65536));
    std::uint64_t const end = builder.geometry().clusters * 65536;
    builder.bytes.resize(end + 200'001);
    addNoise(builder.bytes, mapOf(builder), 65536);
    addNoise(builder.bytes, end, builder.bytes.size());
    copy(builder.bytes);
    expectCopied(mapOf(builder), 0, 65536, {{end, end + 200'001}});
    EXPECT_EQ(report.totals.kept, 200'001U);
}

/// A FAT32 volume whose free units are noise, with bytes behind its last sector.
std::vector<std::uint8_t> withTail(FatBuilder const& builder, std::uint64_t behind) {
    std::vector<std::uint8_t> bytes = builder.bytes;
    bytes.resize(builder.geometry().totalBytes() + behind);
    std::mt19937 generator(3);
    for (std::uint64_t i = builder.geometry().dataStart() + builder.geometry().clusterBytes(); i < bytes.size(); ++i) {
        bytes[i] = static_cast<std::uint8_t>(generator() | 1U);
    }
    return bytes;
}

TEST_F(ImagingCopyKept, WhatLiesBehindTheLastSectorOfFat32IsKept) {
    FatBuilder builder(FatGeometry::tiny());
    builder.setEntry(10, fat_entry::kEndOfChain).setEntry(150, fat_entry::kEndOfChain);
    copy(withTail(builder, 5000));
    std::uint64_t const end = builder.geometry().totalBytes();
    expectCopied(builder.map(), 0, 1024, {{end, end + 5000}});
    EXPECT_EQ(report.totals.kept, 5000U);
    EXPECT_THAT(report.warnings, IsEmpty());
}

TEST_F(ImagingCopyKept, WhatLiesBehindALastSectorInsideAUnitOfFat32IsKept) {
    FatBuilder const builder(FatGeometry{512, 8, 40, 2, 2, 40 + 4 + 8 * 20 + 3, 0});
    std::uint64_t const end = builder.geometry().totalBytes();
    ASSERT_NE(end % 4096, 0U);
    copy(withTail(builder, 700));
    EXPECT_TRUE(std::equal(copied.end() - 700, copied.end(), source.end() - 700));
    EXPECT_EQ(report.totals.taken() + report.totals.free, source.size());
}

TEST_F(ImagingCopyKept, SectorsBehindTheLastClusterOfFat32AreKept) {
    // Twenty clusters, the last of which ends inside a unit, and five sectors that make no whole one.
    FatGeometry const geometry{512, 8, 33, 2, 2, 33 + 4 + 8 * 20 + 5, 0};
    FatBuilder const builder(geometry);
    std::uint64_t const endOfClusters = geometry.dataStart() + geometry.clusters() * geometry.clusterBytes();
    ASSERT_EQ(endOfClusters + std::uint64_t{5} * 512, geometry.totalBytes());
    copy(withTail(builder, 0));
    expectCopied(builder.map(), 0, 4096, {{endOfClusters, geometry.totalBytes()}});
}

TEST_F(ImagingCopyKept, BothHeadersOfHfsPlusAreKeptWithTheBootBlocksAndTheLastBlock) {
    HfsBuilder builder;
    builder.useBlocksAtRandom(4)
        .setUsed(0, false)
        .setUsed(1, false)
        .setUsed(2)
        .setUsed(4094, false)
        .setUsed(4095, false);
    std::vector<std::uint8_t> bytes = builder.image();
    addNoise(bytes, 0, 1024); // boot blocks
    std::vector<bool> map = builder.map();
    for (std::uint64_t block = 3; block < 4094; ++block) {
        if (!map[block]) {
            addNoise(bytes, block * 512, (block + 1) * 512);
        }
    }
    addNoise(bytes, 4095U * 512, 4096U * 512);
    copy(bytes);
    map[4094] = true; // the copy of the header counts as used
    expectCopied(map, 0, 512, {{0, 1024}, {4095U * 512, 4096U * 512}});
    EXPECT_EQ(report.totals.kept, 1536U);
    EXPECT_THAT(report.warnings, IsEmpty());
}

TEST_F(ImagingCopyKept, LargeBlocksThatHoldTheHeadersOfHfsPlusAreKeptWhole) {
    HfsGeometry geometry;
    geometry.blockSize = 4096;
    geometry.totalBlocks = 512;
    HfsBuilder builder(geometry);
    builder.setUsed(0).setUsed(511, false);
    std::vector<std::uint8_t> bytes = builder.image();
    addNoise(bytes, 511U * 4096, 512U * 4096 - 1024);
    addNoise(bytes, 400U * 4096, 401U * 4096);
    copy(bytes);
    ASSERT_FALSE(builder.isUsed(400));
    expectCopied(builder.map(), 0, 4096, {{511U * 4096, 512U * 4096}});
}

TEST_F(ImagingCopyKept, AnHfsPlusMapThatFreesTheHeaderIsNotTrustedAtAll) {
    HfsBuilder builder;
    builder.setUsed(0, false).setUsed(1, false).setUsed(2, false);
    std::vector<std::uint8_t> bytes = builder.image();
    addNoise(bytes, builder.map(), 512);
    HfsBuilder header = builder; // the noise went over the header
    std::copy_n(header.bytes.begin() + 1024, 512, bytes.begin() + 1024);
    copy(bytes);
    EXPECT_TRUE(copied == source);
    EXPECT_THAT(report.warnings,
                ElementsAre(HasSubstr("the map calls unit 2 free, which holds the file system's own structures"),
                            path + ": everything is copied"));
    EXPECT_EQ(report.totals, (imaging::CopyTotals{source.size(), 0, 0}));
}

TEST_F(ImagingCopyKept, TheWrapperOfHfsPlusIsKept) {
    HfsBuilder builder;
    builder.useBlocksAtRandom(5).setUsedFrom(0, 3);
    std::vector<std::uint8_t> inner = builder.image();
    std::vector<bool> const map = builder.map();
    for (std::uint64_t block = 0; block < 4094; ++block) {
        if (!map[block]) {
            addNoise(inner, block * 512, (block + 1) * 512);
        }
    }
    HfsWrapper const wrapper;
    std::uint64_t const start = wrapper.volumeOffset();
    std::vector<std::uint8_t> bytes = wrapHfsVolume(inner, wrapper);
    addNoise(bytes, 1024 + 512, start);
    addNoise(bytes, start + inner.size(), bytes.size() - 1024);
    copy(bytes);
    std::uint64_t const end = start + inner.size();
    expectCopied(map, start, 512, {{0, start}, {end - 1024, end}, {end, bytes.size()}});
    EXPECT_THAT(report.warnings, IsEmpty());
}

/// Four groups of 500 blocks, with the journal in group 1.
XfsBuilder makeXfs() {
    XfsGeometry geometry;
    geometry.totalBlocks = 2000;
    geometry.logStart = (std::uint64_t{1} << 9) + 100; // the group above the nine bits of a block of 500
    geometry.logBlocks = 50;
    XfsBuilder builder(geometry);
    for (std::uint32_t group = 0; group < 4; ++group) {
        builder.plantTree(group, {{20, 70}, {200, 290}});
    }
    return builder;
}

std::vector<std::uint8_t> noisyXfs(XfsBuilder const& builder) {
    std::vector<std::uint8_t> bytes = builder.bytes;
    std::mt19937 generator(8);
    for (std::uint64_t block = 0; block < 2000; ++block) {
        if (block % 500 >= 20 && (block < 600 || block >= 650)) {
            for (std::uint64_t i = 0; i < 512; ++i) {
                bytes[block * 512 + i] = static_cast<std::uint8_t>(generator() | 1U);
            }
        }
    }
    return bytes;
}

TEST_F(ImagingCopyKept, ASoundXfsVolumeLeavesItsFreeSpaceOut) {
    XfsBuilder const builder = makeXfs();
    copy(noisyXfs(builder));
    expectCopied(builder.map(), 0, 512, {});
    EXPECT_EQ(report.totals.free, 4U * 360 * 512);
    EXPECT_THAT(report.warnings, IsEmpty());
}

TEST_F(ImagingCopyKept, BytesBehindTheLastBlockOfXfsAreKept) {
    XfsBuilder const builder = makeXfs();
    std::vector<std::uint8_t> bytes = noisyXfs(builder);
    bytes.resize(bytes.size() + 3333);
    addNoise(bytes, 2000U * 512, bytes.size());
    copy(bytes);
    expectCopied(builder.map(), 0, 512, {{2000U * 512, 2000U * 512 + 3333}});
    EXPECT_EQ(report.totals.kept, 3333U);
}

TEST_F(ImagingCopyKept, AnXfsTreeThatFreesTheHeadersOfAGroupIsNotTrustedAtAll) {
    for (std::uint32_t const group : {0U, 2U, 3U}) {
        XfsBuilder builder = makeXfs();
        // One block of its four, whichever it is.
        builder.plantTree(group, {{group, 1}, {200, 290}});
        copy(noisyXfs(builder));
        EXPECT_TRUE(copied == source) << group;
        ASSERT_EQ(report.warnings.size(), 2U) << group;
        EXPECT_THAT(report.warnings[0],
                    HasSubstr("the map calls unit " + std::to_string(group * 500 + group) + " free"));
        EXPECT_EQ(report.warnings[1], path + ": everything is copied");
    }
}

TEST_F(ImagingCopyKept, AnXfsTreeThatFreesTheJournalIsNotTrustedAtAll) {
    for (XfsRun const run : {XfsRun{100, 1}, XfsRun{149, 1}, XfsRun{90, 400}}) {
        XfsBuilder builder = makeXfs();
        builder.plantTree(1, {run});
        copy(noisyXfs(builder));
        EXPECT_TRUE(copied == source) << run.start;
        ASSERT_EQ(report.warnings.size(), 2U) << run.start;
        EXPECT_THAT(report.warnings[0],
                    HasSubstr("the map calls unit " + std::to_string(500 + std::max(run.start, 100U)) + " free"));
    }
}

TEST_F(ImagingCopyKept, AnXfsTreeThatFreesTheBlocksBesideTheJournalIsTrusted) {
    XfsBuilder builder = makeXfs();
    builder.plantTree(1, {{20, 80}, {150, 300}});
    copy(noisyXfs(builder));
    expectCopied(builder.map(), 0, 512, {});
    EXPECT_THAT(report.warnings, IsEmpty());
}

} // namespace
