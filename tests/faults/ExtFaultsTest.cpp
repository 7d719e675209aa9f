// The ext parser when the n-th seek or read goes wrong: the documented error, or the documented zeros, and on it goes.
#include "support/ExtRun.h"
#include "support/FaultMatrix.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

namespace {

using namespace tests;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t kChunkBytes = 8192; // eight groups and a bit, so that a walk has three calls
constexpr std::uint64_t kTableOffset = 2048;
constexpr std::uint64_t kBitmapBytes = 1024;

/// 24 groups, so that half of the table's read leaves descriptors out; the boot block, which a descriptor of zeros
/// leads to, is zero.
ExtBuilder makeVolume() {
    ExtGeometry geometry;
    geometry.blocksCount = 1 + 23 * 8192 + 5000;
    ExtBuilder builder = ExtBuilder(geometry).fillBitmapsAtRandom(21);
    builder.resize(32768); // whole units of either alignment
    return builder;
}

/// One request of a clean walk.
struct Step {
    std::uint64_t start;
    ExtOutcome outcome;
};

std::vector<Step> cleanWalk(ExtBuilder const& builder, unsigned alignment) {
    ExtBench bench(builder, alignment);
    std::vector<Step> steps;
    for (std::uint64_t start = 0;;) {
        steps.push_back({start, bench.chunk(start, kChunkBytes)});
        if (steps.back().outcome.result <= 0) {
            return steps;
        }
        start += static_cast<std::uint64_t>(steps.back().outcome.result);
    }
}

/// Each seek-and-read pair of a walk in its order: the step it belongs to, and its place there (0 is the table).
struct Access {
    std::size_t step;
    std::size_t place;
    long offset;
    long size;
};

std::vector<Access> accessesOf(std::vector<Step> const& steps) {
    std::vector<Access> accesses;
    for (std::size_t step = 0; step < steps.size(); ++step) {
        auto const& calls = steps[step].outcome.calls;
        for (std::size_t i = 0; i < calls.size(); i += 2) {
            accesses.push_back({step, i / 2, calls.at(i).argument, calls.at(i + 1).argument});
        }
    }
    return accesses;
}

/// What a read of `length` bytes at `offset` leaves in `destination` when the volume delivers what the fault lets it:
/// that many bytes, counted from the unit's start, are replaced, those not delivered by zeros.
void deliver(ExtBuilder const& builder, std::uint64_t alignment, std::uint64_t offset, std::optional<Fault> fault,
             std::vector<std::uint8_t>& destination) {
    std::uint64_t const lead = offset % alignment;
    std::uint64_t const size = (lead + destination.size() + alignment - 1) / alignment * alignment;
    std::uint64_t delivered = size;
    if (fault) {
        delivered = *fault == Fault::ReadEmpty ? 0 : size / 2;
    }
    for (std::uint64_t i = 0; i < std::min<std::uint64_t>(delivered, destination.size()); ++i) {
        destination[i] = lead + i < delivered ? builder.bytes.at(offset + i) : std::uint8_t{0};
    }
}

/// The chunk's bits when the read at `place` of its call came short or empty.
std::vector<bool> bitsWithShortRead(ExtBuilder const& builder, std::uint64_t alignment, Step const& step,
                                    std::size_t place, Fault fault) {
    auto const faultAt = [&](std::size_t here) { return here == place ? std::optional(fault) : std::nullopt; };
    std::vector<std::uint8_t> table(builder.geometry().groups() * 32);
    deliver(builder, alignment, kTableOffset, faultAt(0), table);
    std::vector<std::uint8_t> bitmap(kBitmapBytes);
    std::vector<bool> bits(static_cast<std::uint64_t>(step.outcome.result));
    std::size_t here = 0;
    std::optional<std::uint64_t> loaded;
    for (std::uint64_t i = step.start == 0 ? 1 : 0; i < bits.size(); ++i) {
        std::uint64_t const block = step.start + i;
        std::uint64_t const group = builder.geometry().groupOf(block);
        if (loaded != group) {
            deliver(builder, alignment, std::uint64_t{table.at(group * 32)} * 1024, faultAt(++here), bitmap);
            loaded = group;
        }
        bits[i] = bitAt(bitmap, (block - 1) % 8192);
    }
    return bits;
}

/// A call of the walk goes wrong in a way that ends the request.
class ExtWalkFailure : public testing::TestWithParam<FaultAndSize> {};

TEST_P(ExtWalkFailure, IsNamedOnceAndTheNextRequestSucceeds) {
    Fault const fault = std::get<0>(GetParam());
    unsigned const alignment = std::get<1>(GetParam());
    ExtBuilder const builder = makeVolume();
    MemoryReader const volume = builder.reader();
    auto const steps = cleanWalk(builder, alignment);
    auto const accesses = accessesOf(steps);
    ASSERT_EQ(steps.size(), 4U);
    // Call 0 is the constructor's.
    unsigned const calls = forEachCall(volume, fault, 1, [&](FaultyReader const& faulty, unsigned n) {
        RecordingLogger logger;
        ExposedExtParser const parser(logger, alignment, faulty);
        for (std::size_t at = 0; at < steps.size(); ++at) {
            std::vector<std::uint8_t> buffer(kChunkBytes, 0xAA);
            auto* const place = reinterpret_cast<char*>(buffer.data());
            bool const before = faulty.fired;
            long result = parser.getChunk(steps[at].start, place, buffer.size());
            if (faulty.fired != before) {
                Access const& access = accesses.at(n - 1);
                ASSERT_EQ(access.step, at);
                EXPECT_EQ(result, -1);
                std::vector<LogEntry> expected;
                if (fault == Fault::ReadFails) {
                    expected.push_back(failedReadEntry(access.offset, access.size));
                }
                expected.push_back(errorEntry(access.place == 0 ? "Can't read bgd table" : "Can't read bitmap"));
                expected.push_back(extWrapperEntry());
                EXPECT_EQ(logger.entries, expected);
                logger.entries.clear();
                result = parser.getChunk(steps[at].start, place, buffer.size());
            }
            ASSERT_EQ(result, steps[at].outcome.result);
            ASSERT_EQ(buffer, steps[at].outcome.buffer);
            ASSERT_THAT(logger.entries, IsEmpty());
        }
    });
    EXPECT_EQ(calls, 1 + accesses.size()) << "every call of the walk had its turn";
}

INSTANTIATE_TEST_SUITE_P(Faults, ExtWalkFailure,
                         testing::Combine(testing::Values(Fault::SeekFails, Fault::ReadFails),
                                          testing::Values(512U, 4096U)),
                         faultAndSizeName);

/// A read of the walk delivers less, which is no failure: zeros, or the bits that were there.
class ExtWalkShortRead : public testing::TestWithParam<FaultAndSize> {};

TEST_P(ExtWalkShortRead, GivesTheDocumentedBitsAndTheNextRequestTheTrueOnes) {
    Fault const fault = std::get<0>(GetParam());
    unsigned const alignment = std::get<1>(GetParam());
    ExtBuilder const builder = makeVolume();
    MemoryReader const volume = builder.reader();
    auto const steps = cleanWalk(builder, alignment);
    auto const accesses = accessesOf(steps);
    unsigned changed = 0;
    unsigned const calls = forEachCall(volume, fault, 1, [&](FaultyReader const& faulty, unsigned n) {
        RecordingLogger logger;
        ExposedExtParser const parser(logger, alignment, faulty);
        for (std::size_t at = 0; at < steps.size(); ++at) {
            Step const& step = steps[at];
            std::vector<std::uint8_t> buffer(kChunkBytes, 0xAA);
            auto* const place = reinterpret_cast<char*>(buffer.data());
            bool const before = faulty.fired;
            ASSERT_EQ(parser.getChunk(step.start, place, buffer.size()), step.outcome.result);
            if (faulty.fired != before) {
                Access const& access = accesses.at(n - 1);
                ASSERT_EQ(access.step, at);
                auto const expected = bitsWithShortRead(builder, alignment, step, access.place, fault);
                ASSERT_EQ(bitsOf(buffer, step.outcome.result), expected);
                changed += buffer != step.outcome.buffer ? 1U : 0U;
                ASSERT_EQ(parser.getChunk(step.start, place, buffer.size()), step.outcome.result);
            }
            ASSERT_EQ(buffer, step.outcome.buffer);
        }
        ASSERT_THAT(logger.entries, IsEmpty()) << "the reader reports short reads, not the parser";
    });
    EXPECT_EQ(calls, 1 + accesses.size()) << "every read of the walk had its turn";
    EXPECT_GT(changed, 10U) << "the fault must have shown";
}

INSTANTIATE_TEST_SUITE_P(Faults, ExtWalkShortRead,
                         testing::Combine(testing::Values(Fault::ReadShort, Fault::ReadEmpty),
                                          testing::Values(512U, 4096U)),
                         faultAndSizeName);

class ExtConstructionFault : public testing::TestWithParam<unsigned> {};

TEST_P(ExtConstructionFault, FailedSeekIsUnreadable) {
    MemoryReader const volume = makeVolume().reader();
    FaultyReader const faulty(volume, Fault::SeekFails, 0);
    RecordingLogger logger;
    EXPECT_THAT([&] { ExposedExtParser(logger, GetParam(), faulty); },
                testing::ThrowsMessage<std::runtime_error>(testing::StrEq("Could not read EXT super block.")));
    EXPECT_THAT(logger.entries, IsEmpty()) << "a seek that fails is the reader's to report";
}

TEST_P(ExtConstructionFault, FailedReadIsUnreadable) {
    MemoryReader const volume = makeVolume().reader();
    FaultyReader const faulty(volume, Fault::ReadFails, 0);
    RecordingLogger logger;
    EXPECT_THAT([&] { ExposedExtParser(logger, GetParam(), faulty); },
                testing::ThrowsMessage<std::runtime_error>(testing::StrEq("Could not read EXT super block.")));
    EXPECT_THAT(logger.entries,
                ElementsAre(GetParam() == 512 ? failedReadEntry(1024, 1024) : failedReadEntry(0, 4096)));
}

TEST_P(ExtConstructionFault, EmptyReadIsAnotherFileSystem) {
    MemoryReader const volume = makeVolume().reader();
    FaultyReader const faulty(volume, Fault::ReadEmpty, 0);
    RecordingLogger logger;
    EXPECT_THAT([&] { ExposedExtParser(logger, GetParam(), faulty); },
                testing::ThrowsMessage<std::runtime_error>(testing::StrEq("Not an EXT filesystem.")));
    EXPECT_THAT(logger.entries, IsEmpty());
}

TEST_P(ExtConstructionFault, HalfARead) {
    // Half of 1024 bytes, or of a unit of 4096, still holds every field of use: the parser is whole.
    ExtBuilder const builder = makeVolume();
    MemoryReader const volume = builder.reader();
    FaultyReader const faulty(volume, Fault::ReadShort, 0);
    RecordingLogger logger;
    ExposedExtParser const parser(logger, GetParam(), faulty);
    EXPECT_TRUE(faulty.fired);
    std::vector<std::uint8_t> buffer(builder.geometry().blocksCount / 8 + 1);
    long const result = parser.getChunk(0, reinterpret_cast<char*>(buffer.data()), buffer.size());
    EXPECT_EQ(bitsOf(buffer, result), builder.map());
    EXPECT_THAT(logger.entries, IsEmpty());
}

TEST_P(ExtConstructionFault, AfterAFailureTheSameReaderServesANewParser) {
    ExtBuilder const builder = makeVolume();
    MemoryReader const volume = builder.reader();
    for (Fault const fault : {Fault::SeekFails, Fault::ReadFails, Fault::ReadEmpty}) {
        FaultyReader const faulty(volume, fault, 0);
        RecordingLogger logger;
        EXPECT_THROW(ExposedExtParser(logger, GetParam(), faulty), std::runtime_error);
        ExposedExtParser const second(logger, GetParam(), faulty);
        char buffer = 0;
        EXPECT_EQ(second.getChunk(0, &buffer, 1), 8);
    }
}

INSTANTIATE_TEST_SUITE_P(Alignments, ExtConstructionFault, testing::Values(512U, 4096U),
                         [](auto const& instance) { return "By" + std::to_string(instance.param); });

TEST(ExtConstructionShort, VolumeThatEndsAnywhereInTheSuperblock) {
    ExtBuilder const whole = makeVolume();
    for (std::uint64_t length = 0; length <= 1024; ++length) {
        ExtBuilder cut = whole;
        cut.resize(kExtSuperBlockOffset + length);
        if (length < 0x3A) { // the magic's end
            EXPECT_THAT([&] { ExtBench bench(cut); },
                        testing::ThrowsMessage<std::runtime_error>(testing::StrEq("Not an EXT filesystem.")))
                << length;
            continue;
        }
        // All descriptors and bitmaps are missing: zeros throughout, and the end where it always was.
        ExtBench bench(cut);
        ExtOutcome const outcome = bench.chunk(whole.geometry().blocksCount - 8, 4);
        EXPECT_EQ(outcome.result, 8) << length;
        EXPECT_THAT(outcome.buffer, testing::Each(0)) << length;
    }
}

} // namespace
