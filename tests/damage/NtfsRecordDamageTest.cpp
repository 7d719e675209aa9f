// NTFS volumes with one field of an MFT record changed: one exact outcome each, and no read outside of anything.
#include "support/NtfsBench.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace tests;
using testing::AnyOf;
using testing::StartsWith;

constexpr char const* kMade = "";
constexpr char const* kProof = "Could not read MFT record for inode number 1";
constexpr char const* kMagic0 = "MFT Record 0x0 has invalid file magic";

/// Where attributes of record 0 of the standard volume begin.
constexpr std::uint64_t kStandard = 0x38;
constexpr std::uint64_t kName = kStandard + 96;
constexpr std::uint64_t kData = kName + 104;
constexpr std::uint64_t kPairs = kData + 0x40;

/// One field of a record changed.
struct RecordDamage {
    std::uint64_t record;
    std::uint64_t offset;
    std::uint64_t value;
    std::size_t width;
    char const* refusal;
};

void PrintTo(RecordDamage const& damage, std::ostream* out) {
    *out << "record " << damage.record << ", " << std::hex << "0x" << damage.offset << " = 0x" << damage.value;
}

TEST(NtfsDamagedRecords, TheAttributesStandWhereTheCasesSay) {
    NtfsBuilder builder = NtfsBuilder::standard();
    EXPECT_EQ(builder.record(0).offsetOf(ntfs_type::kStandardInformation), kStandard);
    EXPECT_EQ(builder.record(0).offsetOf(ntfs_type::kFileName), kName);
    EXPECT_EQ(builder.record(0).offsetOf(ntfs_type::kData), kData);
    EXPECT_EQ(builder.peekRecord(0, kPairs, 4), 0x00041011U); // 16 clusters at cluster 4
}

/// As a reader sees the record: its protection is in order.
class NtfsDamagedRecord : public testing::TestWithParam<RecordDamage> {};

TEST_P(NtfsDamagedRecord, HasOneOutcome) {
    RecordDamage const& damage = GetParam();
    NtfsBuilder builder = NtfsBuilder::standard();
    ASSERT_NE(builder.peekRecord(damage.record, damage.offset, damage.width), damage.value) << "nothing is damaged";
    builder.pokeRecord(damage.record, damage.offset, damage.value, damage.width);
    ASSERT_EQ(builder.peekRecord(damage.record, damage.offset, damage.width), damage.value);
    EXPECT_EQ(openNtfs(builder).refusal, damage.refusal);
}

INSTANTIATE_TEST_SUITE_P(
    HeaderOfRecord0, NtfsDamagedRecord,
    testing::Values(
        RecordDamage{0, 0x00, 0, 4, kMagic0}, RecordDamage{0, 0x00, 0x44414142, 4, kMagic0},
        RecordDamage{0, 0x10, 0, 2, kMade}, RecordDamage{0, 0x16, 0, 2, kMade}, // not in use
        RecordDamage{0, 0x14, 0, 2, "Corrupt MFT record 0x0"},                  // the header as an attribute
        RecordDamage{0, 0x14, 0x39, 2, "Incorrect attribute alignedment for record 0x0. Attribute offset: 0x39"},
        RecordDamage{0, 0x14, 1020, 2, "Incorrect attribute alignedment for record 0x0. Attribute offset: 0x3fc"},
        RecordDamage{0, 0x14, 1024, 2, "Bad end of record for 0x0"},
        RecordDamage{0, 0x14, 1032, 2, "Record 0x0 is corrupt."},
        RecordDamage{0, 0x18, 0, 4, kMade}, // what is left wraps around, and the marker is found
        RecordDamage{0, 0x18, 0x38, 4, "Bad end of record for 0x0"},
        RecordDamage{0, 0x18, 1025, 4, "Record 0x0 has invalid BytesInUse: 0x401"},
        RecordDamage{0, 0x18, 0x60, 4, "Corrupt MFT record 0x0"},
        RecordDamage{0, 0x1C, 0, 4, "Record 0x0 has invalid size: 0x0"},
        RecordDamage{0, 0x1C, 2048, 4, "Record 0x0 has invalid size: 0x800"},
        RecordDamage{0, 0x20, 24, 8, kMade},  // a base record of its own is not asked for
        RecordDamage{0, 0x2C, 7, 4, kMade})); // nor is the number, where the place is known

