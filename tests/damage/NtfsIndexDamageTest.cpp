// Damaged indexes: one changed field, the text nearest to it, and nothing read outside.
#include "support/NtfsFileBench.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using namespace tests;

constexpr std::uint64_t kDirectory = 30;

/// Of an index header: of a root's value from byte 0x10 on, of a block from 0x18 on.
constexpr std::uint64_t kEntriesOffset = 0x00;
constexpr std::uint64_t kIndexLength = 0x04;

/// Of an entry.
constexpr std::uint64_t kEntryLength = 0x08;
constexpr std::uint64_t kKeyLength = 0x0A;
constexpr std::uint64_t kFlags = 0x0C;
constexpr std::uint64_t kNameLength = 0x50;

/// Two levels: b and d in the root, a, c and e in blocks 0, 1 and 2.
class NtfsIndexDamage : public testing::Test {
protected:
    NtfsIndexDamage() {
        NtfsIndexShape const shape = builder.directoryShape(2);
        NtfsTree const tree = ntfsIndexTree(
            shape, ntfsNameEntries({{u"a", 40}, {u"b", 41}, {u"c", 42}, {u"d", 43}, {u"e", 44}}, kDirectory));
        NtfsBytes content;
        for (NtfsBytes const& block : tree.blocks) {
            content.insert(content.end(), block.begin(), block.end());
        }
        NtfsRecord& record = builder.file(kDirectory, 5, u"many");
        record.resident(ntfs_type::kIndexRoot, u"$I30", tree.root);
        auto const runs = builder.store(record, ntfs_type::kIndexAllocation, u"$I30", content);
        builder.seal();
        blocks = static_cast<std::uint64_t>(runs.at(0).lcn) * 4096;
        attribute = record.offsetOf(ntfs_type::kIndexRoot);
        header = attribute + 0x20 + 0x10;
        firstEntry = header + builder.peekRecord(kDirectory, header + kEntriesOffset, 4);
    }

    /// Changes the record, and proves that the change took.
    void setRoot(std::uint64_t offset, std::uint64_t value, std::size_t width) {
        ASSERT_NE(builder.peekRecord(kDirectory, offset, width), value) << "the field held the value already";
        builder.pokeRecord(kDirectory, offset, value, width);
    }

    /// Changes block 0, whose protection stays in order.
    void setBlock(std::uint64_t offset, std::uint64_t value, std::size_t width) {
        auto const block = std::span(builder.bytes).subspan(blocks, 4096);
        ntfsUnprotect(block);
        ASSERT_NE(getNumber(block, offset, width), value) << "the field held the value already";
        putNumber(block, offset, value, width);
        ntfsProtect(block);
    }

    std::uint64_t blockEntry() const { return 0x18 + builder.peek(blocks + 0x18, 4); }

    std::string lookup(std::string const& key) const { return lookupIn(builder, key); }

    /// The reference found, or what was thrown.
    static std::string lookupIn(NtfsBuilder const& volume, std::string const& key) {
        MemoryReader const memory(volume.bytes);
        BudgetReader const reader(memory, 10000);
        RecordingLogger logger;
        NtfsAccess parser(logger, 512, reader);
        parser.read_upcase();
        reader.left = 300; // a cycle of blocks ends here
        try {
            return std::to_string(parser.btree_lookup(kDirectory, {&key, 1}).file_reference.value());
        } catch (std::exception const& error) {
            return error.what();
        }
    }

    NtfsBuilder builder = NtfsBuilder::standard();
    std::uint64_t blocks = 0;     ///< byte offset on the volume
    std::uint64_t attribute = 0;  ///< of the root: byte offset in the record
    std::uint64_t header = 0;     ///< of the root's entries
    std::uint64_t firstEntry = 0; ///< b
};

constexpr char const* kOutOfBounds = "Index entry out of bounds in inode for node with key ";

TEST_F(NtfsIndexDamage, TheGoodVolumeIsGood) {
    EXPECT_EQ(lookup("a"), "40");
    EXPECT_EQ(lookup("b"), "41");
    EXPECT_EQ(lookup("e"), "44");
}

