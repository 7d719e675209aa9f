// Security descriptors in memory: their lists, and the entries of a list.
#include "agent/core/fs/NTFSSecurity.h"
#include "support/SecurityDescriptors.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace agent::core::fs;
using namespace tests::security;
using testing::IsEmpty;
using testing::SizeIs;

std::vector<NTFS_ACL> parse(Bytes const& descriptor) {
    return parseSecurityDescriptor(reinterpret_cast<security_descriptor const*>(descriptor.data()));
}

std::vector<NTFS_ACE> parseEntries(Bytes const& acl) {
    return parseACEs(reinterpret_cast<security_acl const*>(acl.data()));
}

template <typename Exception>
std::string failureOf(Bytes const& descriptor) {
    try {
        parse(descriptor);
    } catch (Exception const& error) {
        return error.what();
    }
    return "nothing was thrown";
}

Bytes const& everyone() {
    static Bytes const sid = makeSid(1, {0});
    return sid;
}

Bytes makeAudit(std::uint8_t flags = 0x40) {
    return makeAcl({makeAce(2, flags, 0x10000, everyone())});
}

Bytes makeGrant() {
    return makeAcl({makeAce(0, 3, 0x1200A9, makeSid(5, {32, 545}))}, 4);
}

TEST(NtfsDescriptor, BothListsComeTheSystemListFirst) {
    auto const lists = parse(makeDescriptor(kSelfRelative | kSaclPresent | kDaclPresent, makeAudit(), makeGrant()));
    ASSERT_THAT(lists, SizeIs(2));
    EXPECT_EQ(lists[0].revision, 2);
    ASSERT_THAT(lists[0].aces, SizeIs(1));
    EXPECT_EQ(lists[0].aces[0].sid, "S-1-1-0");
    EXPECT_EQ(lists[0].aces[0].accessMode, 5);
    EXPECT_EQ(lists[0].aces[0].accessMask, 0x10000U);
    EXPECT_EQ(lists[0].aces[0].flags, 0x40U);
    EXPECT_EQ(lists[1].revision, 4);
    ASSERT_THAT(lists[1].aces, SizeIs(1));
    EXPECT_EQ(lists[1].aces[0].sid, "S-1-5-32-545");
    EXPECT_EQ(lists[1].aces[0].accessMode, 2);
    EXPECT_EQ(lists[1].aces[0].accessMask, 0x1200A9U);
    EXPECT_EQ(lists[1].aces[0].flags, 3U);
}

TEST(NtfsDescriptor, TheirOrderOnDiskPlaysNoPart) {
    Bytes descriptor = makeDescriptor(kSelfRelative | kSaclPresent | kDaclPresent, makeAudit(), makeGrant());
    // Exchanged, each list is parsed as what the field that leads to it says.
    Bytes const sacl(descriptor.begin() + 0x0C, descriptor.begin() + 0x10);
    std::copy_n(descriptor.begin() + 0x10, 4, descriptor.begin() + 0x0C);
    std::copy(sacl.begin(), sacl.end(), descriptor.begin() + 0x10);
    auto const lists = parse(descriptor);
    ASSERT_THAT(lists, SizeIs(2));
    EXPECT_EQ(lists[0].aces.at(0).sid, "S-1-5-32-545");
    EXPECT_EQ(lists[1].aces.at(0).sid, "S-1-1-0");
}

TEST(NtfsDescriptor, OneListMayServeAsBoth) {
    Bytes descriptor = makeDescriptor(kSelfRelative | kSaclPresent | kDaclPresent, std::nullopt, makeGrant());
    std::copy_n(descriptor.begin() + 0x10, 4, descriptor.begin() + 0x0C);
    auto const lists = parse(descriptor);
    ASSERT_THAT(lists, SizeIs(2));
    EXPECT_EQ(lists[0].aces.at(0).sid, lists[1].aces.at(0).sid);
}

TEST(NtfsDescriptor, AListWithoutItsPresentBitIsLeftOut) {
    auto const system = parse(makeDescriptor(kSelfRelative | kSaclPresent, makeAudit(), makeGrant()));
    ASSERT_THAT(system, SizeIs(1));
    EXPECT_EQ(system[0].aces.at(0).accessMode, 5);
    auto const discretionary = parse(makeDescriptor(kSelfRelative | kDaclPresent, makeAudit(), makeGrant()));
    ASSERT_THAT(discretionary, SizeIs(1));
    EXPECT_EQ(discretionary[0].aces.at(0).accessMode, 2);
    EXPECT_THAT(parse(makeDescriptor(kSelfRelative, makeAudit(), makeGrant())), IsEmpty());
}