INSTANTIATE_TEST_SUITE_P(
    HeaderOfRecord1, NtfsDamagedRecord,
    testing::Values(RecordDamage{1, 0x00, 0, 4, kProof}, RecordDamage{1, 0x00, 0x44414142, 4, kProof},
                    RecordDamage{1, 0x2C, 0, 4, kProof}, RecordDamage{1, 0x16, 0, 2, kMade},
                    RecordDamage{1, 0x14, 0x3A, 2,
                                 "Incorrect attribute alignedment for record 0x1. Attribute offset: 0x3a"},
                    RecordDamage{1, 0x14, 2048, 2, "Record 0x1 is corrupt."},
                    RecordDamage{1, 0x18, 2048, 4, "Record 0x1 has invalid BytesInUse: 0x800"},
                    RecordDamage{1, 0x1C, 512, 4, "Record 0x1 has invalid size: 0x200"}));

INSTANTIATE_TEST_SUITE_P(
    AttributesOfRecord0, NtfsDamagedRecord,
    testing::Values(
        RecordDamage{0, kStandard, 0, 4, "Bad end of record for 0x0"},
        RecordDamage{0, kStandard, 0xFFFFFFFF, 4, kProof}, // an end at the beginning: sound, but without data
        RecordDamage{0, kStandard, 0x40, 4, "Bad end of record for 0x0"},
        RecordDamage{0, kStandard + 4, 0, 4, "Corrupt resident attribute 0x10 in MFT record 0x0"},
        RecordDamage{0, kStandard + 4, 4, 4, "Corrupt MFT record 0x0"},
        RecordDamage{0, kStandard + 4, 0x10, 4, "Corrupt resident attribute 0x10 in MFT record 0x0"},
        RecordDamage{0, kStandard + 4, 97, 4, "Corrupt MFT record 0x0"},
        RecordDamage{0, kStandard + 4, 0xFFFFFFF8, 4, "Corrupt MFT record 0x0"},
        RecordDamage{0, kStandard + 8, 1, 1, "Corrupt non resident attribute10 in MFT record 0x0"},
        RecordDamage{0, kStandard + 8, 0xFF, 1, "Corrupt non resident attribute10 in MFT record 0x0"},
        RecordDamage{0, kStandard + 9, 255, 1, "Corrupt resident attribute 0x10 in MFT record 0x0"},
        RecordDamage{0, kStandard + 0x10, 0, 4, "Corrupt standard information in MFT record 0x0"},
        RecordDamage{0, kStandard + 0x10, 73, 4, "Corrupt resident attribute 0x10 in MFT record 0x0"},
        RecordDamage{0, kStandard + 0x10, 0xFFFFFFF0, 4, "Corrupt resident attribute 0x10 in MFT record 0x0"},
        RecordDamage{0, kStandard + 0x14, 0xFFFF, 2, "Corrupt resident attribute 0x10 in MFT record 0x0"},
        RecordDamage{0, kName + 0x18 + 0x40, 0, 1, "Corrupt file name attribute in MFT record 0x0"},
        RecordDamage{0, kName + 0x18 + 0x40, 255, 1, "Corrupt file name attribute in MFT record 0x0"},
        RecordDamage{0, kData, 0x90, 4, "Corrupt index root in MFT record 0x0"},
        RecordDamage{0, kData, 0x20, 4, "Bad end of record for 0x0"},
        RecordDamage{0, kData + 8, 0, 1, kProof}, // what was the lowest VCN is an empty value now
        RecordDamage{0, kData + 8, 2, 1, "Corrupt non resident attribute80 in MFT record 0x0"},
        RecordDamage{0, kData + 0x18, 0xFFFFFFFFFFFFFFFF, 8, "Corrupt non resident attribute80 in MFT record 0x0"},
        RecordDamage{0, kData + 0x18, 0, 8, kMade}, // the pairs alone count
        RecordDamage{0, kData + 0x20, 72, 2, "Corrupt non resident attribute80 in MFT record 0x0"},
        RecordDamage{0, kData + 0x20, 71, 2, kProof}, // no pairs there: no runs
        RecordDamage{0, kData + 0x28, 0, 8, kMade}, RecordDamage{0, kData + 0x30, 0, 8, kMade},
        RecordDamage{0, kData + 0x30, 0x8000000000000000, 8, kMade}, RecordDamage{0, kData + 0x38, 0, 8, kMade}));

