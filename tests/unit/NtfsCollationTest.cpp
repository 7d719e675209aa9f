// The order of names and of security identifiers in an index.
#include "support/NtfsFileBench.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace tests;

constexpr unsigned kWholeTable = 0x20000; // the parser gives the table's length in bytes

class NtfsCollation : public testing::Test {
protected:
    int collate(std::wstring const& left, std::u16string const& right, bool ignoreCase,
                std::vector<std::uint16_t> const& table, unsigned length) const {
        std::vector<unsigned short> const units(right.begin(), right.end());
        return bench.parser.collate_unicode_names(left.data(), static_cast<unsigned>(left.size()), units.data(),
                                                  static_cast<unsigned>(units.size()), ignoreCase, table.data(),
                                                  length);
    }

    /// As directories are searched.
    int fold(std::wstring const& left, std::u16string const& right) const {
        return collate(left, right, true, ntfsUpcaseTable(), kWholeTable);
    }

    /// As attributes are named.
    int exact(std::wstring const& left, std::u16string const& right) const {
        return collate(left, right, false, ntfsUpcaseTable(), kWholeTable);
    }

    int withoutTable(std::wstring const& left, std::u16string const& right, bool ignoreCase) const {
        std::vector<unsigned short> const units(right.begin(), right.end());
        return bench.parser.collate_unicode_names(left.data(), static_cast<unsigned>(left.size()), units.data(),
                                                  static_cast<unsigned>(units.size()), ignoreCase, nullptr, 0);
    }

    NtfsFileBench bench;
};

TEST_F(NtfsCollation, EmptyNamesNeedNoTable) {
    for (bool const ignoreCase : {true, false}) {
        EXPECT_EQ(withoutTable(L"", u"", ignoreCase), 0);
        EXPECT_EQ(withoutTable(L"", u"a", ignoreCase), -1);
        EXPECT_EQ(withoutTable(L"a", u"", ignoreCase), 1);
    }
}

TEST_F(NtfsCollation, OtherNamesWithoutATableAreRefused) {
    for (bool const ignoreCase : {true, false}) {
        try {
            withoutTable(L"a", u"a", ignoreCase);
            FAIL() << "nothing was thrown";
        } catch (std::invalid_argument const& error) {
            EXPECT_STREQ(error.what(), "Upcase file is not read.");
        }
    }
}

TEST_F(NtfsCollation, NamesThatDifferByCaseAreEqual) {
    EXPECT_EQ(fold(L"readme.txt", u"README.TXT"), 0);
    EXPECT_EQ(fold(L"README.TXT", u"readme.txt"), 0);
    EXPECT_EQ(fold(L"ReAdMe", u"rEaDmE"), 0);
    EXPECT_EQ(fold(L"\u00E4\u03B1\u0436", u"\u00C4\u0391\u0416"), 0);
}

TEST_F(NtfsCollation, TheFirstDifferenceDecides) {
    EXPECT_EQ(fold(L"abcz", u"abda"), -1);
    EXPECT_EQ(fold(L"abda", u"abcz"), 1);
    EXPECT_EQ(fold(L"b", u"aaaa"), 1);
    EXPECT_EQ(fold(L"a", u"bbbb"), -1);
}

TEST_F(NtfsCollation, APrefixSortsFirst) {
    EXPECT_EQ(fold(L"file", u"FILE1"), -1);
    EXPECT_EQ(fold(L"FILE1", u"file"), 1);
    EXPECT_EQ(exact(L"$SI", u"$SII"), -1);
    EXPECT_EQ(exact(L"$SII", u"$SI"), 1);
}

TEST_F(NtfsCollation, CapitalsAreComparedNotTheCharactersAsStored) {
    // As stored, the underscore stands between capitals and small letters.
    EXPECT_EQ(fold(L"a", u"_"), -1);
    EXPECT_EQ(fold(L"A", u"_"), -1);
    EXPECT_EQ(fold(L"_", u"z"), 1);
    EXPECT_EQ(exact(L"a", u"_"), -1);
}

