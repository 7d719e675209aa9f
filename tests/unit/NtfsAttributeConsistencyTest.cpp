// The checks of one attribute of an MFT record: the header's two forms, and the values of the types.
#include "support/NtfsBench.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace tests;

constexpr std::uint64_t kReference = 0x000500000000001B; // sequence number 5, record 0x1b
constexpr std::uint64_t kLength = 0x04;
constexpr std::uint64_t kFlag = 0x08;
constexpr std::uint64_t kNameLength = 0x09;
constexpr std::uint64_t kNameOffset = 0x0A;
constexpr char const* kSound = "";

NtfsAccess const& parser() {
    static NtfsBench const bench(NtfsBuilder::standard());
    return bench.parser;
}

/// The text of the failure, or "" where the attribute passes. The memory is exactly the attribute's.
std::string check(NtfsBytes attribute) {
    try {
        parser().checkAttributeConsistency(attribute.data(), kReference);
    } catch (std::runtime_error const& failure) {
        return failure.what();
    }
    return kSound;
}

NtfsBytes changed(NtfsBytes attribute, std::uint64_t offset, std::uint64_t value, std::size_t width) {
    EXPECT_NE(getNumber(attribute, offset, width), value) << "nothing is damaged at " << offset;
    putNumber(attribute, offset, value, width);
    return attribute;
}

/// 72 bytes, the mapping pairs from 64 on.
NtfsBytes nonResident(std::uint32_t type = ntfs_type::kData) {
    return ntfsNonResident(type, u"", {{0x11, 0x01, 0x05, 0x00}, 0, 0, 4096, 4096, 4096});
}

std::string checkNonResident(std::uint64_t offset, std::uint64_t value, std::size_t width) {
    return check(changed(nonResident(), offset, value, width));
}

constexpr char const* kCorruptNonResident = "Corrupt non resident attribute80 in MFT record 0x1b";

TEST(NtfsAttributeCheck, ANullAttributeIsRefused) {
    EXPECT_EQ(textThrown([] { parser().checkAttributeConsistency(nullptr, kReference); }),
              "Invalid attribute record buffer.");
}

TEST(NtfsNonResidentCheck, TheFlagIsExactlyOne) {
    EXPECT_EQ(check(nonResident()), kSound);
    for (std::uint8_t const flag : {std::uint8_t{2}, std::uint8_t{0x80}, std::uint8_t{0xFF}}) {
        EXPECT_EQ(checkNonResident(kFlag, flag, 1), kCorruptNonResident);
    }
}

TEST(NtfsNonResidentCheck, TheLengthIsAtLeast64) {
    NtfsBytes const early = changed(nonResident(), 0x20, 0x18, 2); // pairs that a short length still holds
    EXPECT_EQ(check(changed(early, kLength, 64, 4)), kSound);
    EXPECT_EQ(check(changed(early, kLength, 63, 4)), kCorruptNonResident);
    EXPECT_EQ(check(changed(early, kLength, 25, 4)), kCorruptNonResident);
    EXPECT_EQ(check(changed(early, kLength, 0, 4)), kCorruptNonResident);
}

TEST(NtfsNonResidentCheck, ThePairsBeginInside) {
    EXPECT_EQ(checkNonResident(0x20, 71, 2), kSound);
    EXPECT_EQ(checkNonResident(0x20, 0, 2), kSound); // the lower bound is the decoder's
    EXPECT_EQ(checkNonResident(0x20, 72, 2), kCorruptNonResident);
    EXPECT_EQ(checkNonResident(0x20, 0xFFFF, 2), kCorruptNonResident);
}

TEST(NtfsNonResidentCheck, TheNameEndsInside) {
    NtfsBytes const named = changed(nonResident(), kNameLength, 1, 1);
    EXPECT_EQ(check(changed(named, kNameOffset, 70, 2)), kSound);
    EXPECT_EQ(check(changed(named, kNameOffset, 71, 2)), kCorruptNonResident);
    EXPECT_EQ(check(changed(named, kNameOffset, 0xFFFF, 2)), kCorruptNonResident);
    EXPECT_EQ(checkNonResident(kNameLength, 255, 1), kCorruptNonResident);
    EXPECT_EQ(checkNonResident(kNameOffset, 0xFFFF, 2), kSound) << "where there is no name, its place does not count";
}

TEST(NtfsNonResidentCheck, TheHighestVcnIsNotBelowTheLowest) {
    EXPECT_EQ(checkNonResident(0x18, 0xFFFFFFFFFFFFFFFF, 8), kCorruptNonResident); // -1, and the lowest is 0
    EXPECT_EQ(checkNonResident(0x10, 1, 8), kCorruptNonResident);
    EXPECT_EQ(checkNonResident(0x10, 0x7FFFFFFFFFFFFFFF, 8), kCorruptNonResident);
    EXPECT_EQ(checkNonResident(0x10, 0x8000000000000000, 8), kSound); // signed
    EXPECT_EQ(checkNonResident(0x18, 0x7FFFFFFFFFFFFFFF, 8), kSound);
    EXPECT_EQ(checkNonResident(0x18, 0x8000000000000000, 8), kCorruptNonResident);
}

