// Damaged descriptors and entries of $SII: cut off, out of bounds, or contradicting themselves.
#include "support/NtfsFileBench.h"
#include "support/NtfsSecureVolume.h"
#include "support/ResidentMemory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace tests;
using namespace tests::security;
using testing::SizeIs;

constexpr char const* kFailed = "Failed to read ACLs for \"\\readme.txt\": ";

/// The answer to \readme.txt, without the wrapper's beginning.
std::string answerTo(NtfsBuilder const& builder) {
    NtfsFileBench bench(builder);
    std::string const failure = failureOf([&] { bench.parser.readACLFromFile("\\readme.txt"); });
    std::string const prefix = kFailed;
    return failure.starts_with(prefix) ? failure.substr(prefix.size()) : failure;
}

std::string answerToDescriptor(Bytes const& descriptor) {
    return answerTo(makeVolumeWithLastDescriptor(descriptor));
}

/// A descriptor whose discretionary list stands at its very end.
Bytes makeLast(std::vector<Bytes> const& entries) {
    return makeDescriptor(kSelfRelative | kDaclPresent, std::nullopt, makeAcl(entries));
}

constexpr std::size_t kSacl = 0x0C;
constexpr std::size_t kDacl = 0x10;

TEST(NtfsSecurityDamage, ADescriptorThatTheStreamCutsOffIsNamedByItsPart) {
    Bytes const whole = makeLast({makeAce(0, 0, 1, makeSid(5, {21, 1})), makeAce(0, 0, 1, makeSid(5, {21, 2}))});
    std::size_t const list = getNumber(whole, kDacl, 4);
    std::size_t const first = list + 8;
    std::size_t const second = first + 24;
    ASSERT_EQ(whole.size(), second + 24);
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        std::string expected = "nothing was thrown";
        if (size < 20) {
            expected = "Security descriptor is cut off!";
        } else if (size < list + 8) {
            expected = "ACL is cut off!";
        } else if (size < first + 8) {
            expected = "ACE is cut off!";
        } else if (size < first + 24) {
            expected = "SID is cut off!";
        } else if (size < second + 8) {
            expected = "ACE is cut off!";
        } else if (size < second + 24) {
            expected = "SID is cut off!";
        }
        EXPECT_EQ(answerToDescriptor({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)}), expected)
            << size;
    }
}

TEST(NtfsSecurityDamage, AListThatBeginsOutsideIsRefused) {
    for (std::size_t const field : {kSacl, kDacl}) {
        for (std::uint64_t const offset : {0xFFFFFFFFU, 0x80000000U, 0x7FFFFFFFU, 4096U, 200U}) {
            Bytes descriptor = makeDescriptor(kSelfRelative | kSaclPresent | kDaclPresent, makeAcl({}), makeAcl({}));
            put(descriptor, field, offset, 4);
            EXPECT_EQ(answerToDescriptor(descriptor), "ACL is cut off!") << field << ' ' << offset;
        }
    }
}

TEST(NtfsSecurityDamage, AnOutsideOffsetOfAnAbsentListDoesNotMatter) {
    Bytes descriptor = makeDescriptor(kSelfRelative, std::nullopt, std::nullopt);
    put(descriptor, kSacl, 0xFFFFFFFF, 4);
    put(descriptor, kDacl, 0xFFFFFFFF, 4);
    EXPECT_EQ(answerToDescriptor(descriptor), "nothing was thrown");
}

TEST(NtfsSecurityDamage, ACountPastTheEntriesRunsIntoTheEnd) {
    Bytes descriptor = makeLast({makeAce(0, 0, 1, makeSid(5, {18}))});
    std::size_t const list = getNumber(descriptor, kDacl, 4);
    put(descriptor, list + 4, 65535, 2);
    EXPECT_EQ(answerToDescriptor(descriptor), "ACE is cut off!");
    put(descriptor, list + 8 + 2, 0xFFFF, 2); // and the next entry would begin far outside
    EXPECT_EQ(answerToDescriptor(descriptor), "ACE is cut off!");
}

