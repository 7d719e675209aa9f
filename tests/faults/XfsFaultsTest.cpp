// The XFS parser when the n-th seek or read goes wrong: the documented error, or the documented zeros, and on it goes.
#include "support/FaultMatrix.h"
#include "support/XfsRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <tuple>
#include <vector>

namespace {

using namespace tests;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t kStart = 400;
constexpr std::uint64_t kBytes = 40; // blocks 400 to 719: of two groups

/// Two groups with trees of two and of three levels, and free lists.
XfsBuilder makeVolume() {
    XfsBuilder builder;
    builder.plantTree(0, {{100, 5}, {410, 20}, {450, 7}, {480, 10}}, {2, 2, 4});
    builder.setFreeList(0, 0, {402, 403});
    builder.plantTree(1, {{5, 20}, {40, 2}, {60, 30}, {120, 9}, {150, 100}}, {2, 2, 300});
    return builder.setFreeList(1, 5, {30, 31, 32});
}

/// What a read of the walk is for.
enum class Part { Header, List, NodeHeader, NodeRecords, NodeChildren };

/// The parts in the order of the reads, told from the trace and the calls of a clean walk.
std::vector<Part> partsOf(XfsOutcome const& outcome) {
    std::vector<Part> parts;
    bool isLeaf = false;
    for (LogEntry const& entry : outcome.entries) {
        if (entry.text.starts_with("fsi addr")) {
            parts.push_back(Part::Header);
        } else if (entry.text.starts_with("agfl addr")) {
            parts.push_back(Part::List);
        } else if (entry.text.starts_with("btn addr")) {
            parts.insert(parts.end(), {Part::NodeHeader, Part::NodeRecords});
        } else if (entry.text.starts_with("level ")) {
            isLeaf = entry.text == "level 0";
            if (!isLeaf) {
                parts.push_back(Part::NodeChildren);
            }
        }
    }
    return parts;
}

/// The entries of a part that cannot be read, without those of the trace.
std::vector<LogEntry> causeOf(Part part) {
    static std::map<Part, std::vector<LogEntry>> const causes{
        {Part::Header, {errorEntry("Can't read fsi block.")}},
        {Part::List, {}}, // it has no message of its own
        {Part::NodeHeader, {errorEntry("XFS: cannot read btree node header")}},
        {Part::NodeRecords, {errorEntry("XFS: Can't read records in btree node.")}},
        {Part::NodeChildren, {errorEntry("XFS: Can't read children in btree node.")}}};
    std::vector<LogEntry> entries = causes.at(part);
    entries.push_back(xfsWrapperEntry());
    return entries;
}

std::vector<LogEntry> withoutTrace(std::vector<LogEntry> const& entries) {
    std::vector<LogEntry> rest;
    std::copy_if(entries.begin(), entries.end(), std::back_inserter(rest),
                 [](LogEntry const& entry) { return entry.level != agent::info::Level::Debug; });
    return rest;
}

/// A request on a reader of which one call goes wrong.
struct FaultyRun {
    FaultyRun(FaultyReader const& faulty, unsigned alignment, XfsTrace trace = XfsTrace::On)
        : reader(faulty), logger(trace), parser(logger, alignment, reader) {}

    XfsOutcome chunk() {
        logger.entries.clear();
        reader.calls.clear();
        XfsOutcome outcome;
        outcome.buffer.assign(kBytes, 0xAA);
        outcome.result = parser.getChunk(kStart, reinterpret_cast<char*>(outcome.buffer.data()), kBytes);
        outcome.entries = logger.entries;
        outcome.calls = reader.calls;
        return outcome;
    }

