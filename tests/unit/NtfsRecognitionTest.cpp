// Recognition of an NTFS boot sector: one changed field, one exact answer and entry.
#include "agent/core/fs/NTFSParser.h"
#include "support/NtfsBootSector.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

namespace {

using agent::core::fs::NTFSParser;
using tests::debugEntry;
using tests::errorEntry;
using tests::LogEntry;
using tests::RecordingLogger;
using tests::Sector512;
using tests::warningEntry;

using Entries = std::vector<LogEntry>;

/// A field of the boot sector.
struct Field {
    std::size_t offset;
    std::size_t width;
};

constexpr Field kBytesPerSector{0x0B, 2};
constexpr Field kSectorsPerCluster{0x0D, 1};
constexpr Field kMftLcn{0x30, 8};
constexpr Field kMirrorLcn{0x38, 8};
constexpr Field kClustersPerRecord{0x40, 1};
constexpr Field kClustersPerIndexRecord{0x44, 1};
constexpr Field kEndMarker{0x1FE, 2};

class NtfsRecognition : public testing::Test {
protected:
    /// Changes a field, and proves that the change took.
    void set(Field field, std::uint64_t value) {
        Sector512 const before = sector;
        tests::putLittleEndian(sector, field.offset, value, field.width);
        ASSERT_NE(sector, before) << "the field held the value already";
    }

    bool accepted() {
        logger.entries.clear();
        return NTFSParser::isNTFileSystem(sector.data(), logger);
    }

    /// The answer to a good sector in which one field has this value.
    bool acceptedWith(Field field, std::uint64_t value) {
        sector = tests::ntfsBootSector();
        tests::putLittleEndian(sector, field.offset, value, field.width);
        return accepted();
    }

    void expectRefusedWith(LogEntry const& entry) {
        EXPECT_FALSE(accepted());
        EXPECT_EQ(logger.entries, Entries{entry});
    }

