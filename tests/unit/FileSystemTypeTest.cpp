// Detection: which bytes decide, and in which order the file systems are asked.
#include "agent/core/fs/FileSystemType.h"
#include "agent/core/fs/EXTParser.h"
#include "agent/core/fs/FATParser.h"
#include "agent/core/fs/HFSParser.h"
#include "agent/core/fs/XFSParser.h"
#include "support/NtfsBootSector.h"
#include "support/RecordingLogger.h"

#include <array>
#include <cstring>
#include <gtest/gtest.h>
#include <string_view>
#include <type_traits>

namespace {

using namespace agent::core::fs;
using tests::debugEntry;
using tests::errorEntry;
using tests::LogEntry;
using tests::RecordingLogger;

using Entries = std::vector<LogEntry>;

/// 512 bytes of zeros into which a test writes what it wants found.
class Sector {
public:
    Sector& with(std::size_t offset, std::string_view text) {
        std::memcpy(bytes_.data() + offset, text.data(), text.size());
        return *this;
    }

    void* data() { return bytes_.data(); }

    int code() {
        RecordingLogger logger;
        FileSystemType const detector(logger);
        int const result = detector.getFileSystemType(bytes_.data());
        EXPECT_EQ(logger.entries, Entries{debugEntry("Invalid NTFS magic.")});
        return result;
    }

private:
    std::array<char, 512> bytes_{};
};

constexpr std::string_view kExtMagic = "\x53\xEF";

TEST(FileSystemType, TheCodesAreFixed) {
    EXPECT_EQ(kUnrecognized, 0);
    EXPECT_EQ(kNtfs, 1);
    EXPECT_EQ(kFat32, 2);
    EXPECT_EQ(kExt, 3);
    EXPECT_EQ(kHfsPlus, 4);
    EXPECT_EQ(kXfs, 5);
}

TEST(FileSystemType, ANullBufferIsNotRecognisedAndLeavesNoEntry) {
    RecordingLogger logger;
    FileSystemType const detector(logger);
    EXPECT_EQ(detector.getFileSystemType(nullptr), 0);
    EXPECT_TRUE(logger.entries.empty());
}

TEST(FileSystemType, AnEmptySectorIsNotRecognised) {
    EXPECT_EQ(Sector().code(), 0);
}

TEST(FileSystemType, AnNtfsBootSectorIsCodeOneWithoutAnEntry) {
    RecordingLogger logger;
    FileSystemType const detector(logger);
    auto sector = tests::ntfsBootSector();
    EXPECT_EQ(detector.getFileSystemType(sector.data()), 1);
    EXPECT_TRUE(logger.entries.empty());
}

TEST(FileSystemType, NtfsIsAskedBeforeEveryOther) {
    RecordingLogger logger;
    FileSystemType const detector(logger);
    auto sector = tests::ntfsBootSector();
    std::memcpy(sector.data() + 0x52, "FAT32", 5);
    std::memcpy(sector.data() + 0, "XFS", 3);
    EXPECT_EQ(detector.getFileSystemType(sector.data()), 1);
}

TEST(FileSystemType, ARefusedNtfsSectorIsHandedToTheOthers) {
    RecordingLogger logger;
    FileSystemType const detector(logger);
    auto sector = tests::ntfsBootSector();
    sector[0x0E] = 1;
    EXPECT_EQ(detector.getFileSystemType(sector.data()), 0);
    std::memcpy(sector.data() + 0x52, "FAT32", 5);
    EXPECT_EQ(detector.getFileSystemType(sector.data()), 2);
    EXPECT_EQ(logger.entries, Entries(2, errorEntry("Reserved fields aren't zero")));
}

TEST(FileSystemType, TheFat32LabelIsCodeTwo) {
    EXPECT_EQ(Sector().with(0x52, "FAT32").code(), 2);
    EXPECT_EQ(Sector().with(0x52, "FAT32   ").code(), 2);
    EXPECT_EQ(Sector().with(0x52, "FAT32xyz").code(), 2) << "five bytes decide, no terminator is needed";
    EXPECT_EQ(Sector().with(0x52, "FAT3").code(), 0);
    EXPECT_EQ(Sector().with(0x52, "fat32").code(), 0);
    EXPECT_EQ(Sector().with(0x51, "FAT32").code(), 0);
}

TEST(FileSystemType, TheOlderFatLabelsWinOverTheFat32Label) {
    EXPECT_EQ(Sector().with(0x36, "FAT12").with(0x52, "FAT32").code(), 0);
    EXPECT_EQ(Sector().with(0x36, "FAT16").with(0x52, "FAT32").code(), 0);
    EXPECT_EQ(Sector().with(0x36, "FAT1x").with(0x52, "FAT32").code(), 2);
    EXPECT_EQ(Sector().with(0x36, "FAT32").with(0x52, "FAT32").code(), 2);
    EXPECT_EQ(Sector().with(0x36, "FAT32").code(), 0) << "the label counts at its own place only";
}

TEST(FileSystemType, TheExtMagicIsCodeThree) {
    EXPECT_EQ(Sector().with(0x38, kExtMagic).code(), 3);
    EXPECT_EQ(Sector().with(0x38, "\xEF\x53").code(), 0) << "little-endian";
    EXPECT_EQ(Sector().with(0x38, "\x53").code(), 0);
    EXPECT_EQ(Sector().with(0x37, kExtMagic).code(), 0);
}

TEST(FileSystemType, TheHfsSignaturesAreCodeFour) {
    EXPECT_EQ(Sector().with(0, "H+").code(), 4);
    EXPECT_EQ(Sector().with(0, "HX").code(), 4);
    EXPECT_EQ(Sector().with(0, "HY").code(), 0);
    EXPECT_EQ(Sector().with(0, "BD").code(), 0) << "the older signature is not taken";
    EXPECT_EQ(Sector().with(0, "+H").code(), 0);
}

TEST(FileSystemType, TheXfsMagicIsCodeFive) {
    EXPECT_EQ(Sector().with(0, "XFSB").code(), 5);
    EXPECT_EQ(Sector().with(0, "XFSA").code(), 0);
    EXPECT_EQ(Sector().with(0, "BSFX").code(), 0);
    EXPECT_EQ(Sector().with(1, "XFSB").code(), 0);
}

TEST(FileSystemType, FatIsAskedBeforeExtHfsAndXfs) {
    EXPECT_EQ(Sector().with(0x52, "FAT32").with(0x38, kExtMagic).with(0, "H+").code(), 2);
    EXPECT_EQ(Sector().with(0x52, "FAT32").with(0, "XFSB").code(), 2);
}

TEST(FileSystemType, ExtIsAskedBeforeHfsAndXfs) {
    EXPECT_EQ(Sector().with(0, "XFSB").with(0x38, kExtMagic).code(), 3);
    EXPECT_EQ(Sector().with(0, "H+").with(0x38, kExtMagic).code(), 3);
}

TEST(FileSystemType, AnOlderFatLabelDoesNotKeepTheOthersFromMatching) {
    EXPECT_EQ(Sector().with(0x36, "FAT16").with(0, "XFSB").code(), 5);
    // The magic of ext stands inside the label: "FA" and the magic.
    EXPECT_EQ(Sector().with(0x36, "FAT12").with(0, "HX").code(), 4);
}

TEST(FileSystemType, IsAskedThroughItsInterface) {
    RecordingLogger logger;
    FileSystemType const detector(logger);
    IFileSystemType const& asked = detector;
    Sector sector;
    sector.with(0, "XFSB");
    EXPECT_EQ(asked.getFileSystemType(sector.data()), 5);
    EXPECT_EQ(asked.getFileSystemType(sector.data()), 5) << "it keeps no state";
    EXPECT_TRUE(std::is_abstract_v<IFileSystemType>);
    EXPECT_TRUE(std::has_virtual_destructor_v<IFileSystemType>);
}

TEST(FileSystemType, EachParsersOwnTestAgreesAndRefusesNull) {
    EXPECT_TRUE(FATParser::isFATFileSystem(Sector().with(0x52, "FAT32").data()));
    EXPECT_FALSE(FATParser::isFATFileSystem(Sector().with(0x36, "FAT16").data()));
    EXPECT_TRUE(EXTParser::isEXTFileSystem(Sector().with(0x38, kExtMagic).data()));
    EXPECT_TRUE(HFSParser::isHFSFileSystem(Sector().with(0, "HX").data()));
    EXPECT_TRUE(XFSParser::isXFSFileSystem(Sector().with(0, "XFSB").data()));
    EXPECT_FALSE(FATParser::isFATFileSystem(nullptr));
    EXPECT_FALSE(EXTParser::isEXTFileSystem(nullptr));
    EXPECT_FALSE(HFSParser::isHFSFileSystem(nullptr));
    EXPECT_FALSE(XFSParser::isXFSFileSystem(nullptr));
}

TEST(FatType, TheLabelsGiveTheTypesZeroToThree) {
    auto const type = [](Sector& sector) {
        return FATParser::fat_get_type(static_cast<fat_boot_sector*>(sector.data()));
    };
    Sector fat12;
    Sector fat16;
    Sector fat32;
    Sector none;
    EXPECT_EQ(type(fat12.with(0x36, "FAT12")), 0);
    EXPECT_EQ(type(fat16.with(0x36, "FAT16")), 1);
    EXPECT_EQ(type(fat32.with(0x52, "FAT32")), 2);
    EXPECT_EQ(type(none), 3);
}

} // namespace
