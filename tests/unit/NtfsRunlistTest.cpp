// Mapping pairs of NTFS: every size and sign of a field, the quirks that are kept, and damage, byte by byte.
#include "support/NtfsAccess.h"
#include "support/NtfsBuilder.h"
#include "support/Readers.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace agent::core::fs {

static bool operator==(ntfs_runlist const& left, ntfs_runlist const& right) {
    return left.lcn == right.lcn && left.length == right.length;
}

static void PrintTo(ntfs_runlist const& run, std::ostream* out) {
    *out << '{' << run.lcn << ", " << run.length << '}';
}

} // namespace agent::core::fs

namespace {

using namespace tests;
using agent::core::fs::ntfs_attribute_record;
using agent::core::fs::ntfs_runlist;
using testing::ElementsAre;
using testing::IsEmpty;

using Bytes = std::vector<std::uint8_t>;
using Runs = std::vector<ntfs_runlist>;

constexpr std::size_t kPairs = 0x40; // where mapping pairs begin after a whole header

/// Memory of exactly the attribute's size, so that the sanitizer sees a read behind it.
class Attribute {
public:
    /// @param size  bytes of the attribute; what the pairs leave is zero
    explicit Attribute(Bytes const& pairs, std::size_t size = 0)
        : size_(size == 0 ? kPairs + pairs.size() : size), bytes_(std::make_unique<std::uint8_t[]>(size_)) {
        set(0x00, 0x80, 4);
        set(0x04, size_, 4);
        set(0x08, 1, 1);
        set(0x20, kPairs, 2);
        std::copy(pairs.begin(), pairs.end(), bytes_.get() + kPairs);
    }

    Attribute& set(std::size_t offset, std::uint64_t value, std::size_t width) {
        for (std::size_t i = 0; i < width; ++i) {
            bytes_[offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
        }
        return *this;
    }

    ntfs_attribute_record const* get() const { return reinterpret_cast<ntfs_attribute_record const*>(bytes_.get()); }

private:
    std::size_t size_;
    std::unique_ptr<std::uint8_t[]> bytes_;
};

class NtfsRunlist : public testing::Test {
protected:
    NtfsRunlist() : volume(NtfsBuilder::standard().bytes), parser(logger, 512, volume) { logger.entries.clear(); }

    Runs runs(Bytes const& pairs) const { return parser.get_run_list(Attribute(pairs).get()); }

    /// The text with which an attribute is refused.
    std::string refusal(Attribute const& attribute) const {
        try {
            parser.get_run_list(attribute.get());
            return "decoded";
        } catch (std::runtime_error const& error) {
            return error.what();
        }
    }
    std::string refusal(Bytes const& pairs) const { return refusal(Attribute(pairs)); }

