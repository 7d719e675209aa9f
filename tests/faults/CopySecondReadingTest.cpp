// Copies of a volume whose device delivers other bytes when its metadata are read again: an error, a warning, or a copy
// that lacks nothing.
#include "CopyBench.h"
#include "VolumeCalls.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

namespace {

using namespace tests;

/// The places of the metadata reads of a whole copy, in order: what a volume is asked for and from where.
class PlaceLog {
public:
    explicit PlaceLog(std::string const& path) : calls_(path, CallFault::OtherBytes, UINT32_MAX) {}

    /// The numbers of the reads whose place was read before.
    std::vector<unsigned> repeated() const {
        std::vector<unsigned> numbers;
        std::set<long> seen;
        auto const& places = calls_.places();
        for (unsigned n = 0; n < places.size(); ++n) {
            if (!seen.insert(places[n]).second) {
                numbers.push_back(n);
            }
        }
        return numbers;
    }

private:
    VolumeCalls calls_;
};

std::vector<unsigned> repeatedReads(CopyBench const& bench) {
    PlaceLog const log(bench.path);
    EXPECT_EQ(bench.copy().error, "");
    bench.removeCopy();
    return log.repeated();
}

class CopySecondReading : public testing::TestWithParam<std::tuple<std::size_t, Other>> {
protected:
    CopyBench const bench{copyVolume(std::get<0>(GetParam()))};
    Other const other = std::get<1>(GetParam());
};

TEST_P(CopySecondReading, LosesNothingInSilence) {
    std::vector<unsigned> const numbers = repeatedReads(bench);
    ASSERT_GE(numbers.size(), 2U) << "the map is read twice";
    unsigned noticed = 0;
    for (unsigned const n : numbers) {
        VolumeCalls const calls(bench.path, CallFault::OtherBytes, n, other, n);
        TaskEnd const end = bench.copy();
        EXPECT_TRUE(calls.fired()) << n;
        if (end.isSure()) {
            EXPECT_EQ(bench.lostUnit(), std::nullopt) << "read " << n << " lost it, and nobody was told";
        } else {
            ++noticed;
            EXPECT_EQ(bench.hasCopy(), end.error.empty());
        }
        bench.removeCopy();
        EXPECT_THAT(namesIn(bench.directory), testing::ElementsAre("volume"));
    }
    if (other == Other::Zeros) {
        EXPECT_GT(noticed, 0U) << "a map of zeros must show";
    }
}

TEST_P(CopySecondReading, PassesNoWrongCopyInSilence) {
    std::string const wrong = bench.writeWrongCopy();
    ASSERT_FALSE(bench.verify(wrong).isEqual);
    for (unsigned const n : repeatedReads(bench)) {
        VolumeCalls const calls(bench.path, CallFault::OtherBytes, n, other, n);
        TaskEnd const end = bench.verify(wrong);
        EXPECT_FALSE(end.isEqual && end.isSure()) << "read " << n;
    }
}

INSTANTIATE_TEST_SUITE_P(Volumes, CopySecondReading,
                         testing::Combine(testing::Range(std::size_t{0}, copyVolumeNames().size()), everyOther()),
                         [](auto const& instance) {
                             return copyVolumeNames().at(std::get<0>(instance.param)) +
                                    otherName(std::get<1>(instance.param));
                         });

} // namespace
