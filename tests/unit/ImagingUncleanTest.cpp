// What a volume says of itself when it was not unmounted cleanly, and that a clean one says nothing.
#include "imaging/VolumeMap.h"
#include "imaging/copy/CopyPlan.h"
#include "support/FatBuilder.h"
#include "support/Files.h"
#include "support/HfsBuilder.h"
#include "support/NtfsBuilder.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace tests;
using testing::Optional;

using Reason = std::optional<std::string>;

constexpr std::uint64_t kExtState = 0x3A;
constexpr std::uint64_t kFatState = 0x41;
constexpr std::uint64_t kVolumeRecord = 3;

class ImagingUnclean : public testing::Test {
protected:
    Reason reasonOf(std::vector<std::uint8_t> const& bytes) {
        writeFile(path, bytes);
        RecordingLogger logger;
        imaging::Volume volume(path, 0, logger);
        imaging::VolumeMap const map(volume);
        EXPECT_EQ(map.geometry().notBelieved, std::nullopt);
        return map.uncleanReason();
    }

    /// Of an ext volume of 64 blocks of 4 KiB.
    Reason ofExt(std::uint16_t state, std::uint32_t incompatible) {
        ExtBuilder builder = makeSoundExtVolume(ExtGeometry::with4KiBBlocks(64));
        builder.setSuper16(kExtState, state).setSuper32(ext_super::kIncompatibleFeatures, incompatible);
        return reasonOf(builder.resize(64 * 4096).bytes);
    }

    Reason ofFat(std::uint32_t entry, std::uint8_t state = 0) {
        FatBuilder builder(FatGeometry::tiny());
        builder.setEntry(1, entry).setBoot(kFatState, state, 1);
        return reasonOf(builder.resize(builder.geometry().totalBytes()).bytes);
    }

    TempDirectory directory;
    std::string path = directory.file("volume");
};

TEST_F(ImagingUnclean, ACleanExtVolumeSaysNothing) {
    EXPECT_EQ(ofExt(1, 0), std::nullopt);
    EXPECT_EQ(ofExt(1, 0x2 | 0x40 | 0x200), std::nullopt); // filetype, extents, flex_bg
}

TEST_F(ImagingUnclean, AnExtVolumeTellsOfAJournalThatMustBeReplayed) {
    EXPECT_THAT(ofExt(1, 0x4), Optional(std::string("s_feature_incompat 0x4 has needs_recovery (0x4): its journal "
                                                    "holds changes that are not in place yet")));
    EXPECT_THAT(ofExt(0, 0x46), Optional(testing::StartsWith("s_feature_incompat 0x46 has needs_recovery (0x4)")));
}

TEST_F(ImagingUnclean, AnExtVolumeTellsOfItsState) {
    for (int const state : {0, 2, 3, 4, 7}) {
        EXPECT_THAT(ofExt(static_cast<std::uint16_t>(state), 0),
                    Optional("s_state is " + std::to_string(state) +
                             ": it was not unmounted cleanly, or errors were found in it"));
    }
    EXPECT_EQ(ofExt(5, 0), std::nullopt); // orphans are being deleted, and it was unmounted cleanly
}

TEST_F(ImagingUnclean, TheSentenceOfACopyNamesTheVolumeAndTheReason) {
    ExtBuilder builder = makeSoundExtVolume(ExtGeometry::with4KiBBlocks(64));
    writeFile(path, builder.setSuper16(kExtState, 0).resize(64 * 4096).bytes);
    RecordingLogger logger;
    imaging::Volume volume(path, 0, logger);
    imaging::CopyPlan const plan(volume, imaging::VolumeMap::Refused::IsError, 0);
    EXPECT_THAT(plan.uncleanWarning(),
                testing::StartsWith(path +
                                    ": was not unmounted cleanly (s_state is 0: it was not unmounted cleanly, or "
                                    "errors were found in it): "));
}

TEST_F(ImagingUnclean, ThereIsNoSentenceOfACleanVolume) {
    ExtBuilder builder = makeSoundExtVolume(ExtGeometry::with4KiBBlocks(64));
    writeFile(path, builder.setSuper16(kExtState, 1).resize(64 * 4096).bytes);
    RecordingLogger logger;
    imaging::Volume volume(path, 0, logger);
    EXPECT_EQ(imaging::CopyPlan(volume, imaging::VolumeMap::Refused::IsError, 0).uncleanWarning(), "");
}