TEST(NtfsSecurityDamage, AnEntryOfSizeZeroEndsWithItsCount) {
    Bytes descriptor = makeLast({makeAce(0, 0, 1, makeSid(5, {18}))});
    std::size_t const list = getNumber(descriptor, kDacl, 4);
    put(descriptor, list + 8 + 2, 0, 2);
    put(descriptor, list + 4, 65535, 2);
    NtfsFileBench bench(makeVolumeWithLastDescriptor(descriptor));
    auto const lists = bench.parser.readACLFromFile("\\readme.txt");
    ASSERT_THAT(lists, SizeIs(1));
    EXPECT_THAT(lists[0].aces, SizeIs(65535));
}

TEST(NtfsSecurityDamage, AnEntrysSizeMayPointBackIntoItself) {
    // The second entry begins inside the first one's trustee, which is read as whatever it gives.
    Bytes descriptor = makeLast({makeAce(0, 0, 1, makeSid(5, {18})), makeAce(0, 0, 1, makeSid(5, {19}))});
    std::size_t const list = getNumber(descriptor, kDacl, 4);
    put(descriptor, list + 8 + 2, 4, 2);
    EXPECT_EQ(answerToDescriptor(descriptor), "SID is invalid! Cannot convert to string.");
}

TEST(NtfsSecurityDamage, AnObjectEntryTooShortForItsTrusteeIsRefused) {
    Bytes const ace = makeAce(5, 0, 1, makeSid(5, {18}));
    EXPECT_EQ(answerToDescriptor(makeLast({ace})), "SID is cut off!");
    Bytes cut = makeAce(5, 0, 1, makeSid(5, {18}), kObjectTrustee);
    cut.pop_back();
    EXPECT_EQ(answerToDescriptor(makeLast({cut})), "SID is cut off!");
}

TEST(NtfsSecurityDamage, TooManySubAuthoritiesAreRefusedBeforeTheyAreRead) {
    for (unsigned const count : {16U, 255U}) {
        Bytes sid = makeSid(5, {18});
        sid[1] = static_cast<std::uint8_t>(count);
        EXPECT_EQ(answerToDescriptor(makeLast({makeAce(0, 0, 1, sid)})), "SID is invalid! Cannot convert to string.");
    }
    Bytes sid = makeSid(5, {18});
    sid[1] = 15;
    EXPECT_EQ(answerToDescriptor(makeLast({makeAce(0, 0, 1, sid)})), "SID is cut off!");
}

TEST(NtfsSecurityDamage, NoByteOfADescriptorLeadsOutside) {
    Bytes const good = makeDescriptor(
        kSelfRelative | kSaclPresent | kDaclPresent, makeAcl({makeAce(2, 0x40, 1, makeSid(1, {0}))}),
        makeAcl({makeAce(0, 0, 1, makeSid(5, {21, 1})), makeAce(5, 0, 1, makeSid(5, {18}), kObjectTrustee)}));
    std::vector<std::string> const texts{
        "nothing was thrown",
        "Descriptor is not self-relative! NTFSParser can parse self-relative descriptors only.",
        "SID is invalid! Cannot convert to string.",
        "ACL is cut off!",
        "ACE is cut off!",
        "SID is cut off!"};
    NtfsBuilder const volume = makeVolumeWithLastDescriptor(good);
    NtfsFileBench bench(volume);
    auto const stream =
        static_cast<std::size_t>(bench.parser.get_inode_runlist(ntfs_record_number::kSecure).at(0).lcn * 4096);
    std::size_t const start = stream + 4096 - good.size();
    for (std::size_t offset = 0; offset < good.size(); ++offset) {
        for (unsigned value = 0; value < 256; value += offset < 0x14 ? 1 : 15) {
            bench.volume.bytes.at(start + offset) = static_cast<std::uint8_t>(value);
            bench.parser.clearSDS();
            bench.parser.readSDS();
            std::string const failure = failureOf([&] { bench.parser.getACLFromSDS(4096 - 20 - good.size()); });
            EXPECT_THAT(texts, testing::Contains(failure)) << value << " at " << offset;
        }
        bench.volume.bytes.at(start + offset) = good[offset];
    }
}

/// A volume whose entry of 0x100 in $SII has one field changed.
NtfsBuilder withEntryField(std::uint64_t offset, std::uint64_t value, std::size_t width) {
    NtfsBuilder builder = NtfsBuilder::standard();
    NtfsRecord& secure = builder.record(ntfs_record_number::kSecure);
    std::uint64_t const entry = secure.offsetOf(ntfs_type::kIndexRoot, 1) + 0x20 + 0x20; // named "$SII"
    EXPECT_EQ(builder.peekRecord(ntfs_record_number::kSecure, entry + 0x10, 4), 0x100U);
    EXPECT_NE(builder.peekRecord(ntfs_record_number::kSecure, entry + offset, width), value);
    builder.pokeRecord(ntfs_record_number::kSecure, entry + offset, value, width);
    return builder;
}

