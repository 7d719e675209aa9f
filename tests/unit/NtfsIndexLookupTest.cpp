// Lookups in whole index trees: every entry is found and every gap is refused, whatever the sizes.
#include "support/NtfsFileBench.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using namespace tests;

constexpr std::uint64_t kDirectory = 30;
constexpr std::uint64_t kSequence = std::uint64_t{7} << 48;

std::string nameOf(unsigned i) {
    return {'f', static_cast<char>('a' + i / 26), static_cast<char>('a' + i % 26)};
}

std::vector<NtfsName> makeNames(unsigned count) {
    std::vector<NtfsName> names;
    for (unsigned i = 0; i < count; ++i) {
        std::string const name = nameOf(i);
        names.push_back({{name.begin(), name.end()}, kSequence | (1000 + i)});
    }
    return names;
}

NtfsGeometry geometryOf(std::uint32_t clusterBytes) {
    NtfsGeometry geometry = NtfsGeometry::withClusters(clusterBytes);
    geometry.clusters = std::max<std::uint64_t>(64, (std::uint64_t{4} << 20) / clusterBytes);
    return geometry;
}

NtfsIndexShape shapeOf(std::uint32_t clusterBytes, std::uint32_t blockBytes, unsigned levels, unsigned fanOut) {
    return {ntfs_type::kFileName, 1, blockBytes, clusterBytes, levels, fanOut};
}

/// A volume with a directory of so many names in record 30.
NtfsBuilder makeDirectory(NtfsIndexShape const& shape, unsigned count, unsigned pieces = 1) {
    NtfsBuilder builder = NtfsBuilder::standard(geometryOf(shape.clusterBytes));
    NtfsRecord& record = builder.file(kDirectory, ntfs_record_number::kRoot, u"many");
    builder.index(record, u"$I30", shape, ntfsNameEntries(makeNames(count), record.reference()), pieces);
    builder.seal();
    return builder;
}

struct Tree {
    std::uint32_t clusterBytes;
    std::uint32_t blockBytes;
    unsigned levels;
    unsigned fanOut;
    unsigned count; ///< of names

    NtfsIndexShape shape() const { return shapeOf(clusterBytes, blockBytes, levels, fanOut); }
};

void PrintTo(Tree const& tree, std::ostream* out) {
    *out << "clusters of " << tree.clusterBytes << ", blocks of " << tree.blockBytes << ", " << tree.levels
         << " levels of " << tree.fanOut;
}

/// Every cluster size against every block size, as far as the children's VCNs stay below 256.
std::vector<Tree> makeTrees() {
    std::vector<Tree> trees;
    for (std::uint32_t cluster = 512; cluster <= 32768; cluster *= 2) {
        for (std::uint32_t block = 512; block <= 65536; block *= 2) {
            std::uint64_t const units = shapeOf(cluster, block, 2, 2).unitsPerBlock();
            trees.push_back({cluster, block, 1, 2, 6});
            trees.push_back({cluster, block, 2, 2, 9});
            if (units * 6 <= 256) {
                trees.push_back({cluster, block, 3, 2, 20});
            }
            if (units * 12 <= 256) {
                trees.push_back({cluster, block, 3, 3, 40});
            }
        }
    }
    return trees;
}

TEST(NtfsIndexLookup, EveryEntryIsFoundAndEveryGapIsRefused) {
    for (Tree const& tree : makeTrees()) {
        SCOPED_TRACE(testing::PrintToString(tree));
        NtfsFileBench bench(makeDirectory(tree.shape(), tree.count));
        bench.parser.read_upcase();
        std::vector<std::string> gaps{"", "f", "zzz"};
        for (unsigned i = 0; i < tree.count; ++i) {
            ASSERT_EQ(bench.referenceOf(kDirectory, nameOf(i)), kSequence | (1000 + i));
            gaps.push_back(nameOf(i) + "!");
        }
        std::string const text =
            tree.levels == 1 ? "Entry not found - between root entries for key " : "Could not find entry for key ";
        std::string const place = tree.levels == 1 ? "" : " in parent inode 30";
        for (std::string const& gap : gaps) {
            std::string const failure = failureOf([&] { bench.lookupName(kDirectory, gap); });
            ASSERT_EQ(failure, text + gap + place);
        }
    }
}