TEST_F(NtfsCollation, CharactersPastTheTablesLengthStandForThemselves) {
    EXPECT_EQ(collate(L"a", u"A", true, ntfsUpcaseTable(), 'b'), 0) << "the last one in the table";
    EXPECT_EQ(collate(L"b", u"B", true, ntfsUpcaseTable(), 'b'), 1) << "the first one behind it";
    EXPECT_EQ(collate(L"B", u"b", true, ntfsUpcaseTable(), 'b'), -1);
    EXPECT_EQ(collate(L"b", u"b", true, ntfsUpcaseTable(), 'b'), 0);
    EXPECT_EQ(collate(L"a", u"A", true, ntfsUpcaseTable(), 0), 1) << "an empty table";
}

TEST_F(NtfsCollation, OnlyTheLow16BitsOfAWideCharacterCount) {
    std::wstring const wide{static_cast<wchar_t>(0x10041), static_cast<wchar_t>(0x7FFF0062)};
    EXPECT_EQ(fold(wide, u"ab"), 0);
    EXPECT_EQ(exact(wide, u"Ab"), 0);
    EXPECT_EQ(exact(wide, u"AB"), 1) << "the tie is broken by the low bits as well";
}

TEST_F(NtfsCollation, CharactersAreUnsigned) {
    EXPECT_EQ(fold(std::wstring(1, static_cast<wchar_t>(0xFFFF)), u"A"), 1);
    EXPECT_EQ(fold(L"A", u"\uFFFF"), -1);
    EXPECT_EQ(fold(std::wstring(1, static_cast<wchar_t>(0xD800)), std::u16string(1, char16_t{0xE000})), -1);
}

TEST_F(NtfsCollation, WithCaseEqualNamesAreOnlyTheExactlyEqual) {
    EXPECT_EQ(exact(L"$SII", u"$SII"), 0);
    EXPECT_EQ(exact(L"$sii", u"$SII"), 1);
    EXPECT_EQ(exact(L"$SII", u"$sii"), -1);
}

TEST_F(NtfsCollation, WithCaseTheCapitalsStillDecideFirst) {
    EXPECT_EQ(exact(L"aBd", u"Abc"), 1);
    EXPECT_EQ(exact(L"ABc", u"abd"), -1);
    // Behind a difference of case alone, the length comes before the exact characters.
    EXPECT_EQ(exact(L"abc", u"ABCD"), -1);
    EXPECT_EQ(exact(L"ABCD", u"abc"), 1);
    EXPECT_EQ(exact(L"ab", u"ABc"), -1);
}

TEST_F(NtfsCollation, WithCaseTheFirstExactDifferenceBreaksTheTie) {
    EXPECT_EQ(exact(L"aB", u"Ab"), 1);
    EXPECT_EQ(exact(L"Ab", u"aB"), -1);
    EXPECT_EQ(exact(L"xaB", u"xAb"), 1);
}

/// Names that often share a beginning.
std::vector<std::u16string> randomNames(unsigned seed) {
    std::mt19937 random(seed);
    std::u16string const alphabet = u"aAbB_\u00E4\u00C4\u0436\u0416\uFFFF";
    std::vector<std::u16string> names(60);
    for (std::u16string& name : names) {
        for (std::size_t length = random() % 5; name.size() < length;) {
            name.push_back(alphabet[random() % alphabet.size()]);
        }
    }
    return names;
}

/// What the order should be, told another way: by capitals, and then where case matters by the characters as stored.
int expectedOrder(std::u16string const& left, std::u16string const& right, bool ignoreCase) {
    auto const capitals = [](std::u16string text) {
        std::transform(text.begin(), text.end(), text.begin(),
                       [](char16_t unit) { return static_cast<char16_t>(ntfsUpcaseTable()[unit]); });
        return text;
    };
    int order = capitals(left).compare(capitals(right));
    if (order == 0 && !ignoreCase) {
        order = left.compare(right);
    }
    return order == 0 ? 0 : (order < 0 ? -1 : 1);
}

