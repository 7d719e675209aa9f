// A bitmap of NTFS in several runs: what a chunk gives, also from the wrong place, and whole runs into memory.
#include "support/NtfsAccess.h"
#include "support/NtfsBuilder.h"
#include "support/Readers.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace tests;
using agent::core::fs::ntfs_runlist;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t kBitmap = ntfs_record_number::kBitmap;
constexpr std::uint64_t kClusterBytes = 4096;
constexpr std::uint64_t kClusterBits = 8 * kClusterBytes;
constexpr std::uint64_t kDiskClusters = 512;

/// A volume with random bytes from cluster 300 on.
class NtfsBitmapRuns : public testing::Test {
protected:
    NtfsBitmapRuns() {
        std::mt19937 random(8);
        for (std::size_t i = 300 * kClusterBytes; i < kDiskClusters * kClusterBytes; ++i) {
            builder.bytes[i] = static_cast<std::uint8_t>(random());
        }
        builder.bitmapRuns.clear();
    }

    void open(std::uint64_t clusters, std::vector<NtfsRun> const& runs, unsigned alignment = 512) {
        builder.setBoot(ntfs_boot::kTotalSectors, clusters * 8, 8);
        builder.record(kBitmap).remove(ntfs_type::kData).nonResident(ntfs_type::kData, u"", runs);
        builder.seal();
        volume.emplace(builder.bytes);
        reader.emplace(*volume);
        parser.emplace(logger, alignment, *reader);
    }

    long ask(std::uint64_t cluster, std::uint64_t length) {
        buffer.assign(length, 0xAA);
        reader->calls.clear();
        long const result = parser->getChunk(cluster, reinterpret_cast<char*>(buffer.data()), length);
        if (reader->calls.size() >= 2) {
            reader->calls.erase(reader->calls.begin(), reader->calls.begin() + 2); // the record of $Bitmap
        }
        return result;
    }

    NtfsBytes disk(std::uint64_t byte, std::uint64_t length) const {
        auto const first = builder.bytes.begin() + static_cast<std::ptrdiff_t>(byte);
        return {first, first + static_cast<std::ptrdiff_t>(length)};
    }