TEST(NtfsIndexLookup, NamesAreFoundWhateverTheirCase) {
    NtfsFileBench bench(makeDirectory(shapeOf(4096, 4096, 2, 3), 20));
    bench.parser.read_upcase();
    EXPECT_EQ(bench.referenceOf(kDirectory, "FAC"), kSequence | 1002);
    EXPECT_EQ(bench.referenceOf(kDirectory, "fAc"), kSequence | 1002);
}

TEST(NtfsIndexLookup, TheEntryIsTheFirst40BytesAsTheyStandOnDisk) {
    NtfsFileBench bench;
    bench.parser.read_upcase();
    auto const entry = bench.lookupName(25, "letter.txt");
    EXPECT_EQ(entry.file_reference.value() & 0xFFFFFFFFFFFF, 26U);
    EXPECT_EQ(entry.entry_length.value(), 104);
    EXPECT_EQ(entry.key_length.value(), 66 + 20);
    EXPECT_EQ(entry.flags.value(), 0);
    EXPECT_EQ(entry.key.value(), 25U) << "a file name begins with its directory's reference";
}

TEST(NtfsIndexLookup, AnIdentifierIsFoundAsUnsigned) {
    for (unsigned levels = 1; levels <= 3; ++levels) {
        NtfsGeometry geometry;
        geometry.securityLevels = levels;
        NtfsBuilder builder = NtfsBuilder::standard(geometry);
        NtfsRecord& secure = builder.record(ntfs_record_number::kSecure);
        secure.remove(ntfs_type::kIndexRoot).remove(ntfs_type::kIndexAllocation).remove(ntfs_type::kBitmap);
        NtfsIndexShape shape = builder.directoryShape(levels, 3);
        shape.type = 0;
        builder.index(secure, u"$SDH", builder.directoryShape(), {}); // the first one of its type is not the one
        shape.collation = 16;
        std::vector<NtfsSdsPlace> places;
        for (std::uint32_t i = 0; i < 6 * levels; ++i) {
            places.push_back({i * (0xFFFFFFFFU / (6 * levels)) + 1, i, i * 0x123456789U, 100 + i});
        }
        builder.index(secure, u"$SII", shape, ntfsIdentifierEntries(places));
        builder.seal();
        NtfsFileBench bench(builder);
        for (NtfsSdsPlace const& place : places) {
            auto const entry = bench.lookupIdentifier(place.id);
            EXPECT_EQ(entry.key.value(), place.id);
            EXPECT_EQ(entry.sds_offset.value(), place.offset);
            EXPECT_EQ(entry.sds_length.value(), place.length);
            std::string const key = std::to_string(place.id + 1);
            EXPECT_EQ(failureOf([&] { bench.lookupIdentifier(place.id + 1); }),
                      levels == 1 ? "Entry not found - between root entries for key " + key
                                  : "Could not find entry for key " + key + " in parent inode 9");
        }
    }
}

TEST(NtfsIndexLookup, WithoutIndexTheKeyAndTheRecordAreNamed) {
    NtfsFileBench bench;
    bench.parser.read_upcase();
    EXPECT_EQ(failureOf([&] { bench.lookupName(26, "x y"); }),
              "Could not find INDEX_ROOT for key x y in parent inode 26");

    NtfsBuilder builder = makeDirectory(shapeOf(4096, 4096, 2, 3), 20);
    builder.record(kDirectory).remove(ntfs_type::kIndexAllocation);
    NtfsFileBench damaged(builder.seal());
    damaged.parser.read_upcase();
    EXPECT_EQ(failureOf([&] { damaged.lookupName(kDirectory, "faa"); }),
              "Could not find INDEX_ALLOCATION for key faa in parent inode 30");
}

TEST(NtfsIndexLookup, TheIndexOfIdentifiersIsFoundByItsExactName) {
    for (std::u16string const name : {u"", u"$sii", u"$SI", u"$SIII"}) {
        NtfsBuilder builder = NtfsBuilder::standard();
        NtfsRecord& secure = builder.record(ntfs_record_number::kSecure).remove(ntfs_type::kIndexRoot);
        NtfsIndexShape shape = builder.directoryShape();
        shape.collation = 16;
        builder.index(secure, name, shape, ntfsIdentifierEntries(ntfsSdsPlaces(builder.descriptors)));
        NtfsFileBench bench(builder.seal());
        EXPECT_EQ(failureOf([&] { bench.lookupIdentifier(0x100); }), "Could not find attribute with name $SII");
    }
}