TEST_F(NtfsIndexDamage, EntriesOfTheRootThatBeginOutsideAreRefused) {
    // The record's own check asks for an offset that is not past the length; so both are moved.
    for (std::uint64_t const offset : {0x3F0U, 0x1000U, 0xFFFFU}) {
        NtfsBuilder damaged = builder;
        damaged.pokeRecord(kDirectory, header + kEntriesOffset, offset, 4);
        EXPECT_EQ(lookupIn(damaged, "b"), "Corrupt index root in MFT record 0x1e");
    }
    setRoot(header + kEntriesOffset, builder.peekRecord(kDirectory, header + kIndexLength, 4), 4);
    EXPECT_EQ(lookup("b"), std::string(kOutOfBounds) + "b");
}

TEST_F(NtfsIndexDamage, AnEntryOfTheRootPastItsEndIsRefused) {
    for (std::uint64_t const length : {0x7FFFU, 0xFFFFU}) {
        NtfsBuilder damaged = builder;
        damaged.pokeRecord(kDirectory, firstEntry + kEntryLength, length, 2);
        EXPECT_EQ(lookupIn(damaged, "b"), std::string(kOutOfBounds) + "b");
    }
    setRoot(header + kIndexLength, firstEntry - header + 20, 4);
    EXPECT_EQ(lookup("b"), std::string(kOutOfBounds) + "b");
}

TEST_F(NtfsIndexDamage, AnEntryOfLengthZeroIsRefused) {
    setRoot(firstEntry + kEntryLength, 0, 2);
    EXPECT_EQ(lookup("b"), "Filename overflow from index entry for key: b");
}

TEST_F(NtfsIndexDamage, KeyAndNamePastTheirEntryAreRefused) {
    NtfsBuilder damaged = builder;
    damaged.pokeRecord(kDirectory, firstEntry + kKeyLength, 0xFFF0, 2);
    EXPECT_EQ(lookupIn(damaged, "b"), "Overflow from index entry for key: b");
    damaged = builder;
    damaged.pokeRecord(kDirectory, firstEntry + kNameLength, 255, 1);
    EXPECT_EQ(lookupIn(damaged, "b"), "Filename overflow from index entry for key: b");
}

TEST_F(NtfsIndexDamage, AMissingEndEntryRunsIntoTheEndOfTheNode) {
    std::uint64_t const last = header + builder.peekRecord(kDirectory, header + kIndexLength, 4) - 24;
    ASSERT_EQ(builder.peekRecord(kDirectory, last + kFlags, 2), 3U);
    NtfsBuilder damaged = builder;
    damaged.pokeRecord(kDirectory, last + kFlags, 1, 2);
    EXPECT_EQ(lookupIn(damaged, "e"), "Filename overflow from index entry for key: e") << "it holds no name";
    setRoot(header + kIndexLength, last - header, 4);
    EXPECT_EQ(lookup("e"), std::string(kOutOfBounds) + "e");
}

TEST_F(NtfsIndexDamage, AChildNeedsAnEntryThatHoldsIt) {
    std::uint64_t const last = header + builder.peekRecord(kDirectory, header + kIndexLength, 4) - 24;
    for (std::uint64_t const length : {0U, 1U, 7U}) {
        NtfsBuilder damaged = builder;
        damaged.pokeRecord(kDirectory, last + kEntryLength, length, 2);
        EXPECT_EQ(lookupIn(damaged, "e"), std::string(kOutOfBounds) + "e") << length;
    }
    // From 8 on there is a byte to take, though it is one of the entry's header.
    builder.pokeRecord(kDirectory, last, 2, 8);
    setRoot(last + kEntryLength, 8, 2);
    EXPECT_EQ(lookup("e"), "44");
}

