// FAT volumes with one field of the boot sector changed: one exact result, entries and reads for each.
#include "support/FatRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace tests;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t kBuffer = 100; // room for 800 units; the good volume has 204

/// The table at byte 2048, two of them of two sectors each, the data at byte 4096, clusters of 1 KiB.
FatBuilder makeGood() {
    FatBuilder builder(FatGeometry::tiny());
    builder.fillAtRandom(31);
    return builder;
}

/// The same with bytes for as many entries as the buffer has room for.
FatBuilder makeLonger() {
    return makeGood().resize(8192);
}

/// Changes one field and proves that the change took.
FatBuilder with(std::uint64_t field, std::uint64_t value, unsigned width, FatBuilder builder = makeGood()) {
    EXPECT_NE(builder.boot(field, width), value) << "the field already holds the value: nothing is damaged";
    builder.setBoot(field, value, width);
    EXPECT_EQ(builder.boot(field, width), value);
    return builder;
}

/// Runs a request for everything and expects what the reference gives, to the last call.
FatOutcome runAsReference(FatBuilder const& builder, std::uint64_t length = kBuffer) {
    FatOutcome const expected = referenceFatChunk(builder.bytes, {0, length});
    EXPECT_EQ(expected.end, FatEnd::Answers);
    FatOutcome const outcome = FatBench(builder).chunk(0, length);
    EXPECT_EQ(outcome, expected);
    return outcome;
}

void expectFailure(FatBuilder const& builder, long code, std::vector<ReaderCall> const& calls) {
    FatOutcome const outcome = runAsReference(builder);
    EXPECT_EQ(outcome.result, code);
    EXPECT_EQ(outcome.entries, fatFailureEntries(code));
    EXPECT_EQ(outcome.calls, calls);
}

/// A cluster size that is no power of two is no alignment for the table's read.
void expectNoMemory(FatBuilder const& builder, std::uint64_t size, std::uint64_t alignment) {
    EXPECT_EQ(referenceFatChunk(builder.bytes, {0, kBuffer}).end, FatEnd::Throws);
    FatBench bench(builder);
    bench.reader.calls.clear();
    std::vector<char> buffer(kBuffer);
    EXPECT_THROW(bench.parser.getChunk(0, buffer.data(), buffer.size()), std::invalid_argument);
    EXPECT_THAT(bench.reader.calls, IsEmpty());
    ASSERT_EQ(bench.logger.entries.size(), 1U);
    EXPECT_THAT(bench.logger.entries[0].text,
                testing::StartsWith("Failed to create aligned memory of size: " + std::to_string(size) +
                                    ", alignment: " + std::to_string(alignment) + " from line: "));
}

/// The units that count as used because they stand before the data, and the total.
void expectUnits(FatOutcome const& outcome, std::uint64_t beforeData, long total) {
    EXPECT_EQ(outcome.result, total);
    EXPECT_EQ(outcome.entries, fatSuccessEntries(total));
    auto const units = fatUnits(outcome.buffer, total);
    for (std::uint64_t unit = 0; unit < beforeData; ++unit) {
        EXPECT_TRUE(units.at(unit)) << unit;
    }
}

TEST(FatDamage, GoodVolumeIsGood) {
    FatOutcome const outcome = runAsReference(makeGood());
    expectUnits(outcome, 4, 204);
    EXPECT_EQ(fatUnits(outcome.buffer, 204), makeGood().map());
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(2048), readCall(1024)));
}

TEST(FatDamageBytesPerSector, ZeroIsNoSize) {
    FatBuilder const builder = with(fat_boot::kBytesPerSector, 0, 2);
    expectFailure(builder, -1, {});
    EXPECT_THAT(runAsReference(builder).buffer, Each(0));
}

TEST(FatDamageBytesPerSector, One) {
    // Clusters of 2 bytes, the table at byte 4, the data at byte 8: entries come from the boot sector.
    FatOutcome const outcome = runAsReference(with(fat_boot::kBytesPerSector, 1, 2));
    expectUnits(outcome, 4, 204);
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(4), readCall(820)));
}

