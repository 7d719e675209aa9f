// The HFS+ parser when the n-th seek or read goes wrong: the documented error, or the documented bytes, and on it goes.
#include "support/FaultMatrix.h"
#include "support/HfsReference.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <tuple>
#include <vector>

namespace {

using namespace tests;
using testing::ElementsAre;
using testing::IsEmpty;

/// A map in 44 fragments, of which a tree of three levels tells: a header, seven nodes, and the map's own reads.
HfsBuilder makeVolume(std::uint32_t blockSize) {
    HfsGeometry geometry;
    geometry.blockSize = blockSize;
    geometry.totalBlocks = 44 * blockSize * 8;
    geometry.allocationFile = hfsFragments(44, 1, 100);
    geometry.recordsPerNode = 2;
    geometry.otherRecords = {{5, 8, {{50, 1}}}, {17, 8, {{51, 1}}}};
    return HfsBuilder(geometry).fillBitmapAtRandom(31);
}

std::vector<std::uint8_t> headerBytes(HfsBuilder const& builder) {
    auto const header = builder.bytes.begin() + kHfsHeaderOffset;
    return {header, header + kHfsHeaderBytes};
}

/// Its nodes below the root, in the order in which they are visited: two index nodes, then the leaves.
constexpr std::array<std::uint64_t, 6> kNodesInOrder{5, 6, 1, 2, 3, 4};

/// A request over the fragments 10 to 12, and a bit of the 13th.
constexpr std::uint64_t offsetOf(std::uint32_t blockSize) {
    return std::uint64_t{10} * blockSize * 8;
}

constexpr std::uint64_t lengthOf(std::uint32_t blockSize) {
    return std::uint64_t{3} * blockSize + 100;
}

/// Faults in the calls of one request, each in its turn.
class HfsRequestFault : public testing::TestWithParam<FaultAndSize> {
protected:
    /// Gives a check what the parser does when each call of its request goes wrong; how many calls there are.
    template <typename Check>
    unsigned forEachOutcome(Check const& check) {
        // Call 0 is the constructor's.
        return forEachCall(front, fault, 1,
                           [&](FaultyReader const& faulty, unsigned n) {
                               RecordingReader const reader(faulty);
                               RecordingLogger logger;
                               ExposedHfsParser const parser(logger, 512, reader);
                               HfsOutcome const first = request(parser, logger, reader);
                               if (faulty.fired) {
                                   EXPECT_EQ(request(parser, logger, reader), clean)
                                       << "the next is as if nothing had been";
                                   check(first, n - 1);
                               }
                           }) -
               1;
    }

    HfsOutcome request(ExposedHfsParser const& parser, RecordingLogger& logger, RecordingReader const& reader) const {
        logger.entries.clear();
        reader.calls.clear();
        HfsOutcome outcome;
        outcome.buffer.assign(lengthOf(blockSize), kHfsUntouched);
        outcome.result =
            parser.getChunk(offsetOf(blockSize), reinterpret_cast<char*>(outcome.buffer.data()), outcome.buffer.size());
        outcome.entries = logger.entries;
        outcome.calls = reader.calls;
        return outcome;
    }