TEST(NtfsIndexLookup, AnUnknownKeyTypeReadsNothing) {
    NtfsFileBench bench;
    std::string const key = "k";
    EXPECT_EQ(failureOf([&] {
                  bench.parser.btree_lookup(5, {&key, 3});
              }),
              "Key type not recognized, aborting operation.");
    EXPECT_TRUE(bench.reader.calls.empty());
    EXPECT_TRUE(bench.logger.entries.empty());
}

TEST(NtfsIndexLookup, AParentThatCannotBeReadIsNamed) {
    NtfsFileBench bench;
    EXPECT_EQ(failureOf([&] { bench.lookupName(1000, "k"); }), "Could not read MFT record for inode number 1000");
}

/// Where an index root's block size stands in its record.
std::uint64_t blockSizeField(NtfsBuilder& builder) {
    return builder.record(kDirectory).offsetOf(ntfs_type::kIndexRoot) + 0x18 + 8 + 0x08; // named, so 8 more
}

TEST(NtfsIndexLookup, BlockSizesArePowersOfTwoFrom512) {
    for (auto const& [size, isGood] : std::vector<std::pair<std::uint32_t, bool>>{{0, false},
                                                                                  {1, false},
                                                                                  {256, false},
                                                                                  {511, false},
                                                                                  {512, true},
                                                                                  {513, false},
                                                                                  {768, false},
                                                                                  {65536, true},
                                                                                  {65537, false},
                                                                                  {0x80000000, true},
                                                                                  {0xFFFFFFFF, false}}) {
        NtfsBuilder builder = makeDirectory(shapeOf(4096, 4096, 1, 2), 4);
        std::uint64_t const field = blockSizeField(builder);
        ASSERT_EQ(builder.peekRecord(kDirectory, field, 4), 4096U);
        NtfsFileBench bench(builder.pokeRecord(kDirectory, field, size, 4));
        bench.parser.read_upcase();
        EXPECT_EQ(failureOf([&] { bench.lookupName(kDirectory, "faa"); }),
                  isGood ? "nothing was thrown" : "Invalid index block size")
            << size;
    }
}

TEST(NtfsIndexLookup, TheAllOnesReferenceNeverMatches) {
    std::vector<NtfsName> const names{{u"ghost", ~std::uint64_t{0}}, {u"real", 40}, {u"wraith", ~std::uint64_t{0}}};
    NtfsBuilder builder = NtfsBuilder::standard();
    builder.directory(builder.file(kDirectory, 5, u"flat"), names);
    NtfsBytes const ghost = ntfsNameEntries({names[0]}, 5).at(0);
    NtfsIndexShape const shape = builder.directoryShape(2);
    // In record 31 the ghost has a child, in which a good entry of the same name lies; in record 32, another ghost.
    for (std::uint64_t const number : {std::uint64_t{31}, std::uint64_t{32}}) {
        NtfsRecord& record = builder.file(number, 5, u"deep");
        auto const below = ntfsNameEntries({{u"GHOST", number == 31 ? 41 : ~std::uint64_t{0}}}, 5);
        NtfsBytes blocks = ntfsIndexBlock(shape, 0, ntfsNodeEntries(below, {}), false);
        NtfsBytes const second = ntfsIndexBlock(shape, 1, ntfsNodeEntries({}, {}), false);
        blocks.insert(blocks.end(), second.begin(), second.end());
        record.resident(ntfs_type::kIndexRoot, u"$I30", ntfsIndexRoot(shape, ntfsNodeEntries({ghost}, {0, 1}), true));
        builder.store(record, ntfs_type::kIndexAllocation, u"$I30", blocks);
    }
    NtfsFileBench bench(builder.seal());
    bench.parser.read_upcase();
    EXPECT_EQ(bench.referenceOf(kDirectory, "real"), 40U);
    EXPECT_EQ(failureOf([&] { bench.lookupName(kDirectory, "ghost"); }),
              "Entry not found - between root entries for key ghost");
    EXPECT_EQ(failureOf([&] { bench.lookupName(kDirectory, "wraith"); }),
              "Entry not found - between root entries for key wraith");
    EXPECT_EQ(bench.referenceOf(31, "ghost"), 41U);
    EXPECT_EQ(failureOf([&] { bench.lookupName(32, "ghost"); }),
              "Could not find entry for key ghost in parent inode 32");
}

} // namespace
