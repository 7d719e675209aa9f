// Aligned reads: the exact seeks and reads, what arrives, and what a failure leaves.
#include "agent/core/fs/FSUtil.h"
#include "support/Readers.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>
#include <limits>
#include <new>
#include <stdexcept>

namespace {

using agent::core::fs::fs_chunk_read;
using agent::core::fs::fs_seek_read_aligned;
using tests::debugEntry;
using tests::LogEntry;
using tests::readCall;
using tests::ReaderCall;
using tests::seekCall;

using Calls = std::vector<ReaderCall>;
using Bytes = std::vector<std::uint8_t>;

constexpr unsigned long kLargest = std::numeric_limits<unsigned long>::max();
constexpr long kPiece = 4194304;
constexpr std::uint8_t kMark = 0xEE;

/// The byte that the patterned volumes hold at an offset: never 0, and not the same in neighbouring units.
std::uint8_t patternAt(std::uint64_t offset) {
    return static_cast<std::uint8_t>(offset % 251 + 1);
}

Bytes pattern(std::uint64_t offset, std::uint64_t length) {
    Bytes bytes(length);
    for (std::uint64_t i = 0; i < length; ++i) {
        bytes[i] = patternAt(offset + i);
    }
    return bytes;
}

/// One request on a patterned volume, with guard bytes behind the destination.
class Request {
public:
    explicit Request(std::uint64_t volumeSize)
        : volume(volumeSize, [](std::uint64_t offset, std::uint8_t* bytes, std::uint64_t length) {
              for (std::uint64_t i = 0; i < length; ++i) {
                  bytes[i] = patternAt(offset + i);
              }
          }) {}

    long run(unsigned long alignment, unsigned long offset, unsigned long length, std::uint64_t room) {
        return run(volume, alignment, offset, length, room);
    }

    long run(agent::core::IVolumeReader const& inner, unsigned long alignment, unsigned long offset,
             unsigned long length, std::uint64_t room) {
        tests::RecordingReader const recording(inner);
        destination.assign(room + kGuard, kMark);
        bytesRead = 77;
        long const result =
            fs_seek_read_aligned(logger, recording, alignment, offset, destination.data(), length, &bytesRead);
        calls = recording.calls;
        return result;
    }

    /// The first bytes of the destination.
    Bytes delivered(std::uint64_t count) const {
        return {destination.begin(), destination.begin() + static_cast<std::ptrdiff_t>(count)};
    }

    /// Whether everything from `first` on is as it was before the call.
    bool untouchedFrom(std::uint64_t first) const {
        return std::all_of(destination.begin() + static_cast<std::ptrdiff_t>(first), destination.end(),
                           [](std::uint8_t byte) { return byte == kMark; });
    }