TEST(FatDamageBytesPerSector, OddSizes) {
    expectNoMemory(with(fat_boot::kBytesPerSector, 511, 2), 820, 1022);
    expectNoMemory(with(fat_boot::kBytesPerSector, 513, 2), 820, 1026);
    // 65535 * 65535 would not fit 32 signed bits, but it never comes to that place.
    expectNoMemory(with(fat_boot::kBytesPerSector, 0xFFFF, 2), 820, 131070);
}

TEST(FatDamageBytesPerSector, LargestPowerOfTwo) {
    // The table would stand at byte 131072 of a volume of few kilobytes.
    expectFailure(with(fat_boot::kBytesPerSector, 0x8000, 2), -400, {seekCall(131072), readCall(65536)});
}

TEST(FatDamageSectorsPerCluster, ZeroIsNoSize) {
    expectFailure(with(fat_boot::kSectorsPerCluster, 0, 1), -1, {});
}

TEST(FatDamageSectorsPerCluster, OddNumbers) {
    expectNoMemory(with(fat_boot::kSectorsPerCluster, 3, 1), 137 * 4, 1536);
    expectNoMemory(with(fat_boot::kSectorsPerCluster, 255, 1), 3 * 4, 130560);
}

TEST(FatDamageSectorsPerCluster, OneHalvesTheUnits) {
    // 408 units of 512 bytes, the data from unit 8 on; the table's 256 entries do not reach.
    FatOutcome const outcome = runAsReference(with(fat_boot::kSectorsPerCluster, 1, 1));
    expectUnits(outcome, 8, 408);
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(2048), readCall(2048)));
}

TEST(FatDamageSectorsPerClusterDeathTest, LargestMakesTheDataStartInsideUnitZero) {
    // Four units; the last of them looks at entry 4, and at entry 5, which was not read, if that is free.
    FatBuilder builder = with(fat_boot::kSectorsPerCluster, 128, 1);
    builder.setEntry(4, fat_entry::kEndOfChain);
    FatOutcome const outcome = runAsReference(builder);
    expectUnits(outcome, 1, 4);
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(0), readCall(65536)));
    builder.setEntry(4, fat_entry::kFree);
    FatBench bench(builder);
    EXPECT_EXIT(bench.chunk(0, kBuffer), testing::KilledBySignal(SIGABRT), "");
}

TEST(FatDamageReservedSectors, ZeroPutsTheTableAtByteZero) {
    FatOutcome const outcome = runAsReference(with(fat_boot::kReservedSectors, 0, 2));
    expectUnits(outcome, 2, 204);
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(0), readCall(1024)));
}

TEST(FatDamageReservedSectors, MostPutTheTablePastTheEnd) {
    expectFailure(with(fat_boot::kReservedSectors, 0xFFFF, 2), -400, {seekCall(65534L * 512), readCall(2048)});
}

TEST(FatDamageNumberOfFats, EachMovesTheData) {
    FatBuilder const good = makeGood();
    for (auto const& [fats, beforeData] : {std::pair{0U, 2U}, std::pair{1U, 3U}, std::pair{3U, 5U}}) {
        FatOutcome const outcome = runAsReference(with(fat_boot::kNumberOfFats, fats, 1));
        expectUnits(outcome, beforeData, 204);
        auto const units = fatUnits(outcome.buffer, 204);
        auto const exact = good.map();
        for (std::uint64_t unit = beforeData; unit < 200; ++unit) {
            EXPECT_EQ(units.at(unit), exact.at(unit + 4 - beforeData)) << fats << ", " << unit;
        }
    }
}

TEST(FatDamageNumberOfFats, MostLeaveNoData) {
    FatOutcome const outcome = runAsReference(with(fat_boot::kNumberOfFats, 255, 1));
    EXPECT_EQ(fatUnits(outcome.buffer, 204), std::vector<bool>(204, true));
}

TEST(FatDamageTotalSectors, BothCounts) {
    // The one of 16 bits wins, whatever the other says.
    expectUnits(runAsReference(with(fat_boot::kTotalSectors16, 100, 2)), 4, 50);
    expectUnits(runAsReference(with(fat_boot::kTotalSectors16, 0xFFFF, 2, makeLonger())), 4, 800);
}