    RecordingLogger logger;
    MemoryReader volume;
    NtfsAccess parser;
};

TEST_F(NtfsRunlist, APairIsALengthAndADistance) {
    EXPECT_THAT(runs({0x21, 0x18, 0x34, 0x56, 0x00}), ElementsAre(ntfs_runlist{0x5634, 0x18}));
    EXPECT_THAT(logger.entries, IsEmpty());
}

TEST_F(NtfsRunlist, TheDistanceCountsFromTheRunBefore) {
    EXPECT_THAT(runs({0x21, 0x18, 0x34, 0x56, 0x11, 0x30, 0xE0, 0x00}),
                ElementsAre(ntfs_runlist{0x5634, 0x18}, ntfs_runlist{0x5634 - 32, 0x30}));
}

TEST_F(NtfsRunlist, ASparseRunTakesTheLastByteOfItsLengthAsTheDistance) {
    EXPECT_THAT(runs({0x11, 0x04, 0x64, 0x01, 0x08, 0x00}), ElementsAre(ntfs_runlist{100, 4}, ntfs_runlist{108, 8}));
    EXPECT_THAT(runs({0x11, 0x04, 0x64, 0x02, 0x34, 0x12, 0x11, 0x01, 0x01, 0x00}),
                ElementsAre(ntfs_runlist{100, 4}, ntfs_runlist{118, 0x1234}, ntfs_runlist{119, 1}));
    EXPECT_THAT(runs({0x11, 0x04, 0x64, 0x02, 0x34, 0xF2, 0x00}),
                ElementsAre(ntfs_runlist{100, 4}, ntfs_runlist{86, -3532}))
        << "the byte keeps its sign";
    EXPECT_THAT(runs({0x01, 0x08, 0x00}), ElementsAre(ntfs_runlist{8, 8})) << "the first run counts from 0";
}

TEST_F(NtfsRunlist, AHeaderOfZeroFirstIsAnEmptyList) {
    Attribute const attribute({0x00, 0x21, 0x18, 0x34, 0x56});
    EXPECT_THAT(parser.get_run_list(attribute.get()), IsEmpty());
    EXPECT_EQ(parser.get_no_runlist(attribute.get()), 0U);
}

TEST_F(NtfsRunlist, AHeaderWithoutALengthIsAMarker) {
    EXPECT_THAT(runs({0x40, 1, 2, 3, 4, 0x00}), ElementsAre(ntfs_runlist{-1, -1})) << "its bytes are passed over";
    EXPECT_THAT(runs({0x11, 0x04, 0x64, 0x10, 0x55, 0x11, 0x02, 0x0B, 0x00}),
                ElementsAre(ntfs_runlist{100, 4}, ntfs_runlist{-1, -1}, ntfs_runlist{10, 2}))
        << "the next distance counts from the marker's -1";
    EXPECT_THAT(runs({0x40}), ElementsAre(ntfs_runlist{-1, -1})) << "its bytes need not be there";
    EXPECT_THAT(runs({0xF0, 0x00}), ElementsAre(ntfs_runlist{-1, -1}));
}

TEST_F(NtfsRunlist, TheListEndsWithTheAttributeWhenNoZeroEndsIt) {
    EXPECT_THAT(runs({0x11, 0x04, 0x64}), ElementsAre(ntfs_runlist{100, 4}));
    EXPECT_THAT(runs({0x11, 0x04, 0x64, 0x11, 0x05, 0x01}), ElementsAre(ntfs_runlist{100, 4}, ntfs_runlist{101, 5}));
}

TEST_F(NtfsRunlist, WhatStandsBehindTheZeroIsNotRead) {
    EXPECT_THAT(runs({0x11, 0x04, 0x64, 0x00, 0x8F, 0xFF}), ElementsAre(ntfs_runlist{100, 4}));
}

TEST_F(NtfsRunlist, ALengthThatRunsPastTheAttributeIsInvalid) {
    EXPECT_EQ(refusal({0x12, 0x01}), "Invalid runlist");
    EXPECT_EQ(refusal({0x11, 0x04, 0x64, 0x18, 0x01}), "Invalid runlist");
    EXPECT_EQ(refusal({0x0F, 1, 2, 3}), "Invalid runlist");
    EXPECT_EQ(refusal({0x1F, 1, 2, 3}), "Invalid runlist") << "before the distance is looked at";
}

TEST_F(NtfsRunlist, ADistanceThatRunsPastTheAttributeIsCorrupt) {
    EXPECT_EQ(refusal({0x31, 0x01, 0x02}), "Corrupt runlist");
    EXPECT_EQ(refusal({0x11, 0x04, 0x64, 0x81, 0x01, 0x02}), "Corrupt runlist");
    EXPECT_EQ(refusal({0xF1, 1, 2, 3, 4}), "Corrupt runlist");
}

TEST_F(NtfsRunlist, AFieldThatLacksItsLastByteIsNeverReadBehindTheAttribute) {
    EXPECT_EQ(refusal({0x11}), "Invalid runlist");
    EXPECT_EQ(refusal({0x08, 1, 2, 3, 4, 5, 6, 7}), "Invalid runlist");
    EXPECT_EQ(refusal({0x11, 0x04}), "Corrupt runlist");
    EXPECT_EQ(refusal({0x81, 1, 1, 2, 3, 4, 5, 6, 7}), "Corrupt runlist");
}

TEST_F(NtfsRunlist, PairsThatBeginPastTheAttributeAreNone) {
    Bytes const pairs{0x11, 0x04, 0x64, 0x00};
    EXPECT_EQ(refusal(Attribute(pairs).set(0x20, kPairs + 5, 2)), "No run list can be found");
    EXPECT_EQ(refusal(Attribute(pairs).set(0x20, 0xFFFF, 2)), "No run list can be found");
    EXPECT_EQ(parser.get_no_runlist(Attribute(pairs).set(0x20, 0xFFFF, 2).get()), 0U);
}

TEST_F(NtfsRunlist, PairsThatBeginAtTheAttributesEndAreAnEmptyList) {
    Attribute const attribute = std::move(Attribute({0x11, 0x04, 0x64, 0x11}).set(0x20, kPairs + 4, 2));
    EXPECT_THAT(parser.get_run_list(attribute.get()), IsEmpty());
    EXPECT_EQ(parser.get_no_runlist(attribute.get()), 0U);
}

TEST_F(NtfsRunlist, PairsMayBeginInsideTheHeader) {
    Attribute const attribute = std::move(Attribute({0x00}).set(0x20, 0, 2));
    EXPECT_THAT(parser.get_run_list(attribute.get()), ElementsAre(ntfs_runlist{-1, -1}))
        << "the type, 0x80, is a header without a length; the name's length, 0, ends the list";
    EXPECT_EQ(parser.get_no_runlist(attribute.get()), 1U);
}

TEST_F(NtfsRunlist, AnAttributeShorterThanItsHeaderHasNoRuns) {
    EXPECT_EQ(refusal(Attribute({0x11, 1, 1, 0}).set(0x04, 0, 4)), "No run list can be found");
    EXPECT_EQ(refusal(Attribute({0x11, 1, 1, 0}).set(0x04, 0x21, 4)), "No run list can be found");
    EXPECT_EQ(refusal(Attribute({0x11, 1, 1, 0}).set(0x04, 0x3F, 4)), "No run list can be found");
}

/// The `size` lowest bytes of a number.
Bytes lowBytes(std::int64_t value, std::size_t size) {
    Bytes bytes;
    for (std::size_t i = 0; i < size; ++i) {
        bytes.push_back(static_cast<std::uint8_t>(i < 8 ? value >> (8 * i) : 0x5A)); // bytes past the eighth are noise
    }
    return bytes;
}

Bytes pairOf(std::size_t lengthSize, std::int64_t length, std::size_t distanceSize, std::int64_t distance) {
    Bytes bytes{static_cast<std::uint8_t>(distanceSize << 4 | lengthSize)};
    Bytes const first = lowBytes(length, lengthSize);
    Bytes const second = lowBytes(distance, distanceSize);
    bytes.insert(bytes.end(), first.begin(), first.end());
    bytes.insert(bytes.end(), second.begin(), second.end());
    bytes.push_back(0);
    return bytes;
}

TEST_F(NtfsRunlist, FieldsOfEverySizeKeepTheirSign) {
    for (std::size_t size = 1; size <= 8; ++size) {
        std::int64_t const most = std::numeric_limits<std::int64_t>::max() >> (64 - 8 * size);
        for (std::int64_t const value : {std::int64_t{0}, std::int64_t{1}, most, -most - 1, std::int64_t{-1}}) {
            EXPECT_THAT(runs(pairOf(size, value, 1, 5)), ElementsAre(ntfs_runlist{5, value})) << "length of " << size;
            EXPECT_THAT(runs(pairOf(1, 7, size, value)), ElementsAre(ntfs_runlist{value, 7})) << "distance of " << size;
        }
    }
}

TEST_F(NtfsRunlist, OfFieldsPastEightBytesTheEightLowestCount) {
    std::int64_t const value = -0x123456789ABCDEF;
    for (std::size_t size = 9; size <= 15; ++size) {
        EXPECT_THAT(runs(pairOf(size, value, 1, 5)), ElementsAre(ntfs_runlist{5, value})) << "length of " << size;
        EXPECT_THAT(runs(pairOf(1, 7, size, value)), ElementsAre(ntfs_runlist{value, 7})) << "distance of " << size;
    }
    EXPECT_THAT(runs(pairOf(15, value, 15, value)), ElementsAre(ntfs_runlist{value, value}));
    EXPECT_THAT(runs(pairOf(15, value, 0, 0)), ElementsAre(ntfs_runlist{0x5A, value})) << "the fifteenth byte";
}

TEST_F(NtfsRunlist, ClustersWrapAround) {
    Bytes pairs = pairOf(1, 1, 8, std::numeric_limits<std::int64_t>::max());
    pairs.pop_back();
    pairs.insert(pairs.end(), {0x11, 0x01, 0x01, 0x00});
    EXPECT_THAT(runs(pairs), ElementsAre(ntfs_runlist{std::numeric_limits<std::int64_t>::max(), 1},
                                         ntfs_runlist{std::numeric_limits<std::int64_t>::min(), 1}));
}

TEST_F(NtfsRunlist, NothingButTheAttributesLengthLimitsTheRuns) {
    Bytes pairs;
    for (int i = 0; i < 20000; ++i) {
        pairs.insert(pairs.end(), {0x11, 0x01, 0x02});
    }
    Attribute const attribute(pairs);
    Runs const found = parser.get_run_list(attribute.get());
    ASSERT_EQ(found.size(), 20000U);
    EXPECT_EQ(found.back(), (ntfs_runlist{40000, 1}));
    EXPECT_EQ(parser.get_no_runlist(attribute.get()), 20000U);
}

/// What mapping pairs must give, taken from the bytes one by one.
struct Expected {
    Runs runs;
    std::string error;
    unsigned entries = 0;
};

std::int64_t number(Bytes const& bytes, std::size_t first, std::size_t size) {
    std::uint64_t value = (bytes[first + size - 1] & 0x80) != 0 ? ~std::uint64_t{0} : 0;
    for (std::size_t i = 0; i < std::min<std::size_t>(size, 8); ++i) {
        value &= ~(std::uint64_t{0xFF} << (8 * i));
        value |= std::uint64_t{bytes[first + i]} << (8 * i);
    }
    return static_cast<std::int64_t>(value);
}

Expected decodeSlowly(Bytes const& pairs) {
    Expected result;
    for (std::size_t at = 0; at < pairs.size() && pairs[at] != 0;) {
        ++result.entries;
        at += 1U + pairs[at] / 16U + pairs[at] % 16U;
    }
    std::int64_t cluster = 0;
    for (std::size_t at = 0; at < pairs.size() && pairs[at] != 0;) {
        std::size_t const lengthSize = pairs[at] % 16U;
        std::size_t const distanceSize = pairs[at] / 16U;
        std::size_t const field = at + 1;
        at = field + lengthSize + distanceSize;
        if (lengthSize == 0) {
            cluster = -1;
            result.runs.push_back({-1, -1});
            continue;
        }
        if (field + lengthSize > pairs.size() || at > pairs.size()) {
            result.runs.clear();
            result.error = field + lengthSize > pairs.size() ? "Invalid runlist" : "Corrupt runlist";
            return result;
        }
        std::int64_t const distance = distanceSize == 0 ? number(pairs, field + lengthSize - 1, 1)
                                                        : number(pairs, field + lengthSize, distanceSize);
        cluster = static_cast<std::int64_t>(static_cast<std::uint64_t>(cluster) + static_cast<std::uint64_t>(distance));
        result.runs.push_back({cluster, number(pairs, field, lengthSize)});
    }
    return result;
}

TEST_F(NtfsRunlist, RandomPairsGiveWhatASlowDecoderGives) {
    std::mt19937 random(23);
    std::size_t decoded = 0;
    std::size_t invalid = 0;
    std::size_t corrupt = 0;
    for (int round = 0; round < 20000; ++round) {
        Bytes pairs(random() % 60);
        // Every other round has short fields, so that long lists come up as well.
        unsigned const mask = round % 2 == 0 ? 0xFF : 0x33;
        for (std::uint8_t& byte : pairs) {
            byte = static_cast<std::uint8_t>(random() & mask);
        }
        Attribute const attribute(pairs);
        Expected const expected = decodeSlowly(pairs);
        EXPECT_EQ(parser.get_no_runlist(attribute.get()), expected.entries);
        if (!expected.error.empty()) {
            ASSERT_EQ(refusal(attribute), expected.error) << testing::PrintToString(pairs);
            ++(expected.error == "Invalid runlist" ? invalid : corrupt);
            continue;
        }
        ASSERT_EQ(parser.get_run_list(attribute.get()), expected.runs) << testing::PrintToString(pairs);
        ++decoded;
    }
    EXPECT_GT(decoded, 3000U);
    EXPECT_GT(invalid, 1000U);
    EXPECT_GT(corrupt, 1000U);
}

TEST_F(NtfsRunlist, AResidentAttributeHasNoDataRuns) {
    Attribute const attribute = std::move(Attribute({0x11, 0x04, 0x64, 0x00}).set(0x08, 0, 1));
    EXPECT_THAT(parser.get_data_runs(attribute.get()), IsEmpty());
    EXPECT_THAT(logger.entries, ElementsAre(debugEntry("Attribute is resident. Can't find data-runs.")));
}

TEST_F(NtfsRunlist, ANonResidentAttributesDataRunsAreItsRuns) {
    for (unsigned const flag : {1U, 2U, 255U}) {
        Attribute const attribute = std::move(Attribute({0x11, 0x04, 0x64, 0x00}).set(0x08, flag, 1));
        EXPECT_THAT(parser.get_data_runs(attribute.get()), ElementsAre(ntfs_runlist{100, 4})) << flag;
    }
    EXPECT_THAT(logger.entries, IsEmpty());
}

TEST_F(NtfsRunlist, RunsBecomeRangesInTheirOrderWithHolesAndMarkers) {
    auto const ranges = parser.runs_to_blockRange({{100, 4}, {-1, 8}, {-1, -1}, {5, 2}, {-7, 0}});
    std::vector<std::pair<std::int64_t, std::int64_t>> plain;
    for (auto const& range : ranges) {
        plain.emplace_back(range.first, range.count);
    }
    EXPECT_THAT(plain, ElementsAre(testing::Pair(100, 4), testing::Pair(-1, 8), testing::Pair(-1, -1),
                                   testing::Pair(5, 2), testing::Pair(-7, 0)));
    EXPECT_THAT(parser.runs_to_blockRange({}), IsEmpty());
}

} // namespace