TEST(NtfsDescriptor, AnEmptyListIsLeftOut) {
    constexpr unsigned both = kSelfRelative | kSaclPresent | kDaclPresent;
    EXPECT_THAT(parse(makeDescriptor(both, makeAcl({}), makeAcl({}))), IsEmpty());
    auto const system = parse(makeDescriptor(both, makeAudit(), makeAcl({})));
    ASSERT_THAT(system, SizeIs(1));
    EXPECT_EQ(system[0].aces.at(0).accessMode, 5);
    auto const discretionary = parse(makeDescriptor(both, makeAcl({}), makeGrant()));
    ASSERT_THAT(discretionary, SizeIs(1));
    EXPECT_EQ(discretionary[0].aces.at(0).accessMode, 2);
}

TEST(NtfsDescriptor, ANullListIsLeftOut) {
    constexpr unsigned both = kSelfRelative | kSaclPresent | kDaclPresent;
    EXPECT_THAT(parse(makeDescriptor(both, std::nullopt, std::nullopt)), IsEmpty());
    EXPECT_THAT(parse(makeDescriptor(both, std::nullopt, makeGrant())), SizeIs(1));
    EXPECT_THAT(parse(makeDescriptor(both, makeAudit(), std::nullopt)), SizeIs(1));
}

TEST(NtfsDescriptor, ProtectionIsToldOfEachListByItself) {
    constexpr unsigned both = kSelfRelative | kSaclPresent | kDaclPresent;
    for (unsigned const bits : {0U, unsigned{kSaclProtected}, unsigned{kDaclProtected}, 0x3000U}) {
        auto const lists = parse(makeDescriptor(both | bits, makeAudit(), makeGrant()));
        ASSERT_THAT(lists, SizeIs(2));
        EXPECT_EQ(lists[0].inheritanceAllowed, (bits & kSaclProtected) == 0) << bits;
        EXPECT_EQ(lists[1].inheritanceAllowed, (bits & kDaclProtected) == 0) << bits;
    }
}

TEST(NtfsDescriptor, OtherControlBitsPlayNoPart) {
    // All bits but those of the four that are looked at and of the system list.
    auto const lists = parse(makeDescriptor(0xCFEF, makeAudit(), makeGrant()));
    ASSERT_THAT(lists, SizeIs(1));
    EXPECT_TRUE(lists[0].inheritanceAllowed);
    EXPECT_EQ(lists[0].aces.at(0).sid, "S-1-5-32-545");
}

TEST(NtfsDescriptor, OneThatIsNotSelfRelativeIsALogicError) {
    EXPECT_EQ(failureOf<std::logic_error>(makeDescriptor(0x7FFF, makeAudit(), makeGrant())),
              "Descriptor is not self-relative! NTFSParser can parse self-relative descriptors only.");
    EXPECT_EQ(failureOf<std::logic_error>(Bytes(20)),
              "Descriptor is not self-relative! NTFSParser can parse self-relative descriptors only.");
}

TEST(NtfsDescriptor, OwnerAndGroupAreNotRead) {
    Bytes descriptor = makeDescriptor(kSelfRelative | kDaclPresent, std::nullopt, makeGrant());
    put(descriptor, 0x04, 0xFFFFFFFF, 4);
    put(descriptor, 0x08, 0x80000000, 4);
    EXPECT_THAT(parse(descriptor), SizeIs(1));
}

TEST(NtfsDescriptor, RevisionsOfTheDescriptorAndOfListsAreNotJudged) {
    for (unsigned const revision : {0U, 2U, 4U, 255U}) {
        Bytes descriptor = makeDescriptor(kSelfRelative | kDaclPresent, std::nullopt,
                                          makeAcl({makeAce(0, 0, 1, everyone())}, static_cast<std::uint8_t>(revision)));
        descriptor[0] = static_cast<std::uint8_t>(revision);
        auto const lists = parse(descriptor);
        ASSERT_THAT(lists, SizeIs(1));
        EXPECT_EQ(lists[0].revision, revision);
    }
}

TEST(NtfsDescriptor, AnInvalidTrusteeFailsTheWhole) {
    Bytes const invalid = makeAcl({makeAce(0, 0, 1, everyone()), makeAce(0, 0, 1, makeSid(5, {18}, 2))});
    EXPECT_EQ(failureOf<std::runtime_error>(
                  makeDescriptor(kSelfRelative | kSaclPresent | kDaclPresent, makeAudit(), invalid)),
              "SID is invalid! Cannot convert to string.");
    Bytes const tooMany = makeAcl({makeAce(0, 0, 1, makeSid(5, std::vector<std::uint32_t>(16, 1)))});
    EXPECT_EQ(failureOf<std::runtime_error>(makeDescriptor(kSelfRelative | kDaclPresent, std::nullopt, tooMany)),
              "SID is invalid! Cannot convert to string.");
}