TEST_F(ImagingUnclean, ACleanFatVolumeSaysNothing) {
    EXPECT_EQ(ofFat(0x0FFFFFFF), std::nullopt);
    EXPECT_EQ(ofFat(0x0C000000), std::nullopt);
}

TEST_F(ImagingUnclean, AFatVolumeTellsOfTheFlagsInEntry1) {
    EXPECT_THAT(ofFat(0x07FFFFFF),
                Optional(std::string("entry 1 of its table has the flag of a clean unmount cleared")));
    EXPECT_THAT(ofFat(0x03FFFFFF),
                Optional(std::string("entry 1 of its table has the flag of a clean unmount cleared")));
    EXPECT_THAT(ofFat(0x0BFFFFFF),
                Optional(std::string("entry 1 of its table says that reading or writing it failed")));
}

TEST_F(ImagingUnclean, AFatVolumeTellsOfTheFlagInItsBootSector) {
    EXPECT_THAT(ofFat(0x0FFFFFFF, 1), Optional(std::string("its boot sector has the dirty flag set")));
    EXPECT_EQ(ofFat(0x0FFFFFFF, 0x80), std::nullopt); // another flag
}

/// Where the flags of the volume's information stand in its record.
std::uint64_t flagsPlace(NtfsBuilder const& builder) {
    NtfsBytes const record = builder.plainRecord(kVolumeRecord);
    std::array<std::uint8_t, 12> const information{0, 0, 0, 0, 0, 0, 0, 0, 3, 1, 0, 0};
    auto const at = std::search(record.begin(), record.end(), information.begin(), information.end());
    return static_cast<std::uint64_t>(at - record.begin()) + 10;
}

TEST_F(ImagingUnclean, ACleanNtfsVolumeSaysNothing) {
    EXPECT_EQ(reasonOf(NtfsBuilder::standard().bytes), std::nullopt);
}

TEST_F(ImagingUnclean, AnNtfsVolumeTellsOfItsDirtyFlag) {
    NtfsBuilder builder = NtfsBuilder::standard();
    std::uint64_t const place = flagsPlace(builder);
    builder.pokeRecord(kVolumeRecord, place, 0x4001, 2);
    EXPECT_THAT(reasonOf(builder.bytes), Optional(std::string("$Volume (record 3) has the dirty flag (flags 16385)")));
    builder.pokeRecord(kVolumeRecord, place, 0x4080, 2);
    EXPECT_EQ(reasonOf(builder.bytes), std::nullopt) << "flags that say something else";
}

TEST_F(ImagingUnclean, AnNtfsVolumeWithoutItsInformationCannotBeTold) {
    NtfsBuilder builder = NtfsBuilder::standard();
    NtfsRecord& record = builder.record(kVolumeRecord);
    std::string const sentence = "$Volume (record 3) does not tell whether it was unmounted cleanly";
    record.remove(ntfs_type::kVolumeInformation);
    builder.seal();
    EXPECT_THAT(reasonOf(builder.bytes), Optional(sentence));
}

TEST_F(ImagingUnclean, FlagsBehindTheEndOfAnNtfsVolumesInformationAreNotItsOwn) {
    NtfsBuilder builder = NtfsBuilder::standard();
    NtfsRecord& record = builder.record(kVolumeRecord);
    std::string const sentence = "$Volume (record 3) does not tell whether it was unmounted cleanly";
    record.remove(ntfs_type::kVolumeInformation);
    record.resident(ntfs_type::kVolumeInformation, u"", {0, 0, 0, 0});
    builder.seal();
    EXPECT_THAT(reasonOf(builder.bytes), Optional(sentence));
}

constexpr std::uint32_t kUnmounted = 0x100;
constexpr std::uint32_t kInconsistent = 0x800;
constexpr std::uint32_t kJournaled = 0x2000;

/// An HFS+ volume with a journal, in the order of bytes of whoever wrote it.
class ImagingUncleanHfs : public ImagingUnclean {
protected:
    static constexpr std::uint32_t kInfoBlock = 3000;
    static constexpr std::uint32_t kJournalBlock = 3100;

    Reason ofHfs(std::uint32_t attributes) {
        builder.setHeader32(hfs_header::kAttributes, attributes);
        std::vector<std::uint8_t> bytes = builder.image();
        if ((attributes & kJournaled) != 0) {
            putBig(bytes, std::uint64_t{kInfoBlock} * 512, infoFlags, 4);
            putBig(bytes, std::uint64_t{kInfoBlock} * 512 + 36, journalOffset, 8);
            putBig(bytes, std::uint64_t{kInfoBlock} * 512 + 44, 50 * 512, 8);
            std::uint64_t const journal = std::uint64_t{kJournalBlock} * 512;
            put(bytes, journal, magic, 4);
            put(bytes, journal + 4, 0x12345678, 4);
            put(bytes, journal + 8, start, 8);
            put(bytes, journal + 16, end, 8);
        }
        return reasonOf(bytes);
    }

