// Which file system a volume holds: each magic at its place, and nowhere else.
#include "imaging/Detection.h"

#include "imaging/Error.h"
#include "imaging/StrictReader.h"
#include "support/Readers.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string_view>
#include <vector>

namespace {

using namespace agent::core::fs;
using namespace tests;
using imaging::detectFileSystem;
using imaging::fileSystemName;
using testing::Contains;
using testing::ElementsAre;

constexpr std::size_t kHeader = 1024;

/// A volume of zeros into which magics are put.
class Bytes {
public:
    explicit Bytes(std::size_t size = 4096) : bytes_(size) {}

    Bytes& put(std::size_t offset, std::string_view text) {
        std::copy(text.begin(), text.end(), bytes_.begin() + static_cast<std::ptrdiff_t>(offset));
        return *this;
    }

    /// An NTFS boot sector, as far as it is checked.
    Bytes& putNtfs(std::size_t sector = 0) {
        put(sector + 3, "NTFS    ");
        put(sector + 0x0B, std::string_view("\x00\x02\x08", 3)); // 512 bytes a sector, 8 sectors a cluster
        put(sector + 0x30, "\x04");
        put(sector + 0x38, "\x02");
        put(sector + 0x40, "\xF6");
        put(sector + 0x44, "\x01");
        return put(sector + 0x1FE, "\x55\xAA");
    }

    Bytes& putFat32(std::size_t sector = 0) { return put(sector + 0x52, "FAT32   "); }
    Bytes& putExt(std::size_t super = kHeader) { return put(super + 0x38, "\x53\xEF"); }
    Bytes& putHfsPlus(std::size_t header = kHeader) { return put(header, "H+"); }
    Bytes& putXfs(std::size_t super = 0) { return put(super, "XFSB"); }

    int detect(std::uint64_t alignment = 512) const {
        RecordingLogger outer;
        imaging::ReasonLogger logger(outer);
        return detectFileSystem(logger, MemoryReader(bytes_), alignment, bytes_.size());
    }

