// Every operation of every parser while one of its allocations fails: std::bad_alloc or the right answer, nothing
// leaks, and the parser can be asked again.
#include "FailingAllocation.h"
#include "support/FaultOperations.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace tests;

class AllocationFaults : public testing::TestWithParam<Operation> {
protected:
    /// Asks with each allocation failing in its turn; how many there are.
    template <typename AnyLogger>
    std::size_t askWithEach() {
        for (std::size_t n = 0;; ++n) {
            SCOPED_TRACE("allocation " + std::to_string(n));
            AnyLogger logger;
            Question const question = operation.make(logger, volume);
            std::string answer;
            bool fired = false;
            {
                FailingAllocation const failing(n);
                try {
                    answer = answerOf(question);
                } catch (std::bad_alloc const&) { // also the text of an answer takes memory
                    answer = "threw bad_alloc";
                }
                fired = failing.fired();
            }
            if (!fired) {
                EXPECT_EQ(answer, right);
                return n;
            }
            // An entry of the log that found no memory is lost, and nothing else.
            EXPECT_TRUE(answer == right || answer == "threw bad_alloc" || answer.ends_with(": std::bad_alloc"))
                << answer;
            std::string const again = answerOf(question);
            EXPECT_TRUE(again == right || operation.keepsTable) << again;
            different += again == right ? 0U : 1U;
        }
    }

    Operation const& operation = GetParam();
    SpanReader volume{*operation.volume};
    std::string right = operation.answer();
    unsigned different = 0; ///< second answers
};

TEST_P(AllocationFaults, EndInTheDocumentedExceptionWithATrace) {
    std::size_t const allocations = askWithEach<RecordingLogger>();
    EXPECT_EQ(allocations == 0, operation.failures.empty()) << "what reads nothing needs no memory";
    // The table of letters is kept as it came: two allocations stand between its own and its content.
    EXPECT_LE(different, 3U);
}

TEST_P(AllocationFaults, EndInTheDocumentedExceptionWithoutOne) {
    askWithEach<SilentLogger>();
    EXPECT_LE(different, 3U);
}

INSTANTIATE_TEST_SUITE_P(Parsers, AllocationFaults, testing::ValuesIn(everyOperation()), operationName);

} // namespace
