// Indexes of NTFS directories that lie: entries, children that lead in circles, names that no system makes.
#include "imaging/BudgetReader.h"
#include "support/NtfsFileBench.h"
#include "support/ResidentMemory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace {

using namespace tests;

constexpr std::uint64_t kDirectory = 30;
constexpr std::uint64_t kMany = 10'000;

/// Of a root's value.
constexpr std::uint64_t kCollation = 0x04;
constexpr std::uint64_t kBlockSize = 0x08;
constexpr std::uint64_t kEntriesOffset = 0x10;
constexpr std::uint64_t kIndexLength = 0x14;
constexpr std::uint64_t kAllocatedSize = 0x18;

/// Of an entry.
constexpr std::uint64_t kEntryLength = 0x08;
constexpr std::uint64_t kKeyLength = 0x0A;
constexpr std::uint64_t kFlags = 0x0C;
constexpr std::uint64_t kNameSpace = 0x51;

constexpr char const* kCorruptRoot = "Corrupt index root in MFT record 0x1e";

NtfsBytes nameEntry(std::u16string const& name, std::uint64_t reference = 40, std::uint8_t nameSpace = 1) {
    return ntfsIndexEntry(reference, ntfsFileName(kDirectory, name, nameSpace));
}

/// A volume whose record 30 is a directory of chosen nodes.
class NtfsHostileIndex : public testing::Test {
protected:
    /// The root's entries, and blocks as they are to stand, one behind the other.
    void make(NtfsBytes const& rootEntries, std::vector<NtfsBytes> const& blocks = {},
              NtfsGeometry const& geometry = {}) {
        builder = NtfsBuilder::standard(geometry);
        NtfsRecord& record = builder.file(kDirectory, 5, u"many");
        record.resident(ntfs_type::kIndexRoot, u"$I30",
                        ntfsIndexRoot(builder.directoryShape(), rootEntries, !blocks.empty()));
        NtfsBytes content;
        for (NtfsBytes const& block : blocks) {
            content.insert(content.end(), block.begin(), block.end());
        }
        if (!blocks.empty()) {
            builder.store(record, ntfs_type::kIndexAllocation, u"$I30", content);
        }
        builder.seal();
        root = record.offsetOf(ntfs_type::kIndexRoot) + 0x20; // the value: behind the name
    }

    /// A root of "b", and below it "a" in block 0 and "c" in block 1.
    void makeTwoLevels(NtfsGeometry const& geometry = {}) {
        NtfsIndexShape const shape = NtfsBuilder(geometry).directoryShape();
        std::uint64_t const second = shape.unitsPerBlock();
        make(ntfsNodeEntries({nameEntry(u"b", 41)}, {0, second}),
             {ntfsIndexBlock(shape, 0, ntfsNodeEntries({nameEntry(u"a", 40)}, {}), false),
              ntfsIndexBlock(shape, second, ntfsNodeEntries({nameEntry(u"c", 42)}, {}), false)},
             geometry);
    }

    /// The volume with a number in the root's value changed.
    NtfsBuilder withRoot(std::uint64_t offset, std::uint64_t value, std::size_t width) const {
        NtfsBuilder damaged = builder;
        EXPECT_NE(damaged.peekRecord(kDirectory, root + offset, width), value) << "nothing is damaged";
        damaged.pokeRecord(kDirectory, root + offset, value, width);
        return damaged;
    }

    std::string lookup(std::string const& key) { return lookupIn(builder, key); }

    /// The reference that was found, or the text of what was thrown. No lookup may take more than so many reads.
    std::string lookupIn(NtfsBuilder const& volume, std::string const& key) {
        MemoryReader const memory(volume.bytes);
        RecordingLogger logger;
        imaging::BudgetReader const reader(logger, memory, imaging::Budget{kMany});
        NtfsAccess parser(logger, 512, reader);
        parser.read_upcase();
        std::string result;
        std::string const failure = failureOf([&] {
            result = std::to_string(parser.btree_lookup(kDirectory, {&key, 1}).file_reference.value());
        });
        spent = reader.spent();
        return result.empty() ? failure : result;
    }

    NtfsBuilder builder;
    std::uint64_t root = 0; ///< of the value: byte offset in the record
    std::string spent;      ///< the limit that the last lookup met
};

