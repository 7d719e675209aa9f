// One entry of an index checked, and the walk along the entries of a node.
#include "support/NtfsFileBench.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace tests;
using agent::core::fs::ntfs_index_entry;

constexpr std::uint64_t kDataOffset = 0x00; // in $SII
constexpr std::uint64_t kDataLength = 0x02;
constexpr std::uint64_t kEntryLength = 0x08;
constexpr std::uint64_t kKeyLength = 0x0A;
constexpr std::uint64_t kFlags = 0x0C;
constexpr std::uint64_t kNameLength = 0x50;

constexpr char const* kSound = "nothing was thrown";
constexpr char const* kUnknownType = "Key type not recognized, aborting operation.";
constexpr char const* kOutOfBounds = "Index entry out of bounds in inode for node with key ";

NtfsBytes nameEntry(std::u16string const& name, std::uint64_t reference = 30) {
    return ntfsIndexEntry(reference, ntfsFileName(5, name));
}

NtfsBytes identifierEntry(std::uint32_t identifier) {
    return ntfsIdentifierEntries({{identifier, 7, 0x40, 100}}).at(0);
}

class NtfsIndexEntryCheck : public testing::Test {
protected:
    std::string checkName(NtfsBytes const& entry, std::string const& key = "k") const {
        return check(entry, {&key, 1});
    }

    std::string checkIdentifier(NtfsBytes const& entry) const {
        unsigned const identifier = 256;
        return check(entry, {&identifier, 16});
    }

    std::string check(NtfsBytes const& entry, NtfsAccess::BTreeKey const& key) const {
        auto const* const place = reinterpret_cast<ntfs_index_entry const*>(entry.data());
        return failureOf([&] { bench.parser.check_index_entry_consistency(place, key); });
    }

    NtfsFileBench bench;
};

TEST_F(NtfsIndexEntryCheck, GoodEntriesPass) {
    EXPECT_EQ(checkName(nameEntry(u"name")), kSound);
    EXPECT_EQ(checkName(nameEntry(std::u16string(255, u'x'))), kSound);
    EXPECT_EQ(checkIdentifier(identifierEntry(256)), kSound);
}

TEST_F(NtfsIndexEntryCheck, AKeyMustEndInsideTheEntry) {
    NtfsBytes entry = nameEntry(u"name"); // 96 bytes
    putNumber(entry, kKeyLength, 80, 2);
    EXPECT_EQ(checkName(entry), kSound);
    putNumber(entry, kKeyLength, 81, 2);
    EXPECT_EQ(checkName(entry, "some name"), "Overflow from index entry for key: some name");
    putNumber(entry, kKeyLength, 0xFFFF, 2);
    EXPECT_EQ(checkName(entry, ""), "Overflow from index entry for key: ");

    NtfsBytes identifier = identifierEntry(256); // 40 bytes
    putNumber(identifier, kKeyLength, 24, 2);
    EXPECT_EQ(checkIdentifier(identifier), kSound);
    putNumber(identifier, kKeyLength, 25, 2);
    EXPECT_EQ(checkIdentifier(identifier), "Overflow from index entry for key: 256");
}

TEST_F(NtfsIndexEntryCheck, ANameMustEndInsideTheEntry) {
    NtfsBytes entry = nameEntry(u"name"); // 96 bytes, so that seven characters are the most
    putNumber(entry, kNameLength, 7, 1);
    EXPECT_EQ(checkName(entry), kSound);
    for (unsigned const length : {8U, 127U, 255U}) {
        putNumber(entry, kNameLength, length, 1);
        EXPECT_EQ(checkName(entry, "letter"), "Filename overflow from index entry for key: letter");
    }
}

