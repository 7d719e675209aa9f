// Merging bits into runs, against the slow way: one bit at a time.
#include "imaging/Runs.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <random>
#include <stdexcept>
#include <vector>

namespace imaging {

void PrintTo(Run const& run, std::ostream* out) {
    *out << '[' << run.first << " +" << run.count << (run.used ? " used]" : " free]");
}

} // namespace imaging

namespace {

using imaging::BitOrder;
using imaging::RunBuilder;
using testing::ElementsAre;
using testing::IsEmpty;

using Units = std::vector<bool>;
using RunList = std::vector<imaging::Run>;

/// The bytes that hold the units from `first` on. What is left of the last byte is set, so that a builder which looks
/// behind the count is found out; there is no byte behind it, so that the sanitizer sees a read past it.
std::vector<std::uint8_t> pack(Units const& units, std::size_t first, std::size_t count, BitOrder order) {
    std::vector<std::uint8_t> bytes((count + 7) / 8, 0xFF);
    for (std::size_t i = 0; i < count; ++i) {
        unsigned const place = order == BitOrder::LeastSignificantFirst ? i % 8 : 7 - i % 8;
        if (!units[first + i]) {
            bytes[i / 8] = static_cast<std::uint8_t>(bytes[i / 8] & ~(1U << place));
        }
    }
    return bytes;
}

RunList slowRuns(Units const& units) {
    RunList runs;
    for (std::size_t i = 0; i < units.size(); ++i) {
        if (i == 0 || units[i] != units[i - 1]) {
            runs.push_back({i, 0, units[i]});
        }
        ++runs.back().count;
    }
    return runs;
}

RunList builtRuns(Units const& units, std::size_t piece, BitOrder order) {
    RunList runs;
    RunBuilder builder([&runs](imaging::Run const& run) { runs.push_back(run); });
    for (std::size_t first = 0; first < units.size(); first += piece) {
        std::size_t const count = std::min(piece, units.size() - first);
        builder.addBits(pack(units, first, count, order), count, order);
    }
    builder.finish();
    EXPECT_EQ(builder.units(), units.size());
    EXPECT_EQ(builder.usedUnits(), static_cast<std::size_t>(std::count(units.begin(), units.end(), true)));
    return runs;
}

/// Units that change state with a probability of one in `meanRun`.
Units randomUnits(std::size_t count, unsigned meanRun, unsigned seed) {
    std::mt19937 generator(seed);
    Units units;
    bool used = generator() % 2 == 0;
    while (units.size() < count) {
        used = used != (generator() % meanRun == 0);
        units.push_back(used);
    }
    return units;
}

class RunsInBothOrders : public testing::TestWithParam<BitOrder> {};

INSTANTIATE_TEST_SUITE_P(Orders, RunsInBothOrders,
                         testing::Values(BitOrder::LeastSignificantFirst, BitOrder::MostSignificantFirst),
                         [](auto const& instance) {
                             return instance.param == BitOrder::LeastSignificantFirst ? "LeastSignificantFirst"
                                                                                      : "MostSignificantFirst";
                         });

TEST_P(RunsInBothOrders, RandomBitsGiveTheRunsOfTheSingleBits) {
    for (unsigned const meanRun : {1U, 2U, 7U, 64U, 1000U}) {
        for (unsigned seed = 0; seed < 20; ++seed) {
            Units const units = randomUnits(4000 + seed, meanRun, seed);
            ASSERT_EQ(builtRuns(units, units.size(), GetParam()), slowRuns(units)) << meanRun << ", seed " << seed;
        }
    }
}

TEST_P(RunsInBothOrders, EveryCountUpToThreeWordsIsWholeAndExact) {
    for (std::size_t count = 1; count <= 192; ++count) {
        for (bool const used : {false, true}) {
            ASSERT_EQ(builtRuns(Units(count, used), count, GetParam()), (RunList{{0, count, used}}));
        }
        Units alternating(count);
        for (std::size_t i = 0; i < count; i += 2) {
            alternating[i] = true;
        }
        ASSERT_EQ(builtRuns(alternating, count, GetParam()), slowRuns(alternating)) << count;
    }
}

TEST_P(RunsInBothOrders, ABorderAnywhereIsFound) {
    constexpr std::size_t kUnits = 200;
    for (std::size_t border = 1; border < kUnits; ++border) {
        Units units(kUnits);
        std::fill(units.begin() + static_cast<std::ptrdiff_t>(border), units.end(), true);
        ASSERT_EQ(builtRuns(units, kUnits, GetParam()), (RunList{{0, border, false}, {border, kUnits - border, true}}));
        units.flip();
        ASSERT_EQ(builtRuns(units, kUnits, GetParam()), (RunList{{0, border, true}, {border, kUnits - border, false}}));
    }
}

TEST_P(RunsInBothOrders, ASingleUnitAnywhereIsFound) {
    constexpr std::size_t kUnits = 150;
    for (std::size_t place = 0; place < kUnits; ++place) {
        Units units(kUnits);
        units[place] = true;
        ASSERT_EQ(builtRuns(units, kUnits, GetParam()), slowRuns(units)) << place;
        units.flip();
        ASSERT_EQ(builtRuns(units, kUnits, GetParam()), slowRuns(units)) << place;
    }
}

TEST_P(RunsInBothOrders, ChunksOfEveryLengthGiveTheSameRuns) {
    for (unsigned const meanRun : {1U, 3U, 40U, 500U}) {
        Units const units = randomUnits(777, meanRun, meanRun);
        RunList const expected = slowRuns(units);
        for (std::size_t piece = 1; piece <= units.size(); ++piece) {
            ASSERT_EQ(builtRuns(units, piece, GetParam()), expected) << "chunks of " << piece << " units";
        }
    }
}

TEST_P(RunsInBothOrders, RunsAlternateAndCoverEveryUnit) {
    Units const units = randomUnits(100000, 9, 42);
    RunList const runs = builtRuns(units, 4096, GetParam());
    ASSERT_GT(runs.size(), 1000U);
    std::uint64_t next = 0;
    for (std::size_t i = 0; i < runs.size(); ++i) {
        ASSERT_EQ(runs[i].first, next);
        ASSERT_GE(runs[i].count, 1U);
        ASSERT_TRUE(i == 0 || runs[i].used != runs[i - 1].used) << "run " << i;
        next += runs[i].count;
    }
    EXPECT_EQ(next, units.size());
}

TEST(ImagingRuns, TheOrderOfBitsDecidesWhichUnitIsUsed) {
    std::vector<std::uint8_t> const byte{0x01};
    for (auto const& [order, unit] :
         {std::pair{BitOrder::LeastSignificantFirst, 0U}, std::pair{BitOrder::MostSignificantFirst, 7U}}) {
        RunList used;
        RunBuilder builder([&used](imaging::Run const& run) {
            if (run.used) {
                used.push_back(run);
            }
        });
        builder.addBits(byte, 8, order);
        builder.finish();
        EXPECT_THAT(used, ElementsAre(imaging::Run{unit, 1, true}));
    }
}

TEST(ImagingRuns, NothingAddedGivesNoRun) {
    RunList runs;
    RunBuilder builder([&runs](imaging::Run const& run) { runs.push_back(run); });
    builder.addBits({}, 0, BitOrder::LeastSignificantFirst);
    builder.addRun(0, true);
    builder.addRun(0, false);
    builder.finish();
    EXPECT_THAT(runs, IsEmpty());
    EXPECT_EQ(builder.units(), 0U);
}

TEST(ImagingRuns, WholeRunsMergeWithBitsOnBothSides) {
    RunList runs;
    RunBuilder builder([&runs](imaging::Run const& run) { runs.push_back(run); });
    builder.addBits(std::vector<std::uint8_t>{0xF0}, 8, BitOrder::LeastSignificantFirst);
    builder.addRun(10, true);
    builder.addRun(0, false);
    builder.addBits(std::vector<std::uint8_t>{0x01}, 3, BitOrder::LeastSignificantFirst);
    builder.finish();
    EXPECT_THAT(runs, ElementsAre(imaging::Run{0, 4, false}, imaging::Run{4, 15, true}, imaging::Run{19, 2, false}));
    EXPECT_EQ(builder.usedUnits(), 15U);
}

TEST(ImagingRuns, NumbersBeyond32BitsAreExact) {
    RunList runs;
    RunBuilder builder([&runs](imaging::Run const& run) { runs.push_back(run); });
    builder.addRun(std::uint64_t{1} << 62, true);
    builder.addRun(std::uint64_t{1} << 40, true);
    builder.addRun((std::uint64_t{1} << 33) + 1, false);
    builder.finish();
    std::uint64_t const used = (std::uint64_t{1} << 62) + (std::uint64_t{1} << 40);
    EXPECT_THAT(runs,
                ElementsAre(imaging::Run{0, used, true}, imaging::Run{used, (std::uint64_t{1} << 33) + 1, false}));
    EXPECT_EQ(builder.usedUnits(), used);
}

TEST(ImagingRuns, ARunIsHandedOverOnlyWhenItsEndIsKnown) {
    RunList runs;
    RunBuilder builder([&runs](imaging::Run const& run) { runs.push_back(run); });
    builder.addRun(5, true);
    EXPECT_THAT(runs, IsEmpty());
    builder.addRun(1, false);
    EXPECT_THAT(runs, ElementsAre(imaging::Run{0, 5, true}));
    builder.finish();
    builder.finish();
    EXPECT_THAT(runs, ElementsAre(imaging::Run{0, 5, true}, imaging::Run{5, 1, false}));
}

TEST(ImagingRuns, WhatTheSinkThrowsComesOut) {
    RunBuilder builder([](imaging::Run const&) { throw std::runtime_error("enough"); });
    builder.addRun(3, false);
    EXPECT_THROW(builder.addRun(1, true), std::runtime_error);
}

} // namespace