TEST_F(NtfsHostileIndex, BlockSizesOtherThanTheRealOne) {
    makeTwoLevels();
    for (std::uint64_t const size : {0U, 3U, 4095U, 0x80000001U}) {
        EXPECT_EQ(lookupIn(withRoot(kBlockSize, size, 4), "b"), "Invalid index block size") << size;
    }
    struct Row {
        std::uint64_t size;
        char const* below; ///< what a lookup in a block says
    };
    for (Row const& row : std::vector<Row>{
             {512, "Corrupt index block. Block size doesn't match. Expected: 512, found: 4096 for key: a"},
             {65536, "Corrupt index block. Block size doesn't match. Expected: 65536, found: 4096 for key: a"},
             {0x80000000,
              "Corrupt index block. Block size doesn't match. Expected: 2147483648, found: 4096 for key: a"},
         }) {
        std::size_t const before = residentBytes();
        NtfsBuilder const damaged = withRoot(kBlockSize, row.size, 4);
        EXPECT_EQ(lookupIn(damaged, "b"), "41") << row.size;
        EXPECT_EQ(lookupIn(damaged, "a"), row.below);
        EXPECT_LT(residentBytes(), before + (std::size_t{64} << 20)) << row.size;
    }
}

TEST_F(NtfsHostileIndex, ARootWhoseSizesContradictEachOtherIsCorrupt) {
    makeTwoLevels();
    std::uint64_t const length = builder.peekRecord(kDirectory, root + kIndexLength, 4);
    for (std::uint64_t const offset : std::vector<std::uint64_t>{0, 8, 15, length + 1, 0xFFFFFFF0}) {
        EXPECT_EQ(lookupIn(withRoot(kEntriesOffset, offset, 4), "b"), kCorruptRoot) << offset;
    }
    for (std::uint64_t const more : {length + 1, std::uint64_t{0xFFFFFFFF}}) {
        EXPECT_EQ(lookupIn(withRoot(kIndexLength, more, 4), "b"), kCorruptRoot) << "more than is allocated";
        EXPECT_EQ(lookupIn(withRoot(kAllocatedSize, more + 3, 4), "b"), kCorruptRoot) << "more than the value holds";
    }
    EXPECT_EQ(lookupIn(withRoot(kEntriesOffset, length, 4), "b"),
              "Index entry out of bounds in inode for node with key b");
}

TEST_F(NtfsHostileIndex, AnOddPlaceOfTheEntriesIsTakenAsItStands) {
    makeTwoLevels();
    // One byte further, the length's upper byte is the lower one of what was the key's length: 0x4400.
    EXPECT_EQ(lookupIn(withRoot(kEntriesOffset, 0x11, 4), "b"),
              "Index entry out of bounds in inode for node with key b");
    // With room for an odd byte in front of them, the entries are good.
    NtfsBytes entries = ntfsNodeEntries({nameEntry(u"b", 41)}, {});
    entries.insert(entries.begin(), 0xEE);
    make(entries);
    EXPECT_EQ(lookupIn(withRoot(kEntriesOffset, 0x11, 4), "b"), "41");
}

TEST_F(NtfsHostileIndex, AnEntryTooShortForItsKeyIsRefused) {
    makeTwoLevels();
    std::uint64_t const entry = 0x20;
    std::uint64_t const key = builder.peekRecord(kDirectory, root + entry + kKeyLength, 2);
    for (std::uint64_t const length : std::vector<std::uint64_t>{8, 15, 16, 16 + key - 1}) {
        EXPECT_EQ(lookupIn(withRoot(entry + kEntryLength, length, 2), "b"), "Overflow from index entry for key: b")
            << length;
    }
    EXPECT_EQ(lookupIn(withRoot(entry + kEntryLength, 16 + key, 2), "b"), "41") << "just long enough";
}

TEST_F(NtfsHostileIndex, AKeyOf66BytesCannotHoldANameOf255Characters) {
    NtfsBytes entry = nameEntry(u"");
    putNumber(entry, 0x50, 255, 1);
    make(ntfsNodeEntries({entry}, {}));
    EXPECT_EQ(lookup("b"), "Filename overflow from index entry for key: b");
}

TEST_F(NtfsHostileIndex, AChildInAnEntryOf16BytesIsOneOfItsOwnBytes) {
    makeTwoLevels();
    std::uint64_t const end = builder.peekRecord(kDirectory, root + kIndexLength, 4) + 0x10 - 24;
    ASSERT_EQ(builder.peekRecord(kDirectory, root + end + kFlags, 2), 3U);
    // The byte eight before the end is the length itself: block 16, which is not there.
    EXPECT_EQ(lookupIn(withRoot(end + kEntryLength, 16, 2), "c"), "Corrupt index block signature for key: c");
    // And here a byte behind the flags: block 0, in which no such name is.
    EXPECT_EQ(lookupIn(withRoot(end + kEntryLength, 23, 2), "c"), "Could not find entry for key c in parent inode 30");
}

TEST_F(NtfsHostileIndex, AChildOutsideTheAllocationIsNoBlock) {
    makeTwoLevels();
    std::uint64_t const end = builder.peekRecord(kDirectory, root + kIndexLength, 4) + 0x10 - 8;
    ASSERT_EQ(builder.peekRecord(kDirectory, root + end, 8), 1U);
    for (std::uint64_t const vcn : {2U, 100U, 255U}) {
        EXPECT_EQ(lookupIn(withRoot(end, vcn, 8), "c"), "Corrupt index block signature for key: c") << vcn;
        EXPECT_EQ(spent, "");
    }
}

