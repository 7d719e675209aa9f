// The readers that imaging stacks: each wraps another and does one thing.
#include "imaging/AligningReader.h"
#include "imaging/SliceReader.h"
#include "imaging/hfs/HeaderFirstReader.h"
#include "support/Readers.h"

#include <gtest/gtest.h>
#include <numeric>
#include <random>

namespace {

using namespace tests;
using imaging::AligningReader;
using imaging::SliceReader;

std::vector<std::uint8_t> numbered(std::size_t size) {
    std::vector<std::uint8_t> bytes(size);
    std::mt19937 generator(7);
    std::generate(bytes.begin(), bytes.end(), [&generator] { return static_cast<std::uint8_t>(generator()); });
    return bytes;
}

/// Refuses what direct I/O refuses.
class DirectReader : public agent::core::IVolumeReader {
public:
    DirectReader(std::vector<std::uint8_t> const& bytes, std::uint64_t alignment)
        : memory_(bytes), alignment_(alignment) {}

    long read(void* buffer, long length) const override {
        auto const odd = reinterpret_cast<std::uintptr_t>(buffer) | static_cast<std::uint64_t>(length);
        return odd % alignment_ != 0 ? -1 : memory_.read(buffer, length);
    }
    long seek(long offset, int whence) const override {
        return static_cast<std::uint64_t>(offset) % alignment_ != 0 ? -1 : memory_.seek(offset, whence);
    }

private:
    MemoryReader memory_;
    std::uint64_t alignment_;
};

std::vector<std::uint8_t> readFrom(agent::core::IVolumeReader const& reader, std::uint64_t offset, std::size_t length) {
    std::vector<std::uint8_t> bytes(length);
    EXPECT_EQ(reader.seek(static_cast<long>(offset), SEEK_SET), static_cast<long>(offset));
    long const count = reader.read(bytes.data(), static_cast<long>(length));
    EXPECT_GE(count, 0);
    bytes.resize(static_cast<std::size_t>(std::max(count, 0L)));
    return bytes;
}

std::vector<std::uint8_t> part(std::vector<std::uint8_t> const& bytes, std::size_t offset, std::size_t length) {
    std::size_t const start = std::min(offset, bytes.size());
    std::size_t const end = std::min(start + length, bytes.size());
    return {bytes.begin() + static_cast<std::ptrdiff_t>(start), bytes.begin() + static_cast<std::ptrdiff_t>(end)};
}

TEST(ImagingAligningReader, AnyStretchCanBeReadFromAnAlignedDevice) {
    for (std::uint64_t const alignment : {512U, 4096U}) {
        std::vector<std::uint8_t> const bytes = numbered(5 * 4096);
        DirectReader const device(bytes, alignment);
        AligningReader const reader(device, alignment);
        std::mt19937 generator(1);
        for (int i = 0; i < 2000; ++i) {
            std::size_t const offset = generator() % bytes.size();
            std::size_t const length = 1 + generator() % 9000;
            ASSERT_EQ(readFrom(reader, offset, length), part(bytes, offset, length)) << offset << " " << length;
        }
    }
}

TEST(ImagingAligningReader, ConsecutiveReadsGoOnWhereTheLastOneEnded) {
    std::vector<std::uint8_t> const bytes = numbered(20000);
    DirectReader const device(bytes, 512);
    AligningReader const reader(device, 512);
    ASSERT_EQ(reader.seek(100, SEEK_SET), 100);
    std::vector<std::uint8_t> all;
    for (std::size_t length : {1U, 411U, 512U, 513U, 3000U, 20000U}) {
        std::vector<std::uint8_t> piece(length);
        long const count = reader.read(piece.data(), static_cast<long>(length));
        ASSERT_GE(count, 0);
        all.insert(all.end(), piece.begin(), piece.begin() + count);
    }
    EXPECT_EQ(all, part(bytes, 100, bytes.size()));
}

TEST(ImagingAligningReader, WhatIsAlignedPassesStraightThrough) {
    MemoryReader const memory(numbered(16384));
    RecordingReader const recorded(memory);
    AligningReader const reader(recorded, 4096);
    alignas(4096) std::array<std::uint8_t, 8192> buffer{};
    ASSERT_EQ(reader.seek(4096, SEEK_SET), 4096);
    ASSERT_EQ(reader.read(buffer.data(), 8192), 8192);
    ASSERT_EQ(reader.read(buffer.data(), 4096), 4096);
    EXPECT_EQ(recorded.calls, (std::vector{seekCall(4096), readCall(8192), readCall(4096)}));
}

TEST(ImagingAligningReader, LargeReadsAreWidenedInPieces) {
    MemoryReader const memory(numbered((3 << 20) + 700));
    RecordingReader const recorded(memory);
    AligningReader const reader(recorded, 512);
    EXPECT_EQ(readFrom(reader, 1, 3 << 20), part(memory.bytes, 1, 3 << 20));
    for (ReaderCall const& call : recorded.calls) {
        EXPECT_EQ(call.argument % 512, 0);
        EXPECT_LE(call.argument, 3 << 20);
    }
}

TEST(ImagingAligningReader, FailuresAndTheEndArePassedOn) {
    MemoryReader const memory(numbered(1000));
    AligningReader const whole(memory, 512);
    EXPECT_EQ(readFrom(whole, 990, 100).size(), 10U);
    EXPECT_EQ(readFrom(whole, 1000, 100).size(), 0U);
    EXPECT_EQ(readFrom(whole, 5000, 100).size(), 0U);
    EXPECT_EQ(whole.seek(0, SEEK_END), -1);
    EXPECT_EQ(whole.seek(-1, SEEK_SET), -1);
    for (Fault const fault : {Fault::SeekFails, Fault::ReadFails}) {
        FaultyReader const faulty(memory, fault, 0);
        AligningReader const reader(faulty, 512);
        std::array<char, 10> buffer{};
        bool const sought = reader.seek(7, SEEK_SET) == 7;
        EXPECT_EQ(sought, fault == Fault::ReadFails);
        EXPECT_EQ(reader.read(buffer.data(), 10), fault == Fault::ReadFails ? -1 : 10);
    }
}

TEST(ImagingSliceReader, ShowsItsPartAndNothingElse) {
    MemoryReader const memory(numbered(5000));
    SliceReader slice(memory, 1000, 2500);
    EXPECT_EQ(slice.size(), 2500);
    EXPECT_EQ(readFrom(slice, 0, 100), part(memory.bytes, 1000, 100));
    EXPECT_EQ(readFrom(slice, 2400, 1000), part(memory.bytes, 3400, 100));
    EXPECT_EQ(readFrom(slice, 2500, 10).size(), 0U);
    EXPECT_EQ(readFrom(slice, 4000, 10).size(), 0U);
    EXPECT_EQ(readFrom(slice, 10, 10), part(memory.bytes, 1010, 10)) << "usable after the end was reached";
    EXPECT_EQ(slice.seek(0, SEEK_CUR), -1);
    EXPECT_EQ(slice.seek(-5, SEEK_SET), -1);
}

TEST(ImagingSliceReader, PassesFailuresOn) {
    MemoryReader const memory(numbered(5000));
    FaultyReader const faulty(memory, Fault::ReadFails, 0);
    SliceReader const slice(faulty, 1000, 2500);
    std::array<char, 10> buffer{};
    ASSERT_EQ(slice.seek(0, SEEK_SET), 0);
    EXPECT_EQ(slice.read(buffer.data(), 10), -1);
}

TEST(ImagingHeaderFirstReader, ShowsTheHeaderInPlaceOfTheFirstBytes) {
    MemoryReader const memory(numbered(4096));
    std::array<std::uint8_t, imaging::hfs::kHeaderBytes> header{};
    std::iota(header.begin(), header.end(), std::uint8_t{1});
    imaging::hfs::HeaderFirstReader const reader(memory, header);
    std::vector<std::uint8_t> expected = memory.bytes;
    std::copy(header.begin(), header.end(), expected.begin());
    std::mt19937 generator(3);
    for (int i = 0; i < 1000; ++i) {
        std::size_t const offset = generator() % 1500;
        std::size_t const length = 1 + generator() % 3000;
        ASSERT_EQ(readFrom(reader, offset, length), part(expected, offset, length)) << offset << " " << length;
    }
    EXPECT_EQ(readFrom(reader, 1024, 512), part(memory.bytes, 1024, 512)) << "where the header itself lies";
}

} // namespace