TEST(FatDamageTotalSectors, Neither) {
    FatOutcome const outcome = runAsReference(with(fat_boot::kTotalSectors32, 0, 4));
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.entries, fatSuccessEntries(0));
    EXPECT_THAT(outcome.calls, IsEmpty());
    EXPECT_THAT(outcome.buffer, Each(0));
}

TEST(FatDamageTotalSectors, FewerThanStandBeforeTheData) {
    FatOutcome const outcome = runAsReference(with(fat_boot::kTotalSectors32, 5, 4));
    EXPECT_EQ(outcome.result, 3);
    EXPECT_EQ(fatUnits(outcome.buffer, 3), std::vector<bool>(3, true));
}

TEST(FatDamageTotalSectors, MostAskForAsManyUnitsAsTheBufferHolds) {
    FatOutcome const outcome = runAsReference(with(fat_boot::kTotalSectors32, 0xFFFFFFFF, 4, makeLonger()));
    expectUnits(outcome, 4, 800);
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(2048), readCall(4096)));
}

TEST(FatDamageSectorsPerFat, ZeroPutsTheDataBehindTheReservedSectors) {
    FatOutcome const outcome = runAsReference(with(fat_boot::kSectorsPerFat32, 0, 4));
    expectUnits(outcome, 2, 204);
    EXPECT_EQ(runAsReference(with(fat_boot::kSectorsPerFat32, 0x10000, 4)), outcome) << "its low half is the same";
}

TEST(FatDamageSectorsPerFat, MostLeaveNoData) {
    FatOutcome const outcome = runAsReference(with(fat_boot::kSectorsPerFat32, 0xFFFFFFFF, 4));
    EXPECT_EQ(fatUnits(outcome.buffer, 204), std::vector<bool>(204, true));
    EXPECT_EQ(runAsReference(with(fat_boot::kSectorsPerFat32, 0xFFFF, 4)), outcome);
}

struct LabelDamage {
    char const* name;
    std::uint64_t field;
    std::string_view text;
    char const* refusal; ///< null: it makes no difference
};

void PrintTo(LabelDamage const& damage, std::ostream* out) {
    *out << damage.name;
}

class FatDamageLabel : public testing::TestWithParam<LabelDamage> {};

TEST_P(FatDamageLabel, IsRefusedOrMakesNoDifference) {
    FatBuilder builder = makeGood();
    auto const before = builder.bytes;
    builder.setText(GetParam().field, GetParam().text);
    ASSERT_NE(builder.bytes, before) << "nothing is damaged";
    if (GetParam().refusal == nullptr) {
        EXPECT_EQ(FatBench(builder).chunk(0, kBuffer), FatBench(before).chunk(0, kBuffer));
        return;
    }
    EXPECT_THAT([&] { FatBench bench(builder); },
                testing::ThrowsMessage<std::runtime_error>(testing::StrEq(GetParam().refusal)));
}

using std::string_view_literals::operator""sv;
constexpr char const* kNotFat = "Not a FAT filesystem";

INSTANTIATE_TEST_SUITE_P(
    Labels, FatDamageLabel,
    testing::Values(LabelDamage{"Gone", fat_boot::kFat32Label, "\0\0\0\0\0\0\0\0"sv, kNotFat},
                    LabelDamage{"LowerCase", fat_boot::kFat32Label, "fat32", kNotFat},
                    LabelDamage{"FirstByte", fat_boot::kFat32Label, "\xE5", kNotFat},
                    LabelDamage{"FifthByte", fat_boot::kFat32Label + 4, "3", kNotFat},
                    LabelDamage{"SixthByte", fat_boot::kFat32Label + 5, "3", nullptr},
                    LabelDamage{"Fat16AtFat32", fat_boot::kFat32Label, "FAT16", kNotFat},
                    LabelDamage{"Fat12BeforeIt", fat_boot::kOldLabel, "FAT12", "FAT12 is not supported"},
                    LabelDamage{"Fat16BeforeIt", fat_boot::kOldLabel, "FAT16   ", "FAT16 is not supported"},
                    LabelDamage{"Fat32Twice", fat_boot::kOldLabel, "FAT32   ", nullptr},
                    LabelDamage{"Fat1xBeforeIt", fat_boot::kOldLabel, "FAT1x", nullptr}),
    [](auto const& instance) { return std::string(instance.param.name); });