TEST_F(NtfsIndexEntryCheck, AnEntryTooShortForAnyNameIsRefused) {
    for (std::size_t const length : {16U, 24U, 80U, 81U}) {
        NtfsBytes entry(length);
        putNumber(entry, kEntryLength, length, 2);
        EXPECT_EQ(checkName(entry), "Filename overflow from index entry for key: k") << length;
    }
    NtfsBytes empty = nameEntry(u"");
    empty.resize(82);
    putNumber(empty, kEntryLength, 82, 2);
    EXPECT_EQ(checkName(empty), kSound);
}

TEST_F(NtfsIndexEntryCheck, AnEntryOfLengthZeroHoldsNoName) {
    NtfsBytes entry = nameEntry(u"name");
    putNumber(entry, kEntryLength, 0, 2);
    EXPECT_EQ(checkName(entry), "Filename overflow from index entry for key: k");
    putNumber(entry, kNameLength, 0, 1);
    EXPECT_EQ(checkName(entry), "Filename overflow from index entry for key: k");
}

TEST_F(NtfsIndexEntryCheck, DataMustEndInsideTheEntry) {
    NtfsBytes entry = identifierEntry(256); // 40 bytes, of which the last 20 are data
    putNumber(entry, kDataLength, 21, 2);
    EXPECT_EQ(checkIdentifier(entry), "Data overflow from index entry for key: 256");
    putNumber(entry, kDataOffset, 0xFFFF, 2);
    putNumber(entry, kDataLength, 1, 2); // the sum is not kept to 16 bits
    EXPECT_EQ(checkIdentifier(entry), "Data overflow from index entry for key: 256");
    putNumber(entry, kDataLength, 0, 2);
    EXPECT_EQ(checkIdentifier(entry), kSound) << "without data, their place does not matter";
}

TEST_F(NtfsIndexEntryCheck, AnIdentifiersEntryOfLengthZeroPassesWithoutData) {
    NtfsBytes entry = identifierEntry(256);
    putNumber(entry, kEntryLength, 0, 2);
    EXPECT_EQ(checkIdentifier(entry), "Data overflow from index entry for key: 256");
    putNumber(entry, kDataLength, 0, 2);
    EXPECT_EQ(checkIdentifier(entry), kSound);
}

TEST_F(NtfsIndexEntryCheck, AnUnknownKeyTypeCannotEvenBeNamed) {
    std::string const name = "k";
    for (unsigned const type : {0U, 2U, 17U, 0xFFFFFFFFU}) {
        EXPECT_EQ(check(nameEntry(u"name"), {&name, type}), kUnknownType);
    }
}

class NtfsIndexWalk : public testing::Test {
protected:
    NtfsIndexWalk() { bench.parser.read_upcase(); }

    /// The walk's answer and how far it went, or what it threw.
    struct Answer {
        bool found = false;
        std::ptrdiff_t position = 0;
        std::string failure = kSound;

        bool operator==(Answer const&) const = default;
    };

    Answer walk(NtfsBytes& node, NtfsAccess::BTreeKey const& key, std::ptrdiff_t start = 0,
                std::ptrdiff_t lowerBound = 0) const {
        auto* const begin = node.data();
        auto* entry = reinterpret_cast<ntfs_index_entry*>(begin + start);
        Answer answer;
        answer.failure = failureOf([&] {
            answer.found = bench.parser.traverse_index_entry(&entry, begin + node.size(), begin + lowerBound, key);
        });
        answer.position = reinterpret_cast<std::uint8_t*>(entry) - begin;
        return answer;
    }

    Answer walkNames(NtfsBytes node, std::string const& key) const { return walk(node, {&key, 1}); }

    Answer walkIdentifiers(NtfsBytes node, unsigned key) const { return walk(node, {&key, 16}); }

    static NtfsBytes names() {
        return ntfsNodeEntries({nameEntry(u"Beta"), nameEntry(u"delta"), nameEntry(u"Zeta")}, {}); // 96 bytes each
    }

