// The logger that remembers errors: what it passes on, what it keeps, and how it tells it.
#include "imaging/ReasonLogger.h"

#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace {

using namespace tests;
using agent::info::Level;
using agent::info::Logger;
using imaging::ReasonLogger;
using testing::ElementsAre;

/// Wants entries of one level only.
class OneLevelLogger : public RecordingLogger {
public:
    explicit OneLevelLogger(Level level) : level_(level) {}
    bool isEnabled(Level level) const override { return level == level_; }

private:
    Level level_;
};

TEST(ImagingReasonLogger, EveryEntryIsPassedOnInOrder) {
    RecordingLogger outer;
    ReasonLogger logger(outer);
    Logger::Entry(logger, Level::Debug) << "one " << 1;
    Logger::Entry(logger, Level::Error) << "two";
    Logger::Entry(logger, Level::Warning) << "three";
    EXPECT_THAT(outer.entries, ElementsAre(debugEntry("one 1"), errorEntry("two"), warningEntry("three")));
}

TEST(ImagingReasonLogger, ErrorsAreKeptThoughTheOuterLoggerWantsNone) {
    SilentLogger outer;
    ReasonLogger logger(outer);
    Logger::Entry(logger, Level::Error) << "the cause";
    EXPECT_EQ(outer.written, 0);
    EXPECT_EQ(logger.takeReason("unknown"), "the cause");
}

TEST(ImagingReasonLogger, LevelsBelowErrorAreEnabledOnlyWhenTheOuterLoggerWantsThem) {
    SilentLogger silent;
    ReasonLogger const quiet(silent);
    EXPECT_TRUE(quiet.isEnabled(Level::Error));
    EXPECT_FALSE(quiet.isEnabled(Level::Warning));
    EXPECT_FALSE(quiet.isEnabled(Level::Debug));
    OneLevelLogger debug(Level::Debug);
    ReasonLogger const chatty(debug);
    EXPECT_TRUE(chatty.isEnabled(Level::Error));
    EXPECT_FALSE(chatty.isEnabled(Level::Warning));
    EXPECT_TRUE(chatty.isEnabled(Level::Debug));
}

TEST(ImagingReasonLogger, EntriesThatTheOuterLoggerDoesNotWantStopHere) {
    OneLevelLogger outer(Level::Warning);
    ReasonLogger logger(outer);
    logger.write(Level::Error, "an error");
    logger.write(Level::Warning, "a warning");
    logger.write(Level::Debug, "a detail");
    EXPECT_THAT(outer.entries, ElementsAre(warningEntry("a warning")));
}

TEST(ImagingReasonLogger, OnlyErrorsBecomeTheReasonCauseFirst) {
    RecordingLogger outer;
    ReasonLogger logger(outer);
    logger.write(Level::Warning, "short read");
    logger.write(Level::Error, "no bitmap");
    logger.write(Level::Debug, "a detail");
    logger.write(Level::Error, "no map");
    EXPECT_EQ(logger.takeReason("unknown"), "no bitmap; no map");
}

TEST(ImagingReasonLogger, WithoutErrorsTheOtherTextIsTheReason) {
    RecordingLogger outer;
    ReasonLogger logger(outer);
    logger.write(Level::Warning, "short read");
    EXPECT_EQ(logger.takeReason("code -1"), "code -1");
}

TEST(ImagingReasonLogger, AReasonIsToldOnce) {
    RecordingLogger outer;
    ReasonLogger logger(outer);
    logger.write(Level::Error, "first");
    EXPECT_EQ(logger.takeReason("unknown"), "first");
    EXPECT_EQ(logger.takeReason("unknown"), "unknown");
    logger.write(Level::Error, "second");
    EXPECT_EQ(logger.takeReason("unknown"), "second");
}

TEST(ImagingReasonLogger, AMillionErrorsMakeAShortReasonThatBeginsWithTheCause) {
    SilentLogger outer;
    ReasonLogger logger(outer);
    logger.write(Level::Error, "the cause");
    for (int i = 0; i < 1000000; ++i) {
        logger.write(Level::Error, "again");
    }
    std::string const reason = logger.takeReason("unknown");
    EXPECT_EQ(reason.rfind("the cause; again", 0), 0U) << reason;
    EXPECT_LT(reason.size(), 100U);
}

} // namespace