    RecordingReader reader;
    XfsLogger logger;
    ExposedXfsParser parser;
};

class XfsChunkFailure : public testing::TestWithParam<FaultAndSize> {};

TEST_P(XfsChunkFailure, IsNamedOnceAndTheNextRequestSucceeds) {
    Fault const fault = std::get<0>(GetParam());
    unsigned const alignment = std::get<1>(GetParam());
    MemoryReader const volume = makeVolume().reader();
    XfsOutcome const clean = XfsBench(makeVolume(), alignment).chunk(kStart, kBytes);
    ASSERT_EQ(clean.result, 320);
    std::vector<Part> const parts = partsOf(clean);
    ASSERT_EQ(parts.size() * 2, clean.calls.size());
    // Call 0 is the constructor's.
    unsigned const all = forEachCall(volume, fault, 1, [&](FaultyReader const& faulty, unsigned n) {
        FaultyRun run(faulty, alignment);
        XfsOutcome const outcome = run.chunk();
        if (!faulty.fired) {
            EXPECT_EQ(outcome, clean);
            return;
        }
        EXPECT_EQ(outcome.result, -1);
        EXPECT_EQ(withoutTrace(outcome.entries), causeOf(parts.at(n - 1)));
        // Nothing is asked for after the call that failed.
        std::size_t const calls = (n - 1) * 2 + (fault == Fault::SeekFails ? 1 : 2);
        EXPECT_EQ(outcome.calls, std::vector(clean.calls.begin(), clean.calls.begin() + static_cast<long>(calls)));
        bool const isRead = fault == Fault::ReadFails;
        LogEntry const entry =
            failedReadEntry(clean.calls.at((n - 1) * 2).argument, clean.calls.at((n - 1) * 2 + 1).argument);
        EXPECT_THAT(outcome.entries, testing::Contains(entry).Times(isRead ? 1 : 0));
        EXPECT_EQ(run.chunk(), clean);

        FaultyReader const again(volume, fault, n);
        FaultyRun quiet(again, alignment, XfsTrace::Off);
        XfsOutcome const untraced = quiet.chunk();
        EXPECT_EQ(untraced.calls, outcome.calls);
        EXPECT_EQ(untraced.entries, withoutTrace(outcome.entries));
    });
    EXPECT_EQ(all, 1 + parts.size()) << "every call of the chunk had its turn";
}

INSTANTIATE_TEST_SUITE_P(Faults, XfsChunkFailure,
                         testing::Combine(testing::Values(Fault::SeekFails, Fault::ReadFails),
                                          testing::Values(8U, 512U, 4096U)),
                         faultAndSizeName);

/// What the volume looks like to the read with the number `n` (of a chunk, from 0) when it comes short: the slow way,
/// by a copy of the volume that lacks what was not delivered. Every read of a chunk has its own bytes where units are
/// small; a node's records are read again by no other.
class XfsChunkShortRead : public testing::TestWithParam<FaultAndSize> {};

TEST_P(XfsChunkShortRead, ReadsAsZerosAndTheNextRequestIsWhole) {
    Fault const fault = std::get<0>(GetParam());
    unsigned const alignment = std::get<1>(GetParam());
    XfsBuilder const good = makeVolume();
    MemoryReader const volume = good.reader();
    XfsOutcome const clean = XfsBench(good, alignment).chunk(kStart, kBytes);
    std::vector<Part> const parts = partsOf(clean);
    std::map<std::string, unsigned> ends;
    unsigned const all = forEachCall(volume, fault, 1, [&](FaultyReader const& faulty, unsigned) {
        FaultyRun run(faulty, alignment);
        XfsOutcome const outcome = run.chunk();
        if (!faulty.fired) {
            return;
        }
        auto const errors = withoutTrace(outcome.entries);
        if (outcome.result < 0) {
            ASSERT_EQ(errors.size(), 2U);
            ++ends[errors.front().text];
        } else {
            ASSERT_EQ(outcome.result, clean.result);
            EXPECT_THAT(errors, IsEmpty()) << "the reader reports short reads, not the parser";
            // Zeros are runs of nothing and the group's block 0: all else that is free was free before.
            for (std::uint64_t i = 0; i < kBytes; ++i) {
                std::uint8_t const allowed = i == 12 ? 0x10 : 0; // block 500, the first of group 1
                EXPECT_EQ(~outcome.buffer[i] & clean.buffer[i] & ~allowed & 0xFF, 0) << "byte " << i;
            }
            ++ends[outcome.buffer == clean.buffer ? "same" : "fewer"];
        }
        EXPECT_EQ(run.chunk(), clean);
    });
    EXPECT_EQ(all, 1 + parts.size()) << "every read of the chunk had its turn";
    if (fault == Fault::ReadEmpty) {
        auto const count = [&parts](Part part) {
            return static_cast<unsigned>(std::count(parts.begin(), parts.end(), part));
        };
        EXPECT_EQ(ends["Invalid fsi magic number."], count(Part::Header));
        // A header of zeros is no node; children of zeros lead to block 0 of the group, which is none either.
        EXPECT_EQ(ends["XFS: Invalid btree node magic number."], count(Part::NodeHeader) + count(Part::NodeChildren));
        EXPECT_EQ(ends["same"] + ends["fewer"], count(Part::List) + count(Part::NodeRecords));
        EXPECT_GT(ends["fewer"], 2U);
    }
}

INSTANTIATE_TEST_SUITE_P(Faults, XfsChunkShortRead,
                         testing::Combine(testing::Values(Fault::ReadShort, Fault::ReadEmpty),
                                          testing::Values(4U, 512U, 4096U)),
                         faultAndSizeName);

TEST(XfsChunkWithoutMemory, LetsTheExceptionOutAndTheNextRequestSucceeds) {
    MemoryReader const volume = makeVolume().reader();
    XfsOutcome const clean = XfsBench(makeVolume()).chunk(kStart, kBytes);
    for (XfsTrace const trace : {XfsTrace::On, XfsTrace::Off}) {
        unsigned n = 2; // calls 0 and 1 are the constructor's
        for (;; ++n) {
            ExhaustedReader const reader(volume, n);
            XfsLogger logger(trace);
            ExposedXfsParser const parser(logger, 512, reader);
            std::vector<std::uint8_t> buffer(kBytes, 0xAA);
            auto* const place = reinterpret_cast<char*>(buffer.data());
            bool isOut = false;
            try {
                parser.getChunk(kStart, place, kBytes);
            } catch (std::bad_alloc const&) {
                isOut = true;
            }
            ASSERT_EQ(isOut, reader.fired) << "call " << n;
            ASSERT_THAT(withoutTrace(logger.entries), IsEmpty());
            if (!isOut) {
                break;
            }
            ASSERT_EQ(parser.getChunk(kStart, place, kBytes), clean.result);
            ASSERT_EQ(buffer, clean.buffer);
        }
        EXPECT_EQ(n, 2 + clean.calls.size()) << "every call of the chunk had its turn";
    }
}

class XfsConstructionFault : public testing::TestWithParam<unsigned> {};

TEST_P(XfsConstructionFault, FailedSeekIsUnreadable) {
    MemoryReader const volume = makeVolume().reader();
    FaultyReader const faulty(volume, Fault::SeekFails, 0);
    RecordingLogger logger;
    EXPECT_THAT([&] { ExposedXfsParser(logger, GetParam(), faulty); },
                testing::ThrowsMessage<std::runtime_error>(testing::StrEq("Can't read XFS super block.")));
    EXPECT_THAT(logger.entries, IsEmpty()) << "a seek that fails is the reader's to report";
}

TEST_P(XfsConstructionFault, FailedReadIsUnreadable) {
    MemoryReader const volume = makeVolume().reader();
    FaultyReader const faulty(volume, Fault::ReadFails, 0);
    RecordingLogger logger;
    EXPECT_THAT([&] { ExposedXfsParser(logger, GetParam(), faulty); },
                testing::ThrowsMessage<std::runtime_error>(testing::StrEq("Can't read XFS super block.")));
    EXPECT_THAT(logger.entries, ElementsAre(failedReadEntry(0, GetParam())));
}

TEST_P(XfsConstructionFault, EmptyReadIsAnotherFileSystem) {
    MemoryReader const volume = makeVolume().reader();
    FaultyReader const faulty(volume, Fault::ReadEmpty, 0);
    RecordingLogger logger;
    EXPECT_THAT([&] { ExposedXfsParser(logger, GetParam(), faulty); },
                testing::ThrowsMessage<std::runtime_error>(testing::StrEq("Not an XFS filesystem")));
    EXPECT_THAT(logger.entries, IsEmpty());
}

TEST_P(XfsConstructionFault, HalfAReadHoldsEveryField) {
    MemoryReader const volume = makeVolume().reader();
    FaultyReader const faulty(volume, Fault::ReadShort, 0);
    XfsLogger logger(XfsTrace::Off);
    ExposedXfsParser const parser(logger, GetParam(), faulty);
    EXPECT_TRUE(faulty.fired);
    std::vector<std::uint8_t> buffer(163);
    EXPECT_EQ(parser.getChunk(0, reinterpret_cast<char*>(buffer.data()), buffer.size()), 1300);
    EXPECT_EQ(xfsBits(buffer, 1300), makeVolume().map());
}

TEST_P(XfsConstructionFault, AfterAFailureTheSameReaderServesANewParser) {
    MemoryReader const volume = makeVolume().reader();
    for (Fault const fault : {Fault::SeekFails, Fault::ReadFails, Fault::ReadEmpty}) {
        FaultyReader const faulty(volume, fault, 0);
        RecordingLogger logger;
        EXPECT_THROW(ExposedXfsParser(logger, GetParam(), faulty), std::runtime_error);
        ExposedXfsParser const second(logger, GetParam(), faulty);
        char buffer = 0;
        EXPECT_EQ(second.getChunk(0, &buffer, 1), 8);
    }
}

INSTANTIATE_TEST_SUITE_P(Alignments, XfsConstructionFault, testing::Values(512U, 4096U),
                         [](auto const& instance) { return "By" + std::to_string(instance.param); });

TEST(XfsConstructionShort, VolumeThatEndsAnywhereInTheSuperblock) {
    std::vector<std::uint8_t> const whole = makeVolume().bytes;
    for (std::uint64_t length = 0; length <= 512; ++length) {
        std::vector<std::uint8_t> const cut(whole.begin(), whole.begin() + static_cast<long>(length));
        if (length < 4) {
            EXPECT_THAT([&] { XfsBench bench(cut); },
                        testing::ThrowsMessage<std::runtime_error>(testing::StrEq("Not an XFS filesystem")))
                << length;
            continue;
        }
        // Fields behind the cut are zeros; nothing is there of the groups, if it still has any.
        XfsRequest const request{512, 8, 4};
        auto padded = cut;
        padded.resize(512);
        XfsOutcome const outcome = runXfsChunk(cut, request);
        EXPECT_EQ(outcome, referenceXfsChunk(padded, request)) << length;
    }
}

} // namespace