    static NtfsBytes identifiers(std::vector<std::uint32_t> const& values) {
        std::vector<NtfsBytes> entries;
        for (std::uint32_t const value : values) {
            entries.push_back(identifierEntry(value));
        }
        return ntfsNodeEntries(entries, {}); // 40 bytes each
    }

    NtfsFileBench bench;
};

TEST_F(NtfsIndexWalk, StopsAtTheMatch) {
    EXPECT_EQ(walkNames(names(), "BETA"), (Answer{true, 0, kSound}));
    EXPECT_EQ(walkNames(names(), "DELTA"), (Answer{true, 96, kSound}));
    EXPECT_EQ(walkNames(names(), "zeta"), (Answer{true, 192, kSound}));
}

TEST_F(NtfsIndexWalk, StopsAtTheFirstEntryBehindTheKey) {
    EXPECT_EQ(walkNames(names(), "alpha"), (Answer{false, 0, kSound}));
    EXPECT_EQ(walkNames(names(), "BETA2"), (Answer{false, 96, kSound}));
    EXPECT_EQ(walkNames(names(), "e"), (Answer{false, 192, kSound}));
    EXPECT_EQ(walkNames(names(), ""), (Answer{false, 0, kSound}));
}

TEST_F(NtfsIndexWalk, StopsAtTheEndEntry) {
    EXPECT_EQ(walkNames(names(), "zzz"), (Answer{false, 288, kSound}));
    EXPECT_EQ(walkNames(ntfsNodeEntries({}, {}), "a"), (Answer{false, 0, kSound}));
}

TEST_F(NtfsIndexWalk, IdentifiersAreFoundAsUnsignedNumbers) {
    NtfsBytes const node = identifiers({1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF});
    EXPECT_EQ(walkIdentifiers(node, 0x80000000), (Answer{true, 80, kSound}));
    EXPECT_EQ(walkIdentifiers(node, 0xFFFFFFFF), (Answer{true, 120, kSound}));
    EXPECT_EQ(walkIdentifiers(node, 0x80000001), (Answer{false, 120, kSound}));
    EXPECT_EQ(walkIdentifiers(node, 0), (Answer{false, 0, kSound}));
}

TEST_F(NtfsIndexWalk, OfEqualKeysTheFirstIsFoundAndUnsortedOnesAreMissed) {
    EXPECT_EQ(walkIdentifiers(identifiers({5, 5, 5}), 5), (Answer{true, 0, kSound}));
    EXPECT_EQ(walkIdentifiers(identifiers({9, 5}), 5), (Answer{false, 0, kSound}));
}

TEST_F(NtfsIndexWalk, BeginsWhereItIsTold) {
    NtfsBytes node = names();
    std::string const key = "zeta";
    EXPECT_EQ(walk(node, {&key, 1}, 96, 96), (Answer{true, 192, kSound}));
    EXPECT_EQ(walk(node, {&key, 1}, 192, 0), (Answer{true, 192, kSound}));
}

TEST_F(NtfsIndexWalk, AnEntryBelowTheLowerBoundIsRefused) {
    NtfsBytes node = names();
    std::string const key = "zeta";
    EXPECT_EQ(walk(node, {&key, 1}, 0, 1), (Answer{false, 0, kOutOfBounds + key}));
}

TEST_F(NtfsIndexWalk, AHeaderThatReachesPastTheEndIsRefused) {
    for (std::size_t const size : {0U, 1U, 15U}) {
        EXPECT_EQ(walkNames(NtfsBytes(size), "k").failure, std::string(kOutOfBounds) + "k") << size;
    }
    NtfsBytes end = ntfsNodeEntries({}, {});
    EXPECT_EQ(walkNames(end, "k").failure, kSound) << "16 bytes are enough";
}

