// Security descriptors, lists, entries and identifiers that contradict themselves, read from a volume.
#include "support/NtfsFileBench.h"
#include "support/NtfsSecureVolume.h"
#include "support/ResidentMemory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

namespace {

using namespace tests;
using namespace tests::security;
using agent::core::fs::NTFS_ACL;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::size_t kSacl = 0x0C;
constexpr std::size_t kDacl = 0x10;
constexpr char const* kInvalidSid = "SID is invalid! Cannot convert to string.";

/// The lists of a file with this descriptor, or why there are none.
struct Answer {
    std::vector<NTFS_ACL> lists;
    std::string failure; ///< without the wrapper's beginning; empty where there are lists
};

Answer answerOf(NtfsBuilder const& builder) {
    NtfsFileBench bench(builder);
    Answer answer;
    try {
        answer.lists = bench.parser.readACLFromFile("\\readme.txt");
    } catch (std::runtime_error const& error) {
        answer.failure =
            std::string(error.what()).substr(std::string("Failed to read ACLs for \"\\readme.txt\": ").size());
    }
    return answer;
}

Answer answerTo(Bytes const& descriptor) {
    return answerOf(makeVolumeWithLastDescriptor(descriptor));
}

Bytes withDacl(Bytes const& acl) {
    return makeDescriptor(kSelfRelative | kDaclPresent, std::nullopt, acl);
}

/// A list of these entries, each of which may claim another size.
Bytes withEntries(std::vector<Bytes> const& entries) {
    return withDacl(makeAcl(entries));
}

Bytes grant(std::uint32_t relativeId, std::uint32_t mask = 1) {
    return makeAce(0, 0, mask, makeSid(5, {21, relativeId}));
}

Bytes sized(Bytes ace, std::uint64_t size) {
    put(ace, 2, size, 2);
    return ace;
}

std::vector<std::string> trustees(Answer const& answer) {
    std::vector<std::string> result;
    for (NTFS_ACL const& list : answer.lists) {
        for (auto const& ace : list.aces) {
            result.push_back(ace.sid);
        }
    }
    return result;
}

TEST(NtfsHostileDescriptor, RevisionsAreNotJudged) {
    for (unsigned const revision : {0U, 3U, 9U, 255U}) {
        Bytes descriptor = withDacl(makeAcl({grant(7)}, static_cast<std::uint8_t>(revision)));
        descriptor[0] = static_cast<std::uint8_t>(revision);
        Answer const answer = answerTo(descriptor);
        ASSERT_THAT(answer.lists, SizeIs(1)) << answer.failure;
        EXPECT_EQ(answer.lists[0].revision, revision);
    }
}

TEST(NtfsHostileDescriptor, OwnersAndGroupsAreNotRead) {
    for (std::size_t const field : {0x04U, 0x08U}) {
        for (std::uint64_t const offset : {0U, 1U, 19U, 20U, 4096U, 0xFFFFFFFFU}) {
            Bytes descriptor = withDacl(makeAcl({grant(7)}));
            put(descriptor, field, offset, 4);
            EXPECT_EQ(trustees(answerTo(descriptor)), std::vector<std::string>{"S-1-5-21-7"}) << field << ' ' << offset;
        }
    }
}

TEST(NtfsHostileDescriptor, AListInsideTheHeaderIsReadAsItStands) {
    Bytes const good = withDacl(makeAcl({grant(7)}));
    for (std::size_t const field : {kSacl, kDacl}) {
        for (std::uint64_t offset = 1; offset < 20; ++offset) {
            Bytes descriptor = good;
            put(descriptor, 2, kSelfRelative | (field == kSacl ? kSaclPresent : kDaclPresent), 2);
            put(descriptor, field, offset, 4);
            Answer const answer = answerTo(descriptor);
            if (getNumber(descriptor, offset + 4, 2) == 0) {
                EXPECT_THAT(answer.lists, IsEmpty()) << field << ' ' << offset;
                EXPECT_EQ(answer.failure, "") << field << ' ' << offset;
            } else if (offset == 4) { // the owner's place and the group's, 36, and an entry without size
                EXPECT_EQ(trustees(answer), std::vector<std::string>(36, "S-1-5-32-544")) << field;
            } else {
                EXPECT_EQ(answer.failure, kInvalidSid) << field << ' ' << offset;
            }
        }
    }
}

TEST(NtfsHostileDescriptor, ListsMayOverlap) {
    // The system list begins at the other one's first entry, whose mask is its count.
    for (std::uint32_t const mask : {0x10000U, 0x10001U}) {
        Bytes descriptor = withDacl(makeAcl({grant(7, mask)}));
        put(descriptor, 2, kSelfRelative | kSaclPresent | kDaclPresent, 2);
        put(descriptor, kSacl, getNumber(descriptor, kDacl, 4) + 8, 4);
        Answer const answer = answerTo(descriptor);
        if (mask == 0x10000) {
            EXPECT_EQ(trustees(answer), std::vector<std::string>{"S-1-5-21-7"}) << "it has no entries";
        } else {
            EXPECT_EQ(answer.failure, kInvalidSid) << "its entry is that one's trustee";
        }
    }
}

TEST(NtfsHostileDescriptor, ANullListAndAnEmptyOneGiveNoList) {
    EXPECT_THAT(answerTo(makeDescriptor(kSelfRelative | kDaclPresent, std::nullopt, std::nullopt)).lists, IsEmpty());
    EXPECT_THAT(answerTo(withDacl(makeAcl({}))).lists, IsEmpty());
    EXPECT_THAT(answerTo(makeDescriptor(kSelfRelative, std::nullopt, std::nullopt)).lists, IsEmpty());
}

TEST(NtfsHostileAcl, TheSizeOfAListIsNotRead) {
    for (std::uint64_t const size : {0U, 7U, 8U, 0xFFFFU}) {
        Bytes acl = makeAcl({grant(7), grant(8)});
        put(acl, 2, size, 2);
        EXPECT_THAT(trustees(answerTo(withDacl(acl))), SizeIs(2)) << size;
    }
    Bytes acl = makeAcl({});
    put(acl, 2, 8, 2);
    put(acl, 4, 65535, 2);
    EXPECT_EQ(answerTo(withDacl(acl)).failure, "ACE is cut off!") << "there is not one";
}

TEST(NtfsHostileAcl, OfTwoThousandEntriesIsReadWhole) {
    std::vector<Bytes> entries;
    for (std::uint32_t i = 0; i < 2000; ++i) {
        entries.push_back(makeAce(0, 0, i, makeSid(5, {21, 1, 2, i}))); // 64000 bytes
    }
    Bytes const descriptor = withEntries(entries);
    NtfsBytes stream(descriptor.size() + 20);
    std::copy(descriptor.begin(), descriptor.end(), stream.begin() + 20);
    NtfsBuilder builder = NtfsBuilder::standard();
    setSecurityStream(builder, stream);
    setSecurityIndex(builder, {{0x100, 0, 0, static_cast<std::uint32_t>(stream.size())}});
    auto const found = trustees(answerOf(builder.seal()));
    ASSERT_THAT(found, SizeIs(2000));
    EXPECT_EQ(found.back(), "S-1-5-21-1-2-1999");
}

TEST(NtfsHostileAcl, MoreEntriesThanTheStreamHoldsTakeNoMemory) {
    Bytes acl = makeAcl({sized(grant(7), 0)}); // the same entry again and again
    put(acl, 4, 65535, 2);
    std::size_t const before = residentBytes();
    EXPECT_THAT(trustees(answerTo(withDacl(acl))), SizeIs(65535));
    EXPECT_LT(residentBytes(), before + (std::size_t{64} << 20));
}

TEST(NtfsHostileEntry, TheLastOnesSizeDoesNotMatter) {
    for (std::uint64_t const size : {0U, 1U, 4U, 7U, 8U, 12U, 21U, 23U, 0xFFFFU}) {
        EXPECT_EQ(trustees(answerTo(withEntries({sized(grant(7), size)}))), std::vector<std::string>{"S-1-5-21-7"})
            << size;
    }
}

TEST(NtfsHostileEntry, ASizeThatIsNoMultipleOfFourLeadsToTheNextOne) {
    for (std::size_t const size : {25U, 26U, 27U}) {
        Bytes ace = grant(7);
        ace.resize(size);
        EXPECT_EQ(trustees(answerTo(withEntries({sized(ace, size), grant(8)}))),
                  (std::vector<std::string>{"S-1-5-21-7", "S-1-5-21-8"}))
            << size;
    }
}

TEST(NtfsHostileEntry, ASizeBelowItsTrusteesLeadsIntoItself) {
    struct Row {
        std::uint64_t size;
        char const* failure;
    };
    for (Row const& row : std::vector<Row>{
             {4, kInvalidSid}, {8, kInvalidSid}, {12, kInvalidSid}, {20, "SID is cut off!"}} /* an object entry */) {
        EXPECT_EQ(answerTo(withEntries({sized(grant(7), row.size), grant(8)})).failure, row.failure) << row.size;
    }
    EXPECT_EQ(answerTo(withEntries({sized(grant(7), 0xFFFF), grant(8)})).failure, "ACE is cut off!");
}

TEST(NtfsHostileEntry, ATrusteeMayEndBehindItsEntry) {
    Bytes ace = grant(7);
    ace[9] = 4; // two parts more than it holds: the next entry's first eight bytes
    Answer const answer = answerTo(withEntries({ace, sized(grant(8, 5), 24)}));
    EXPECT_EQ(trustees(answer), (std::vector<std::string>{"S-1-5-21-7-1572864-5", "S-1-5-21-8"}));
    EXPECT_EQ(answerTo(withEntries({grant(8), ace})).failure, "SID is cut off!") << "there is no next one";
}

class NtfsHostileObjectEntry : public testing::TestWithParam<unsigned> {};

TEST_P(NtfsHostileObjectEntry, WithoutRoomForWhatItsFlagsSayIsCutOff) {
    for (std::uint32_t const flags : {0U, 1U, 3U}) {
        Bytes ace(12); // the flags of an object entry stand where others have their trustee
        append(ace, makeSid(5, {18}));
        ace[0] = static_cast<std::uint8_t>(GetParam());
        put(ace, 2, ace.size(), 2);
        put(ace, 8, flags, 4);
        EXPECT_EQ(answerTo(withEntries({ace})).failure, "SID is cut off!") << flags;
    }
}

INSTANTIATE_TEST_SUITE_P(Types, NtfsHostileObjectEntry, testing::Values(5U, 6U, 7U, 8U, 11U, 12U, 15U));

/// Types from the first one with a callback on, and how their entries are read.
struct LateType {
    unsigned type;
    unsigned mode; ///< with both audit flags
    std::size_t place;
};

class NtfsHostileLateType : public testing::TestWithParam<LateType> {};

TEST_P(NtfsHostileLateType, HasItsTrusteeAndItsMode) {
    LateType const& row = GetParam();
    Bytes ace = makeAce(static_cast<std::uint8_t>(row.type), 0xC0, 1, makeSid(5, {18}), row.place);
    append(ace, Bytes(40, 0xEE)); // a condition, a claim
    Answer const answer = answerTo(withEntries({sized(ace, ace.size()), grant(8)}));
    ASSERT_EQ(trustees(answer), (std::vector<std::string>{"S-1-5-18", "S-1-5-21-8"})) << answer.failure;
    EXPECT_EQ(answer.lists[0].aces[0].accessMode, row.mode);
}

INSTANTIATE_TEST_SUITE_P(From9To14, NtfsHostileLateType,
                         testing::Values(LateType{0x09, 2, kTrustee}, LateType{0x0A, 3, kTrustee},
                                         LateType{0x0B, 2, kObjectTrustee}, LateType{0x0C, 3, kObjectTrustee},
                                         LateType{0x0D, 5, kTrustee}, LateType{0x0E, 0, kTrustee},
                                         LateType{0x0F, 5, kObjectTrustee}, LateType{0x10, 0, kTrustee},
                                         LateType{0x11, 0, kTrustee}, LateType{0x12, 0, kTrustee},
                                         LateType{0x13, 0, kTrustee}, LateType{0x14, 0, kTrustee}));

TEST(NtfsHostileEntry, AMandatoryLabelIsAnEntryOfTheSystemList) {
    Bytes const label = makeAcl({makeAce(0x11, 0, 1, makeSid(16, {8192}))});
    Answer const answer =
        answerTo(makeDescriptor(kSelfRelative | kSaclPresent | kDaclPresent, label, makeAcl({grant(7)})));
    ASSERT_THAT(answer.lists, SizeIs(2)) << answer.failure;
    EXPECT_EQ(answer.lists[0].aces.at(0).sid, "S-1-16-8192");
    EXPECT_EQ(answer.lists[0].aces.at(0).accessMode, 0);
    EXPECT_EQ(answer.lists[1].aces.at(0).accessMode, 2);
}

TEST(NtfsHostileSid, MoreThanFifteenPartsAreRefused) {
    for (unsigned count = 16; count < 256; ++count) {
        Bytes sid = makeSid(5, std::vector<std::uint32_t>(count, 1));
        ASSERT_EQ(sid[1], count);
        EXPECT_EQ(answerTo(withEntries({makeAce(0, 0, 1, sid)})).failure, kInvalidSid) << count;
    }
    Bytes const most = makeSid(5, std::vector<std::uint32_t>(15, 1));
    EXPECT_EQ(trustees(answerTo(withEntries({makeAce(0, 0, 1, most)}))),
              std::vector<std::string>{"S-1-5-1-1-1-1-1-1-1-1-1-1-1-1-1-1-1"});
}

} // namespace