    /// The runs' bytes one behind the other: the true map.
    NtfsBytes truth(std::vector<NtfsRun> const& runs) const {
        NtfsBytes all;
        for (NtfsRun const& run : runs) {
            NtfsBytes const part = disk(builder.byteOfCluster(run.lcn), builder.byteOfCluster(run.length));
            all.insert(all.end(), part.begin(), part.end());
        }
        return all;
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

NtfsBytes part(NtfsBytes const& bytes, std::size_t first, std::size_t length) {
    auto const begin = bytes.begin() + static_cast<std::ptrdiff_t>(first);
    return {begin, begin + static_cast<std::ptrdiff_t>(length)};
}

TEST_F(NtfsBitmapRuns, ARequestFromCluster0PutsTheRunsTogether) {
    std::vector<NtfsRun> const runs{{400, 2}, {310, 1}, {450, 3}};
    open(6 * kClusterBits, runs);
    ASSERT_EQ(ask(0, 6 * kClusterBytes), static_cast<long>(6 * kClusterBits));
    EXPECT_EQ(buffer, truth(runs));
    EXPECT_THAT(reader->calls, ElementsAre(seekCall(at(400)), readCall(8192), seekCall(at(310)), readCall(4096),
                                           seekCall(at(450)), readCall(12288)));
}

TEST_F(NtfsBitmapRuns, ABufferMayEndInsideAnyRunOrAtItsEnd) {
    std::vector<NtfsRun> const runs{{400, 1}, {310, 1}, {450, 1}};
    open(3 * kClusterBits, runs);
    for (std::size_t const length : {1U, 4095U, 4096U, 4097U, 8191U, 8192U, 8193U, 12287U, 12288U}) {
        ASSERT_EQ(ask(0, length), static_cast<long>(8 * length));
        EXPECT_EQ(buffer, part(truth(runs), 0, length)) << length;
        EXPECT_EQ(reader->calls.size(), 2 * ((length + 4095) / 4096)) << "no run that is not needed";
    }
}

TEST_F(NtfsBitmapRuns, AChunkInsideTheFirstRunIsRight) {
    std::vector<NtfsRun> const runs{{400, 2}, {310, 2}};
    open(4 * kClusterBits, runs);
    ASSERT_EQ(ask(8 * 5000, 8000), 8 * 8000);
    EXPECT_EQ(buffer, part(truth(runs), 5000, 8000)) << "also where it goes on into the second";
}

TEST_F(NtfsBitmapRuns, AChunkBehindTheFirstRunSkipsAllAgain) {
    std::vector<NtfsRun> const runs{{400, 1}, {310, 3}};
    open(4 * kClusterBits, runs);
    ASSERT_EQ(ask(8 * 6000, 512), 4096);
    EXPECT_EQ(buffer, disk(310 * kClusterBytes + 6000, 512)) << "the whole offset in the second run, on purpose";
    EXPECT_NE(buffer, part(truth(runs), 6000, 512)) << "which is not the map";
    EXPECT_THAT(reader->calls, ElementsAre(seekCall(at(311) + 1536), readCall(1024)));
}

TEST_F(NtfsBitmapRuns, AChunkFromExactlyARunsEndSeeksThereAndReadsTheNextRun) {
    std::vector<NtfsRun> const runs{{400, 1}, {310, 3}};
    open(4 * kClusterBits, runs);
    ASSERT_EQ(ask(kClusterBits, 1000), 8000);
    EXPECT_EQ(buffer, part(truth(runs), 4096, 1000));
    EXPECT_THAT(reader->calls, ElementsAre(seekCall(at(401)), seekCall(at(310)), readCall(1024)));
}

TEST_F(NtfsBitmapRuns, AfterPassedRunsTheBordersAreTakenFromTheWrongPlaceToo) {
    std::vector<NtfsRun> const runs{{400, 1}, {310, 1}, {330, 4}};
    open(6 * kClusterBits, runs);
    // Bytes 8192 of the map: the second run ends exactly there, but is shorter than the offset; the rest wraps around
    // and the buffer's whole length is read behind it.
    ASSERT_EQ(ask(2 * kClusterBits, 1000), 8000);
    EXPECT_EQ(buffer, disk(312 * kClusterBytes, 1000));
    EXPECT_THAT(reader->calls, ElementsAre(seekCall(at(312)), readCall(1024)));
}

TEST_F(NtfsBitmapRuns, AShortReadLetsTheNextRunFollowTooEarly) {
    std::vector<NtfsRun> const runs{{400, 2}, {310, 2}};
    open(4 * kClusterBits, runs);
    FaultyReader const faulty(*volume, Fault::ReadShort, 4); // boot, records 0, 1 and 6, then the first run
    NtfsAccess other(logger, 512, faulty);
    buffer.assign(4 * kClusterBytes, 0xAA);
    EXPECT_EQ(other.getChunk(0, reinterpret_cast<char*>(buffer.data()), buffer.size()),
              static_cast<long>(3 * kClusterBits));
    EXPECT_TRUE(faulty.fired);
    EXPECT_EQ(part(buffer, 0, 4096), disk(400 * kClusterBytes, 4096));
    EXPECT_EQ(part(buffer, 4096, 8192), disk(310 * kClusterBytes, 8192));
    EXPECT_THAT(part(buffer, 3 * 4096, 4096), Each(0));
}

TEST_F(NtfsBitmapRuns, AVolumeThatEndsInsideTheBitmapGivesWhatItHas) {
    open(4 * kClusterBits, {{511, 4}});
    volume->bytes.resize(kDiskClusters * kClusterBytes);
    EXPECT_EQ(ask(0, 4 * kClusterBytes), static_cast<long>(kClusterBits));
    EXPECT_EQ(part(buffer, 0, 4096), disk(511 * kClusterBytes, 4096));
    EXPECT_THAT(part(buffer, 4096, 3 * 4096), Each(0));
    EXPECT_EQ(ask(kClusterBits, 64), 0) << "behind the end of the volume nothing is delivered";
}

/// The documented arithmetic over runs, with unsigned 64-bit numbers; all bytes can be read.
struct SlowChunk {
    long result = 0;
    NtfsBytes buffer;
};

SlowChunk chunkSlowly(NtfsBytes const& bytes, std::vector<NtfsRun> const& runs, std::uint64_t cluster,
                      std::uint64_t length) {
    SlowChunk chunk;
    std::uint64_t passed = 0;
    bool first = true;
    for (NtfsRun const& run : runs) {
        auto runBytes = static_cast<std::uint64_t>(run.length) * kClusterBytes;
        passed += runBytes;
        if (passed * 8 < cluster) {
            continue;
        }
        std::uint64_t offset = static_cast<std::uint64_t>(run.lcn) * kClusterBytes;
        offset += first ? cluster / 8 : 0;
        runBytes -= first ? cluster / 8 : 0;
        first = false;
        for (std::uint64_t i = 0; i < runBytes && chunk.buffer.size() < length; ++i) {
            chunk.buffer.push_back(bytes.at(offset + i));
        }
        if (chunk.buffer.size() == length) {
            break;
        }
    }
    chunk.result = static_cast<long>(chunk.buffer.size() * 8);
    chunk.buffer.resize(length);
    return chunk;
}

TEST_F(NtfsBitmapRuns, RandomRunsAndRequestsGiveWhatTheSlowWayGives) {
    std::mt19937 random(16);
    unsigned wrong = 0;
    for (int round = 0; round < 300; ++round) {
        std::vector<NtfsRun> runs(1 + random() % 5);
        std::uint64_t clusters = 0;
        for (NtfsRun& run : runs) {
            run = {300 + static_cast<std::int64_t>(random() % 150), 1 + static_cast<std::int64_t>(random() % 4)};
            clusters += static_cast<std::uint64_t>(run.length) * kClusterBits;
        }
        open(clusters, runs, round % 2 == 0 ? 512 : 4096);
        NtfsBytes const map = truth(runs);
        for (int request = 0; request < 8; ++request) {
            // Borders of clusters come up as well as any place.
            std::uint64_t const first =
                request % 2 == 0 ? random() % map.size() : random() % (map.size() / 4096) * 4096;
            std::uint64_t const length = 1 + random() % (request % 3 == 0 ? 20000 : 3000);
            SlowChunk const expected = chunkSlowly(builder.bytes, runs, 8 * first, length);
            ASSERT_EQ(ask(8 * first, length), expected.result);
            ASSERT_EQ(buffer, expected.buffer);
            NtfsBytes right = part(map, first, std::min<std::size_t>(length, map.size() - first));
            right.resize(length);
            wrong += buffer != right;
        }
    }
    EXPECT_GT(wrong, 100U) << "requests must come up that are answered from the wrong place";
}

// Whole runs into memory.

class NtfsWholeRuns : public NtfsBitmapRuns {
protected:
    NtfsWholeRuns() { open(kClusterBits, {{400, 1}}); }

    using Type = NtfsAccess::BufferType;
    static constexpr char const* kText = "what the caller says";

    std::string refusal(std::vector<ntfs_runlist> const& runs) {
        std::vector<unsigned short> destination(4 * kClusterBytes);
        try {
            parser->iterateDataRuns(destination.data(), runs, Type::Bytes, kText);
            return "read";
        } catch (std::runtime_error const& error) {
            return error.what();
        }
    }
};

TEST_F(NtfsWholeRuns, BytesFollowEachOther) {
    NtfsBytes memory(3 * kClusterBytes);
    reader->calls.clear();
    EXPECT_EQ(parser->iterateDataRuns(reinterpret_cast<unsigned short*>(memory.data()), {{400, 2}, {310, 1}},
                                      Type::Bytes, kText),
              3 * kClusterBytes);
    EXPECT_EQ(memory, truth({{400, 2}, {310, 1}}));
    EXPECT_THAT(reader->calls, ElementsAre(seekCall(at(400)), readCall(8192), seekCall(at(310)), readCall(4096)));
}

TEST_F(NtfsWholeRuns, In16BitUnitsEveryFurtherRunLandsAtTwiceItsPlace) {
    NtfsBytes memory(6 * kClusterBytes, 0x77);
    EXPECT_EQ(parser->iterateDataRuns(reinterpret_cast<unsigned short*>(memory.data()), {{400, 1}, {310, 1}, {320, 1}},
                                      Type::Units16, kText),
              3 * kClusterBytes);
    EXPECT_EQ(part(memory, 0, 4096), disk(400 * kClusterBytes, 4096));
    EXPECT_EQ(part(memory, 2 * 4096, 4096), disk(310 * kClusterBytes, 4096));
    EXPECT_EQ(part(memory, 4 * 4096, 4096), disk(320 * kClusterBytes, 4096));
    for (std::size_t const gap : {1U, 3U, 5U}) {
        EXPECT_THAT(part(memory, gap * 4096, 4096), Each(0x77)) << "nothing is written between";
    }
}

TEST_F(NtfsWholeRuns, AnyOtherTypeMeansBytes) {
    NtfsBytes memory(2 * kClusterBytes);
    auto* const destination = reinterpret_cast<unsigned short*>(memory.data());
    EXPECT_EQ(parser->iterateDataRuns(destination, {{400, 1}, {310, 1}}, static_cast<Type>(2), kText), 8192U);
    EXPECT_EQ(memory, truth({{400, 1}, {310, 1}}));
}

TEST_F(NtfsWholeRuns, NoRunsAreNothing) {
    reader->calls.clear();
    EXPECT_EQ(parser->iterateDataRuns(nullptr, {}, Type::Units16, kText), 0U);
    EXPECT_THAT(reader->calls, IsEmpty());
}

TEST_F(NtfsWholeRuns, ARunThatCannotBeReadIsTheCallersError) {
    EXPECT_EQ(refusal({{400, 1}, {-5, 1}}), kText);
    EXPECT_EQ(refusal({{400, 1}, {310, 1}}), "read");
    EXPECT_EQ(refusal({{400, -1}}), kText) << "a length below 0";
}

TEST_F(NtfsWholeRuns, WhatAShortReadLeavesOutIsCountedAllTheSame) {
    NtfsBytes memory(3 * kClusterBytes, 0x77);
    EXPECT_EQ(parser->iterateDataRuns(reinterpret_cast<unsigned short*>(memory.data()), {{511, 2}, {400, 1}},
                                      Type::Bytes, kText),
              3 * kClusterBytes);
    EXPECT_EQ(part(memory, 0, 4096), disk(511 * kClusterBytes, 4096));
    EXPECT_EQ(part(memory, 2 * 4096, 4096), disk(400 * kClusterBytes, 4096)) << "in its own place";
}

TEST_F(NtfsWholeRuns, AfterAGeometryWithoutClustersRunsAreEmpty) {
    volume->bytes[ntfs_boot::kSectorsPerCluster] = 0xF0;
    EXPECT_THROW(parser->reinit(), std::runtime_error);
    reader->calls.clear();
    EXPECT_EQ(parser->iterateDataRuns(nullptr, {{400, 5}}, Type::Bytes, kText), 0U);
    EXPECT_THAT(reader->calls, ElementsAre(seekCall(0)));
    EXPECT_EQ(refusal({{401, 5}}), kText) << "an odd cluster leads to byte 2^63";
}

} // namespace