    Fault fault = std::get<0>(GetParam());
    std::uint32_t blockSize = std::get<1>(GetParam());
    HfsBuilder builder = makeVolume(blockSize);
    MemoryReader volume{builder.bytes};
    HfsFrontReader front{volume};
    HfsOutcome clean = HfsBench(builder).chunk(offsetOf(blockSize), lengthOf(blockSize));
};

TEST_P(HfsRequestFault, GivesWhatTheAccountOfItGives) {
    ASSERT_EQ(clean.result, static_cast<long>(8 * lengthOf(blockSize)));
    unsigned different = 0;
    unsigned const calls = forEachOutcome([&](HfsOutcome const& outcome, unsigned n) {
        FaultyReader const faulty(front, fault, n);
        HfsReference reference(faulty, headerBytes(builder));
        ASSERT_EQ(outcome, reference.chunk(offsetOf(blockSize), lengthOf(blockSize)));
        different += outcome.result != clean.result || outcome.buffer != clean.buffer ? 1U : 0U;
    });
    EXPECT_EQ(calls, clean.calls.size() / 2) << "every call of the request had its turn";
    EXPECT_GE(different, 4U) << "the fault must have shown, in the map's own reads at least";
}

INSTANTIATE_TEST_SUITE_P(Faults, HfsRequestFault, testing::Combine(everyFault(), testing::Values(512U, 4096U)),
                         faultAndSizeName);

/// Faults that are failures.
class HfsRequestFailure : public HfsRequestFault {};

TEST_P(HfsRequestFailure, IsNamedByWhatItHit) {
    std::size_t const reads = clean.calls.size() / 2;
    ASSERT_EQ(reads, 12U) << "a header, seven nodes, four pieces of map";
    unsigned const calls = forEachOutcome([&](HfsOutcome const& outcome, unsigned n) {
        EXPECT_EQ(outcome.result, -1);
        std::vector<LogEntry> expected{hfsSearchEntry()};
        long const offset = clean.calls.at(2 * n).argument;
        if (fault == Fault::ReadFails) {
            expected.push_back(failedReadEntry(offset, clean.calls.at(2 * n + 1).argument));
        }
        if (n < 8) {
            // Several nodes share a block of 4 KiB: the entry names the node, the call its block.
            std::string const address = n < 2 ? "" : std::to_string(builder.nodeOffset(kNodesInOrder[n - 2]));
            expected.push_back(errorEntry(n == 0   ? "Could not read B-Tree header"
                                          : n == 1 ? "Failed to read node descriptor"
                                                   : "Could not read next node at " + address));
            expected.push_back(errorEntry("Couldn't parse extent overflow file for bitmap extents."));
        } else {
            expected.push_back(errorEntry("Error in HFS+ parsing read."));
        }
        expected.push_back(hfsWrapperEntry());
        EXPECT_EQ(outcome.entries, expected);
        EXPECT_EQ(outcome.calls.size(), 2 * n + (fault == Fault::SeekFails ? 1U : 2U)) << "nothing comes after it";
    });
    EXPECT_EQ(calls, reads);
}

INSTANTIATE_TEST_SUITE_P(Faults, HfsRequestFailure,
                         testing::Combine(testing::Values(Fault::SeekFails, Fault::ReadFails),
                                          testing::Values(512U, 4096U)),
                         faultAndSizeName);

class HfsConstructionFault : public testing::TestWithParam<unsigned> {
protected:
    HfsBuilder builder = makeVolume(512);
    MemoryReader volume{builder.bytes};
    HfsFrontReader front{volume};
    RecordingLogger logger;
};

TEST_P(HfsConstructionFault, FailedSeekIsUnreadable) {
    FaultyReader const faulty(front, Fault::SeekFails, 0);
    EXPECT_THAT([&] { ExposedHfsParser(logger, GetParam(), faulty); },
                testing::ThrowsMessage<std::runtime_error>(testing::StrEq("Error reading HFS+ superblock.")));
    EXPECT_THAT(logger.entries, IsEmpty()) << "a seek that fails is the reader's to report";
}

TEST_P(HfsConstructionFault, FailedReadIsUnreadable) {
    FaultyReader const faulty(front, Fault::ReadFails, 0);
    EXPECT_THAT([&] { ExposedHfsParser(logger, GetParam(), faulty); },
                testing::ThrowsMessage<std::runtime_error>(testing::StrEq("Error reading HFS+ superblock.")));
    EXPECT_THAT(logger.entries, ElementsAre(failedReadEntry(0, GetParam())));
}

TEST_P(HfsConstructionFault, EmptyReadIsAnotherFileSystem) {
    FaultyReader const faulty(front, Fault::ReadEmpty, 0);
    EXPECT_THAT([&] { ExposedHfsParser(logger, GetParam(), faulty); },
                testing::ThrowsMessage<std::runtime_error>(testing::StrEq("Not an HFS+ filesystem.")));
    EXPECT_THAT(logger.entries, IsEmpty());
}

TEST_P(HfsConstructionFault, HalfARead) {
    // Half of 512 bytes holds the map's fork and the first extents of the tree's; half of 4096 holds everything.
    FaultyReader const faulty(front, Fault::ReadShort, 0);
    ExposedHfsParser const parser(logger, GetParam(), faulty);
    ASSERT_TRUE(faulty.fired);
    std::vector<char> buffer(600);
    EXPECT_EQ(parser.getChunk(0, buffer.data(), buffer.size()), 4800);
    EXPECT_THAT(logger.entries, ElementsAre(hfsSearchEntry()));
}

TEST_P(HfsConstructionFault, AfterAFailureTheSameReaderServesANewParser) {
    for (Fault const fault : {Fault::SeekFails, Fault::ReadFails, Fault::ReadEmpty}) {
        FaultyReader const faulty(front, fault, 0);
        EXPECT_THROW(ExposedHfsParser(logger, GetParam(), faulty), std::runtime_error);
        ExposedHfsParser const second(logger, GetParam(), faulty);
        char buffer = 0;
        EXPECT_EQ(second.getChunk(0, &buffer, 1), 8);
    }
}

INSTANTIATE_TEST_SUITE_P(Alignments, HfsConstructionFault, testing::Values(512U, 4096U),
                         [](auto const& instance) { return "By" + std::to_string(instance.param); });

TEST(HfsConstructionShort, VolumeThatEndsAnywhereInTheHeader) {
    std::vector<std::uint8_t> const whole = headerBytes(makeVolume(512));
    for (std::size_t length = 0; length <= whole.size(); ++length) {
        MemoryReader const cut({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)});
        RecordingLogger logger;
        if (length < 2) { // the signature's end
            EXPECT_THAT([&] { ExposedHfsParser(logger, 512, cut); },
                        testing::ThrowsMessage<std::runtime_error>(testing::StrEq("Not an HFS+ filesystem.")))
                << length;
            continue;
        }
        // What is missing is 0. No number of blocks: no map. Then no map file; then one that needs its tree.
        ExposedHfsParser const parser(logger, 512, cut);
        char byte = 0x55;
        long const result = parser.getChunk(0, &byte, 1);
        EXPECT_EQ(byte, 0x55) << length;
        if (length < 128) {
            EXPECT_EQ(result, 0) << length;
            EXPECT_THAT(logger.entries, IsEmpty());
        } else {
            EXPECT_EQ(result, -1) << length;
            ASSERT_EQ(logger.entries.size(), 4U);
            EXPECT_EQ(logger.entries, hfsFailedSearchEntries(logger.entries[1].text));
        }
    }
}

} // namespace
