// The order of block ranges.
#include "agent/BlockRange.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <limits>
#include <vector>

namespace {

using agent::BlockRange;

TEST(BlockRange, IsOrderedByItsFirstUnit) {
    EXPECT_TRUE((BlockRange{1, 9} < BlockRange{2, 0}));
    EXPECT_FALSE((BlockRange{2, 0} < BlockRange{1, 9}));
}

TEST(BlockRange, IsOrderedByItsCountWhereTheFirstUnitIsTheSame) {
    EXPECT_TRUE((BlockRange{5, 1} < BlockRange{5, 2}));
    EXPECT_FALSE((BlockRange{5, 2} < BlockRange{5, 1}));
}

TEST(BlockRange, IsNotLessThanItself) {
    EXPECT_FALSE((BlockRange{5, 2} < BlockRange{5, 2}));
}

TEST(BlockRange, ComparesSigned) {
    constexpr auto kSmallest = std::numeric_limits<std::int64_t>::min();
    constexpr auto kLargest = std::numeric_limits<std::int64_t>::max();
    EXPECT_TRUE((BlockRange{-1, 4} < BlockRange{0, 4})) << "a hole stands before every unit";
    EXPECT_TRUE((BlockRange{kSmallest, 0} < BlockRange{kLargest, 0}));
    EXPECT_FALSE((BlockRange{kLargest, 0} < BlockRange{kSmallest, 0}));
    EXPECT_TRUE((BlockRange{0, -1} < BlockRange{0, 0}));
}

TEST(BlockRange, VectorsOfItAreSorted) {
    std::vector<BlockRange> ranges{{30, 1}, {-1, 7}, {10, 5}, {10, 4}, {0, 2}};
    std::sort(ranges.begin(), ranges.end());
    std::vector<std::pair<std::int64_t, std::int64_t>> order;
    order.reserve(ranges.size());
    for (BlockRange const& range : ranges) {
        order.emplace_back(range.first, range.count);
    }
    std::vector<std::pair<std::int64_t, std::int64_t>> const expected{{-1, 7}, {0, 2}, {10, 4}, {10, 5}, {30, 1}};
    EXPECT_EQ(order, expected);
}

} // namespace