TEST_F(NtfsIndexDamage, ABlockIsCheckedBeforeItsEntries) {
    struct Row {
        std::uint64_t offset;
        std::uint64_t value;
        std::size_t width;
        char const* text;
    };
    for (Row const& row : std::vector<Row>{
             {0x00, 0x58444E4A, 4, "Corrupt index block signature for key: a"},
             {0x10, 5, 8, "Corrupt index block. VCN doesn't match. Expected: 0, found: 5 for key: a"},
             {0x10, ~std::uint64_t{0}, 8, "Corrupt index block. VCN doesn't match. Expected: 0, found: -1 for key: a"},
             {0x18, 8, 4, "Invalid index entry offset for key: a"},
             {0x18, 0xFFFFFFF8, 4, "No space available in index entry for key: a"},
             {0x1C, 0, 4, "No space available in index entry for key: a"},
             {0x1C, 0xFFFFFFFF, 4, "Index entries overflow for key: a"},
             {0x20, 0, 4, "Corrupt index block. Block size doesn't match. Expected: 4096, found: 24 for key: a"},
             {0x20, 0xFFFFFFFF, 4,
              "Corrupt index block. Block size doesn't match. Expected: 4096, found: 4294967319 for key: a"},
         }) {
        NtfsBuilder const good = builder;
        setBlock(row.offset, row.value, row.width);
        EXPECT_EQ(lookup("a"), row.text);
        builder = good;
    }
}

TEST_F(NtfsIndexDamage, EntriesOfABlockEndWithIt) {
    NtfsBuilder const good = builder;
    std::uint64_t const entry = blockEntry();
    setBlock(entry + kEntryLength, 0x1000, 2);
    EXPECT_EQ(lookup("a"), std::string(kOutOfBounds) + "a");
    builder = good;
    setBlock(0x18, 4096 - 24 - 8, 4); // eight bytes before the end
    setBlock(0x1C, 4096 - 24, 4);
    EXPECT_EQ(lookup("a"), std::string(kOutOfBounds) + "a");
    builder = good;
    setBlock(0x1C, entry - 0x18 + 15, 4);
    EXPECT_EQ(lookup("a"), std::string(kOutOfBounds) + "a");
}

TEST_F(NtfsIndexDamage, ALeafWithChildrenIsRefused) {
    std::uint64_t const entry = blockEntry();
    NtfsBuilder const good = builder;
    setBlock(entry + kFlags, 1, 2);
    EXPECT_EQ(lookup("A0"), "Could not find entry for key A0 in parent inode 30") << "not at this entry";
    EXPECT_EQ(lookup("!"), "Index entry with child node found in a leaf node containing key !");
    EXPECT_EQ(lookup("a"), "40") << "a match needs no child";
    builder = good;
    setBlock(entry + kFlags, 1, 2);
    setBlock(0x24, 1, 1); // now it is no leaf
    EXPECT_NE(lookup("!"), "Index entry with child node found in a leaf node containing key !");
}

TEST_F(NtfsIndexDamage, ATornBlockHasNoSignature) {
    for (std::uint64_t stride = 1; stride <= 8; ++stride) {
        NtfsBuilder torn = builder;
        std::uint64_t const tail = blocks + 512 * stride - 2;
        torn.poke(tail, torn.peek(tail, 2) + 1, 2);
        EXPECT_EQ(lookupIn(torn, "a"), "Corrupt index block signature for key: a");
    }
}

TEST_F(NtfsIndexDamage, AnUpdateSequenceThatDoesNotFitIsPassedOver) {
    // The result is not looked at: the block is used as it stands.
    NtfsBuilder damaged = builder;
    damaged.poke(blocks + 0x06, 5, 2);
    EXPECT_EQ(lookupIn(damaged, "a"), "40");
    damaged.poke(blocks + 0x04, 0x29, 2);
    EXPECT_EQ(lookupIn(damaged, "a"), "40");
}

TEST_F(NtfsIndexDamage, ABlockBehindTheVolumesEndIsAllZeros) {
    builder.bytes.resize(blocks);
    EXPECT_EQ(lookup("a"), "Corrupt index block signature for key: a");
    EXPECT_EQ(lookup("b"), "41");
}

TEST_F(NtfsIndexDamage, AMissingBlockIsNotTakenForTheOneAboveIt) {
    NtfsIndexShape const shape = builder.directoryShape(3);
    NtfsBytes const above = ntfsIndexBlock(shape, 0, ntfsNodeEntries({}, {1}), true);
    std::copy(above.begin(), above.end(), builder.bytes.begin() + static_cast<std::ptrdiff_t>(blocks));
    EXPECT_EQ(lookup("a"), "Could not find entry for key a in parent inode 30") << "block 1 holds c";
    builder.bytes.resize(blocks + 4096);
    EXPECT_EQ(lookup("a"), "Corrupt index block signature for key: a");
}

