// The reader for which bytes that are not there are an error: which short reads it lets pass, and what it says.
#include "imaging/StrictReader.h"

#include "agent/core/fs/FSUtil.h"
#include "support/Readers.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>
#include <vector>

namespace {

using namespace tests;
using imaging::StrictReader;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::uint8_t> countingBytes(std::size_t size) {
    std::vector<std::uint8_t> bytes(size);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{1});
    return bytes;
}

/// A strict reader over a volume in memory.
struct Bench {
    Bench(std::uint64_t size, std::uint64_t tail)
        : memory(countingBytes(size)), recorded(memory), strict(logger, recorded, size, tail) {}

    /// The result of one read at an offset.
    long readAt(long offset, long length) {
        buffer.assign(static_cast<std::size_t>(length), 0);
        EXPECT_EQ(strict.seek(offset, SEEK_SET), offset);
        return strict.read(buffer.data(), length);
    }

    RecordingLogger logger;
    MemoryReader memory;
    RecordingReader recorded;
    StrictReader strict;
    std::vector<std::uint8_t> buffer;
};

TEST(ImagingStrictReader, WholeReadsPassUnchanged) {
    Bench bench(4096, 512);
    ASSERT_EQ(bench.readAt(1000, 96), 96);
    EXPECT_EQ(bench.buffer,
              std::vector<std::uint8_t>(bench.memory.bytes.begin() + 1000, bench.memory.bytes.begin() + 1096));
    EXPECT_EQ(bench.readAt(0, 4096), 4096);
    EXPECT_THAT(bench.recorded.calls, ElementsAre(seekCall(1000), readCall(96), seekCall(0), readCall(4096)));
    EXPECT_THAT(bench.logger.entries, IsEmpty());
}

TEST(ImagingStrictReader, AReadThatStopsInsideTheVolumeFailsAndSaysWhere) {
    RecordingLogger logger;
    MemoryReader const memory(countingBytes(4096));
    FaultyReader const faulty(memory, Fault::ReadShort, 0);
    StrictReader const strict(logger, faulty, 4096, 512);
    std::vector<char> buffer(512);
    ASSERT_EQ(strict.seek(1024, SEEK_SET), 1024);
    EXPECT_EQ(strict.read(buffer.data(), 512), -1);
    EXPECT_THAT(logger.entries, ElementsAre(errorEntry("The volume delivers nothing at byte 1280, where 256 more bytes "
                                                       "were to be read (it has 4096 bytes)")));
}

TEST(ImagingStrictReader, AnEmptyReadInsideTheVolumeFails) {
    RecordingLogger logger;
    MemoryReader const memory(countingBytes(4096));
    FaultyReader const faulty(memory, Fault::ReadEmpty, 0);
    StrictReader const strict(logger, faulty, 4096, 512);
    std::vector<char> buffer(64);
    EXPECT_EQ(strict.read(buffer.data(), 64), -1);
    EXPECT_THAT(logger.entries, ElementsAre(errorEntry("The volume delivers nothing at byte 0, where 64 more bytes "
                                                       "were to be read (it has 4096 bytes)")));
}

TEST(ImagingStrictReader, TheLastUnitMayComeShortWhenTheVolumeEndsInsideIt) {
    Bench bench(1000, 512);
    EXPECT_EQ(bench.readAt(512, 512), 488);
    EXPECT_EQ(bench.readAt(0, 1024), 1000);
    EXPECT_EQ(bench.readAt(999, 2), 1);
    EXPECT_THAT(bench.logger.entries, IsEmpty());
}

TEST(ImagingStrictReader, ReachingAWholeUnitPastTheEndFails) {
    Bench bench(1024, 512);
    EXPECT_EQ(bench.readAt(512, 1023), 512); // 511 bytes past the end
    EXPECT_THAT(bench.logger.entries, IsEmpty());
    EXPECT_EQ(bench.readAt(512, 1024), -1); // 512 bytes past the end
    EXPECT_THAT(bench.logger.entries, ElementsAre(errorEntry("The volume delivers nothing at byte 1024, where 512 more "
                                                             "bytes were to be read (it has 1024 bytes)")));
}

TEST(ImagingStrictReader, AReadBehindTheEndFails) {
    Bench bench(1000, 512);
    EXPECT_EQ(bench.readAt(1024, 512), -1);
    EXPECT_THAT(bench.logger.entries, ElementsAre(errorEntry("The volume delivers nothing at byte 1024, where 512 more "
                                                             "bytes were to be read (it has 1000 bytes)")));
}