// The pairs of $MFT take eight bytes of its data attribute, of which the builder leaves four zero.
INSTANTIATE_TEST_SUITE_P(
    RunsOfTheMft, NtfsDamagedRecord,
    testing::Values(RecordDamage{0, kPairs, 0, 1, kProof},               // no runs
                    RecordDamage{0, kPairs, 0x01, 1, kProof},            // no place: 16 clusters at 16
                    RecordDamage{0, kPairs, 0x40, 1, kProof},            // no length: a mark, nothing else
                    RecordDamage{0, kPairs, 0x1F, 1, "Invalid runlist"}, // 15 bytes of length
                    RecordDamage{0, kPairs, 0xF1, 1, "Corrupt runlist"}, // 15 bytes of place
                    RecordDamage{0, kPairs, 0xFF, 1, "Invalid runlist"},
                    RecordDamage{0, kPairs, 0x18, 1, "Corrupt runlist"}, // a length up to the end
                    RecordDamage{0, kPairs + 1, 0, 1, kMade},            // no clusters: the last run all the same
                    RecordDamage{0, kPairs + 1, 0x80, 1, kMade},         // -128 clusters
                    RecordDamage{0, kPairs + 2, 5, 1, kProof},           // another place
                    RecordDamage{0, kPairs + 2, 0x7F, 1, kProof},
                    RecordDamage{0, kPairs + 2, 0x80, 1, kProof},           // -128, below all
                    RecordDamage{0, kPairs + 2, 0xFF, 1, kProof},           // -1, a hole
                    RecordDamage{0, kPairs, 0x7F0000001041, 8, kProof},     // a place of 31 bits
                    RecordDamage{0, kPairs, 0x8000000000001061, 8, kProof}, // and one of 48, negative
                    // No end: the last pair takes the byte behind the attribute, on purpose.
                    RecordDamage{0, kPairs, 0x1111111111111111, 8, kProof}));

/// The volume's bytes as they are, protection and all.
class NtfsDamagedProtection : public testing::TestWithParam<RecordDamage> {};

TEST_P(NtfsDamagedProtection, HasOneOutcome) {
    RecordDamage const& damage = GetParam();
    NtfsBuilder builder = NtfsBuilder::standard();
    std::uint64_t const place = builder.byteOffsetOf(damage.record, damage.offset);
    ASSERT_NE(builder.peek(place, damage.width), damage.value) << "nothing is damaged";
    builder.poke(place, damage.value, damage.width);
    EXPECT_EQ(openNtfs(builder).refusal, damage.refusal);
}

// A refused array leaves record 0 as it was read, and its code is not asked for: what the checks pass is taken.
INSTANTIATE_TEST_SUITE_P(Array, NtfsDamagedProtection,
                         testing::Values(RecordDamage{0, 0x04, 0x31, 2, kMade}, RecordDamage{0, 0x04, 0x3FE, 2, kMade},
                                         RecordDamage{0, 0x04, 0xFFFE, 2, kMade},
                                         RecordDamage{0, 0x04, 0, 2, kMagic0}, // torn
                                         RecordDamage{0, 0x04, 0x28, 2, kMagic0},
                                         RecordDamage{0, 0x04, 0x1FE, 2, kMade}, RecordDamage{0, 0x06, 0, 2, kMade},
                                         RecordDamage{0, 0x06, 1, 2, kMade}, RecordDamage{0, 0x06, 0xFFFF, 2, kMade},
                                         RecordDamage{0, 0x30, 0, 2, kMagic0}, RecordDamage{0, 0x1FE, 0, 2, kMagic0},
                                         RecordDamage{0, 0x3FE, 0, 2, kMagic0}, RecordDamage{1, 0x04, 0x31, 2, kProof},
                                         RecordDamage{1, 0x04, 0x3FE, 2, kProof}, RecordDamage{1, 0x04, 0, 2, kProof},
                                         RecordDamage{1, 0x06, 0, 2, kProof}, RecordDamage{1, 0x06, 2, 2, kProof},
                                         RecordDamage{1, 0x06, 4, 2, kProof}, RecordDamage{1, 0x06, 0xFFFF, 2, kProof},
                                         RecordDamage{1, 0x30, 0, 2, kProof}, RecordDamage{1, 0x1FE, 0, 2, kProof},
                                         RecordDamage{1, 0x3FE, 0, 2, kProof}));

