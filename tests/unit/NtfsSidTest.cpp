// Security identifiers as text, and the small questions about identifiers and entry types.
#include "agent/core/fs/NTFSSecurity.h"
#include "support/SecurityDescriptors.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace agent::core::fs;
using tests::security::Bytes;
using tests::security::makeSid;

_SID asSid(Bytes const& bytes) {
    _SID sid{};
    std::memcpy(&sid, bytes.data(), std::min(bytes.size(), sizeof sid));
    return sid;
}

std::string textOf(std::uint64_t authority, std::vector<std::uint32_t> const& subAuthorities) {
    return sidToString(asSid(makeSid(authority, subAuthorities)));
}

void expectInvalid(_SID const& sid) {
    EXPECT_FALSE(isSIDValid(sid));
    try {
        sidToString(sid);
        FAIL() << "nothing was thrown";
    } catch (std::runtime_error const& error) {
        EXPECT_STREQ(error.what(), "SID is invalid! Cannot convert to string.");
    }
}

TEST(NtfsSid, WellKnownIdentifiersPrintAsEverywhere) {
    EXPECT_EQ(textOf(0, {0}), "S-1-0-0");
    EXPECT_EQ(textOf(1, {0}), "S-1-1-0");
    EXPECT_EQ(textOf(3, {4}), "S-1-3-4");
    EXPECT_EQ(textOf(5, {18}), "S-1-5-18");
    EXPECT_EQ(textOf(5, {32, 544}), "S-1-5-32-544");
    EXPECT_EQ(textOf(5, {21, 1000}), "S-1-5-21-1000");
    EXPECT_EQ(textOf(15, {2, 1}), "S-1-15-2-1");
    EXPECT_EQ(textOf(16, {12288}), "S-1-16-12288");
}

TEST(NtfsSid, SubAuthoritiesAreUnsignedAndInTheirOrder) {
    EXPECT_EQ(textOf(5, {21, 0xFFFFFFFF, 0, 0x80000000, 1}), "S-1-5-21-4294967295-0-2147483648-1");
}

TEST(NtfsSid, WithoutSubAuthoritiesTheTextEndsWithTheAuthority) {
    EXPECT_EQ(textOf(5, {}), "S-1-5");
}

TEST(NtfsSid, FifteenSubAuthoritiesAreTheMost) {
    std::vector<std::uint32_t> subAuthorities;
    std::string expected = "S-1-5";
    for (std::uint32_t i = 1; i <= 15; ++i) {
        subAuthorities.push_back(i * 111111111U % 4000000000U);
        expected += "-" + std::to_string(subAuthorities.back());
        EXPECT_EQ(textOf(5, subAuthorities), expected);
    }
    expectInvalid(asSid(makeSid(5, std::vector<std::uint32_t>(16, 1))));
}

TEST(NtfsSid, MoreThanFifteenSubAuthoritiesAreRefusedByTheirCount) {
    _SID sid = asSid(makeSid(5, {18}));
    for (unsigned count = 0; count < 256; ++count) {
        sid.sub_authority_count = static_cast<std::uint8_t>(count);
        EXPECT_EQ(isSIDValid(sid), count <= 15) << count;
    }
    sid.sub_authority_count = 255;
    expectInvalid(sid);
}

TEST(NtfsSid, OnlyRevisionOneIsValid) {
    _SID sid = asSid(makeSid(5, {18}));
    for (unsigned revision = 0; revision < 256; ++revision) {
        sid.revision = static_cast<std::uint8_t>(revision);
        EXPECT_EQ(isSIDValid(sid), revision == 1) << revision;
    }
    sid.revision = 2;
    expectInvalid(sid);
    sid.revision = 0;
    expectInvalid(sid);
}

TEST(NtfsSid, AnAuthorityOf32BitsIsDecimal) {
    EXPECT_EQ(textOf(10, {}), "S-1-10");
    EXPECT_EQ(textOf(0x01020304, {7}), "S-1-16909060-7");
    EXPECT_EQ(textOf(0xFFFFFFFF, {7}), "S-1-4294967295-7");
}