    std::vector<std::uint8_t> const& get() const { return bytes_; }

private:
    std::vector<std::uint8_t> bytes_;
};

TEST(ImagingDetection, EachFileSystemIsRecognisedAtItsPlace) {
    for (std::uint64_t const alignment : {1U, 512U, 1024U, 4096U, 65536U}) {
        EXPECT_EQ(Bytes().putNtfs().detect(alignment), kNtfs) << alignment;
        EXPECT_EQ(Bytes().putFat32().detect(alignment), kFat32) << alignment;
        EXPECT_EQ(Bytes().putExt().detect(alignment), kExt) << alignment;
        EXPECT_EQ(Bytes().putHfsPlus().detect(alignment), kHfsPlus) << alignment;
        EXPECT_EQ(Bytes().put(kHeader, "HX").detect(alignment), kHfsPlus) << alignment;
        EXPECT_EQ(Bytes().putXfs().detect(alignment), kXfs) << alignment;
        EXPECT_EQ(Bytes().detect(alignment), kUnrecognized) << alignment;
    }
}

TEST(ImagingDetection, MagicsAtTheWrongPlaceMeanNothing) {
    EXPECT_EQ(Bytes().putExt(0).detect(), kUnrecognized) << "the ext magic at byte 56 of the first sector";
    EXPECT_EQ(Bytes().putHfsPlus(0).detect(), kUnrecognized);
    EXPECT_EQ(Bytes().put(0, "HX").detect(), kUnrecognized);
    EXPECT_EQ(Bytes().putNtfs(kHeader).detect(), kUnrecognized);
    EXPECT_EQ(Bytes().putFat32(kHeader).detect(), kUnrecognized);
    EXPECT_EQ(Bytes().putXfs(kHeader).detect(), kUnrecognized);
    EXPECT_EQ(Bytes().putExt(512).putHfsPlus(512).detect(), kUnrecognized) << "the second sector is nobody's";
    EXPECT_EQ(Bytes().putExt(2048).putHfsPlus(2048).detect(), kUnrecognized);
}

TEST(ImagingDetection, AWrongMatchInTheFirstSectorDoesNotHideTheRightOne) {
    EXPECT_EQ(Bytes().putExt(0).putHfsPlus().detect(), kHfsPlus);
    EXPECT_EQ(Bytes().putHfsPlus(0).putExt().detect(), kExt);
    EXPECT_EQ(Bytes().putNtfs(kHeader).putFat32().detect(), kFat32);
    EXPECT_EQ(Bytes().putXfs().putFat32(kHeader).detect(), kXfs);
}

TEST(ImagingDetection, WhereSeveralMatchTheDetectorsOrderDecides) {
    Bytes all;
    all.putNtfs().putFat32().putExt().putHfsPlus();
    EXPECT_EQ(all.detect(), kNtfs);
    EXPECT_EQ(Bytes().putFat32().putXfs().putExt().putHfsPlus().detect(), kFat32);
    EXPECT_EQ(Bytes().putXfs().putExt().putHfsPlus().detect(), kExt);
    EXPECT_EQ(Bytes().putXfs().putHfsPlus().detect(), kHfsPlus);
}

TEST(ImagingDetection, TheLabelsOfSmallerFatsAreNotFat32) {
    EXPECT_EQ(Bytes().putFat32().put(0x36, "FAT16").detect(), kUnrecognized);
    EXPECT_EQ(Bytes().putFat32().put(0x36, "FAT12").detect(), kUnrecognized);
}

TEST(ImagingDetection, AnNtfsBootSectorWithAnImpossibleFieldIsNotNtfs) {
    EXPECT_EQ(Bytes().putNtfs().put(0x0D, "\x03").detect(), kUnrecognized) << "3 sectors a cluster";
    EXPECT_EQ(Bytes().putNtfs().put(0x0D, "\x03").putExt().detect(), kExt);
}

TEST(ImagingDetection, TheHeaderIsLookedForOnlyWhereTheVolumeHasIt) {
    for (std::size_t const size : {512U, 1000U, 1024U, 1082U, 1535U}) {
        Bytes const volume(size);
        RecordingLogger outer;
        imaging::ReasonLogger logger(outer);
        MemoryReader const memory(volume.get());
        RecordingReader const recorded(memory);
        EXPECT_EQ(detectFileSystem(logger, recorded, 512, size), kUnrecognized);
        EXPECT_THAT(recorded.calls, ElementsAre(seekCall(0), readCall(512))) << size;
    }
    for (std::size_t const size : {1536U, 1537U, 2047U, 2048U}) {
        EXPECT_EQ(Bytes(size).putExt().detect(), kExt) << size;
        EXPECT_EQ(Bytes(size).putHfsPlus().detect(4096), kHfsPlus) << size;
    }
}

TEST(ImagingDetection, AVolumeOfOneSectorIsRecognisedByItsFirstSector) {
    EXPECT_EQ(Bytes(512).putNtfs().detect(), kNtfs);
    EXPECT_EQ(Bytes(512).putFat32().detect(4096), kFat32);
    EXPECT_EQ(Bytes(512).putXfs().detect(), kXfs);
    EXPECT_EQ(Bytes(1535).putXfs().detect(4096), kXfs);
}

TEST(ImagingDetection, AFirstSectorThatCannotBeReadIsAnIoErrorWithItsOffset) {
    MemoryReader const memory(Bytes().putExt().get());
    for (Fault const fault : {Fault::SeekFails, Fault::ReadFails}) {
        RecordingLogger outer;
        imaging::ReasonLogger logger(outer);
        FaultyReader const faulty(memory, fault, 0);
        try {
            detectFileSystem(logger, faulty, 512, 4096);
            FAIL() << "the fault was not noticed";
        } catch (imaging::VolumeError const& error) {
            EXPECT_EQ(error.trouble(), imaging::Trouble::Io);
            EXPECT_THAT(error.what(), testing::HasSubstr(": cannot be read at byte 0: the read failed"));
        }
    }
}

TEST(ImagingDetection, AHeaderThatCannotBeReadIsAnIoErrorWithItsOffset) {
    MemoryReader const memory(Bytes().putExt().get());
    for (Fault const fault : {Fault::SeekFails, Fault::ReadFails}) {
        RecordingLogger outer;
        imaging::ReasonLogger logger(outer);
        FaultyReader const faulty(memory, fault, 1);
        try {
            detectFileSystem(logger, faulty, 512, 4096);
            FAIL() << "the fault was not noticed";
        } catch (imaging::VolumeError const& error) {
            EXPECT_EQ(error.trouble(), imaging::Trouble::Io);
            EXPECT_THAT(error.what(), testing::HasSubstr(": cannot be read at byte 1024: the read failed"));
        }
    }
}

TEST(ImagingDetection, TheNtfsTestLeavesItsDebugEntry) {
    RecordingLogger outer;
    imaging::ReasonLogger logger(outer);
    detectFileSystem(logger, MemoryReader(Bytes().putExt().get()), 512, 4096);
    EXPECT_THAT(outer.entries, Contains(debugEntry("Invalid NTFS magic.")));
}

TEST(ImagingDetection, EveryCodeHasItsName) {
    EXPECT_STREQ(fileSystemName(kNtfs), "ntfs");
    EXPECT_STREQ(fileSystemName(kFat32), "fat32");
    EXPECT_STREQ(fileSystemName(kExt), "ext");
    EXPECT_STREQ(fileSystemName(kHfsPlus), "hfs+");
    EXPECT_STREQ(fileSystemName(kXfs), "xfs");
    EXPECT_STREQ(fileSystemName(kUnrecognized), "unrecognized");
}

TEST(ImagingDetection, TheSentenceOnAnUnrecognizedVolumeNamesPathAndPlaces) {
    std::string const sentence = "a/b.img: holds no file system that is understood: neither the first sector (byte 0) "
                                 "nor the header at byte 1024 is recognised";
    EXPECT_EQ(imaging::unrecognizedSentence("a/b.img", ""), sentence);
    EXPECT_EQ(imaging::unrecognizedSentence("a/b.img", "Reserved fields aren't zero"),
              sentence + " (Reserved fields aren't zero)");
}

TEST(ImagingDetection, AReadThatFailsIsToldWithTheReason) {
    RecordingLogger outer;
    imaging::ReasonLogger logger(outer);
    MemoryReader const memory(Bytes(1600).get());
    imaging::StrictReader const strict(logger, memory, 4096, 0); // the volume is shorter than it was
    try {
        detectFileSystem(logger, strict, 1024, 4096);
        FAIL() << "the missing bytes were not noticed";
    } catch (imaging::VolumeError const& error) {
        EXPECT_THAT(error.what(), testing::EndsWith(": cannot be read at byte 1024: The volume delivers nothing at "
                                                    "byte 1600, where 448 more bytes were to be read (it has 4096 "
                                                    "bytes)"));
    }
}

} // namespace