    void put(std::vector<std::uint8_t>& bytes, std::uint64_t offset, std::uint64_t value, unsigned width) const {
        for (unsigned i = 0; i < width; ++i) {
            bytes.at(offset + i) = static_cast<std::uint8_t>(value >> (8 * (isBig ? width - 1 - i : i)));
        }
    }

    void SetUp() override {
        builder.setUsedFrom(0, 3).setUsedFrom(kInfoBlock, 1).setUsedFrom(kJournalBlock, 50);
        builder.setHeader32(12, kInfoBlock);
    }

    HfsBuilder builder;
    bool isBig = false;
    std::uint32_t infoFlags = 1;
    std::uint64_t journalOffset = std::uint64_t{kJournalBlock} * 512;
    std::uint64_t magic = 0x4A4E4C78;
    std::uint64_t start = 512;
    std::uint64_t end = 512;
};

TEST_F(ImagingUncleanHfs, ACleanVolumeSaysNothing) {
    EXPECT_EQ(ofHfs(kUnmounted), std::nullopt);
    EXPECT_EQ(ofHfs(kUnmounted | 0x80), std::nullopt); // locked
}

TEST_F(ImagingUncleanHfs, AVolumeTellsOfAFlagThatIsMissing) {
    EXPECT_THAT(ofHfs(0), Optional(std::string("its header does not have the flag of a clean unmount")));
}

TEST_F(ImagingUncleanHfs, AVolumeTellsOfAnInconsistency) {
    EXPECT_THAT(ofHfs(kUnmounted | kInconsistent),
                Optional(std::string("its header says that it may be inconsistent")));
    EXPECT_THAT(ofHfs(kInconsistent), Optional(std::string("its header says that it may be inconsistent")));
}

TEST_F(ImagingUncleanHfs, AnEmptyJournalIsCleanInEitherOrderOfBytes) {
    for (bool const big : {false, true}) {
        isBig = big;
        EXPECT_EQ(ofHfs(kUnmounted | kJournaled), std::nullopt);
    }
}

TEST_F(ImagingUncleanHfs, AJournalWithTransactionsIsToldInEitherOrderOfBytes) {
    for (bool const big : {false, true}) {
        isBig = big;
        for (std::uint64_t const place : {0x4000ULL, 0x100000200ULL}) {
            end = place;
            EXPECT_THAT(ofHfs(kUnmounted | kJournaled),
                        Optional(std::string("its journal holds changes that are not in place yet")));
        }
    }
}

TEST_F(ImagingUncleanHfs, AJournalThatWasNeverWrittenIsClean) {
    infoFlags = 1 | 4;
    magic = 0;
    EXPECT_EQ(ofHfs(kUnmounted | kJournaled), std::nullopt);
}

TEST_F(ImagingUncleanHfs, AJournalElsewhereOrNowhereCannotBeTold) {
    infoFlags = 2;
    EXPECT_THAT(ofHfs(kUnmounted | kJournaled), Optional(testing::StartsWith("its journal lies on another device")));
    infoFlags = 1;
    for (std::uint64_t const place : {4096ULL * 512 - 10, 4096ULL * 512, 0xFFFFFFFFFFFFFFF0ULL}) {
        journalOffset = place;
        EXPECT_THAT(ofHfs(kUnmounted | kJournaled), Optional(std::string("its journal cannot be found"))) << place;
    }
    journalOffset = std::uint64_t{kJournalBlock} * 512;
    magic = 0x4A4E4C79;
    EXPECT_THAT(ofHfs(kUnmounted | kJournaled), Optional(std::string("its journal cannot be found")));
    builder.setHeader32(12, 4096); // behind the volume
    EXPECT_THAT(reasonOf([this] {
                    builder.setHeader32(hfs_header::kAttributes, kUnmounted | kJournaled);
                    return builder.image();
                }()),
                Optional(std::string("its journal cannot be found")));
}

TEST_F(ImagingUncleanHfs, AVolumeInsideAWrapperIsAskedItself) {
    builder.setHeader32(hfs_header::kAttributes, 0);
    EXPECT_THAT(reasonOf(wrapHfsVolume(builder.image(), {})),
                Optional(std::string("its header does not have the flag of a clean unmount")));
}

} // namespace