TEST(NtfsAces, EntriesKeepTheirOrderAndTheirValues) {
    std::vector<Bytes> entries;
    for (std::uint32_t i = 0; i < 500; ++i) {
        entries.push_back(makeAce(static_cast<std::uint8_t>(i % 2), static_cast<std::uint8_t>(i), 0xF0000000U + i,
                                  makeSid(5, {21, i})));
    }
    auto const parsed = parseEntries(makeAcl(entries));
    ASSERT_THAT(parsed, SizeIs(500));
    for (std::uint32_t i = 0; i < 500; ++i) {
        EXPECT_EQ(parsed[i].sid, "S-1-5-21-" + std::to_string(i));
        EXPECT_EQ(parsed[i].accessMask, 0xF0000000U + std::uint64_t{i});
        EXPECT_EQ(parsed[i].accessMode, i % 2 == 0 ? 2 : 3);
        EXPECT_EQ(parsed[i].flags, i & 0xFFU);
    }
}

TEST(NtfsAces, MaskAndFlagsAreZeroExtended) {
    auto const parsed = parseEntries(makeAcl({makeAce(0, 0xFF, 0xFFFFFFFF, everyone())}));
    ASSERT_THAT(parsed, SizeIs(1));
    EXPECT_EQ(parsed[0].accessMask, 0xFFFFFFFFU);
    EXPECT_EQ(parsed[0].flags, 0xFFU);
}

TEST(NtfsAces, AListWithoutEntriesGivesNone) {
    EXPECT_THAT(parseEntries(makeAcl({})), IsEmpty());
}

TEST(NtfsAces, ObjectEntriesCarryTheirTrusteeAt0x34WhateverTheirFlagsSay) {
    for (unsigned const type : {5U, 6U, 7U, 8U, 11U, 12U, 15U}) {
        for (std::uint32_t objectFlags = 0; objectFlags < 4; ++objectFlags) {
            Bytes ace = makeAce(static_cast<std::uint8_t>(type), 0, 7, makeSid(5, {21, type}), kObjectTrustee);
            put(ace, 8, objectFlags, 4);
            auto const parsed = parseEntries(makeAcl({ace}));
            ASSERT_THAT(parsed, SizeIs(1));
            EXPECT_EQ(parsed[0].sid, "S-1-5-21-" + std::to_string(type));
        }
    }
}

TEST(NtfsAces, OtherTypesCarryTheirTrusteeAt8) {
    for (unsigned const type : {0U, 1U, 2U, 3U, 4U, 9U, 10U, 13U, 14U, 16U, 17U, 20U, 255U}) {
        auto const parsed =
            parseEntries(makeAcl({makeAce(static_cast<std::uint8_t>(type), 0, 7, makeSid(5, {21, type}))}));
        ASSERT_THAT(parsed, SizeIs(1));
        EXPECT_EQ(parsed[0].sid, "S-1-5-21-" + std::to_string(type));
    }
}

TEST(NtfsAces, TheNextEntryIsWhereTheSizeSaysAlsoPastTheListsOwnSize) {
    Bytes spaced = makeAce(0, 0, 1, makeSid(5, {18}));
    spaced.resize(100);
    put(spaced, 2, 100, 2);
    Bytes acl = makeAcl({spaced, makeAce(1, 0, 2, makeSid(5, {19}))});
    put(acl, 2, 8, 2); // the list's size is not looked at
    auto const parsed = parseEntries(acl);
    ASSERT_THAT(parsed, SizeIs(2));
    EXPECT_EQ(parsed[0].sid, "S-1-5-18");
    EXPECT_EQ(parsed[1].sid, "S-1-5-19");
}

TEST(NtfsAces, TheCountAloneEndsTheList) {
    Bytes acl = makeAcl({makeAce(0, 0, 1, makeSid(5, {18})), makeAce(0, 0, 1, makeSid(5, {19}))});
    put(acl, 4, 1, 2);
    EXPECT_THAT(parseEntries(acl), SizeIs(1));
}

TEST(NtfsAces, AnEntryOfSizeZeroIsReadAgainForEachCount) {
    Bytes acl = makeAcl({makeAce(0, 0, 1, makeSid(5, {18}))});
    put(acl, 8 + 2, 0, 2);
    put(acl, 4, 65535, 2);
    auto const parsed = parseEntries(acl);
    ASSERT_THAT(parsed, SizeIs(65535));
    EXPECT_EQ(parsed.front().sid, "S-1-5-18");
    EXPECT_EQ(parsed.back().sid, "S-1-5-18");
}

} // namespace