TEST_F(NtfsIndexWalk, AnEntryThatReachesPastTheEndIsRefused) {
    NtfsBytes end = ntfsNodeEntries({}, {});
    putNumber(end, kEntryLength, 17, 2);
    EXPECT_EQ(walkNames(end, "k").failure, std::string(kOutOfBounds) + "k");
    NtfsBytes node = names();
    putNumber(node, kEntryLength, 0xFFFF, 2);
    EXPECT_EQ(walkNames(node, "alpha").failure, std::string(kOutOfBounds) + "alpha");
    unsigned const identifier = 77;
    NtfsBytes cut = identifierEntry(1);
    cut.pop_back();
    EXPECT_EQ(walk(cut, {&identifier, 16}).failure, std::string(kOutOfBounds) + "77");
}

TEST_F(NtfsIndexWalk, WithoutAnEndEntryItRunsIntoTheEnd) {
    EXPECT_EQ(walkNames(nameEntry(u"a"), "b").failure, std::string(kOutOfBounds) + "b");
    EXPECT_EQ(walkNames(nameEntry(u"b"), "a"), (Answer{false, 0, kSound})) << "stopped before";
}

TEST_F(NtfsIndexWalk, TheEndEntryHoldsNoKeyWhateverItHolds) {
    NtfsBytes entry = nameEntry(u"name");
    putNumber(entry, kFlags, 2, 2);
    putNumber(entry, kKeyLength, 0xFFFF, 2);
    EXPECT_EQ(walkNames(entry, "name"), (Answer{false, 0, kSound}));
    putNumber(entry, kEntryLength, 0, 2);
    EXPECT_EQ(walkNames(entry, "name"), (Answer{false, 0, kSound}));
}

TEST_F(NtfsIndexWalk, ADamagedEntryOnTheWayIsNamed) {
    NtfsBytes node = names();
    putNumber(node, 96 + kNameLength, 8, 1);
    EXPECT_EQ(walkNames(node, "beta").found, true) << "not met";
    EXPECT_EQ(walkNames(node, "zeta").failure, "Filename overflow from index entry for key: zeta");
}

TEST_F(NtfsIndexWalk, AnEntryOfLengthZeroThatWouldNeverAdvanceIsRefused) {
    NtfsBytes node = identifiers({5});
    putNumber(node, kEntryLength, 0, 2);
    putNumber(node, kDataLength, 0, 2);
    EXPECT_EQ(walkIdentifiers(node, 5), (Answer{true, 0, kSound}));
    EXPECT_EQ(walkIdentifiers(node, 4), (Answer{false, 0, kSound}));
    EXPECT_EQ(walkIdentifiers(node, 6).failure, std::string(kOutOfBounds) + "6");
}

TEST_F(NtfsIndexWalk, AnUnknownKeyTypeFailsAtTheFirstKey) {
    std::string const name = "k";
    NtfsBytes node = names();
    EXPECT_EQ(walk(node, {&name, 2}).failure, kUnknownType);
    NtfsBytes empty = ntfsNodeEntries({}, {});
    EXPECT_EQ(walk(empty, {&name, 2}), (Answer{false, 0, kSound})) << "no key to compare";
}

TEST_F(NtfsIndexWalk, NamesNeedTheUpcaseTableAndIdentifiersDoNot) {
    NtfsFileBench const fresh;
    std::string const key = "beta";
    unsigned const identifier = 5;
    NtfsBytes nameNode = names();
    auto* entry = reinterpret_cast<ntfs_index_entry*>(nameNode.data());
    EXPECT_EQ(
        failureOf([&] {
            fresh.parser.traverse_index_entry(&entry, nameNode.data() + nameNode.size(), nameNode.data(), {&key, 1});
        }),
        "Upcase file is not read.");
    NtfsBytes identifierNode = identifiers({5});
    entry = reinterpret_cast<ntfs_index_entry*>(identifierNode.data());
    EXPECT_TRUE(fresh.parser.traverse_index_entry(&entry, identifierNode.data() + identifierNode.size(),
                                                  identifierNode.data(), {&identifier, 16}));
}

} // namespace
