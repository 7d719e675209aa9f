// A device that delivers other bytes when a place is read a second time: no parser ends badly, and each is right again
// with the next reading.
#include "support/FaultOperations.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace tests;

constexpr unsigned kMostReads = 20'000; ///< of one question; the sound ones take less than a hundred
constexpr unsigned kSeeds = 6;          ///< random bytes, and places of one byte

/// The number of units in each chunk of a map; an answer of another kind as it is.
std::string shapeOf(std::string const& answer) {
    return answer.substr(0, answer.find(':'));
}

class SecondReading : public testing::TestWithParam<std::tuple<Operation, Other>> {
protected:
    /// Asks for the second time; whether the fault happened.
    bool ask(unsigned n, unsigned seed) {
        RecordingLogger logger;
        switched.useUsual();
        Question const question = operation.make(logger, switched);
        EXPECT_EQ(answerOf(question), right);
        OtherBytesReader const faulty(volume, other, n, seed);
        switched.use(faulty);
        std::string const answer = answerOf(question);
        switched.useUsual();
        EXPECT_LT(faulty.reads, kMostReads);
        if (isFailure(answer)) {
            ++failures;
            EXPECT_GT(answer.size(), std::string("threw runtime_error: ").size() * (answer.starts_with("threw r")));
        } else if (isMap) {
            // What a map's own bytes say cannot be told from the truth; how many units they are for can. An HFS+ tree
            // that tells of fewer extents gives an end before the end.
            if (operation.name.starts_with("Hfs")) {
                EXPECT_LE(std::stoll(shapeOf(answer)), std::stoll(shapeOf(right))) << answer;
            } else {
                EXPECT_EQ(shapeOf(answer), shapeOf(right));
            }
        }
        EXPECT_EQ(answerOf(question), right) << "the third reading is sound";
        return faulty.fired;
    }

    Operation const& operation = std::get<0>(GetParam());
    Other const other = std::get<1>(GetParam());
    bool const isMap = operation.name.find("MapBy") != std::string::npos;
    SpanReader volume{*operation.volume};
    SwitchedReader switched{volume};
    std::string right = operation.answer();
    unsigned failures = 0;
};

TEST_P(SecondReading, OfAnyPlaceEndsWellAndLeavesNothingBehind) {
    bool const isVaried = other == Other::Random || other == Other::OneByte;
    for (unsigned n = 0;; ++n) {
        bool fired = false;
        for (unsigned seed = 0; seed < (isVaried ? kSeeds : 1); ++seed) {
            SCOPED_TRACE("read " + std::to_string(n) + ", seed " + std::to_string(seed));
            fired = ask(n, seed);
        }
        if (!fired || HasFatalFailure()) {
            break;
        }
    }
    bool const isChecked = operation.name.ends_with("Construction") || operation.name.starts_with("NtfsPath");
    if (isChecked && other == Other::Zeros) {
        EXPECT_GT(failures, 0U) << "zeros in place of a header must show";
    }
}

INSTANTIATE_TEST_SUITE_P(Parsers, SecondReading, testing::Combine(testing::ValuesIn(everyOperation()), everyOther()),
                         [](auto const& instance) {
                             return std::get<0>(instance.param).name + otherName(std::get<1>(instance.param));
                         });

} // namespace
