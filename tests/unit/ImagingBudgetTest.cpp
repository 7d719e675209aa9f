// Readers that bound, keep and count what is read.
#include "imaging/BudgetReader.h"
#include "imaging/CachingReader.h"
#include "imaging/CountingReader.h"
#include "support/Readers.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>

namespace {

using namespace tests;
using imaging::Budget;
using imaging::BudgetReader;
using imaging::CachingReader;
using imaging::CountingReader;
using testing::ElementsAre;

std::vector<std::uint8_t> randomBytes(std::size_t size) {
    std::vector<std::uint8_t> bytes(size);
    std::mt19937 generator(11);
    std::generate(bytes.begin(), bytes.end(), [&generator] { return static_cast<std::uint8_t>(generator()); });
    return bytes;
}

std::vector<std::uint8_t> readAt(agent::core::IVolumeReader const& reader, std::uint64_t offset, std::size_t length) {
    std::vector<std::uint8_t> bytes(length);
    EXPECT_EQ(reader.seek(static_cast<long>(offset), SEEK_SET), static_cast<long>(offset));
    long const count = reader.read(bytes.data(), static_cast<long>(length));
    EXPECT_GE(count, 0);
    bytes.resize(static_cast<std::size_t>(std::max(count, 0L)));
    return bytes;
}

TEST(ImagingBudgetReader, RefusesEveryReadOnceSoManyWereMade) {
    MemoryReader const memory(randomBytes(4096));
    RecordingLogger logger;
    Budget budget;
    budget.reads = 3;
    BudgetReader const reader(logger, memory, budget);
    std::array<char, 16> buffer{};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(reader.read(buffer.data(), 16), 16);
    }
    EXPECT_EQ(reader.spent(), "");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(reader.read(buffer.data(), 16), -1);
    }
    EXPECT_EQ(reader.spent(), "after 3 reads");
    EXPECT_THAT(logger.entries, ElementsAre(errorEntry("The volume is read no further after 3 reads"))) << "once";
    EXPECT_EQ(reader.seek(7, SEEK_SET), 7) << "seeking costs nothing";
}

TEST(ImagingBudgetReader, RefusesReadsOnceSoManyBytesCame) {
    MemoryReader const memory(randomBytes(4096));
    RecordingLogger logger;
    Budget budget;
    budget.bytes = 100;
    BudgetReader const reader(logger, memory, budget);
    std::array<char, 64> buffer{};
    EXPECT_EQ(reader.read(buffer.data(), 64), 64);
    EXPECT_EQ(reader.read(buffer.data(), 64), 64) << "the one that reaches the limit is still made";
    EXPECT_EQ(reader.read(buffer.data(), 1), -1);
    EXPECT_EQ(reader.spent(), "after 128 bytes");
}

TEST(ImagingBudgetReader, RefusesReadsOnceTheTimeIsUp) {
    MemoryReader const memory(randomBytes(4096));
    RecordingLogger logger;
    Budget budget;
    budget.time = std::chrono::seconds(0);
    BudgetReader const reader(logger, memory, budget);
    char byte = 0;
    EXPECT_EQ(reader.read(&byte, 1), -1);
    EXPECT_EQ(reader.spent(), "after 0 seconds");
}

TEST(ImagingBudgetReader, PassesFailuresAndShortReadsOn) {
    MemoryReader const memory(randomBytes(10));
    RecordingLogger logger;
    BudgetReader const reader(logger, memory, {});
    std::array<char, 64> buffer{};
    EXPECT_EQ(reader.read(buffer.data(), 64), 10);
    EXPECT_EQ(reader.read(buffer.data(), 64), 0);
    FaultyReader const faulty(memory, Fault::ReadFails, 0);
    BudgetReader const failing(logger, faulty, {});
    EXPECT_EQ(failing.read(buffer.data(), 64), -1);
    EXPECT_EQ(failing.spent(), "");
    EXPECT_THAT(logger.entries, testing::IsEmpty());
}

TEST(ImagingCachingReader, AnyStretchIsWhatTheVolumeHolds) {
    MemoryReader const memory(randomBytes(5 * CachingReader::kPageBytes + 1234));
    for (std::size_t const pages : {1U, 2U, 100U}) {
        CachingReader const reader(memory, pages);
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

TEST(ImagingCachingReader, PagesThatAreKeptAreNotReadAgain) {
    MemoryReader const memory(randomBytes(4 * CachingReader::kPageBytes));
    CountingReader const counted(memory);
    CachingReader const reader(counted, 2);
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

/// A volume with one byte that cannot be read.
class BrokenByteReader : public MemoryReader {
public:
    BrokenByteReader(std::vector<std::uint8_t> content, std::uint64_t broken)
        : MemoryReader(std::move(content)), broken_(broken) {}

    long seek(long offset, int whence) const override {
        position_ = static_cast<std::uint64_t>(offset);
        return MemoryReader::seek(offset, whence);
    }
    long read(void* buffer, long length) const override {
        bool const isHit = position_ <= broken_ && broken_ - position_ < static_cast<std::uint64_t>(length);
        return isHit ? -1 : MemoryReader::read(buffer, length);
    }

private:
    std::uint64_t broken_;
    mutable std::uint64_t position_ = 0;
};

TEST(ImagingCachingReader, WhatIsBesideABrokenPlaceCanBeRead) {
    BrokenByteReader const volume(randomBytes(2 * CachingReader::kPageBytes), 1000);
    CachingReader const reader(volume, 4);
    EXPECT_EQ(readAt(reader, 512, 488), std::vector(volume.bytes.begin() + 512, volume.bytes.begin() + 1000));
    EXPECT_EQ(readAt(reader, 1001, 10), std::vector(volume.bytes.begin() + 1001, volume.bytes.begin() + 1011));
    char byte = 0;
    ASSERT_EQ(reader.seek(1000, SEEK_SET), 1000);
    EXPECT_EQ(reader.read(&byte, 1), -1) << "the broken byte itself";
    EXPECT_EQ(reader.seek(0, SEEK_END), -1);
}

TEST(ImagingCachingReader, AFailureIsNotKept) {
    MemoryReader const memory(randomBytes(CachingReader::kPageBytes));
    FaultyReader const faulty(memory, Fault::ReadFails, 0);
    CachingReader const reader(faulty, 4);
    char byte = 0;
    ASSERT_EQ(reader.seek(5, SEEK_SET), 5);
    EXPECT_EQ(reader.read(&byte, 1), 1) << "the page fails, and the byte does not";
    EXPECT_EQ(static_cast<std::uint8_t>(byte), memory.bytes[5]);
}

TEST(ImagingCountingReader, CountsWhatPassesThrough) {
    MemoryReader const memory(randomBytes(100));
    CountingReader const reader(memory);
    EXPECT_EQ(readAt(reader, 90, 50).size(), 10U);
    EXPECT_EQ(readAt(reader, 0, 50).size(), 50U);
    EXPECT_EQ(reader.seeks(), 2U);
    EXPECT_EQ(reader.reads(), 2U);
    EXPECT_EQ(reader.bytes(), 60U);
}

} // namespace