struct IgnoredDamage {
    char const* name;
    std::uint64_t field;
    std::uint64_t value;
    unsigned width;
};

void PrintTo(IgnoredDamage const& damage, std::ostream* out) {
    *out << damage.name;
}

class FatDamageIgnored : public testing::TestWithParam<IgnoredDamage> {};

TEST_P(FatDamageIgnored, MakesNoDifference) {
    FatBuilder const damaged = with(GetParam().field, GetParam().value, GetParam().width);
    EXPECT_EQ(FatBench(damaged).chunk(0, kBuffer), FatBench(makeGood()).chunk(0, kBuffer));
}

constexpr std::uint64_t kInfo = 512; // the FSInfo sector

INSTANTIATE_TEST_SUITE_P(
    Fields, FatDamageIgnored,
    testing::Values(IgnoredDamage{"Jump", fat_boot::kJump, 0, 3}, IgnoredDamage{"SystemId", fat_boot::kSystemId, 0, 8},
                    IgnoredDamage{"RootEntries", fat_boot::kRootEntries, 0xFFFF, 2},
                    IgnoredDamage{"Media", fat_boot::kMedia, 0, 1},
                    IgnoredDamage{"SectorsPerFat16", fat_boot::kSectorsPerFat16, 0xFFFF, 2},
                    IgnoredDamage{"HiddenSectors", fat_boot::kHiddenSectors, 0xFFFFFFFF, 4},
                    IgnoredDamage{"MirroringOffAndOtherTableActive", fat_boot::kExtFlags, 0x81, 2},
                    IgnoredDamage{"ActiveTableThatIsNone", fat_boot::kExtFlags, 0x8F, 2},
                    IgnoredDamage{"Version", fat_boot::kVersion, 0xFFFF, 2},
                    IgnoredDamage{"RootClusterZero", fat_boot::kRootCluster, 0, 4},
                    IgnoredDamage{"RootClusterOne", fat_boot::kRootCluster, 1, 4},
                    IgnoredDamage{"RootClusterBeyond", fat_boot::kRootCluster, 0xFFFFFFFF, 4},
                    IgnoredDamage{"InfoSectorZero", fat_boot::kFsInfoSector, 0, 2},
                    IgnoredDamage{"InfoSectorBeyond", fat_boot::kFsInfoSector, 0xFFFF, 2},
                    IgnoredDamage{"BackupSectorBeyond", fat_boot::kBackupSector, 0xFFFF, 2},
                    IgnoredDamage{"ExtendedSignature", fat_boot::kExtendedSignature, 0, 1},
                    IgnoredDamage{"Signature", fat_boot::kSignature, 0, 2},
                    IgnoredDamage{"InfoLeadSignature", kInfo + fat_info::kLeadSignature, 0, 4},
                    IgnoredDamage{"InfoStructSignature", kInfo + fat_info::kStructSignature, 0, 4},
                    IgnoredDamage{"InfoFreeCountAbsurd", kInfo + fat_info::kFreeCount, 0xFFFFFFFE, 4},
                    IgnoredDamage{"InfoFreeCountZero", kInfo + fat_info::kFreeCount, 0, 4},
                    IgnoredDamage{"InfoNextFreeBeyond", kInfo + fat_info::kNextFree, 0x7FFFFFFF, 4},
                    IgnoredDamage{"InfoTrailSignature", kInfo + fat_info::kTrailSignature, 0, 4}),
    [](auto const& instance) { return std::string(instance.param.name); });

TEST(FatDamageBackup, DifferentBackupBootSectorMakesNoDifference) {
    FatBuilder builder;
    builder.fillAtRandom(32);
    FatOutcome const expected = wholeFatMap(builder);
    std::fill_n(builder.bytes.begin() + 6 * 512, 2 * 512, std::uint8_t{0xFF});
    EXPECT_EQ(FatBench(builder).chunk(0, builder.geometry().mapBytes()), expected);
}

} // namespace
