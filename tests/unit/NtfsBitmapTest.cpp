// The used-cluster bitmap of NTFS: every result, the order of the checks, and what is read for a request.
#include "support/NtfsAccess.h"
#include "support/NtfsBuilder.h"
#include "support/Readers.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace tests;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t kBitmap = ntfs_record_number::kBitmap;
constexpr std::uint64_t kClusterBytes = 4096;
constexpr std::uint64_t kClusterBits = 8 * kClusterBytes;
constexpr std::uint64_t kDiskClusters = 512; // what stands in memory; the boot sector may say more
constexpr std::uint8_t kUntouched = 0xAA;

/// A volume whose $Bitmap lies where a test puts it, all clusters filled at random where nothing else is.
class NtfsBitmap : public testing::Test {
protected:
    NtfsBitmap() {
        std::mt19937 random(4);
        for (std::size_t i = 300 * kClusterBytes; i < kDiskClusters * kClusterBytes; ++i) {
            builder.bytes[i] = static_cast<std::uint8_t>(random());
        }
        builder.bitmapRuns.clear(); // the random bytes are the bitmap
    }

    /// A volume of so many clusters whose bitmap has these runs.
    void open(std::uint64_t clusters, std::vector<NtfsRun> const& runs, unsigned alignment = 512) {
        builder.setBoot(ntfs_boot::kTotalSectors, clusters * 8, 8);
        builder.record(kBitmap).remove(ntfs_type::kData).nonResident(ntfs_type::kData, u"", runs);
        openAsItIs(alignment);
    }
    void openAsItIs(unsigned alignment = 512) {
        builder.seal();
        volume.emplace(builder.bytes);
        reader.emplace(*volume);
        parser.emplace(logger, alignment, *reader);
    }

    /// One request; the buffer has exactly its length, so that the sanitizer sees a write behind it.
    long ask(std::uint64_t cluster, std::uint64_t length) {
        reader->calls.clear();
        logger.entries.clear();
        buffer.assign(length, kUntouched);
        return parser->getChunk(cluster, reinterpret_cast<char*>(buffer.data()), length);
    }

    NtfsBytes disk(std::uint64_t byte, std::uint64_t length) const {
        auto const first = builder.bytes.begin() + static_cast<std::ptrdiff_t>(byte);
        return {first, first + static_cast<std::ptrdiff_t>(length)};
    }

    /// What is read for the record of $Bitmap, and then at these places.
    std::vector<ReaderCall> calls(std::vector<ReaderCall> const& more) const {
        std::vector<ReaderCall> all{seekCall(static_cast<long>(builder.byteOffsetOf(kBitmap))), readCall(1024)};
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }

    /// What looking for the runs of $Bitmap logs.
    std::vector<LogEntry> lookingForRuns() const {
        return {debugEntry("Searching for attribute 128"),
                debugEntry("Reading $MFT for inode 6 at offset " + std::to_string(builder.byteOffsetOf(kBitmap))),
                debugEntry("Searching for attribute 128"), debugEntry("Searching for attribute 32")};
    }
    static LogEntry wrapper(long code) {
        return errorEntry("A logical error occurred while attempting to parse the NTFS bitmap, err: " +
                          std::to_string(code));
    }

    NtfsBuilder builder = NtfsBuilder::standard();
    RecordingLogger logger;
    std::optional<MemoryReader> volume;
    std::optional<RecordingReader> reader;
    std::optional<NtfsAccess> parser;
    NtfsBytes buffer;
};

constexpr long at(std::uint64_t cluster) {
    return static_cast<long>(cluster * kClusterBytes);
}

TEST_F(NtfsBitmap, ASoundVolumesMapIsThatOfItsClusters) {
    builder = NtfsBuilder::standard();
    openAsItIs();
    ASSERT_EQ(ask(0, 64), 512);
    for (std::uint64_t cluster = 0; cluster < 512; ++cluster) {
        EXPECT_EQ((buffer[cluster / 8] >> (cluster % 8) & 1) != 0, builder.isUsed(cluster)) << cluster;
    }
    EXPECT_FALSE(parser->isMostSignificantBitFirst());
}

TEST_F(NtfsBitmap, ARequestReadsTheRecordAndThenThatPartOfTheRun) {
    open(4 * kClusterBits, {{400, 4}});
    EXPECT_EQ(ask(0, 1024), 8192);
    EXPECT_EQ(buffer, disk(400 * kClusterBytes, 1024));
    EXPECT_EQ(reader->calls, calls({seekCall(at(400)), readCall(1024)}));
    EXPECT_EQ(logger.entries, lookingForRuns());
}

TEST_F(NtfsBitmap, AnOffsetIsSkippedInTheRun) {
    open(4 * kClusterBits, {{400, 4}});
    EXPECT_EQ(ask(8 * 4096, 512), 4096);
    EXPECT_EQ(buffer, disk(400 * kClusterBytes + 4096, 512));
    EXPECT_EQ(reader->calls, calls({seekCall(at(401)), readCall(512)}));
    EXPECT_EQ(ask(8, 512), 4096);
    EXPECT_EQ(buffer, disk(400 * kClusterBytes + 1, 512));
    EXPECT_EQ(reader->calls, calls({seekCall(at(400)), readCall(1024)})) << "in whole units";
}