TEST_F(NtfsCollation, AgreesWithAComparisonOfWholeStrings) {
    auto const names = randomNames(5);
    for (auto const& left : names) {
        for (auto const& right : names) {
            std::wstring const wide(left.begin(), left.end());
            EXPECT_EQ(fold(wide, right), expectedOrder(left, right, true));
            EXPECT_EQ(exact(wide, right), expectedOrder(left, right, false));
        }
    }
}

class NtfsIndexCollation : public NtfsCollation {
protected:
    int collateName(std::string const& key, std::u16string const& name) const {
        NtfsBytes entry = ntfsIndexEntry(1, ntfsFileName(5, name));
        auto* current = reinterpret_cast<agent::core::fs::ntfs_index_entry*>(entry.data());
        int const order = bench.parser.collate_index_names(&current, key);
        EXPECT_EQ(reinterpret_cast<std::uint8_t*>(current), entry.data()) << "the entry is not left";
        return order;
    }

    int collateIdentifier(unsigned key, unsigned identifier) const {
        NtfsBytes entry = ntfsIdentifierEntries({{identifier, 0, 0, 0}}).at(0);
        auto* current = reinterpret_cast<agent::core::fs::ntfs_index_entry*>(entry.data());
        return bench.parser.collate_index_security_IDs(&current, key);
    }
};

TEST_F(NtfsIndexCollation, KeysAreUtf8AndComparedWithoutCase) {
    bench.parser.read_upcase();
    EXPECT_EQ(collateName("readme.txt", u"README.TXT"), 0);
    EXPECT_EQ(collateName("a", u"b"), -1);
    EXPECT_EQ(collateName("b", u"A"), 1);
    EXPECT_EQ(collateName("\xC3\xA4\xD0\xB6", u"\u00C4\u0416"), 0);
    EXPECT_EQ(collateName("\xF0\x9F\x98\x80", u"\U0001F600"), 0) << "two units in either";
    EXPECT_EQ(collateName("\xE4", u"\uFFFD"), 0) << "a malformed byte is one replacement character";
}

TEST_F(NtfsIndexCollation, TheLongestNamesAreCompared) {
    bench.parser.read_upcase();
    EXPECT_EQ(collateName(std::string(255, 'x'), std::u16string(255, u'X')), 0);
    EXPECT_EQ(collateName(std::string(254, 'x'), std::u16string(255, u'X')), -1);
    EXPECT_EQ(collateName(std::string(256, 'x'), std::u16string(255, u'X')), 1);
    EXPECT_EQ(collateName(std::string(100000, 'x'), std::u16string(255, u'X')), 1);
}

TEST_F(NtfsIndexCollation, ANameIsNotComparedBeforeTheTableIsRead) {
    EXPECT_THROW(collateName("a", u"A"), std::invalid_argument);
    EXPECT_EQ(collateName("", u"A"), -1) << "nothing to compare";
}

TEST_F(NtfsIndexCollation, IdentifiersAreUnsigned) {
    EXPECT_EQ(collateIdentifier(256, 257), -1);
    EXPECT_EQ(collateIdentifier(257, 257), 0);
    EXPECT_EQ(collateIdentifier(258, 257), 1);
    EXPECT_EQ(collateIdentifier(0x80000000, 1), 1);
    EXPECT_EQ(collateIdentifier(0, 0xFFFFFFFF), -1);
    EXPECT_EQ(collateIdentifier(0xFFFFFFFF, 0x7FFFFFFF), 1);
}

TEST_F(NtfsIndexCollation, KeysAreNamedInMessages) {
    std::string const name = "Some\xC3\xA4 name";
    unsigned const identifier = 0xFFFFFFFF;
    EXPECT_EQ(bench.parser.keyToString({&name, 1}), name);
    EXPECT_EQ(bench.parser.keyToString({&identifier, 16}), "4294967295");
    for (unsigned const type : {0U, 2U, 15U, 17U, 0xFFFFFFFFU}) {
        EXPECT_EQ(failureOf([&] {
                      bench.parser.keyToString({&identifier, type});
                  }),
                  "Key type not recognized, aborting operation.");
    }
}

} // namespace