/// All that a construction may say about records 0 and 1.
auto documentedRefusal() {
    return AnyOf(kMade, kProof, "Invalid runlist", "Corrupt runlist", "No run list can be found",
                 "Found no run list for attribute.", "Could not read from device.", StartsWith("MFT Record 0x"),
                 StartsWith("Record 0x"), StartsWith("Bad end of record for 0x"), StartsWith("Corrupt "),
                 StartsWith("Incorrect attribute alignedment for record 0x"), StartsWith("Attribute 0x"),
                 StartsWith("Invalid buffer passed in to traverse attribute"));
}

TEST(NtfsDamagedRecords, EveryByteOfTheFirstTwoHasADocumentedOutcome) {
    NtfsBuilder const good = NtfsBuilder::standard();
    MemoryReader volume(good.bytes);
    for (std::uint64_t const number : {0U, 1U}) {
        NtfsBytes const plain = good.plainRecord(number);
        NtfsBuilder damaged = good;
        for (std::size_t offset = 0; offset < 0x170; ++offset) {
            if (offset >= 4 && offset < 8) {
                continue; // the array's place and count have their own cases
            }
            for (std::uint8_t const value :
                 {std::uint8_t{0}, std::uint8_t{0x20}, std::uint8_t{0x7F}, std::uint8_t{0x80}, std::uint8_t{0xFF}}) {
                damaged.pokeRecord(number, offset, value, 1);
                std::copy_n(damaged.bytes.begin() + 16384, 2048, volume.bytes.begin() + 16384);
                EXPECT_THAT(openNtfs(volume).refusal, documentedRefusal()) << number << ' ' << offset;
            }
            damaged.pokeRecord(number, offset, plain[offset], 1);
        }
        std::copy_n(damaged.bytes.begin() + 16384, 2048, volume.bytes.begin() + 16384);
        EXPECT_EQ(openNtfs(volume).refusal, kMade);
    }
}

TEST(NtfsDamagedRecords, AFileRecordThatIsNotInUseIsReadAllTheSame) {
    NtfsBuilder builder = NtfsBuilder::standard();
    builder.pokeRecord(24, 0x16, 0, 2);
    NtfsBench bench(builder);
    EXPECT_EQ(bench.parser.extents(24).size(), 2U);
}

TEST(NtfsDamagedRecords, AStaleSequenceNumberIsNotNoticed) {
    NtfsBuilder builder = NtfsBuilder::standard();
    builder.pokeRecord(24, 0x10, 99, 2);
    NtfsBench bench(builder);
    EXPECT_EQ(bench.parser.extents("\\readme.txt").size(), 2U);
}

TEST(NtfsDamagedRecords, RecordsBehindTheEndOfTheMftAreReadFromTheVolume) {
    NtfsBench bench(NtfsBuilder::standard());
    bench.forget();
    EXPECT_TRUE(bench.parser.extents(64).empty()); // the mirror stands there, whose number is 0
    ASSERT_EQ(bench.reader.calls.size(), 2U);
    EXPECT_EQ(bench.reader.calls[0], seekCall(20 * 4096));
    EXPECT_EQ(bench.logger.entries.back(), debugEntry("Unable to read inode 64"));
}

} // namespace
