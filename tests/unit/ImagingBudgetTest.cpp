// Readers that bound, keep and count what is read.
#include "imaging/BudgetReader.h"
#include "imaging/CountingReader.h"
#include "support/ReadAt.h"
#include "support/Readers.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace tests;
using imaging::Budget;
using imaging::BudgetReader;
using imaging::CountingReader;
using testing::ElementsAre;

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
