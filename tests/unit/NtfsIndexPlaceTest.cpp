// Where an index lookup reads, in which order, and what it says about it.
#include "support/NtfsFileBench.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace tests;
using testing::ElementsAre;

constexpr std::uint64_t kDirectory = 30;

std::vector<NtfsName> const& fiveNames() {
    static std::vector<NtfsName> const names{{u"a", 40}, {u"b", 41}, {u"c", 42}, {u"d", 43}, {u"e", 44}};
    return names;
}

VolumeRead recordRead(NtfsBuilder const& builder, std::uint64_t number) {
    return {static_cast<long>(builder.byteOffsetOf(number)), builder.geometry().recordBytes};
}

VolumeRead blockRead(std::int64_t offset, long size = 4096) {
    return {offset, size};
}

/// Two levels: b and d in the root, a, c and e in blocks 0, 1 and 2.
struct Directory {
    NtfsBuilder builder = NtfsBuilder::standard();
    NtfsIndexShape shape = builder.directoryShape(2);
    std::vector<NtfsRun> runs;

    explicit Directory(unsigned pieces = 1) {
        NtfsTree const tree = ntfsIndexTree(shape, ntfsNameEntries(fiveNames(), kDirectory));
        NtfsBytes content;
        for (NtfsBytes const& block : tree.blocks) {
            content.insert(content.end(), block.begin(), block.end());
        }
        NtfsRecord& record = builder.file(kDirectory, 5, u"many");
        record.resident(ntfs_type::kIndexRoot, u"$I30", tree.root);
        runs = builder.store(record, ntfs_type::kIndexAllocation, u"$I30", content, pieces);
        builder.seal();
    }
};

TEST(NtfsIndexPlace, AMatchInTheRootReadsTheRecordAlone) {
    Directory const directory;
    NtfsFileBench bench(directory.builder);
    bench.parser.read_upcase();
    bench.forget();
    EXPECT_EQ(bench.referenceOf(kDirectory, "b"), 41U);
    EXPECT_THAT(bench.reads(), ElementsAre(recordRead(directory.builder, kDirectory)));
    auto const offset = std::to_string(directory.builder.byteOffsetOf(kDirectory));
    EXPECT_THAT(bench.logger.entries, ElementsAre(debugEntry("Searching for \"b\" in b-tree of parent inode 30"),
                                                  debugEntry("Searching for attribute 128"),
                                                  debugEntry("Reading $MFT for inode 30 at offset " + offset),
                                                  debugEntry("Searching for attribute 144")));
}

TEST(NtfsIndexPlace, AMatchBelowReadsTheRecordAgainAndOneBlockALevel) {
    Directory const directory;
    NtfsFileBench bench(directory.builder);
    bench.parser.read_upcase();
    bench.forget();
    EXPECT_EQ(bench.referenceOf(kDirectory, "c"), 42U);
    auto const record = recordRead(directory.builder, kDirectory);
    EXPECT_THAT(bench.reads(), ElementsAre(record, record, blockRead((directory.runs.at(0).lcn + 1) * 4096)));
    auto const offset = std::to_string(directory.builder.byteOffsetOf(kDirectory));
    EXPECT_THAT(bench.logger.entries,
                ElementsAre(debugEntry("Searching for \"c\" in b-tree of parent inode 30"),
                            debugEntry("Searching for attribute 128"),
                            debugEntry("Reading $MFT for inode 30 at offset " + offset),
                            debugEntry("Searching for attribute 144"), debugEntry("Searching for attribute 128"),
                            debugEntry("Reading $MFT for inode 30 at offset " + offset),
                            debugEntry("Searching for attribute 160")));
}

TEST(NtfsIndexPlace, ThreeLevelsReadTwoBlocks) {
    NtfsBuilder builder = NtfsBuilder::standard();
    std::vector<NtfsName> names;
    for (char16_t letter = u'a'; letter <= u'q'; ++letter) {
        names.push_back({std::u16string(1, letter), letter});
    }
    builder.directory(builder.file(kDirectory, 5, u"many"), names, 3);
    NtfsFileBench bench(builder.seal());
    bench.parser.read_upcase();
    bench.forget();
    EXPECT_EQ(bench.referenceOf(kDirectory, "a"), std::uint64_t{'a'});
    EXPECT_EQ(bench.reads().size(), 4U);
}