TEST(ImagingStrictReader, AReadBehindTheEndWithinTheLastUnitFails) {
    Bench bench(1000, 512);
    EXPECT_EQ(bench.readAt(1001, 10), -1);
    EXPECT_EQ(bench.logger.entries.size(), 1U);
}

TEST(ImagingStrictReader, WithoutATailEveryShortReadFails) {
    Bench bench(1000, 0);
    EXPECT_EQ(bench.readAt(512, 488), 488);
    EXPECT_EQ(bench.readAt(512, 489), -1);
    EXPECT_THAT(bench.logger.entries, ElementsAre(errorEntry("The volume delivers nothing at byte 1000, where 1 more "
                                                             "bytes were to be read (it has 1000 bytes)")));
}

TEST(ImagingStrictReader, ForbiddingTheTailRefusesTheLastUnitFromThenOn) {
    Bench bench(1000, 512);
    EXPECT_EQ(bench.readAt(512, 512), 488);
    bench.strict.forbidTail();
    EXPECT_EQ(bench.readAt(512, 512), -1);
    EXPECT_THAT(bench.logger.entries, ElementsAre(errorEntry("The volume delivers nothing at byte 1000, where 24 more "
                                                             "bytes were to be read (it has 1000 bytes)")));
    EXPECT_EQ(bench.readAt(512, 488), 488);
}

TEST(ImagingStrictReader, ConsecutiveReadsCountOnFromEachOther) {
    Bench bench(1000, 512);
    std::vector<char> buffer(600);
    EXPECT_EQ(bench.strict.read(buffer.data(), 600), 600);
    EXPECT_EQ(bench.strict.read(buffer.data(), 600), 400);
    EXPECT_EQ(bench.strict.read(buffer.data(), 600), -1);
    EXPECT_THAT(bench.logger.entries, ElementsAre(errorEntry("The volume delivers nothing at byte 1000, where 600 more "
                                                             "bytes were to be read (it has 1000 bytes)")));
}

TEST(ImagingStrictReader, AFailedSeekLeavesThePosition) {
    Bench bench(1000, 0);
    ASSERT_EQ(bench.strict.seek(700, SEEK_SET), 700);
    EXPECT_EQ(bench.strict.seek(-5, SEEK_SET), -1);
    std::vector<char> buffer(400);
    EXPECT_EQ(bench.strict.read(buffer.data(), 400), -1);
    EXPECT_THAT(bench.logger.entries, ElementsAre(errorEntry("The volume delivers nothing at byte 1000, where 100 more "
                                                             "bytes were to be read (it has 1000 bytes)")));
}

TEST(ImagingStrictReader, AReadThatFailsIsPassedOnWithoutASecondEntry) {
    RecordingLogger logger;
    MemoryReader const memory(countingBytes(4096));
    FaultyReader const faulty(memory, Fault::ReadFails, 0);
    StrictReader const strict(logger, faulty, 4096, 512);
    std::vector<char> buffer(512);
    EXPECT_EQ(strict.read(buffer.data(), 512), -1);
    EXPECT_THAT(logger.entries, IsEmpty());
    EXPECT_EQ(strict.read(buffer.data(), 512), 512) << "and the position is where it was";
}

TEST(ImagingStrictReader, SizeAndPathAreTheVolumes) {
    Bench bench(1000, 512);
    EXPECT_EQ(bench.strict.size(), 1000);
    EXPECT_EQ(bench.strict.getVolumePath(), bench.memory.getVolumePath());
}

TEST(ImagingStrictReader, AnAlignedReadBehindTheEndFailsInsteadOfGivingZeros) {
    Bench bench(10000, 4096);
    std::vector<std::uint8_t> buffer(512, 0xAA);
    unsigned long bytesRead = 0;
    auto const readAligned = [&](agent::core::IVolumeReader const& reader, unsigned long offset) {
        return agent::core::fs::fs_seek_read_aligned(bench.logger, reader, 4096, offset, buffer.data(), buffer.size(),
                                                     &bytesRead);
    };
    EXPECT_EQ(readAligned(bench.memory, 20480), 0) << "the library takes it for an empty read";
    EXPECT_EQ(readAligned(bench.strict, 20480), -1);
    EXPECT_EQ(readAligned(bench.strict, 9000), 0) << "the last unit is there, though short";
    EXPECT_EQ(buffer.front(), bench.memory.bytes[9000]);
}

} // namespace