    static constexpr std::uint64_t kGuard = 64;
    tests::SyntheticReader volume;
    tests::RecordingLogger logger;
    Bytes destination;
    unsigned long bytesRead = 0;
    Calls calls;
};

TEST(AlignedRead, ReadsWholeUnitsInPlace) {
    Request request(65536);
    EXPECT_EQ(request.run(512, 1024, 1024, 1024), 0);
    EXPECT_EQ(request.calls, (Calls{seekCall(1024), readCall(1024)}));
    EXPECT_EQ(request.bytesRead, 1024U);
    EXPECT_EQ(request.delivered(1024), pattern(1024, 1024));
    EXPECT_TRUE(request.untouchedFrom(1024));
    EXPECT_TRUE(request.logger.entries.empty());
}

TEST(AlignedRead, WidensARequestInsideOneUnit) {
    Request request(65536);
    EXPECT_EQ(request.run(4096, 1024, 1024, 1024), 0);
    EXPECT_EQ(request.calls, (Calls{seekCall(0), readCall(4096)}));
    EXPECT_EQ(request.bytesRead, 1024U);
    EXPECT_EQ(request.delivered(1024), pattern(1024, 1024));
    EXPECT_TRUE(request.untouchedFrom(1024));
}

TEST(AlignedRead, WidensARequestThatCrossesAUnit) {
    Request request(65536);
    EXPECT_EQ(request.run(512, 1000, 100, 100), 0);
    EXPECT_EQ(request.calls, (Calls{seekCall(512), readCall(1024)}));
    EXPECT_EQ(request.bytesRead, 100U);
    EXPECT_EQ(request.delivered(100), pattern(1000, 100));
    EXPECT_TRUE(request.untouchedFrom(100));
}

TEST(AlignedRead, AnAlignmentOfOneReadsJustTheRange) {
    Request request(65536);
    EXPECT_EQ(request.run(1, 1001, 3, 3), 0);
    EXPECT_EQ(request.calls, (Calls{seekCall(1001), readCall(3)}));
    EXPECT_EQ(request.delivered(3), pattern(1001, 3));
}

TEST(AlignedRead, TakesAsFewUnitsAsHoldTheRange) {
    struct Case {
        unsigned long alignment, offset, length;
        long start, size;
    };
    for (auto const& [alignment, offset, length, start, size] : {
             Case{512, 0, 1, 0, 512},
             Case{512, 0, 512, 0, 512},
             Case{512, 0, 513, 0, 1024},
             Case{512, 511, 1, 0, 512},
             Case{512, 511, 2, 0, 1024},
             Case{512, 512, 512, 512, 512},
             Case{512, 1023, 513, 512, 1024},
             Case{512, 1023, 514, 512, 1536},
             Case{4096, 8191, 4098, 4096, 12288},
             Case{1 << 20, 5, 1, 0, 1 << 20},
         }) {
        Request request(1 << 22);
        EXPECT_EQ(request.run(alignment, offset, length, length), 0);
        EXPECT_EQ(request.calls, (Calls{seekCall(start), readCall(size)})) << offset << " + " << length;
        EXPECT_EQ(request.bytesRead, length);
        EXPECT_EQ(request.delivered(length), pattern(offset, length)) << offset << " + " << length;
        EXPECT_TRUE(request.untouchedFrom(length));
    }
}

TEST(AlignedRead, AsksForAtMostFourMebibytesAtOnce) {
    Request request(32 << 20);
    constexpr unsigned long kLength = 10 << 20;
    EXPECT_EQ(request.run(4096, 8192, kLength, kLength), 0);
    EXPECT_EQ(request.calls, (Calls{seekCall(8192), readCall(kPiece), readCall(kPiece), readCall(2 << 20)}));
    EXPECT_EQ(request.bytesRead, kLength);
    EXPECT_EQ(request.delivered(kLength), pattern(8192, kLength));
}

TEST(AlignedRead, FourMebibytesAreOnePieceAndOneUnitMoreIsTwo) {
    Request request(32 << 20);
    EXPECT_EQ(request.run(512, 0, kPiece, kPiece), 0);
    EXPECT_EQ(request.calls, (Calls{seekCall(0), readCall(kPiece)}));
    EXPECT_EQ(request.run(512, 0, kPiece + 1, kPiece + 1), 0);
    EXPECT_EQ(request.calls, (Calls{seekCall(0), readCall(kPiece), readCall(512)}));
}

TEST(AlignedRead, ReachesTheFarEndOfAnExabyteVolume) {
    constexpr std::uint64_t kSize = std::uint64_t{1} << 62;
    Request request(kSize);
    EXPECT_EQ(request.run(4096, kSize - 100, 100, 100), 0);
    EXPECT_EQ(request.calls, (Calls{seekCall(static_cast<long>(kSize - 4096)), readCall(4096)}));
    EXPECT_EQ(request.delivered(100), pattern(kSize - 100, 100));
}

TEST(AlignedRead, AShortReadCountsFromTheAlignedStart) {
    Request request(3000);
    EXPECT_EQ(request.run(4096, 0, 4096, 4096), 0);
    EXPECT_EQ(request.bytesRead, 3000U);
    EXPECT_EQ(request.delivered(3000), pattern(0, 3000));
    EXPECT_TRUE(request.untouchedFrom(3000)) << "no more is copied than counted";
    EXPECT_TRUE(request.logger.entries.empty());
}

TEST(AlignedRead, WhatAShortReadDidNotDeliverArrivesAsZeros) {
    Request request(3000);
    EXPECT_EQ(request.run(4096, 1024, 2500, 2500), 0);
    EXPECT_EQ(request.bytesRead, 2500U) << "3000 bytes from the aligned start are more than were asked for";
    Bytes expected = pattern(1024, 3000 - 1024);
    expected.resize(2500, 0);
    EXPECT_EQ(request.delivered(2500), expected);
    EXPECT_TRUE(request.untouchedFrom(2500));
}

TEST(AlignedRead, ARangeBehindTheVolumeSucceedsWithNothing) {
    Request request(3000);
    EXPECT_EQ(request.run(512, 8192, 512, 512), 0);
    EXPECT_EQ(request.bytesRead, 0U);
    EXPECT_TRUE(request.untouchedFrom(0));
    EXPECT_EQ(request.calls, (Calls{seekCall(8192), readCall(512)}));
}

TEST(AlignedRead, AShortFirstPieceLeavesAGapOfZeros) {
    Request request(32 << 20);
    tests::FaultyReader const faulty(request.volume, tests::Fault::ReadShort, 0);
    constexpr std::uint64_t kLength = 8 << 20;
    EXPECT_EQ(request.run(faulty, 512, 0, kLength, kLength), 0);
    EXPECT_EQ(request.calls, (Calls{seekCall(0), readCall(kPiece), readCall(kPiece)}));
    constexpr std::uint64_t kDelivered = kPiece / 2 + kPiece;
    EXPECT_EQ(request.bytesRead, kDelivered);
    EXPECT_TRUE(request.untouchedFrom(kDelivered));
    // The second piece has its own place, though it was read from where the first one stopped.
    EXPECT_EQ(request.delivered(kPiece / 2), pattern(0, kPiece / 2));
    EXPECT_EQ(Bytes(request.destination.begin() + kPiece / 2, request.destination.begin() + kPiece),
              Bytes(kPiece / 2, 0));
    EXPECT_EQ(Bytes(request.destination.begin() + kPiece, request.destination.begin() + kPiece + kPiece / 2),
              pattern(kPiece / 2, kPiece / 2));
}

TEST(AlignedRead, AnEmptyReadDoesNotEndTheLoop) {
    Request request(32 << 20);
    tests::FaultyReader const faulty(request.volume, tests::Fault::ReadEmpty, 0);
    EXPECT_EQ(request.run(faulty, 512, 0, 6 << 20, 6 << 20), 0);
    EXPECT_EQ(request.calls, (Calls{seekCall(0), readCall(kPiece), readCall(2 << 20)}));
    EXPECT_EQ(request.bytesRead, 2U << 20);
    EXPECT_EQ(request.delivered(2 << 20), Bytes(2 << 20, 0)) << "what the first piece should have brought";
}

TEST(AlignedRead, AFailedSeekReadsNothing) {
    Request request(65536);
    tests::FaultyReader const faulty(request.volume, tests::Fault::SeekFails, 0);
    EXPECT_EQ(request.run(faulty, 512, 1024, 1024, 1024), -1);
    EXPECT_EQ(request.calls, Calls{seekCall(1024)});
    EXPECT_EQ(request.bytesRead, 0U);
    EXPECT_TRUE(request.untouchedFrom(0));
    EXPECT_TRUE(request.logger.entries.empty()) << "the reader has logged";
}

TEST(AlignedRead, AFailedReadNamesTheAlignedRange) {
    Request request(65536);
    tests::FaultyReader const faulty(request.volume, tests::Fault::ReadFails, 0);
    EXPECT_EQ(request.run(faulty, 512, 1000, 100, 100), -1);
    EXPECT_EQ(request.logger.entries, std::vector{debugEntry("CHUNK READ FILE FAILED: OFFSET: 512 - 1024 BYTES")});
    EXPECT_EQ(request.bytesRead, 0U);
    EXPECT_TRUE(request.untouchedFrom(0));
}

TEST(AlignedRead, AFailedLaterPieceFailsTheCall) {
    Request request(32 << 20);
    tests::FaultyReader const faulty(request.volume, tests::Fault::ReadFails, 1);
    EXPECT_EQ(request.run(faulty, 512, 0, 12 << 20, 12 << 20), -1);
    EXPECT_EQ(request.calls, (Calls{seekCall(0), readCall(kPiece), readCall(kPiece)}));
    EXPECT_EQ(request.logger.entries, std::vector{debugEntry("CHUNK READ FILE FAILED: OFFSET: 0 - 12582912 BYTES")});
    EXPECT_EQ(request.bytesRead, 0U);
    EXPECT_TRUE(request.untouchedFrom(0));
}

TEST(AlignedRead, AnAlignmentOfZeroIsRefusedWithoutACall) {
    Request request(65536);
    EXPECT_EQ(request.run(0, 1024, 1024, 1024), -1);
    EXPECT_TRUE(request.calls.empty());
    EXPECT_EQ(request.bytesRead, 0U);
    EXPECT_TRUE(request.untouchedFrom(0));
    EXPECT_TRUE(request.logger.entries.empty());
}

TEST(AlignedRead, ALengthOfZeroCopiesNothing) {
    Request request(65536);
    for (unsigned long const offset : {0UL, 512UL, 1000UL}) {
        EXPECT_EQ(request.run(512, offset, 0, 0), 0) << offset;
        EXPECT_EQ(request.bytesRead, 0U) << offset;
        EXPECT_TRUE(request.untouchedFrom(0)) << offset;
        EXPECT_TRUE(request.logger.entries.empty()) << offset;
    }
}

TEST(AlignedRead, AnAlignmentThatIsNoPowerOfTwoIsLoggedAndThrown) {
    Request request(65536);
    EXPECT_THROW(request.run(513, 1026, 10, 10), std::invalid_argument);
    ASSERT_EQ(request.logger.entries.size(), 1U);
    EXPECT_EQ(request.logger.entries[0].text.find("Failed to create aligned memory of size: 513, alignment: 513"), 0U);
    EXPECT_EQ(request.bytesRead, 0U);
    EXPECT_TRUE(request.untouchedFrom(0));
}

TEST(AlignedRead, ASizeBeyondTheSignedRangeIsALengthErrorAndLogged) {
    Request request(65536);
    try {
        request.run(512, 0, 1UL << 63, 0);
        FAIL() << "nothing was thrown";
    } catch (std::length_error const& error) {
        EXPECT_STREQ(error.what(), "vector::_M_default_append");
    }
    EXPECT_EQ(request.logger.entries,
              std::vector{debugEntry("Failed to create aligned memory of size: 9223372036854775808, alignment: 512 "
                                     "from line: 81 in file: FSUtil.cpp, error: vector::_M_default_append")});
    EXPECT_EQ(request.bytesRead, 0U);
    EXPECT_TRUE(request.untouchedFrom(0));
}

TEST(AlignedRead, MemoryThatCannotBeHadIsABadAllocAndLogged) {
    Request request(65536);
    EXPECT_THROW(request.run(4096, 1, 1UL << 62, 0), std::bad_alloc);
    EXPECT_EQ(request.logger.entries,
              std::vector{debugEntry("Failed to create aligned memory of size: 4611686018427392000, alignment: 4096 "
                                     "from line: 81 in file: FSUtil.cpp, error: std::bad_alloc")});
    EXPECT_TRUE(request.calls.empty());
    EXPECT_TRUE(request.untouchedFrom(0));
}

TEST(AlignedRead, AThrowIsBeforeAnyCallOfTheReader) {
    tests::MemoryReader const volume(Bytes(4096));
    tests::RecordingReader const recording(volume);
    tests::RecordingLogger logger;
    unsigned long bytesRead = 77;
    char byte = 0;
    EXPECT_THROW(fs_seek_read_aligned(logger, recording, 512, 0, &byte, 1UL << 62, &bytesRead), std::bad_alloc);
    EXPECT_TRUE(recording.calls.empty());
    EXPECT_EQ(bytesRead, 0U);
}

TEST(AlignedRead, ALengthThatWrapsToTooFewUnitsFailsAndCopiesNothing) {
    Request request(65536);
    // 488 + (2^64 - 101) wraps to 387: one unit, in which the wanted bytes are not.
    EXPECT_EQ(request.run(512, 1000, kLargest - 100, 0), -1);
    EXPECT_EQ(request.bytesRead, 0U);
    EXPECT_TRUE(request.untouchedFrom(0));
}

TEST(AlignedRead, ALengthWhoseUnitsWrapToNoneCopiesNothing) {
    Request request(65536);
    for (unsigned long const offset : {0UL, 1UL}) {
        request.run(512, offset, kLargest, 0);
        EXPECT_EQ(request.bytesRead, 0U) << offset;
        EXPECT_TRUE(request.untouchedFrom(0)) << offset;
        EXPECT_EQ(request.calls, Calls{seekCall(0)}) << offset;
    }
}

/// Notes where the bytes were asked to go.
class AddressReader : public tests::MemoryReader {
public:
    using MemoryReader::MemoryReader;
    long read(void* buffer, long length) const override {
        addresses.push_back(reinterpret_cast<std::uintptr_t>(buffer));
        return MemoryReader::read(buffer, length);
    }
    mutable std::vector<std::uintptr_t> addresses;
};

TEST(AlignedRead, ReadsIntoMemoryOfTheAlignmentWhereverTheDestinationIs) {
    AddressReader const volume(pattern(0, 1 << 20));
    tests::RecordingLogger logger;
    for (unsigned long const alignment : {512UL, 4096UL, 65536UL}) {
        Bytes destination(2001);
        unsigned long bytesRead = 0;
        EXPECT_EQ(fs_seek_read_aligned(logger, volume, alignment, 1234, destination.data() + 1, 2000, &bytesRead), 0);
        EXPECT_EQ(Bytes(destination.begin() + 1, destination.end()), pattern(1234, 2000));
        EXPECT_EQ(volume.addresses.back() % alignment, 0U) << alignment;
    }
}

TEST(ChunkRead, AddsToTheCounterAndDoesNotResetIt) {
    tests::MemoryReader const volume(pattern(0, 100));
    Bytes buffer(60);
    long bytesRead = 1000;
    EXPECT_EQ(fs_chunk_read(volume, buffer.data(), 60, &bytesRead), 0);
    EXPECT_EQ(bytesRead, 1060);
    EXPECT_EQ(buffer, pattern(0, 60));
    EXPECT_EQ(fs_chunk_read(volume, buffer.data(), 60, &bytesRead), 0) << "a short read is no failure";
    EXPECT_EQ(bytesRead, 1100);
}

TEST(ChunkRead, ALengthOfZeroReadsNothing) {
    tests::MemoryReader const volume(pattern(0, 100));
    tests::RecordingReader const recording(volume);
    long bytesRead = 5;
    EXPECT_EQ(fs_chunk_read(recording, nullptr, 0, &bytesRead), 0);
    EXPECT_TRUE(recording.calls.empty());
    EXPECT_EQ(bytesRead, 5);
}

TEST(ChunkRead, ReadsOnFromThePositionWithoutASeek) {
    tests::MemoryReader const volume(pattern(0, 100));
    tests::RecordingReader const recording(volume);
    EXPECT_EQ(volume.seek(40, SEEK_SET), 40);
    Bytes buffer(20);
    long bytesRead = 0;
    EXPECT_EQ(fs_chunk_read(recording, buffer.data(), 20, &bytesRead), 0);
    EXPECT_EQ(recording.calls, Calls{readCall(20)});
    EXPECT_EQ(buffer, pattern(40, 20));
}

TEST(ChunkRead, AFailureKeepsWhatWasCountedBefore) {
    Request request(32 << 20);
    tests::FaultyReader const faulty(request.volume, tests::Fault::ReadFails, 1);
    Bytes buffer(8 << 20);
    long bytesRead = 0;
    EXPECT_EQ(fs_chunk_read(faulty, buffer.data(), 8 << 20, &bytesRead), -1);
    EXPECT_EQ(bytesRead, kPiece);
}

} // namespace