TEST(NtfsIndexPlace, BlocksInSeveralRunsAreFound) {
    Directory const directory(3);
    ASSERT_EQ(directory.runs.size(), 3U);
    NtfsFileBench bench(directory.builder);
    bench.parser.read_upcase();
    std::size_t run = 0;
    for (std::string const name : {"a", "c", "e"}) {
        bench.forget();
        EXPECT_NE(bench.referenceOf(kDirectory, name), 0U);
        EXPECT_EQ(bench.reads().back(), blockRead(directory.runs.at(run++).lcn * 4096));
    }
}

TEST(NtfsIndexPlace, ABlockBehindTheLastRunIsLookedForBehindIt) {
    Directory directory;
    NtfsRecord& record = directory.builder.record(kDirectory).remove(ntfs_type::kIndexAllocation);
    std::int64_t const lcn = directory.runs.at(0).lcn;
    record.nonResident(ntfs_type::kIndexAllocation, u"$I30", {{lcn, 1}});
    NtfsFileBench bench(directory.builder.seal());
    bench.parser.read_upcase();
    EXPECT_EQ(bench.referenceOf(kDirectory, "e"), 44U);
    EXPECT_EQ(bench.reads().back(), blockRead((lcn + 2) * 4096));
}

TEST(NtfsIndexPlace, BlocksSmallerThanClustersAreCountedIn512BytesButTheirRunInClusters) {
    // Kept as it is: of two runs of a cluster each, units 0 and 1 are looked up in the right one; unit 8 in the last.
    NtfsBuilder builder = NtfsBuilder::standard(NtfsGeometry::withClusters(8192));
    NtfsIndexShape const shape{ntfs_type::kFileName, 1, 4096, 8192, 2, 3};
    NtfsTree const tree = ntfsIndexTree(shape, ntfsNameEntries(fiveNames(), kDirectory));
    NtfsBytes content;
    for (NtfsBytes const& block : tree.blocks) {
        content.insert(content.end(), block.begin(), block.end());
    }
    NtfsRecord& record = builder.file(kDirectory, 5, u"many");
    record.resident(ntfs_type::kIndexRoot, u"$I30", tree.root);
    auto const runs = builder.store(record, ntfs_type::kIndexAllocation, u"$I30", content, 2);
    ASSERT_EQ(runs.size(), 2U);
    NtfsFileBench bench(builder.seal());
    bench.parser.read_upcase();
    bench.forget();
    EXPECT_EQ(bench.referenceOf(kDirectory, "a"), 40U);
    EXPECT_EQ(bench.reads().back(), blockRead(runs[0].lcn * 8192));
    EXPECT_NE(failureOf([&] { bench.lookupName(kDirectory, "c"); }), "nothing was thrown");
    EXPECT_EQ(bench.reads().back(), blockRead(runs[1].lcn * 8192 - 8192 + 8 * 512));
}

TEST(NtfsIndexPlace, WithClustersOf64KiBNoBlockIsFound) {
    // The cluster size is kept to 16 bits, so that both shifts are by 63: an even cluster gives byte 0 of the volume,
    // an odd one a place before it.
    for (unsigned const skipped : {0U, 1U}) {
        NtfsBuilder builder = NtfsBuilder::standard(NtfsGeometry::withClusters(65536));
        for (unsigned i = 0; i < skipped; ++i) {
            builder.allocate(1);
        }
        NtfsIndexShape const shape = builder.directoryShape(2);
        NtfsTree const tree = ntfsIndexTree(shape, ntfsNameEntries(fiveNames(), kDirectory));
        NtfsRecord& record = builder.file(kDirectory, 5, u"many");
        record.resident(ntfs_type::kIndexRoot, u"$I30", tree.root);
        auto const runs = builder.store(record, ntfs_type::kIndexAllocation, u"$I30", tree.blocks.at(0));
        NtfsFileBench bench(builder.seal());
        bench.parser.read_upcase();
        EXPECT_EQ(bench.referenceOf(kDirectory, "b"), 41U) << "the root is no block";
        bool const isOdd = runs.at(0).lcn % 2 != 0;
        EXPECT_EQ(failureOf([&] { bench.lookupName(kDirectory, "a"); }),
                  isOdd ? "Unable to read INDEX ENTRY" : "Corrupt index block signature for key: a");
    }
}

