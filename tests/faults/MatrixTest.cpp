// Every operation of every parser while each of its reads goes wrong: the right answer or a documented failure, and
// the right answer when it is asked again.
#include "support/FaultOperations.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace tests;

class FaultMatrix : public testing::TestWithParam<Operation> {
protected:
    /// Asks while the reader in front does its work, and then again without it.
    template <typename Faulty>
    void ask(Faulty const& faulty, bool isShort) {
        switched.useUsual();
        RecordingLogger logger;
        Question const question = operation.make(logger, switched);
        switched.use(faulty);
        std::string const answer = answerOf(question);
        switched.useUsual();
        if (!faulty.fired) {
            EXPECT_EQ(answer, right);
            return;
        }
        bool const isDocumented = answer == right || beginsWithAny(answer, operation.failures) ||
                                  (isShort && (!isFailure(answer) || beginsWithAny(answer, operation.gaps)));
        EXPECT_TRUE(isDocumented) << answer;
        std::string const again = answerOf(question);
        if (again == right) {
            return;
        }
        // The table of letters is kept as it came: when it was that read, or its seek, that went wrong.
        ++different;
        EXPECT_TRUE(operation.keepsTable && different <= 2) << again;
    }

    Operation const& operation = GetParam();
    SpanReader volume{*operation.volume};
    SwitchedReader switched{volume};
    std::string right = operation.answer();
    unsigned different = 0; ///< second answers
};

TEST_P(FaultMatrix, TheVolumeItselfIsSound) {
    EXPECT_FALSE(isFailure(right)) << right;
}

TEST_P(FaultMatrix, OneCallThatFailsOrComesShort) {
    for (Fault const fault : {Fault::SeekFails, Fault::ReadFails, Fault::ReadShort, Fault::ReadEmpty}) {
        SCOPED_TRACE(faultName(fault));
        different = 0;
        bool const isShort = fault == Fault::ReadShort || fault == Fault::ReadEmpty;
        forEachCall(volume, fault, 0, [&](FaultyReader const& faulty, unsigned) { ask(faulty, isShort); });
    }
}

TEST_P(FaultMatrix, EveryCallFailsFromOneOn) {
    for (unsigned n = 0;; ++n) {
        SCOPED_TRACE("call " + std::to_string(n));
        BrokenReader const broken(volume, n);
        ask(broken, false);
        if (!broken.fired) {
            break;
        }
    }
}

TEST_P(FaultMatrix, NoMemoryAtACallOfTheReader) {
    for (unsigned n = 0;; ++n) {
        SCOPED_TRACE("call " + std::to_string(n));
        ExhaustedReader const exhausted(volume, n);
        RecordingLogger logger;
        switched.useUsual();
        Question const question = operation.make(logger, switched);
        switched.use(exhausted);
        std::string const answer = answerOf(question);
        switched.useUsual();
        if (!exhausted.fired) {
            EXPECT_EQ(answer, right);
            break;
        }
        EXPECT_THAT(answer, testing::AnyOf("threw bad_alloc", testing::HasSubstr(": std::bad_alloc")));
        std::string const again = answerOf(question);
        EXPECT_TRUE(again == right || (operation.keepsTable && ++different <= 2)) << again;
    }
}

INSTANTIATE_TEST_SUITE_P(Parsers, FaultMatrix, testing::ValuesIn(everyOperation()), operationName);

} // namespace