TEST_F(NtfsBitmap, ReadsAreInUnitsOfTheAlignment) {
    open(4 * kClusterBits, {{400, 4}}, 4096);
    EXPECT_EQ(ask(8 * 600, 512), 4096);
    EXPECT_EQ(buffer, disk(400 * kClusterBytes + 600, 512));
    std::uint64_t const record = builder.byteOffsetOf(kBitmap);
    EXPECT_THAT(reader->calls, ElementsAre(seekCall(static_cast<long>(record / 4096 * 4096)), readCall(4096),
                                           seekCall(at(400)), readCall(4096)));
}

TEST_F(NtfsBitmap, ABufferThatIsTooLargeGetsWhatIsThereAndZeros) {
    open(2 * kClusterBits - 100, {{400, 2}});
    ASSERT_EQ(ask(kClusterBits, 3 * kClusterBytes), static_cast<long>(kClusterBits)) << "all bits that the run has";
    EXPECT_EQ(NtfsBytes(buffer.begin(), buffer.begin() + 4096), disk(401 * kClusterBytes, 4096));
    EXPECT_THAT(NtfsBytes(buffer.begin() + 4096, buffer.end()), Each(0));
}

TEST_F(NtfsBitmap, BitsBehindTheLastClusterAreAsTheyStand) {
    open(129, {{400, 1}});
    ASSERT_EQ(ask(0, 16), 128);
    EXPECT_EQ(buffer, disk(400 * kClusterBytes, 16));
    ASSERT_EQ(ask(128, 16), 128) << "one of them is a cluster";
    EXPECT_EQ(buffer, disk(400 * kClusterBytes + 16, 16));
}

TEST_F(NtfsBitmap, AtTheLastClusterThereIsNothingMore) {
    open(1000, {{400, 1}});
    EXPECT_EQ(ask(1000, 64), 0);
    EXPECT_THAT(buffer, Each(kUntouched));
    EXPECT_THAT(reader->calls, IsEmpty());
    EXPECT_THAT(logger.entries,
                ElementsAre(debugEntry("LCN: 1000 Total blocks: 1000. Nothing more to read in bitmap.")));
    EXPECT_GT(ask(992, 64), 0);
    EXPECT_EQ(ask(~0UL, 64), 0);
    EXPECT_THAT(logger.entries, ElementsAre(debugEntry("LCN: 18446744073709551615 Total blocks: 1000. Nothing more to "
                                                       "read in bitmap.")));
}

TEST_F(NtfsBitmap, AnOffsetThatIsNoMultipleOf8IsRefusedUntouched) {
    open(1000, {{400, 1}});
    EXPECT_EQ(ask(12, 64), -535);
    EXPECT_THAT(buffer, Each(kUntouched));
    EXPECT_THAT(reader->calls, IsEmpty());
    EXPECT_THAT(logger.entries, ElementsAre(debugEntry("LCN 12 is not a multiple of 8."), wrapper(-535)));
    EXPECT_EQ(ask(999, 64), -535);
    EXPECT_EQ(ask(1001, 64), 0) << "the end is looked for first";
}

TEST_F(NtfsBitmap, TheOperationBehindItLogsNoError) {
    open(1000, {{400, 1}});
    logger.entries.clear();
    char one = 0;
    EXPECT_EQ(parser->fs_get_blocks_bitmap_chunk(1, 12, &one), -535);
    EXPECT_THAT(logger.entries, ElementsAre(debugEntry("LCN 12 is not a multiple of 8.")));
    EXPECT_EQ(parser->fs_get_blocks_bitmap_chunk(1, 16, &one), 8);
}

TEST_F(NtfsBitmap, APartOfAClusterAtTheEndIsNone) {
    builder.setBoot(ntfs_boot::kTotalSectors, 1000001, 8);
    builder.record(kBitmap).remove(ntfs_type::kData).nonResident(ntfs_type::kData, u"", {{400, 4}});
    openAsItIs();
    EXPECT_EQ(ask(125000, 64), 0);
    EXPECT_THAT(logger.entries,
                ElementsAre(debugEntry("LCN: 125000 Total blocks: 125000. Nothing more to read in bitmap.")));
    EXPECT_EQ(ask(124992, 1), 8);
}

TEST_F(NtfsBitmap, ABitmapWithFewerBitsThanClustersIsRefusedUntouched) {
    open(kClusterBits + 1, {{400, 1}});
    EXPECT_EQ(ask(0, 64), -559);
    EXPECT_THAT(buffer, Each(kUntouched));
    auto expected = lookingForRuns();
    expected.push_back(
        debugEntry("Sanity check failed on total bytes from BootRecord: 32769 vs total bytes from Bitmap: 32768"));
    expected.push_back(wrapper(-559));
    EXPECT_EQ(logger.entries, expected);
    EXPECT_EQ(reader->calls, calls({}));
    open(kClusterBits, {{400, 1}});
    EXPECT_EQ(ask(0, 64), 512) << "as many are enough";
}

