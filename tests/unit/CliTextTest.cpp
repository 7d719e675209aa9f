// Numbers of NTFS in words: times, attributes, rights, and access-control lists as SDDL.
#include "cli/AclText.h"
#include "cli/FileText.h"

#include <array>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <sstream>

namespace {

using agent::core::fs::NTFS_ACE;
using agent::core::fs::NTFS_ACL;
using cli::ListKind;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(IsoTime, KeepsAllSevenDigits) {
    EXPECT_EQ(cli::isoTime(132'537'600'012'345'678U), "2020-12-30T00:00:01.2345678Z");
    EXPECT_EQ(cli::isoTime(116'444'736'000'000'001U), "1970-01-01T00:00:00.0000001Z");
}

TEST(IsoTime, BeginsIn1601) {
    EXPECT_EQ(cli::isoTime(0), "1601-01-01T00:00:00.0000000Z");
    EXPECT_EQ(cli::isoTime(863'999'999'999U), "1601-01-01T23:59:59.9999999Z");
    EXPECT_EQ(cli::isoTime(864'000'000'000U), "1601-01-02T00:00:00.0000000Z");
}

TEST(IsoTime, KnowsLeapDays) {
    EXPECT_EQ(cli::isoTime(125'963'423'990'000'000U), "2000-02-29T23:59:59.0000000Z");
}

TEST(IsoTime, TimesBeyondTheCalendarAreNumbers) {
    EXPECT_EQ(cli::isoTime(0x7FFF'FFFF'FFFF'FFFFU), "30828-09-14T02:48:05.4775807Z");
    EXPECT_EQ(cli::isoTime(~std::uint64_t{0}), "18446744073709551615 units of 100 ns since 1601");
}

TEST(AttributeNames, AreInOrderAndUnknownBitsStay) {
    EXPECT_THAT(cli::attributeNames(0), IsEmpty());
    EXPECT_THAT(cli::attributeNames(0x27), ElementsAre("read-only", "hidden", "system", "archive"));
    EXPECT_THAT(cli::attributeNames(0x10000A10), ElementsAre("directory", "sparse", "compressed", "file-name-index"));
    EXPECT_THAT(cli::attributeNames(0x80000488), ElementsAre("normal", "reparse-point", "0x80000008"));
}

TEST(RightNames, AreInOrderAndUnknownBitsStay) {
    EXPECT_THAT(cli::rightNames(0), IsEmpty());
    EXPECT_THAT(cli::rightNames(0x80010001), ElementsAre("read-data", "delete", "generic-read"));
    EXPECT_THAT(cli::rightNames(0x200), ElementsAre("0x200"));
    EXPECT_EQ(cli::rightNames(0x1F01FF).size(), 14U);
}

TEST(FlagNames, AreInOrderAndUnknownBitsStay) {
    EXPECT_THAT(cli::flagNames(0x1B), ElementsAre("object-inherit", "container-inherit", "inherit-only", "inherited"));
    EXPECT_THAT(cli::flagNames(0xE4), ElementsAre("no-propagate", "successful-access", "failed-access", "0x20"));
}

TEST(WellKnownName, TellsTheCommonOnes) {
    EXPECT_EQ(cli::wellKnownName("S-1-5-32-544"), "Administrators");
    EXPECT_EQ(cli::wellKnownName("S-1-1-0"), "Everyone");
    EXPECT_EQ(cli::wellKnownName("S-1-5-32-54"), "");
    EXPECT_EQ(cli::wellKnownName(""), "");
}

TEST(ModeName, EveryModeHasOne) {
    EXPECT_STREQ(cli::modeName(2), "grant");
    EXPECT_STREQ(cli::modeName(3), "deny");
    EXPECT_STREQ(cli::modeName(5), "audit success");
    EXPECT_STREQ(cli::modeName(6), "audit failure");
    EXPECT_STREQ(cli::modeName(0), "other");
}

NTFS_ACE entry(std::uint8_t mode, std::uint64_t flags, std::uint64_t mask, std::string sid) {
    return {std::move(sid), mask, mode, flags};
}

TEST(ListKinds, OfTwoTheFirstIsTheSystemList) {
    NTFS_ACL const list{2, true, {entry(2, 0, 1, "S-1-1-0")}};
    EXPECT_THAT(cli::listKinds({list, list}), ElementsAre(ListKind::System, ListKind::Discretionary));
    EXPECT_THAT(cli::listKinds({}), IsEmpty());
}

TEST(ListKinds, OneAloneIsToldByItsModes) {
    EXPECT_THAT(cli::listKinds({{2, true, {entry(3, 0, 1, "S-1-1-0")}}}), ElementsAre(ListKind::Discretionary));
    EXPECT_THAT(cli::listKinds({{2, true, {entry(6, 0x80, 1, "S-1-1-0")}}}), ElementsAre(ListKind::System));
    EXPECT_THAT(cli::listKinds({{2, true, {entry(0, 0, 1, "S-1-16-4096")}}}), ElementsAre(ListKind::System));
}

TEST(Sddl, OfListsThatAreOften) {
    EXPECT_EQ(cli::toSddl({{2, true, {entry(2, 3, 0x1F01FF, "S-1-5-32-544"), entry(3, 0, 0x10000, "S-1-1-0")}}}),
              "D:(A;OICI;0x1f01ff;;;BA)(D;;0x10000;;;WD)");
    EXPECT_EQ(cli::toSddl({{2, false, {entry(5, 0x40, 0x1F01FF, "S-1-1-0")}},
                           {2, false, {entry(2, 0x1B, 0x120089, "S-1-3-0")}}}),
              "D:P(A;OICIIOID;FR;;;CO)S:P(AU;SA;0x1f01ff;;;WD)");
    EXPECT_EQ(cli::toSddl({}), "");
}

TEST(Sddl, LabelsAreTheirOwnTypeAndOthersWithoutAModeAreLeftOut) {
    EXPECT_EQ(cli::toSddl({{2, true, {entry(0, 0, 1, "S-1-16-12288"), entry(0, 0, 7, "S-1-16-4096")}}}),
              "S:(ML;;NW;;;HI)(ML;;NWNRNX;;;LW)");
    EXPECT_EQ(cli::toSddl({{2, true, {entry(5, 0x40, 1, "S-1-5-18"), entry(0, 0, 1, "S-1-1-0")}}}),
              "S:(AU;SA;0x1;;;SY)");
}

/// Reads SDDL in the test's own way, as far as toSddl() writes it.
class SddlReader {
public:
    explicit SddlReader(std::string const& text) : rest_(text) {}

    /// The lists as the library gives them: the system list first.
    std::vector<NTFS_ACL> lists() {
        std::map<char, NTFS_ACL> found;
        while (!rest_.empty()) {
            char const letter = rest_.at(0);
            rest_.erase(0, 2);
            bool const isProtected = rest_.starts_with("P");
            rest_.erase(0, isProtected ? 1 : 0);
            NTFS_ACL& list = found[letter] = {2, !isProtected, {}};
            while (rest_.starts_with("(")) {
                std::size_t const end = rest_.find(')');
                list.aces.push_back(parse(rest_.substr(1, end - 1)));
                rest_.erase(0, end + 1);
            }
        }
        std::vector<NTFS_ACL> result;
        for (char const letter : {'S', 'D'}) {
            if (found.contains(letter)) {
                result.push_back(found[letter]);
            }
        }
        return result;
    }

private:
    static NTFS_ACE parse(std::string const& text) {
        std::istringstream stream(text);
        std::vector<std::string> fields;
        for (std::string field; std::getline(stream, field, ';');) {
            fields.push_back(field);
        }
        std::uint64_t const flags = parseFlags(fields.at(1));
        std::map<std::string, std::uint8_t> const modes{{"A", 2}, {"D", 3}};
        auto const mode = modes.find(fields.at(0));
        std::uint8_t const audit = (flags & 0x40) != 0 ? 5 : 6;
        return entry(mode == modes.end() ? audit : mode->second, flags, parseRights(fields.at(2)),
                     parseTrustee(fields.at(5)));
    }

    static std::uint64_t parseFlags(std::string const& text) {
        std::map<std::string, std::uint64_t> const words{{"OI", 1},    {"CI", 2},    {"NP", 4},   {"IO", 8},
                                                         {"ID", 0x10}, {"SA", 0x40}, {"FA", 0x80}};
        std::uint64_t flags = 0;
        for (std::size_t i = 0; i < text.size(); i += 2) {
            flags |= words.at(text.substr(i, 2));
        }
        return flags;
    }

    static std::uint64_t parseRights(std::string const& text) {
        std::map<std::string, std::uint64_t> const words{
            {"FA", 0x1F01FF}, {"FR", 0x120089}, {"FW", 0x120116}, {"FX", 0x1200A0}};
        return words.contains(text) ? words.at(text) : std::stoull(text, nullptr, 16);
    }

    static std::string parseTrustee(std::string const& text) {
        std::map<std::string, std::string> const words{{"WD", "S-1-1-0"},  {"CO", "S-1-3-0"},
                                                       {"SY", "S-1-5-18"}, {"BA", "S-1-5-32-544"},
                                                       {"AU", "S-1-5-11"}, {"BU", "S-1-5-32-545"}};
        return words.contains(text) ? words.at(text) : text;
    }

    std::string rest_;
};

std::string asText(std::vector<NTFS_ACL> const& lists) {
    std::ostringstream text;
    for (NTFS_ACL const& list : lists) {
        text << (list.inheritanceAllowed ? "open" : "protected");
        for (NTFS_ACE const& one : list.aces) {
            text << " (" << unsigned{one.accessMode} << ' ' << one.flags << ' ' << one.accessMask << ' ' << one.sid
                 << ')';
        }
        text << '\n';
    }
    return text.str();
}

NTFS_ACL randomList(std::mt19937& random, bool isSystem) {
    constexpr std::array kSids{"S-1-1-0", "S-1-5-18", "S-1-5-32-544", "S-1-5-11", "S-1-5-21-1-2-3-1000", "S-1-3-0"};
    constexpr std::array<std::uint64_t, 6> kMasks{0x1F01FF, 0x120089, 0x120116, 0x1200A0, 0x1301BF, 0x10000000};
    NTFS_ACL list{2, random() % 2 == 0, {}};
    for (std::size_t i = 0; i < 1 + random() % 6; ++i) {
        std::uint64_t const audit = isSystem ? 0x40U << random() % 2 : 0;
        auto const mode = static_cast<std::uint8_t>(isSystem ? (audit == 0x40 ? 5 : 6) : 2 + random() % 2);
        list.aces.push_back(entry(mode, random() % 0x20 | audit, kMasks.at(random() % kMasks.size()),
                                  kSids.at(random() % kSids.size())));
    }
    return list;
}

TEST(Sddl, ListsComeBackFromIt) {
    std::mt19937 random(7);
    for (unsigned i = 0; i < 500; ++i) {
        std::vector<NTFS_ACL> lists;
        if (random() % 2 == 0) {
            lists.push_back(randomList(random, true));
        }
        if (lists.empty() || random() % 2 == 0) {
            lists.push_back(randomList(random, false));
        }
        std::string const text = cli::toSddl(lists);
        EXPECT_EQ(asText(SddlReader(text).lists()), asText(lists)) << text;
    }
}

} // namespace
