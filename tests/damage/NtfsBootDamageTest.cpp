// NTFS volumes whose boot sector has one field changed: one exact outcome each, and little memory whatever it claims.
#include "support/NtfsBench.h"
#include "support/ResidentMemory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

namespace {

using namespace tests;
using testing::Contains;
using testing::IsEmpty;

constexpr char const* kMade = "";
constexpr char const* kNotNtfs = "Not an NTFS filesystem";
constexpr char const* kNoSectors = "volume size is set to zero.";
constexpr char const* kMftPlace = "Invalid $MFT offset.";
constexpr char const* kMirrorPlace = "Invalid $MFTMirr offset.";
constexpr char const* kMagic = "MFT Record 0x0 has invalid file magic";
constexpr char const* kProof = "Could not read MFT record for inode number 1";
constexpr char const* kRecordSize = "Record 0x0 has invalid size: 0x400"; // the one that the record itself tells

/// The standard volume with one field changed; proves that the change took.
NtfsBuilder damaged(std::uint64_t offset, std::uint64_t value, std::size_t width) {
    NtfsBuilder builder = NtfsBuilder::standard();
    EXPECT_NE(builder.boot(offset, width), value) << "nothing is damaged";
    builder.setBoot(offset, value, width);
    EXPECT_EQ(builder.boot(offset, width), value);
    return builder;
}

struct BootDamage {
    std::uint64_t offset;
    std::uint64_t value;
    std::size_t width;
    char const* refusal;
};

void PrintTo(BootDamage const& damage, std::ostream* out) {
    *out << std::hex << "0x" << damage.offset << " = 0x" << damage.value;
}

class NtfsDamagedBoot : public testing::TestWithParam<BootDamage> {};

TEST_P(NtfsDamagedBoot, HasOneOutcome) {
    BootDamage const& damage = GetParam();
    NtfsOpening const opening = openNtfs(damaged(damage.offset, damage.value, damage.width));
    EXPECT_EQ(opening.refusal, damage.refusal);
    bool const isRecognised = damage.refusal != kNotNtfs;
    EXPECT_EQ(opening.calls.size() > 2, isRecognised && damage.refusal != kNoSectors && damage.refusal != kMftPlace &&
                                            damage.refusal != kMirrorPlace &&
                                            !std::string(damage.refusal).starts_with("Cluster size"));
}

INSTANTIATE_TEST_SUITE_P(BytesPerSector, NtfsDamagedBoot,
                         testing::Values(BootDamage{0x0B, 0, 2, kNotNtfs}, BootDamage{0x0B, 1, 2, kNotNtfs},
                                         BootDamage{0x0B, 3, 2, kNotNtfs}, BootDamage{0x0B, 128, 2, kNotNtfs},
                                         BootDamage{0x0B, 255, 2, kNotNtfs}, BootDamage{0x0B, 4097, 2, kNotNtfs},
                                         BootDamage{0x0B, 0xFFFF, 2, kNotNtfs}, BootDamage{0x0B, 256, 2, kMagic},
                                         BootDamage{0x0B, 1024, 2, kProof}, BootDamage{0x0B, 4096, 2, kMagic},
                                         BootDamage{0x0B, 300, 2,
                                                    "Cluster size isn't power of two. ClusterSize: 0x960"}));

INSTANTIATE_TEST_SUITE_P(SectorsPerCluster, NtfsDamagedBoot,
                         testing::Values(BootDamage{0x0D, 0, 1, kNotNtfs}, BootDamage{0x0D, 3, 1, kNotNtfs},
                                         BootDamage{0x0D, 0x81, 1, kNotNtfs}, BootDamage{0x0D, 0xEF, 1, kNotNtfs},
                                         BootDamage{0x0D, 0xF3, 1, kNotNtfs}, BootDamage{0x0D, 0xFE, 1, kNotNtfs},
                                         BootDamage{0x0D, 0xFF, 1, kNotNtfs}, BootDamage{0x0D, 0xF0, 1, kMftPlace},
                                         BootDamage{0x0D, 0xF4, 1, kMftPlace}, BootDamage{0x0D, 0xF8, 1, kMftPlace},
                                         BootDamage{0x0D, 0xFD, 1, kMade}, BootDamage{0x0D, 4, 1, kMagic},
                                         BootDamage{0x0D, 16, 1, kProof}, BootDamage{0x0D, 0x80, 1, kMagic}));

INSTANTIATE_TEST_SUITE_P(TotalSectors, NtfsDamagedBoot,
                         testing::Values(BootDamage{0x28, 0, 8, kNoSectors}, BootDamage{0x28, 1, 8, kMftPlace},
                                         BootDamage{0x28, 32, 8, kMirrorPlace},
                                         BootDamage{0x28, 0x8000000000000000, 8, kMftPlace},
                                         BootDamage{0x28, 0xFFFFFFFFFFFFFFFF, 8, kMftPlace},
                                         BootDamage{0x28, 0x7FFFFFFFFFFFFFFF, 8, kMade}, // the device is not asked
                                         BootDamage{0x28, 4097, 8, kMade}));

INSTANTIATE_TEST_SUITE_P(MftPlace, NtfsDamagedBoot,
                         testing::Values(BootDamage{0x30, 0, 8, kNotNtfs}, BootDamage{0x30, 20, 8, kNotNtfs},
                                         BootDamage{0x30, 0x8000000000000000, 8, kNotNtfs},
                                         BootDamage{0x30, 0xFFFFFFFFFFFFFFFF, 8, kNotNtfs},
                                         BootDamage{0x30, 513, 8, kMftPlace},
                                         BootDamage{0x30, 0x7FFFFFFFFFFFFFFF, 8, kMftPlace},
                                         BootDamage{0x30, 512, 8, kMagic}, BootDamage{0x30, 3, 8, kMagic},
                                         BootDamage{0x30, 5, 8, kProof})); // record 4 stands there

INSTANTIATE_TEST_SUITE_P(MirrorPlace, NtfsDamagedBoot,
                         testing::Values(BootDamage{0x38, 0, 8, kNotNtfs}, BootDamage{0x38, 4, 8, kNotNtfs},
                                         BootDamage{0x38, 0xFFFFFFFFFFFFFFFF, 8, kNotNtfs},
                                         BootDamage{0x38, 513, 8, kMirrorPlace}, BootDamage{0x38, 512, 8, kMade},
                                         BootDamage{0x38, 1, 8, kMade}));

INSTANTIATE_TEST_SUITE_P(ClustersPerRecord, NtfsDamagedBoot,
                         testing::Values(BootDamage{0x40, 0, 1, kNotNtfs}, BootDamage{0x40, 3, 1, kNotNtfs},
                                         BootDamage{0x40, 127, 1, kNotNtfs}, BootDamage{0x40, 0x80, 1, kNotNtfs},
                                         BootDamage{0x40, 0xFF, 1, kNotNtfs}, BootDamage{0x40, 0xF8, 1, kNotNtfs},
                                         BootDamage{0x40, 0xE0, 1, kNotNtfs}, BootDamage{0x40, 0xF7, 1, kRecordSize},
                                         BootDamage{0x40, 0xF5, 1, kRecordSize}, BootDamage{0x40, 1, 1, kRecordSize},
                                         BootDamage{0x40, 64, 1, kRecordSize}, BootDamage{0x40, 0xEC, 1, kRecordSize},
                                         BootDamage{0x40, 0xE1, 1, kRecordSize}));

INSTANTIATE_TEST_SUITE_P(ClustersPerIndexBlock, NtfsDamagedBoot,
                         testing::Values(BootDamage{0x44, 0, 1, kNotNtfs}, BootDamage{0x44, 0xC1, 1, kNotNtfs},
                                         BootDamage{0x44, 127, 1, kNotNtfs}, BootDamage{0x44, 0xE1, 1, kMade},
                                         BootDamage{0x44, 64, 1, kMade}));

TEST(NtfsDamagedBootSector, FieldsOfOtherFileSystemsAreRefused) {
    for (std::uint64_t const offset : {0x0EU, 0x10U, 0x11U, 0x13U, 0x16U, 0x20U}) {
        NtfsOpening const opening = openNtfs(damaged(offset, 1, 1));
        EXPECT_EQ(opening.refusal, kNotNtfs);
        EXPECT_THAT(opening.entries, testing::ElementsAre(errorEntry("Reserved fields aren't zero")));
    }
}

TEST(NtfsDamagedBootSector, TheCopyAtTheEndIsNotTried) {
    NtfsBuilder builder = NtfsBuilder::standard();
    std::fill_n(builder.bytes.begin(), 512, std::uint8_t{0});
    EXPECT_EQ(openNtfs(builder),
              (NtfsOpening{kNotNtfs, {debugEntry("Invalid NTFS magic.")}, {seekCall(0), readCall(512)}}));
}

TEST(NtfsDamagedBootSector, AnEncryptedVolumeIsNotTaken) {
    NtfsBuilder builder = NtfsBuilder::standard();
    std::string const mark = "-FVE-FS-";
    std::copy(mark.begin(), mark.end(), builder.bytes.begin() + 3);
    EXPECT_EQ(openNtfs(builder).refusal, kNotNtfs);
}

TEST(NtfsDamagedBootSector, EveryByteHasADocumentedOutcome) {
    std::set<std::string> const outcomes{kMade,        kNotNtfs, kNoSectors, kMftPlace,
                                         kMirrorPlace, kMagic,   kProof,     kRecordSize};
    NtfsBuilder const good = NtfsBuilder::standard();
    MemoryReader volume(good.bytes);
    for (std::size_t offset = 3; offset < 0x48; ++offset) {
        for (unsigned const change : {0x01U, 0x80U, 0xFFU}) {
            volume.bytes[offset] = static_cast<std::uint8_t>(good.bytes[offset] ^ change);
            std::string const refusal = openNtfs(volume).refusal;
            EXPECT_TRUE(outcomes.contains(refusal) || refusal.starts_with("Cluster size isn't power of two."))
                << offset << ' ' << change << ' ' << refusal;
        }
        volume.bytes[offset] = good.bytes[offset];
    }
    EXPECT_EQ(openNtfs(volume).refusal, kMade);
}

/// Notes how much memory the process has at each read.
class ResidentWatcher : public agent::core::IVolumeReader {
public:
    explicit ResidentWatcher(agent::core::IVolumeReader const& inner) : inner_(inner) {}
    long read(void* buffer, long length) const override {
        long const result = inner_.read(buffer, length);
        most = std::max(most, residentBytes());
        return result;
    }
    long seek(long offset, int whence) const override { return inner_.seek(offset, whence); }

    mutable std::size_t most = 0;

private:
    agent::core::IVolumeReader const& inner_;
};

TEST(NtfsDamagedBootSector, RecordsOfTwoGibibytesTakeNoMemory) {
    NtfsBuilder const builder = damaged(ntfs_boot::kClustersPerMftRecord, 0xE1, 1);
    MemoryReader const volume(builder.bytes);
    ResidentWatcher const watcher(volume);
    std::size_t const before = residentBytes();
    if (before == 0) {
        GTEST_SKIP() << kWhyNotResident;
    }
    EXPECT_EQ(openNtfs(watcher).refusal, kRecordSize);
    EXPECT_LT(watcher.most, before + (std::size_t{64} << 20));
}

} // namespace