TEST_F(NtfsHostileIndex, AChildInTheMiddleOfABlockIsNone) {
    NtfsGeometry const geometry = NtfsGeometry::withClusters(512); // eight clusters to a block
    makeTwoLevels(geometry);
    ASSERT_EQ(lookup("c"), "42");
    std::uint64_t const end = builder.peekRecord(kDirectory, root + kIndexLength, 4) + 0x10 - 8;
    ASSERT_EQ(builder.peekRecord(kDirectory, root + end, 8), 8U);
    for (std::uint64_t vcn = 1; vcn < 8; ++vcn) {
        EXPECT_EQ(lookupIn(withRoot(end, vcn, 8), "c"), "Corrupt index block signature for key: c") << vcn;
    }
}

/// Blocks in a row, each with one child for all names: the next one, or for the last another.
std::vector<NtfsBytes> chain(NtfsIndexShape const& shape, std::uint64_t count, std::optional<std::uint64_t> last) {
    std::vector<NtfsBytes> blocks;
    for (std::uint64_t vcn = 0; vcn < count; ++vcn) {
        bool const isLast = vcn + 1 == count;
        blocks.push_back(isLast && !last
                             ? ntfsIndexBlock(shape, vcn, ntfsNodeEntries({nameEntry(u"b")}, {}), false)
                             : ntfsIndexBlock(shape, vcn, ntfsNodeEntries({}, {isLast ? *last : vcn + 1}), true));
    }
    return blocks;
}

TEST_F(NtfsHostileIndex, AsManyLevelsAsAChildCanNameAreWalked) {
    NtfsGeometry geometry;
    geometry.clusters = 1024;
    make(ntfsNodeEntries({}, {0}), chain(NtfsBuilder(geometry).directoryShape(), 256, {}), geometry);
    EXPECT_EQ(lookup("b"), "40");
    EXPECT_EQ(lookup("z"), "Could not find entry for key z in parent inode 30");
    // One level more would be block 256, of whose number the lowest byte alone counts: it leads to the beginning.
    make(ntfsNodeEntries({}, {0}), chain(NtfsBuilder(geometry).directoryShape(), 256, 256), geometry);
    EXPECT_EQ(lookup("b"), "Unable to read INDEX ENTRY");
    EXPECT_EQ(spent, "after 10000 reads");
}

/// Where the last of a chain of blocks leads back to.
class NtfsHostileIndexCycle : public NtfsHostileIndex, public testing::WithParamInterface<std::uint64_t> {};

TEST_P(NtfsHostileIndexCycle, EndsWithTheBudget) {
    std::uint64_t const length = GetParam();
    make(ntfsNodeEntries({}, {0}), chain(builder.directoryShape(), length, 0));
    EXPECT_EQ(lookup("b"), "Unable to read INDEX ENTRY");
    EXPECT_EQ(spent, "after 10000 reads");
}

INSTANTIATE_TEST_SUITE_P(Blocks, NtfsHostileIndexCycle, testing::Values(1U /* itself */, 2U /* its parent */, 7U));

TEST_F(NtfsHostileIndex, BlocksThatTheirBitmapCallsFreeAreRead) {
    makeTwoLevels();
    builder.record(kDirectory).resident(ntfs_type::kBitmap, u"$I30", NtfsBytes(8, 0));
    builder.seal();
    EXPECT_EQ(lookup("a"), "40");
    EXPECT_EQ(lookup("c"), "42");
}

TEST_F(NtfsHostileIndex, TheCollationRuleOfTheRootIsNotAsked) {
    makeTwoLevels();
    for (std::uint64_t const rule : {0U, 2U, 16U, 0xFFFFFFFFU}) {
        EXPECT_EQ(lookupIn(withRoot(kCollation, rule, 4), "C"), "42") << rule;
    }
}

TEST_F(NtfsHostileIndex, TheSpaceOfANameIsNotAsked) {
    make(ntfsNodeEntries({nameEntry(u"LETTER~1.TXT", 44, 2)}, {}));
    EXPECT_EQ(lookup("letter~1.txt"), "44") << "a short name alone is found by it";
    EXPECT_EQ(lookup("letter.txt long"), "Entry not found - between root entries for key letter.txt long");
    for (std::uint64_t const nameSpace : {0U, 3U, 4U, 255U}) {
        NtfsBuilder const damaged = withRoot(0x20 + kNameSpace, nameSpace, 1);
        EXPECT_EQ(lookupIn(damaged, "LETTER~1.TXT"), "44") << nameSpace;
    }
}