/// Root and blocks in extension records 31 and 32.
NtfsBuilder makeScattered() {
    NtfsBuilder builder = NtfsBuilder::standard();
    NtfsTree const tree = ntfsIndexTree(builder.directoryShape(2), ntfsNameEntries(fiveNames(), kDirectory));
    NtfsBytes content;
    for (NtfsBytes const& block : tree.blocks) {
        content.insert(content.end(), block.begin(), block.end());
    }
    NtfsRecord& base = builder.file(kDirectory, 5, u"many");
    NtfsRecord& first = builder.record(31);
    NtfsRecord& second = builder.record(32);
    first.baseReference = second.baseReference = base.reference();
    first.resident(ntfs_type::kIndexRoot, u"$I30", tree.root);
    builder.store(second, ntfs_type::kIndexAllocation, u"$I30", content);
    base.attributeList({{ntfs_type::kIndexRoot, first.reference(), 0, u"$I30"},
                        {ntfs_type::kIndexAllocation, second.reference(), 0, u"$I30"}});
    builder.seal();
    return builder;
}

TEST(NtfsIndexPlace, AnIndexInExtensionRecordsIsFound) {
    NtfsBuilder const builder = makeScattered();
    NtfsFileBench bench(builder);
    bench.parser.read_upcase();
    bench.forget();
    EXPECT_EQ(bench.referenceOf(kDirectory, "b"), 41U);
    auto const base = recordRead(builder, kDirectory);
    auto const first = recordRead(builder, 31);
    auto const second = recordRead(builder, 32);
    EXPECT_THAT(bench.reads(), ElementsAre(base, first, first)) << "once to search it, once to take it";
    bench.forget();
    EXPECT_EQ(bench.referenceOf(kDirectory, "c"), 42U);
    ASSERT_EQ(bench.reads().size(), 7U);
    auto reads = bench.reads();
    reads.pop_back(); // the block
    EXPECT_THAT(reads, ElementsAre(base, first, first, base, second, second));
}

TEST(NtfsIndexPlace, AnExtensionRecordThatFailsIsNamedWithItsParent) {
    NtfsBuilder builder = makeScattered();
    builder.pokeRecord(31, 0x1C, 2048, 4); // sound enough for the search, but not for a check
    NtfsFileBench bench(builder);
    bench.parser.read_upcase();
    EXPECT_EQ(failureOf([&] { bench.lookupName(kDirectory, "b"); }), "Record 0x1f has invalid size: 0x800");
    // Readable when it is searched, and no more when it is taken: the seventh read is that.
    NtfsBuilder const good = makeScattered();
    MemoryReader const volume(good.bytes);
    RecordingLogger logger;
    for (unsigned n = 0; n < 100; ++n) {
        FaultyReader const faulty(volume, Fault::ReadFails, n);
        std::string failure;
        try {
            NtfsAccess parser(logger, 512, faulty);
            parser.read_upcase();
            std::string const key = "b";
            failure = failureOf([&] { parser.btree_lookup(kDirectory, {&key, 1}); });
        } catch (std::exception const&) {
            continue;
        }
        if (failure == "Could not read MFT record 31 for 30") {
            return;
        }
        ASSERT_NE(failure, "nothing was thrown") << "the fault came too late";
    }
}

TEST(NtfsIndexPlace, OnlyTheLowestByteOfAChildsVcnCounts) {
    Directory directory;
    std::uint64_t const root = directory.builder.record(kDirectory).offsetOf(ntfs_type::kIndexRoot);
    std::uint64_t const firstEntry = root + 0x20 + 0x20;
    std::uint64_t const child = firstEntry + directory.builder.peekRecord(kDirectory, firstEntry + 8, 2) - 8;
    ASSERT_EQ(directory.builder.peekRecord(kDirectory, child, 8), 0U);
    directory.builder.pokeRecord(kDirectory, child, 0x123456789ABCDE00, 8);
    NtfsFileBench bench(directory.builder);
    bench.parser.read_upcase();
    EXPECT_EQ(bench.referenceOf(kDirectory, "a"), 40U) << "block 0 all the same";

    // A block that knows its real place is not the one that was asked for.
    std::uint64_t const block = static_cast<std::uint64_t>(directory.runs.at(0).lcn) * 4096;
    directory.builder.poke(block + 0x10, 256, 8);
    NtfsFileBench other(directory.builder);
    other.parser.read_upcase();
    EXPECT_EQ(failureOf([&] { other.lookupName(kDirectory, "a"); }),
              "Corrupt index block. VCN doesn't match. Expected: 0, found: 256 for key: a");
}

} // namespace