TEST_F(NtfsBitmap, ABitmapWithoutRunsIsRefused) {
    builder.record(kBitmap).remove(ntfs_type::kData).resident(ntfs_type::kData, u"", NtfsBytes(64, 0xFF));
    openAsItIs();
    EXPECT_EQ(ask(0, 64), -559);
    ASSERT_GE(logger.entries.size(), 2U);
    EXPECT_EQ(logger.entries[logger.entries.size() - 2],
              debugEntry("Sanity check failed on total bytes from BootRecord: 512 vs total bytes from Bitmap: 0"));
    builder.record(kBitmap).clear();
    openAsItIs();
    EXPECT_EQ(ask(0, 64), -559);
}

TEST_F(NtfsBitmap, ARecordThatCannotBeReadIsABitmapWithoutRuns) {
    open(1000, {{400, 1}});
    builder.poke(builder.byteOffsetOf(kBitmap, 510), 0xDEAD, 2);
    volume->bytes = builder.bytes;
    EXPECT_EQ(ask(0, 64), -559);
    ASSERT_GE(logger.entries.size(), 3U);
    EXPECT_EQ(logger.entries[logger.entries.size() - 3], debugEntry("Unable to read inode 6"));
}

TEST_F(NtfsBitmap, DamagedRunsPassAsTheyAreThrown) {
    open(1000, {{400, 1}});
    builder.pokeRecord(kBitmap, builder.record(kBitmap).offsetOf(ntfs_type::kData) + 0x40, 0xFF, 1);
    volume->bytes = builder.bytes;
    EXPECT_THROW(ask(0, 64), std::runtime_error);
    EXPECT_EQ(logger.entries, lookingForRuns()) << "and nothing more is logged";
}

TEST_F(NtfsBitmap, ANumberOfSectorsBelowZeroIsHuge) {
    open(1000, {{400, 1}});
    builder.setBoot(ntfs_boot::kTotalSectors, 0x7FFFFFFFFFFFFFFF, 8);
    openAsItIs();
    EXPECT_EQ(ask(0, 64), -559);
    EXPECT_EQ(logger.entries.end()[-2], debugEntry("Sanity check failed on total bytes from BootRecord: "
                                                   "1152921504606846975 vs total bytes from Bitmap: 32768"));
}

TEST_F(NtfsBitmap, AClusterOfNoSectorsIsRefusedFirst) {
    open(1000, {{400, 1}});
    volume->bytes[ntfs_boot::kSectorsPerCluster] = 0xF0; // 2^16 sectors, of which 8 bits keep none
    EXPECT_THROW(parser->reinit(), std::runtime_error);
    EXPECT_EQ(ask(12, 64), -508);
    EXPECT_THAT(buffer, Each(kUntouched));
    EXPECT_THAT(logger.entries, ElementsAre(debugEntry("Invalid sectors per cluster."), wrapper(-508)));
    volume->bytes = builder.bytes;
    parser->reinit();
    EXPECT_EQ(ask(0, 64), 512) << "the volume is right again, and so is the parser";
}

TEST_F(NtfsBitmap, AnEmptyBufferGetsNothing) {
    open(1000, {{400, 1}});
    char unused = 0x55;
    EXPECT_EQ(parser->getChunk(0, &unused, 0), 0);
    EXPECT_EQ(unused, 0x55);
}

TEST_F(NtfsBitmap, AReadThatFailsIsPassedOnAndTheBufferIsZero) {
    open(1000, {{400, 1}});
    FaultyReader const faulty(*volume, Fault::ReadFails, 4);
    NtfsAccess other(logger, 512, faulty);
    NtfsBytes bits(64, kUntouched);
    EXPECT_EQ(other.getChunk(0, reinterpret_cast<char*>(bits.data()), 64), -1);
    EXPECT_TRUE(faulty.fired);
    EXPECT_THAT(bits, Each(0));
    EXPECT_EQ(logger.entries.end()[-2], debugEntry("CHUNK READ FILE FAILED: OFFSET: 1638400 - 512 BYTES"));
    EXPECT_EQ(logger.entries.back(), wrapper(-1));
    EXPECT_EQ(other.getChunk(0, reinterpret_cast<char*>(bits.data()), 64), 512) << "and it goes on";
    EXPECT_EQ(bits, disk(400 * kClusterBytes, 64));
}

TEST_F(NtfsBitmap, ASeekThatFailsIsPassedOn) {
    open(1000, {{400, 1}});
    builder.record(kBitmap).remove(ntfs_type::kData).nonResidentRaw(ntfs_type::kData, u"", {0x11, 1, 0x9C, 0});
    openAsItIs();
    EXPECT_EQ(ask(0, 64), -1) << "cluster -100";
    EXPECT_EQ(logger.entries.back(), wrapper(-1));
}

} // namespace