    Sector512 sector = tests::ntfsBootSector();
    RecordingLogger logger;
};

std::string withRawByte(std::string text, unsigned value) {
    text.push_back(static_cast<char>(value));
    return text;
}

TEST_F(NtfsRecognition, AGoodSectorIsAcceptedSilently) {
    EXPECT_TRUE(accepted());
    EXPECT_TRUE(logger.entries.empty());
}

TEST_F(NtfsRecognition, ANullPointerIsRefusedSilently) {
    EXPECT_FALSE(NTFSParser::isNTFileSystem(nullptr, logger));
    EXPECT_TRUE(logger.entries.empty());
}

TEST_F(NtfsRecognition, EveryByteOfTheIdentifierCounts) {
    for (std::size_t i = 0; i < 8; ++i) {
        sector = tests::ntfsBootSector();
        sector[3 + i] ^= 0x20;
        expectRefusedWith(debugEntry("Invalid NTFS magic."));
    }
}

TEST_F(NtfsRecognition, BytesPerSectorFrom256To4096) {
    for (std::uint64_t const bytes : {256U, 257U, 512U, 768U, 1024U, 4095U, 4096U}) {
        EXPECT_TRUE(acceptedWith(kBytesPerSector, bytes)) << bytes;
        EXPECT_TRUE(logger.entries.empty()) << bytes;
    }
}

TEST_F(NtfsRecognition, OtherBytesPerSectorAreNamedInHexadecimal) {
    struct Case {
        unsigned value;
        char const* digits;
    };
    for (auto const& [value, digits] : {Case{0, "0"}, Case{255, "ff"}, Case{4097, "1001"}, Case{0xFFFF, "ffff"}}) {
        set(kBytesPerSector, value);
        expectRefusedWith(errorEntry(std::string("Unexpected bytes per sector: 0x") + digits));
    }
}

TEST_F(NtfsRecognition, SectorsPerClusterIsAPowerOfTwoOrANegativeExponent) {
    std::set<unsigned> const powers{1, 2, 4, 8, 16, 32, 64, 128};
    for (unsigned value = 0; value < 256; ++value) {
        if (value >= 0xF0 && value <= 0xFD) {
            continue; // the size decides, see below
        }
        EXPECT_EQ(acceptedWith(kSectorsPerCluster, value), powers.contains(value)) << value;
        Entries const expected =
            powers.contains(value)
                ? Entries{}
                : Entries{errorEntry(withRawByte("Unexpected sectors per cluster value: 0x", value))};
        EXPECT_EQ(logger.entries, expected) << value;
    }
}

TEST_F(NtfsRecognition, TheExponentFormIsAcceptedUpToTwoMebibytes) {
    for (unsigned value = 0xF4; value <= 0xFD; ++value) {
        EXPECT_TRUE(acceptedWith(kSectorsPerCluster, value)) << value;
        EXPECT_TRUE(logger.entries.empty()) << value;
    }
    set(kSectorsPerCluster, 0xF3);
    expectRefusedWith(errorEntry("Unexpected cluster size 0x400000"));
    set(kSectorsPerCluster, 0xF1);
    expectRefusedWith(errorEntry("Unexpected cluster size 0x1000000"));
}

TEST_F(NtfsRecognition, AClusterOf65536SectorsIsCutToNothingAndPasses) {
    set(kSectorsPerCluster, 0xF0);
    EXPECT_TRUE(accepted());
    EXPECT_TRUE(logger.entries.empty());
}

TEST_F(NtfsRecognition, TheLargestClusterDependsOnTheSectorSize) {
    set(kBytesPerSector, 4096);
    set(kSectorsPerCluster, 0xF7); // 512 sectors
    EXPECT_TRUE(accepted());
    set(kSectorsPerCluster, 0xF6);
    expectRefusedWith(errorEntry("Unexpected cluster size 0x400000"));
    set(kSectorsPerCluster, 0xF1);
    expectRefusedWith(errorEntry("Unexpected cluster size 0x8000000"));
    set(kSectorsPerCluster, 128); // the plain form has no limit of its own
    EXPECT_TRUE(accepted());
}

TEST_F(NtfsRecognition, EveryBitOfEveryReservedFieldMustBeZero) {
    for (Field const field :
         {Field{0x0E, 2}, Field{0x10, 1}, Field{0x11, 2}, Field{0x13, 2}, Field{0x16, 2}, Field{0x20, 4}}) {
        for (std::size_t bit = 0; bit < 8 * field.width; ++bit) {
            sector = tests::ntfsBootSector();
            set(field, std::uint64_t{1} << bit);
            expectRefusedWith(errorEntry("Reserved fields aren't zero"));
        }
    }
}

TEST_F(NtfsRecognition, TheFieldsBetweenTheReservedOnesDoNotCount) {
    for (std::size_t const offset :
         {0x00U, 0x15U, 0x18U, 0x1FU, 0x24U, 0x27U, 0x28U, 0x41U, 0x43U, 0x45U, 0x48U, 0x54U, 0x1FDU}) {
        sector = tests::ntfsBootSector();
        sector[offset] ^= 0xFF;
        EXPECT_TRUE(accepted()) << offset;
        EXPECT_TRUE(logger.entries.empty()) << offset;
    }
}

bool isRecordSize(unsigned value) {
    std::set<unsigned> const powers{1, 2, 4, 8, 16, 32, 64};
    return powers.contains(value) || (value >= 256 - 31 && value <= 256 - 9);
}

TEST_F(NtfsRecognition, EveryValueOfClustersPerMftRecord) {
    for (unsigned value = 0; value < 256; ++value) {
        EXPECT_EQ(acceptedWith(kClustersPerRecord, value), isRecordSize(value)) << value;
        Entries const expected =
            isRecordSize(value) ? Entries{}
                                : Entries{errorEntry(withRawByte("Unexpected clusters per mft record: 0x", value))};
        EXPECT_EQ(logger.entries, expected) << value;
    }
}

TEST_F(NtfsRecognition, EveryValueOfClustersPerIndexRecord) {
    for (unsigned value = 0; value < 256; ++value) {
        EXPECT_EQ(acceptedWith(kClustersPerIndexRecord, value), isRecordSize(value)) << value;
        Entries const expected =
            isRecordSize(value) ? Entries{}
                                : Entries{errorEntry(withRawByte("Unexpected clusters per index record: 0x", value))};
        EXPECT_EQ(logger.entries, expected) << value;
    }
}

TEST_F(NtfsRecognition, TheMftMustHaveAPositivePlace) {
    for (std::uint64_t const cluster : {std::uint64_t{0}, ~std::uint64_t{0}, std::uint64_t{1} << 63}) {
        sector = tests::ntfsBootSector();
        set(kMftLcn, cluster);
        expectRefusedWith(errorEntry("Invalid location of MFT or MFTMirr."));
        sector = tests::ntfsBootSector();
        set(kMirrorLcn, cluster);
        expectRefusedWith(errorEntry("Invalid location of MFT or MFTMirr."));
    }
}

TEST_F(NtfsRecognition, TheMftAndItsMirrorMustDiffer) {
    set(kMirrorLcn, 4);
    expectRefusedWith(errorEntry("Invalid location of MFT or MFTMirr."));
    set(kMirrorLcn, 5);
    EXPECT_TRUE(accepted());
}

TEST_F(NtfsRecognition, ThePlaceIsNotComparedWithTheVolumesSize) {
    set(kMftLcn, ~std::uint64_t{0} >> 1);
    EXPECT_TRUE(accepted());
    set(kMirrorLcn, 1);
    EXPECT_TRUE(accepted());
}

TEST_F(NtfsRecognition, AWrongEndMarkerIsOnlyAWarning) {
    for (std::uint64_t const marker : {0x0000U, 0x55AAU, 0xAA54U, 0xFFFFU}) {
        EXPECT_TRUE(acceptedWith(kEndMarker, marker)) << marker;
        EXPECT_EQ(logger.entries, Entries{warningEntry("Bootsector has invalid end of sector marker.")}) << marker;
    }
}

TEST_F(NtfsRecognition, TheFirstCheckThatFailsEndsTheTest) {
    // Every field is wrong; each is mended in turn, and the next one is named.
    sector.fill(0xFF);
    expectRefusedWith(debugEntry("Invalid NTFS magic."));
    std::memcpy(sector.data() + 3, "NTFS    ", 8);
    expectRefusedWith(errorEntry("Unexpected bytes per sector: 0xffff"));
    set(kBytesPerSector, 512);
    expectRefusedWith(errorEntry("Unexpected sectors per cluster value: 0x\xFF"));
    set(kSectorsPerCluster, 8);
    expectRefusedWith(errorEntry("Reserved fields aren't zero"));
    for (Field const field :
         {Field{0x0E, 2}, Field{0x10, 1}, Field{0x11, 2}, Field{0x13, 2}, Field{0x16, 2}, Field{0x20, 4}}) {
        set(field, 0);
    }
    expectRefusedWith(errorEntry("Unexpected clusters per mft record: 0x\xFF"));
    set(kClustersPerRecord, 0xF6);
    expectRefusedWith(errorEntry("Unexpected clusters per index record: 0x\xFF"));
    set(kClustersPerIndexRecord, 1);
    expectRefusedWith(errorEntry("Invalid location of MFT or MFTMirr."));
    set(kMftLcn, 4);
    set(kMirrorLcn, 2);
    EXPECT_TRUE(accepted());
    EXPECT_EQ(logger.entries, Entries{warningEntry("Bootsector has invalid end of sector marker.")});
}

TEST_F(NtfsRecognition, SaysTheSameWithoutALogThatListens) {
    tests::SilentLogger silent;
    EXPECT_TRUE(NTFSParser::isNTFileSystem(sector.data(), silent));
    set(kBytesPerSector, 255);
    EXPECT_FALSE(NTFSParser::isNTFileSystem(sector.data(), silent));
    EXPECT_EQ(silent.written, 0);
}

} // namespace