TEST(NtfsNonResidentCheck, SomeTypesMustBeResident) {
    EXPECT_EQ(check(nonResident(0x60)), "Attribute 0x60 in MFT record 0x1b should be resident");
    EXPECT_EQ(check(nonResident(0xD0)), "Attribute 0xd0 in MFT record 0x1b should be resident");
    EXPECT_EQ(check(nonResident(0x10)), "Corrupt standard information in MFT record 0x1b");
    EXPECT_EQ(check(nonResident(0x30)), "Corrupt file name attribute in MFT record 0x1b");
    EXPECT_EQ(check(nonResident(0x40)), "Corrupt object id in MFT record 0x1b");
    EXPECT_EQ(check(nonResident(0x70)), "Corrupt volume information in MFT record 0x1b");
    EXPECT_EQ(check(nonResident(0x90)), "Corrupt index root in MFT record 0x1b");
}

TEST(NtfsNonResidentCheck, OtherTypesPass) {
    for (std::uint32_t const type : {0x20U, 0x50U, 0x80U, 0xA0U, 0xB0U, 0xC0U, 0xE0U, 0xF0U, 0x100U, 0xFFFFFFFEU}) {
        EXPECT_EQ(check(nonResident(type)), kSound) << type;
    }
}

TEST(NtfsNonResidentCheck, TheHeaderIsLookedAtFirst) {
    EXPECT_EQ(check(changed(nonResident(0x60), kFlag, 2, 1)), "Corrupt non resident attribute60 in MFT record 0x1b");
    EXPECT_EQ(check(changed(nonResident(0xABCDEF), kFlag, 2, 1)),
              "Corrupt non resident attributeabcdef in MFT record 0x1b");
}

/// Unnamed, with a value of 16 bytes from 24 on: 40 bytes.
NtfsBytes resident() {
    return ntfsResident(ntfs_type::kData, u"", NtfsBytes(16, 0x77));
}

std::string checkResident(std::uint64_t offset, std::uint64_t value, std::size_t width) {
    return check(changed(resident(), offset, value, width));
}

constexpr char const* kCorruptResident = "Corrupt resident attribute 0x80 in MFT record 0x1b";

TEST(NtfsResidentCheck, TheLengthIsAtLeast24) {
    EXPECT_EQ(check(resident()), kSound);
    NtfsBytes const empty = changed(resident(), 0x10, 0, 4);
    EXPECT_EQ(check(changed(empty, kLength, 24, 4)), kSound);
    EXPECT_EQ(check(changed(empty, kLength, 23, 4)), kCorruptResident);
    EXPECT_EQ(check(changed(empty, kLength, 16, 4)), kCorruptResident);
    EXPECT_EQ(check(changed(empty, kLength, 0, 4)), kCorruptResident);
}

TEST(NtfsResidentCheck, TheValueEndsInside) {
    EXPECT_EQ(checkResident(0x10, 17, 4), kCorruptResident);
    EXPECT_EQ(checkResident(0x10, 15, 4), kSound);
    EXPECT_EQ(checkResident(0x14, 25, 2), kCorruptResident);
    EXPECT_EQ(checkResident(0x14, 23, 2), kSound);
    EXPECT_EQ(checkResident(0x14, 0xFFFF, 2), kCorruptResident);
    EXPECT_EQ(checkResident(0x10, 0xFFFFFFFF, 4), kCorruptResident);
    EXPECT_EQ(checkResident(0x10, 0xFFFFFFF0, 4), kCorruptResident); // with its offset it would wrap to 8
}

TEST(NtfsResidentCheck, WithoutValueItsPlaceDoesNotCount) {
    EXPECT_EQ(check(changed(changed(resident(), 0x10, 0, 4), 0x14, 0xFFFF, 2)), kSound);
}

TEST(NtfsResidentCheck, ValuesOf16MebibytesAreRefused) {
    NtfsBytes attribute = ntfsResident(ntfs_type::kData, u"", NtfsBytes(0x1000000));
    EXPECT_EQ(check(attribute), kCorruptResident);
    EXPECT_EQ(check(changed(attribute, 0x10, 0xFFFFFF, 4)), kSound);
}

TEST(NtfsResidentCheck, TheNameEndsInside) {
    NtfsBytes const named = changed(resident(), kNameLength, 1, 1);
    EXPECT_EQ(check(changed(named, kNameOffset, 38, 2)), kSound);
    EXPECT_EQ(check(changed(named, kNameOffset, 39, 2)), kCorruptResident);
    EXPECT_EQ(checkResident(kNameLength, 255, 1), kCorruptResident);
}

TEST(NtfsResidentCheck, APlaceBehindTheEndIsRefusedEvenWithoutName) {
    EXPECT_EQ(checkResident(kNameOffset, 40, 2), kSound);
    EXPECT_EQ(checkResident(kNameOffset, 41, 2), kCorruptResident);
}