TEST_F(NtfsIndexDamage, ACycleOfBlocksGoesOnUntilAReadFails) {
    // Nothing looks out for it, so it is the reader that ends it here.
    NtfsBytes const itself = ntfsIndexBlock(builder.directoryShape(2), 0,
                                            ntfsNodeEntries(ntfsNameEntries({{u"a", 40}}, kDirectory), {0, 0}), true);
    std::copy(itself.begin(), itself.end(), builder.bytes.begin() + static_cast<std::ptrdiff_t>(blocks));
    EXPECT_EQ(lookup("!"), "Unable to read INDEX ENTRY");
}

/// Whether a text is one that a lookup may answer with.
bool isDocumented(std::string const& text) {
    static std::vector<std::string> const beginnings{"Could not find INDEX_",
                                                     "Invalid index block size",
                                                     "Index entry",
                                                     "Entry not found - between root entries",
                                                     "Unable to read INDEX ENTRY",
                                                     "Could not find entry for key",
                                                     "Overflow from index entry",
                                                     "Filename overflow",
                                                     "Corrupt index",
                                                     "Invalid index entry offset",
                                                     "No space available in index entry",
                                                     "Index entries overflow",
                                                     "Corrupt MFT record",
                                                     "Corrupt resident attribute",
                                                     "Corrupt non resident attribute",
                                                     "Bad end of record",
                                                     "Record 0x",
                                                     "MFT Record 0x",
                                                     "Incorrect attribute alignedment",
                                                     "Could not read MFT record",
                                                     "Corrupt standard information",
                                                     "Corrupt file name",
                                                     "Corrupt object id",
                                                     "Corrupt volume information",
                                                     "Invalid buffer passed in",
                                                     "No run list can be found",
                                                     "Invalid runlist",
                                                     "Corrupt runlist",
                                                     "Found no run list",
                                                     "Could not read from device",
                                                     "Attribute 0x",
                                                     "std::bad_alloc",
                                                     "vector::_M_default_append"};
    return std::any_of(beginnings.begin(), beginnings.end(),
                       [&](std::string const& beginning) { return text.starts_with(beginning); });
}

/// Every byte of the structure with these values; each lookup ends in a record's number or in a documented text.
template <typename Change>
void expectDocumentedAnswers(std::size_t size, NtfsBuilder const& good, Change&& change) {
    for (std::size_t offset = 0; offset < size; ++offset) {
        for (unsigned const value : {0x00U, 0x01U, 0x7FU, 0x80U, 0xFFU}) {
            NtfsBuilder damaged = good;
            change(damaged, offset, value);
            MemoryReader const memory(damaged.bytes);
            BudgetReader const reader(memory, 10000);
            SilentLogger logger;
            NtfsAccess parser(logger, 512, reader);
            parser.read_upcase();
            for (std::string const key : {"a", "b", "e", "zz"}) {
                reader.left = 100;
                std::string const failure = failureOf([&] { parser.btree_lookup(kDirectory, {&key, 1}); });
                EXPECT_TRUE(failure == "nothing was thrown" || isDocumented(failure))
                    << failure << " with " << value << " at " << offset;
            }
        }
    }
}

TEST_F(NtfsIndexDamage, NoByteOfTheRecordLeadsOutside) {
    std::size_t const used = builder.record(kDirectory).offsetOf(ntfs_type::kIndexAllocation) + 0x50;
    expectDocumentedAnswers(used, builder, [](NtfsBuilder& damaged, std::size_t offset, unsigned value) {
        if (offset < 0x38) { // where the update sequence stands and what it is: as it is stored
            damaged.poke(damaged.byteOffsetOf(kDirectory, offset), value, 1);
            return;
        }
        damaged.pokeRecord(kDirectory, offset, value, 1);
    });
}

TEST_F(NtfsIndexDamage, NoByteOfABlockLeadsOutside) {
    expectDocumentedAnswers(0xC0, builder, [this](NtfsBuilder& damaged, std::size_t offset, unsigned value) {
        damaged.poke(blocks + offset, value, 1);
    });
}

} // namespace