TEST_F(NtfsHostileIndex, KeysOutOfOrderAreMissedAndOfEqualOnesTheFirstIsFound) {
    make(ntfsNodeEntries({nameEntry(u"b", 41), nameEntry(u"a", 40), nameEntry(u"c", 42), nameEntry(u"C", 43)}, {}));
    EXPECT_EQ(lookup("b"), "41");
    EXPECT_EQ(lookup("a"), "Entry not found - between root entries for key a");
    EXPECT_EQ(lookup("c"), "42");
    EXPECT_EQ(lookup("C"), "42");
}

struct OddName {
    char const* title;
    std::u16string stored;
    std::string key;
};

class NtfsHostileName : public NtfsHostileIndex, public testing::WithParamInterface<OddName> {};

TEST_P(NtfsHostileName, IsANameLikeOthers) {
    OddName const& name = GetParam();
    make(ntfsNodeEntries({nameEntry(name.stored, 47)}, {}));
    EXPECT_EQ(lookup(name.key), "47");
    EXPECT_EQ(lookup("zz"), "Entry not found - between root entries for key zz");
}

using namespace std::string_literals;

INSTANTIATE_TEST_SUITE_P(Names, NtfsHostileName,
                         testing::Values(OddName{"Slash", u"a/b", "a/b"}, OddName{"Slashes", u"../../x", "../../x"},
                                         OddName{"Backslash", u"a\\b", "a\\b"}, OddName{"Null", u"a\0b"s, "a\0b"s},
                                         OddName{"Empty", u"", ""}, OddName{"Dot", u".", "."},
                                         OddName{"DotDot", u"..", ".."}),
                         [](auto const& row) { return row.param.title; });

TEST_F(NtfsHostileIndex, ALoneSurrogateIsOneCharacterThatNoKeyNeedsToMatch) {
    for (char16_t const surrogate : {char16_t{0xD800}, char16_t{0xDBFF}, char16_t{0xDC00}, char16_t{0xDFFF}}) {
        make(ntfsNodeEntries({nameEntry(u"a", 40), nameEntry(std::u16string(1, surrogate), 41)}, {}));
        EXPECT_EQ(lookup("a"), "40");
        EXPECT_EQ(lookup("b"), "Entry not found - between root entries for key b");
        EXPECT_EQ(lookup("\uFFFD"), "Entry not found - between root entries for key \uFFFD");
    }
}

TEST_F(NtfsHostileIndex, ABackslashInANameCannotBeInAPath) {
    NtfsBuilder volume = NtfsBuilder::standard();
    volume.directory(volume.record(25).remove(ntfs_type::kIndexRoot), {{u"..\\readme.txt", 26}});
    NtfsFileBench bench(volume.seal());
    bench.parser.read_upcase();
    EXPECT_EQ(failureOf([&] { bench.parser.convert_to_inode("\\docs\\..\\readme.txt"); }),
              "Entry not found - between root entries for key ..");
}

/// What the reference of an entry in \docs leads to.
unsigned long resolved(std::uint64_t reference, std::string const& path) {
    NtfsBuilder volume = NtfsBuilder::standard();
    volume.directory(volume.record(25).remove(ntfs_type::kIndexRoot), {{u"x", reference}});
    NtfsFileBench bench(volume.seal());
    bench.parser.read_upcase();
    return bench.parser.convert_to_inode(path);
}

TEST(NtfsHostileReference, ToTheMftIsItsRecord) {
    EXPECT_EQ(resolved(0, "\\docs\\x"), 0U);
}

TEST(NtfsHostileReference, ToADirectoryAboveEndsWithThePath) {
    EXPECT_EQ(resolved(5, "\\docs\\x\\docs\\x\\docs\\x\\readme.txt"), 24U);
    std::string path;
    for (int i = 0; i < 500; ++i) {
        path += "\\x";
    }
    EXPECT_EQ(resolved(25, "\\docs" + path), 25U) << "itself";
}

TEST(NtfsHostileReference, WithAStaleSequenceNumberIsFollowed) {
    EXPECT_EQ(resolved(std::uint64_t{0xBEEF} << 48 | 26, "\\docs\\x"), 26U);
}

TEST(NtfsHostileReference, ToAFreeRecordHasNothingInIt) {
    NtfsBuilder volume = NtfsBuilder::standard();
    volume.directory(volume.record(25).remove(ntfs_type::kIndexRoot), {{u"x", 50}});
    NtfsFileBench bench(volume.seal());
    EXPECT_TRUE(bench.parser.extents("\\docs\\x").empty());
    EXPECT_EQ(failureOf([&] { bench.parser.getStandardInfo("\\docs\\x"); }),
              "Could not find STANDARD_INFORMATION for file \\docs\\x");
}

} // namespace
