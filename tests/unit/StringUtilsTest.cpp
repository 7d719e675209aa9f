// UTF-8 to UTF-16 code units in wide characters.
#include "agent/StringUtils.h"

#include <clocale>
#include <gtest/gtest.h>

namespace {

using agent::StringUtils;

/// Wide strings as numbers, so that a failure can be read.
std::vector<unsigned> units(std::string const& text) {
    std::vector<unsigned> numbers;
    for (wchar_t const unit : StringUtils::StrToWStr(text)) {
        numbers.push_back(static_cast<unsigned>(unit));
    }
    return numbers;
}

using Units = std::vector<unsigned>;

constexpr unsigned kReplacement = 0xFFFD;

TEST(StringUtils, AnEmptyTextStaysEmpty) {
    EXPECT_TRUE(StringUtils::StrToWStr("").empty());
}

TEST(StringUtils, AsciiIsTakenByteForByte) {
    std::string text;
    Units expected;
    for (unsigned character = 0; character < 0x80; ++character) {
        text.push_back(static_cast<char>(character));
        expected.push_back(character);
    }
    EXPECT_EQ(units(text), expected);
    EXPECT_EQ(StringUtils::StrToWStr("$UpCase"), L"$UpCase");
}

TEST(StringUtils, ANullByteIsACharacterLikeAnyOther) {
    EXPECT_EQ(units(std::string("a\0b", 3)), (Units{'a', 0, 'b'}));
}

TEST(StringUtils, SequencesOfTwoBytes) {
    EXPECT_EQ(units("\xC2\x80"), Units{0x80});
    EXPECT_EQ(units("\xC3\xA4"), Units{0xE4});
    EXPECT_EQ(units("\xDF\xBF"), Units{0x7FF});
}

TEST(StringUtils, SequencesOfThreeBytes) {
    EXPECT_EQ(units("\xE0\xA0\x80"), Units{0x800});
    EXPECT_EQ(units("\xE2\x82\xAC"), Units{0x20AC});
    EXPECT_EQ(units("\xED\x9F\xBF"), Units{0xD7FF}) << "the last before the surrogates";
    EXPECT_EQ(units("\xEE\x80\x80"), Units{0xE000}) << "the first after the surrogates";
    EXPECT_EQ(units("\xEF\xBB\xBF"), Units{0xFEFF}) << "a byte order mark is kept";
    EXPECT_EQ(units("\xEF\xBF\xBF"), Units{0xFFFF});
}

TEST(StringUtils, SequencesOfFourBytesBecomeTwoSurrogates) {
    EXPECT_EQ(units("\xF0\x90\x80\x80"), (Units{0xD800, 0xDC00}));
    EXPECT_EQ(units("\xF0\x9F\x98\x80"), (Units{0xD83D, 0xDE00}));
    EXPECT_EQ(units("\xF4\x8F\xBF\xBF"), (Units{0xDBFF, 0xDFFF}));
}

TEST(StringUtils, MixedTextKeepsItsOrder) {
    EXPECT_EQ(units("a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80z"), (Units{'a', 0xE4, 0x20AC, 0xD83D, 0xDE00, 'z'}));
}

TEST(StringUtils, EachByteOfAnOverlongFormIsReplaced) {
    EXPECT_EQ(units("\xC0\x80"), Units(2, kReplacement));
    EXPECT_EQ(units("\xC1\xBF"), Units(2, kReplacement));
    EXPECT_EQ(units("\xE0\x80\x80"), Units(3, kReplacement));
    EXPECT_EQ(units("\xE0\x9F\xBF"), Units(3, kReplacement));
    EXPECT_EQ(units("\xF0\x80\x80\x80"), Units(4, kReplacement));
    EXPECT_EQ(units("\xF0\x8F\xBF\xBF"), Units(4, kReplacement));
}

TEST(StringUtils, EachByteOfAnEncodedSurrogateIsReplaced) {
    EXPECT_EQ(units("\xED\xA0\x80"), Units(3, kReplacement));
    EXPECT_EQ(units("\xED\xBF\xBF"), Units(3, kReplacement));
    EXPECT_EQ(units("\xED\xA0\xBD\xED\xB8\x80"), Units(6, kReplacement)) << "a pair is no better";
}

TEST(StringUtils, EachByteBeyondTheLastCharacterIsReplaced) {
    EXPECT_EQ(units("\xF4\x90\x80\x80"), Units(4, kReplacement));
    EXPECT_EQ(units("\xF5\x80\x80\x80"), Units(4, kReplacement));
    EXPECT_EQ(units("\xF8\x88\x80\x80\x80"), Units(5, kReplacement));
    EXPECT_EQ(units("\xFE\xFF"), Units(2, kReplacement));
}

TEST(StringUtils, StrayContinuationBytesAreReplaced) {
    EXPECT_EQ(units("\x80"), Units{kReplacement});
    EXPECT_EQ(units("a\xBF\x80z"), (Units{'a', kReplacement, kReplacement, 'z'}));
}

TEST(StringUtils, TruncatedSequencesAreReplacedByteByByte) {
    EXPECT_EQ(units("\xC3"), Units{kReplacement});
    EXPECT_EQ(units("\xE2\x82"), Units(2, kReplacement));
    EXPECT_EQ(units("\xF0\x9F\x98"), Units(3, kReplacement));
    EXPECT_EQ(units("ok\xF0"), (Units{'o', 'k', kReplacement}));
}

TEST(StringUtils, ABrokenSequenceDoesNotSwallowWhatFollows) {
    EXPECT_EQ(units("\xC3z"), (Units{kReplacement, 'z'}));
    EXPECT_EQ(units("\xE2\x82z"), (Units{kReplacement, kReplacement, 'z'}));
    EXPECT_EQ(units("\xF0\x9F\xC3\xA4"), (Units{kReplacement, kReplacement, 0xE4}));
    EXPECT_EQ(units("\xE2\xE2\x82\xAC"), (Units{kReplacement, 0x20AC}));
}

TEST(StringUtils, DoesNotDependOnTheLocale) {
    std::string const before = std::setlocale(LC_ALL, nullptr);
    for (char const* const locale : {"C", "C.UTF-8"}) {
        ASSERT_NE(std::setlocale(LC_ALL, locale), nullptr) << locale;
        EXPECT_EQ(units("\xC3\xA4"), Units{0xE4}) << locale;
        EXPECT_EQ(units("\xFF"), Units{kReplacement}) << locale;
    }
    std::setlocale(LC_ALL, before.c_str());
}

} // namespace