TEST(NtfsSid, ALargerAuthorityIsLowerCaseHexadecimalWithoutPrefixAndPadding) {
    EXPECT_EQ(textOf(0x100000000, {}), "S-1-100000000");
    EXPECT_EQ(textOf(0x010000000000, {}), "S-1-10000000000");
    EXPECT_EQ(textOf(0xABCDEF012345, {}), "S-1-abcdef012345");
    EXPECT_EQ(textOf(0xFFFFFFFFFFFF, {}), "S-1-ffffffffffff");
}

TEST(NtfsSid, SubAuthoritiesAreDecimalAlsoBehindAHexadecimalAuthority) {
    EXPECT_EQ(textOf(0x0100000000FF, {255, 16}), "S-1-100000000ff-255-16");
}

TEST(NtfsSid, TheFirstTwoBytesOfAnAuthorityAreItsHighestOnes) {
    EXPECT_EQ(first16({{0, 0, 0xFF, 0xFF, 0xFF, 0xFF}}), 0);
    EXPECT_EQ(first16({{0, 1, 0, 0, 0, 0}}), 1);
    EXPECT_EQ(first16({{1, 0, 0, 0, 0, 0}}), 0x100);
    EXPECT_EQ(first16({{0xAB, 0xCD, 1, 2, 3, 4}}), 0xABCD);
}

/// The access mode of every type that is known: without an audit flag, with the one, the other, and both.
struct TypeRow {
    unsigned type;
    bool isObject;
    std::array<unsigned, 4> modes;
};

constexpr std::array<unsigned, 4> kGrants{2, 2, 2, 2};
constexpr std::array<unsigned, 4> kDenies{3, 3, 3, 3};
constexpr std::array<unsigned, 4> kAudits{0, 5, 6, 5};
constexpr std::array<unsigned, 4> kNothing{0, 0, 0, 0};

std::vector<TypeRow> const& typeRows() {
    static std::vector<TypeRow> const rows{
        {0, false, kGrants},   // allowed
        {1, false, kDenies},   // denied
        {2, false, kAudits},   // audit
        {3, false, kGrants},   // alarm
        {4, false, kGrants},   // allowed, compound
        {5, true, kGrants},    // allowed, object
        {6, true, kDenies},    // denied, object
        {7, true, kAudits},    // audit, object
        {8, true, kGrants},    // alarm, object
        {9, false, kGrants},   // allowed, callback
        {10, false, kDenies},  // denied, callback
        {11, true, kGrants},   // allowed, callback object
        {12, true, kDenies},   // denied, callback object
        {13, false, kAudits},  // audit, callback
        {14, false, kNothing}, // alarm, callback: unlike the other alarms
        {15, true, kAudits},   // audit, callback object
        {16, false, kNothing}, // alarm, callback object
        {17, false, kNothing}, // mandatory label
    };
    return rows;
}

TEST(NtfsAceTypes, AccessModesFollowTheTypeAndForAuditsTheFlags) {
    for (TypeRow const& row : typeRows()) {
        for (unsigned flags = 0; flags < 256; ++flags) {
            unsigned const mode = typeToAccessMode(static_cast<AceTypes>(row.type), static_cast<AceFlags>(flags));
            EXPECT_EQ(mode, row.modes.at(flags >> 6)) << "type " << row.type << ", flags " << flags;
        }
    }
}

TEST(NtfsAceTypes, ObjectEntriesAreTheseAlone) {
    for (TypeRow const& row : typeRows()) {
        EXPECT_EQ(isObjectACE(static_cast<AceTypes>(row.type)), row.isObject) << row.type;
    }
}

TEST(NtfsAceTypes, UnknownTypesHaveNoModeAndAreNoObjects) {
    for (unsigned type = 16; type < 256; ++type) {
        EXPECT_FALSE(isObjectACE(static_cast<AceTypes>(type))) << type;
        EXPECT_EQ(typeToAccessMode(static_cast<AceTypes>(type), static_cast<AceFlags>(0xC0)), 0) << type;
    }
}

} // namespace