std::string checkValue(std::uint32_t type, NtfsBytes const& value) {
    return check(ntfsResident(type, u"", value));
}

TEST(NtfsValueCheck, StandardInformationHas48Bytes) {
    constexpr char const* kText = "Corrupt standard information in MFT record 0x1b";
    EXPECT_EQ(checkValue(0x10, NtfsBytes(0)), kText);
    EXPECT_EQ(checkValue(0x10, NtfsBytes(47)), kText);
    EXPECT_EQ(checkValue(0x10, NtfsBytes(48)), kSound);
    EXPECT_EQ(checkValue(0x10, NtfsBytes(72)), kSound);
}

/// A file-name value of so many bytes that says so many characters.
std::string checkFileName(std::size_t size, std::uint8_t characters) {
    NtfsBytes value(size);
    if (size > 0x40) {
        value[0x40] = characters;
    }
    return checkValue(0x30, value);
}

TEST(NtfsValueCheck, FileNamesHoldTheirCharacters) {
    constexpr char const* kText = "Corrupt file name attribute in MFT record 0x1b";
    EXPECT_EQ(checkFileName(0, 0), kText);
    EXPECT_EQ(checkFileName(64, 0), kText);
    EXPECT_EQ(checkFileName(65, 1), kText);
    EXPECT_EQ(checkFileName(66, 0), kText);
    EXPECT_EQ(checkFileName(66, 1), kText);
    EXPECT_EQ(checkFileName(67, 1), kText);
    EXPECT_EQ(checkFileName(68, 1), kSound);
    EXPECT_EQ(checkFileName(68, 0), kText);
    EXPECT_EQ(checkFileName(66 + 2 * 255, 255), kSound);
    EXPECT_EQ(checkFileName(66 + 2 * 255 - 1, 255), kText);
}

TEST(NtfsValueCheck, ObjectIdsHave20Bytes) {
    EXPECT_EQ(checkValue(0x40, NtfsBytes(19)), "Corrupt object id in MFT record 0x1b");
    EXPECT_EQ(checkValue(0x40, NtfsBytes(20)), kSound);
}

TEST(NtfsValueCheck, VolumeInformationHas12Bytes) {
    EXPECT_EQ(checkValue(0x70, NtfsBytes(11)), "Corrupt volume information in MFT record 0x1b");
    EXPECT_EQ(checkValue(0x70, NtfsBytes(12)), kSound);
}

std::string checkIndexRoot(std::size_t size, std::uint32_t entries, std::uint32_t length, std::uint32_t allocated) {
    NtfsBytes value(size);
    if (size >= 0x1C) {
        putNumber(value, 0x10, entries, 4);
        putNumber(value, 0x14, length, 4);
        putNumber(value, 0x18, allocated, 4);
    }
    return checkValue(0x90, value);
}

TEST(NtfsValueCheck, IndexRootsHoldTheirEntries) {
    constexpr char const* kText = "Corrupt index root in MFT record 0x1b";
    EXPECT_EQ(checkIndexRoot(0, 0, 0, 0), kText);
    EXPECT_EQ(checkIndexRoot(28, 16, 16, 16), kText);
    EXPECT_EQ(checkIndexRoot(29, 16, 16, 16), kSound); // 13 more than what is allocated
    EXPECT_EQ(checkIndexRoot(29, 15, 16, 16), kText);
    EXPECT_EQ(checkIndexRoot(29, 16, 15, 16), kText);
    EXPECT_EQ(checkIndexRoot(29, 17, 16, 16), kText);
    EXPECT_EQ(checkIndexRoot(29, 16, 17, 16), kText);
    EXPECT_EQ(checkIndexRoot(29, 16, 16, 17), kText);
    EXPECT_EQ(checkIndexRoot(100, 16, 40, 87), kSound);
    EXPECT_EQ(checkIndexRoot(100, 16, 40, 88), kText);
    EXPECT_EQ(checkIndexRoot(100, 16, 0xFFFFFFFF, 0xFFFFFFFF), kText); // 13 more would wrap around
    EXPECT_EQ(checkIndexRoot(100, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF), kText);
    EXPECT_EQ(checkIndexRoot(100, 16, 40, 0xFFFFFFF3), kText);
}

TEST(NtfsValueCheck, AnIndexAllocationIsNeverResident) {
    EXPECT_EQ(checkValue(0xA0, NtfsBytes(4096)), "Corrupt index allocation in MFT record 1b");
    EXPECT_EQ(checkValue(0xA0, {}), "Corrupt index allocation in MFT record 1b");
}

TEST(NtfsValueCheck, OtherTypesAlwaysPass) {
    for (std::uint32_t const type : {0x20U, 0x50U, 0x60U, 0x80U, 0xB0U, 0xC0U, 0xD0U, 0xE0U, 0x100U, 0xFFFFFFFEU}) {
        EXPECT_EQ(checkValue(type, {}), kSound) << type;
        EXPECT_EQ(checkValue(type, NtfsBytes(7)), kSound) << type;
    }
}

} // namespace