TEST(NtfsSecurityDamage, ADamagedEntryOfTheIndexIsNamedByItsKey) {
    EXPECT_EQ(answerTo(withEntryField(0x02, 0xFFFF, 2)), "Data overflow from index entry for key: 256");
    EXPECT_EQ(answerTo(withEntryField(0x00, 21, 2)), "Data overflow from index entry for key: 256");
    EXPECT_EQ(answerTo(withEntryField(0x0A, 25, 2)), "Overflow from index entry for key: 256");
    EXPECT_EQ(answerTo(withEntryField(0x08, 0xFFFF, 2)), "Index entry out of bounds in inode for node with key 256");
    EXPECT_EQ(answerTo(withEntryField(0x0C, 2, 2)), "Entry not found - between root entries for key 256");
    EXPECT_EQ(answerTo(withEntryField(0x10, 0x101, 4)), "Entry not found - between root entries for key 256");
    EXPECT_EQ(answerTo(withEntryField(0x10, 0, 4)), "Entry not found - between root entries for key 256");
}

TEST(NtfsSecurityDamage, WhatTheIndexRepeatsOfADescriptorIsNotRead) {
    EXPECT_EQ(answerTo(withEntryField(0x14, 0xFFFFFFFF, 4)), "nothing was thrown") << "the hash";
    EXPECT_EQ(answerTo(withEntryField(0x18, 0xFFFFFFFF, 4)), "nothing was thrown") << "the identifier";
    EXPECT_EQ(answerTo(withEntryField(0x24, 0xFFFFFFFF, 4)), "nothing was thrown") << "the length";
}

TEST(NtfsSecurityDamage, AChildWhereThereAreNoBlocksIsRefused) {
    NtfsBuilder builder = withEntryField(0x0C, 1, 2);
    setSecurityId(builder, 0x50);
    NtfsBytes const record = builder.protectedRecord(ntfs_record_number::kSecure);
    builder.seal().putRecord(ntfs_record_number::kSecure, record);
    EXPECT_EQ(answerTo(builder), "Could not find INDEX_ALLOCATION for key 80 in parent inode 9");
}

TEST(NtfsSecurityDamage, RunsThatTheVolumeCannotHoldTakeNoMemory) {
    std::vector<std::vector<NtfsRun>> const shapes{
        {{100, std::int64_t{1} << 20}},                               // 4 GiB
        {{100, std::int64_t{1} << 40}},                               // far more than there are addresses
        {{100, std::int64_t{1} << 51}, {200, std::int64_t{1} << 51}}, // together 0 in 64 bits
        {{100, 300}, {101, 300}}, // each inside the volume, but not both at once: they overlap
    };
    for (std::vector<NtfsRun> const& runs : shapes) {
        NtfsBuilder builder = NtfsBuilder::standard();
        builder.record(ntfs_record_number::kSecure)
            .remove(ntfs_type::kData)
            .nonResident(ntfs_type::kData, u"$SDS", runs, 4096);
        NtfsFileBench bench(builder.seal());
        std::size_t const before = residentBytes();
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(failureOf([&] { bench.parser.readACLFromFile("\\readme.txt"); }), "Unable to read SDS entry");
        }
        EXPECT_LT(residentBytes(), before + (std::size_t{64} << 20));
    }
}

TEST(NtfsSecurityDamage, FailuresHaveTheirKind) {
    NtfsFileBench cut(makeVolumeWithLastDescriptor(Bytes(19)));
    cut.parser.readSDS();
    EXPECT_THROW(cut.parser.getACLFromSDS(4096 - 20 - 19), std::runtime_error);
    EXPECT_THROW(cut.parser.getACLFromSDS(5000), std::runtime_error);
    EXPECT_THROW(cut.parser.getACLFromSDS(1), std::runtime_error);
    EXPECT_THROW(cut.parser.getACLFromSDS(0), std::logic_error) << "zeros are not self-relative";
    EXPECT_THROW(cut.parser.readACLFromFile("\\readme.txt"), std::runtime_error);
}

} // namespace
