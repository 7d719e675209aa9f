// Readers that keep what they read, or read further than they are asked to.
#include "imaging/CachingReader.h"
#include "imaging/CountingReader.h"
#include "imaging/ReadAheadReader.h"
#include "support/ReadAt.h"
#include "support/Readers.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>

#include <array>

namespace {

using namespace tests;
using imaging::CachingReader;
using imaging::CountingReader;
using imaging::ReadAheadReader;

/// A volume with one byte that cannot be read, which is logged.
class BrokenByteReader : public MemoryReader {
public:
    BrokenByteReader(agent::info::Logger& logger, std::vector<std::uint8_t> content, std::uint64_t broken)
        : MemoryReader(std::move(content)), logger_(logger), broken_(broken) {}

    long seek(long offset, int whence) const override {
        position_ = static_cast<std::uint64_t>(offset);
        return MemoryReader::seek(offset, whence);
    }
    long read(void* buffer, long length) const override {
        if (position_ <= broken_ && broken_ - position_ < static_cast<std::uint64_t>(length)) {
            agent::info::Logger::Entry(logger_, agent::info::Level::Error) << "byte " << broken_ << " is broken";
            return -1;
        }
        return MemoryReader::read(buffer, length);
    }

private:
    agent::info::Logger& logger_;
    std::uint64_t broken_;
    mutable std::uint64_t position_ = 0;
};

class ImagingCachingReader : public testing::Test {
protected:
    RecordingLogger logger;
    imaging::ReasonLogger reasons{logger};
};

class ImagingReadAheadReader : public ImagingCachingReader {};

TEST_F(ImagingCachingReader, AnyStretchIsWhatTheVolumeHolds) {
    MemoryReader const memory(randomBytes(5 * CachingReader::kPageBytes + 1234));
    for (std::size_t const pages : {1U, 2U, 100U}) {
        CachingReader const reader(reasons, memory, pages);
        std::mt19937 generator(5);
        for (int i = 0; i < 3000; ++i) {
            std::size_t const offset = generator() % (memory.bytes.size() + 1000);
            std::size_t const length = 1 + generator() % (i % 10 == 0 ? 200000 : 5000);
            std::size_t const start = std::min(offset, memory.bytes.size());
            std::size_t const end = std::min(start + length, memory.bytes.size());
            ASSERT_EQ(readAt(reader, offset, length),
                      std::vector(memory.bytes.begin() + static_cast<std::ptrdiff_t>(start),
                                  memory.bytes.begin() + static_cast<std::ptrdiff_t>(end)))
                << offset << " " << length;
        }
    }
}

TEST_F(ImagingCachingReader, PagesThatAreKeptAreNotReadAgain) {
    MemoryReader const memory(randomBytes(4 * CachingReader::kPageBytes));
    CountingReader const counted(memory);
    CachingReader const reader(reasons, counted, 2);
    for (int i = 0; i < 100; ++i) {
        readAt(reader, 10, 100);
        readAt(reader, CachingReader::kPageBytes + 10, 100);
    }
    EXPECT_EQ(counted.reads(), 2U);
    readAt(reader, 2 * CachingReader::kPageBytes, 1); // page 0 was used longest ago and goes
    readAt(reader, CachingReader::kPageBytes, 1);
    EXPECT_EQ(counted.reads(), 3U);
    readAt(reader, 0, 1);
    EXPECT_EQ(counted.reads(), 4U);
}

TEST_F(ImagingCachingReader, WhatIsBesideABrokenPlaceCanBeRead) {
    BrokenByteReader const volume(reasons, randomBytes(2 * CachingReader::kPageBytes), 1000);
    CachingReader const reader(reasons, volume, 4);
    EXPECT_EQ(readAt(reader, 512, 488), std::vector(volume.bytes.begin() + 512, volume.bytes.begin() + 1000));
    EXPECT_EQ(readAt(reader, 1001, 10), std::vector(volume.bytes.begin() + 1001, volume.bytes.begin() + 1011));
    EXPECT_EQ(reasons.takeReason("none"), "none") << "all that was asked for came";
    char byte = 0;
    ASSERT_EQ(reader.seek(1000, SEEK_SET), 1000);
    EXPECT_EQ(reader.read(&byte, 1), -1) << "the broken byte itself";
    EXPECT_EQ(reasons.takeReason("none"), "byte 1000 is broken");
    EXPECT_EQ(reader.seek(0, SEEK_END), -1);
}

TEST_F(ImagingCachingReader, AFailureIsNotKept) {
    MemoryReader const memory(randomBytes(CachingReader::kPageBytes));
    FaultyReader const faulty(memory, Fault::ReadFails, 0);
    CachingReader const reader(reasons, faulty, 4);
    char byte = 0;
    ASSERT_EQ(reader.seek(5, SEEK_SET), 5);
    EXPECT_EQ(reader.read(&byte, 1), 1) << "the page fails, and the byte does not";
    EXPECT_EQ(static_cast<std::uint8_t>(byte), memory.bytes[5]);
}

TEST_F(ImagingReadAheadReader, AnyStretchIsWhatTheVolumeHolds) {
    MemoryReader const memory(randomBytes(3 * ReadAheadReader::kWindowBytes + 1234));
    ReadAheadReader const reader(reasons, memory);
    std::mt19937 generator(5);
    std::size_t offset = 0;
    for (int i = 0; i < 2000; ++i) {
        bool const jumps = i % 20 == 0 || offset > memory.bytes.size();
        offset = jumps ? generator() % (memory.bytes.size() + 1000) : offset;
        std::size_t const length = 1 + generator() % (i % 50 == 0 ? 1'200'000 : 70'000);
        std::size_t const start = std::min(offset, memory.bytes.size());
        std::size_t const end = std::min(start + length, memory.bytes.size());
        ASSERT_EQ(readAt(reader, offset, length), std::vector(memory.bytes.begin() + static_cast<std::ptrdiff_t>(start),
                                                              memory.bytes.begin() + static_cast<std::ptrdiff_t>(end)))
            << offset << " " << length;
        offset += length;
    }
}

TEST_F(ImagingReadAheadReader, ReadsThatFollowOneAnotherCostOneReadAWindow) {
    MemoryReader const memory(randomBytes(4 * ReadAheadReader::kWindowBytes));
    CountingReader const counted(memory);
    ReadAheadReader const reader(reasons, counted);
    constexpr std::size_t kPiece = 65536;
    for (std::size_t offset = 0; offset < memory.bytes.size(); offset += kPiece) {
        readAt(reader, offset, kPiece);
    }
    EXPECT_EQ(counted.reads(), 1U + 4U) << "the first follows nothing";
}

TEST_F(ImagingReadAheadReader, TwoPlacesCanBeReadSideBySide) {
    MemoryReader const memory(randomBytes(4 * ReadAheadReader::kWindowBytes));
    CountingReader const counted(memory);
    ReadAheadReader const reader(reasons, counted);
    constexpr std::size_t kPiece = 65536;
    for (std::size_t offset = 0; offset < 2 * ReadAheadReader::kWindowBytes; offset += kPiece) {
        ASSERT_EQ(readAt(reader, offset, kPiece)[7], memory.bytes[offset + 7]);
        std::size_t const other = offset + 2 * ReadAheadReader::kWindowBytes;
        ASSERT_EQ(readAt(reader, other, kPiece)[7], memory.bytes[other + 7]);
    }
    EXPECT_EQ(counted.reads(), 2U * (1U + 2U));
}

TEST_F(ImagingReadAheadReader, ReadsHereAndThereAreMadeAsTheyAre) {
    MemoryReader const memory(randomBytes(4 * ReadAheadReader::kWindowBytes));
    CountingReader const counted(memory);
    ReadAheadReader const reader(reasons, counted);
    for (std::size_t const offset : {3'000'000U, 5'000U, 2'000'000U, 70'000U}) {
        readAt(reader, offset, 1024);
    }
    EXPECT_EQ(counted.reads(), 4U);
    EXPECT_EQ(counted.bytes(), 4096U);
}

TEST_F(ImagingReadAheadReader, WhatIsBesideABrokenPlaceCanBeRead) {
    BrokenByteReader const volume(reasons, randomBytes(ReadAheadReader::kWindowBytes), 100'000);
    ReadAheadReader const reader(reasons, volume);
    for (std::size_t const offset : {0U, 4096U, 8192U}) {
        EXPECT_EQ(readAt(reader, offset, 4096),
                  std::vector(volume.bytes.begin() + static_cast<std::ptrdiff_t>(offset),
                              volume.bytes.begin() + static_cast<std::ptrdiff_t>(offset) + 4096));
    }
    EXPECT_EQ(reasons.takeReason("none"), "none");
    char byte = 0;
    ASSERT_EQ(reader.seek(100'000, SEEK_SET), 100'000);
    EXPECT_EQ(reader.read(&byte, 1), -1);
    EXPECT_EQ(reasons.takeReason("none"), "byte 100000 is broken");
    EXPECT_EQ(reader.seek(0, SEEK_END), -1);
}

TEST_F(ImagingReadAheadReader, ABrokenWindowIsTriedOnce) {
    BrokenByteReader const volume(reasons, randomBytes(2 * ReadAheadReader::kWindowBytes), 1'000'000);
    CountingReader const counted(volume);
    ReadAheadReader const reader(reasons, counted);
    for (std::size_t offset = 0; offset < 900'000; offset += 4096) {
        readAt(reader, offset, 4096);
    }
    EXPECT_EQ(counted.reads(), 220U + 1U);
}

TEST_F(ImagingReadAheadReader, WhatIsForgottenIsReadAnew) {
    MemoryReader memory(randomBytes(ReadAheadReader::kWindowBytes));
    ReadAheadReader const reader(reasons, memory);
    readAt(reader, 0, 100);
    readAt(reader, 100, 100);
    memory.bytes[250] ^= 0xFFU;
    std::uint8_t const old = readAt(reader, 250, 1)[0];
    EXPECT_NE(old, memory.bytes[250]) << "it came from the window";
    reader.forget();
    EXPECT_EQ(readAt(reader, 250, 1)[0], memory.bytes[250]);
}

} // namespace
