// Copying ranges from a source that fails, that ends early or that has holes.
#include "imaging/Error.h"
#include "imaging/copy/Copier.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <random>
#include <system_error>

namespace {

using imaging::ByteRange;
using imaging::Copier;
using imaging::CopyResult;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t kMiB = std::uint64_t{1} << 20;
constexpr std::uint64_t kKiB = 1024;

/// A volume in memory with sectors that cannot be read, holes, and an end of its own.
class FakeSource : public imaging::Source {
public:
    explicit FakeSource(std::uint64_t size, std::uint64_t alignment = 512) : bytes(size), alignment_(alignment) {
        std::mt19937_64 generator(1);
        for (std::size_t at = 0; at + 8 <= bytes.size(); at += 8) {
            std::uint64_t const word = generator() | 0x0101010101010101U; // no byte is zero
            std::memcpy(&bytes[at], &word, sizeof word);
        }
    }

    std::uint64_t alignment() const override { return alignment_; }

    std::size_t read(std::uint64_t offset, std::span<std::uint8_t> buffer) const override {
        ByteRange const range{offset, offset + buffer.size()};
        EXPECT_EQ(offset % alignment_, 0U);
        EXPECT_EQ(buffer.size() % alignment_, 0U);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(buffer.data()) % alignment_, 0U);
        reads.push_back(range);
        if (buffer.size() > largestGood || meetsBad(range)) {
            throw std::system_error(EIO, std::generic_category());
        }
        std::uint64_t const end = std::min<std::uint64_t>(range.end, bytes.size());
        std::uint64_t const count = end - std::min(offset, end);
        std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), count, buffer.begin());
        return count;
    }

    Stretch stretchAt(std::uint64_t offset) const override {
        std::uint64_t end = bytes.size();
        for (ByteRange const& hole : holes) {
            if (offset >= hole.begin && offset < hole.end) {
                return {hole.end, true};
            }
            if (hole.begin > offset) {
                end = std::min(end, hole.begin);
            }
        }
        return {end, false};
    }

    FakeSource& addHole(ByteRange const& hole) {
        holes.push_back(hole);
        std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(hole.begin),
                  bytes.begin() + static_cast<std::ptrdiff_t>(hole.end), std::uint8_t{0});
        return *this;
    }

    bool meetsBad(ByteRange const& range) const {
        return std::any_of(bad.begin(), bad.end(),
                           [&](ByteRange const& b) { return b.begin < range.end && range.begin < b.end; });
    }

    std::vector<std::uint8_t> bytes;
    std::vector<ByteRange> bad;
    std::vector<ByteRange> holes;
    std::uint64_t largestGood = UINT64_MAX; ///< longer reads fail
    mutable std::vector<ByteRange> reads;

private:
    std::uint64_t alignment_;
};

/// Keeps what arrives, and requires that it arrives in order.
class FakeDestination : public imaging::Destination {
public:
    explicit FakeDestination(std::uint64_t size) : bytes(size, kUntouched) {}

    void write(std::uint64_t offset, std::span<std::uint8_t const> content) override {
        EXPECT_GE(offset, end_);
        std::copy(content.begin(), content.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
        end_ = offset + content.size();
    }

    void zero(std::uint64_t offset, std::uint64_t length) override {
        EXPECT_GE(offset, end_);
        std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), length, std::uint8_t{0});
        end_ = offset + length;
    }

    void finish() override { ADD_FAILURE() << "whoever copies ranges does not finish the destination"; }

    static constexpr std::uint8_t kUntouched = 0xEE;
    std::vector<std::uint8_t> bytes;

private:
    std::uint64_t end_ = 0;
};

CopyResult copyRanges(FakeSource const& source, FakeDestination& destination, std::vector<ByteRange> const& ranges,
                      bool skipUnreadable = false) {
    Copier copier(source, destination, "volume", skipUnreadable, {});
    for (ByteRange const& range : ranges) {
        copier.add(range);
    }
    return copier.finish();
}

std::string failureOf(FakeSource const& source, std::vector<ByteRange> const& ranges, bool skipUnreadable = false) {
    FakeDestination destination(source.bytes.size() + kMiB);
    try {
        copyRanges(source, destination, ranges, skipUnreadable);
    } catch (imaging::VolumeError const& error) {
        EXPECT_EQ(error.trouble(), imaging::Trouble::Io);
        return error.what();
    }
    return "copied";
}

/// What a plain loop over the bytes would leave at the destination.
std::vector<std::uint8_t> naiveCopy(FakeSource const& source, std::vector<ByteRange> const& ranges) {
    std::vector<std::uint8_t> result(source.bytes.size(), FakeDestination::kUntouched);
    for (ByteRange const& range : ranges) {
        for (std::uint64_t at = range.begin; at < range.end;) {
            std::uint64_t const unit = at / source.alignment() * source.alignment();
            std::uint64_t const end = std::min(unit + source.alignment(), range.end);
            if (source.meetsBad({unit, unit + source.alignment()})) {
                std::fill(result.begin() + static_cast<std::ptrdiff_t>(at),
                          result.begin() + static_cast<std::ptrdiff_t>(end), std::uint8_t{0});
            } else {
                std::copy(source.bytes.begin() + static_cast<std::ptrdiff_t>(at),
                          source.bytes.begin() + static_cast<std::ptrdiff_t>(end),
                          result.begin() + static_cast<std::ptrdiff_t>(at));
            }
            at = end;
        }
    }
    return result;
}

std::vector<ByteRange> naiveUnreadable(FakeSource const& source, std::vector<ByteRange> const& ranges) {
    std::vector<ByteRange> found;
    std::uint64_t const unit = source.alignment();
    for (ByteRange const& range : ranges) {
        for (std::uint64_t at = range.begin; at < range.end; at = (at / unit + 1) * unit) {
            std::uint64_t const first = at / unit * unit;
            std::uint64_t const end = std::min(range.end, first + unit);
            bool const isHole = source.stretchAt(at).isHole;
            if (!isHole && source.meetsBad({first, first + unit})) {
                if (!found.empty() && found.back().end == at) {
                    found.back().end = end;
                } else {
                    found.push_back({at, end});
                }
            }
        }
    }
    return found;
}

TEST(ImagingCopyRead, AReadErrorNamesTheFirstByteThatCannotBeRead) {
    FakeSource source(12 * kMiB);
    source.bad = {{7 * kMiB + 512, 7 * kMiB + 1024}, {9 * kMiB, 9 * kMiB + 512}};
    EXPECT_EQ(failureOf(source, {{0, 12 * kMiB}}), "volume: cannot be read at byte 7340544: Input/output error");
}

TEST(ImagingCopyRead, EveryPlaceOfAnErrorIsNamedExactly) {
    for (std::uint64_t const sector : {0U, 1U, 100U, 8190U, 8191U, 8192U, 8193U, 16383U}) {
        FakeSource source(8 * kMiB);
        source.bad = {{sector * 512, sector * 512 + 512}};
        EXPECT_EQ(failureOf(source, {{0, 8 * kMiB}}),
                  "volume: cannot be read at byte " + std::to_string(sector * 512) + ": Input/output error");
    }
}

TEST(ImagingCopyRead, AnErrorOutsideTheRangesIsNoError) {
    FakeSource source(12 * kMiB);
    source.bad = {{5 * kMiB, 6 * kMiB}};
    std::vector<ByteRange> const ranges{{0, 5 * kMiB}, {6 * kMiB, 12 * kMiB}};
    FakeDestination destination(12 * kMiB);
    CopyResult const result = copyRanges(source, destination, ranges);
    EXPECT_EQ(result.copied, 11 * kMiB);
    EXPECT_TRUE(destination.bytes == naiveCopy(source, ranges));
}

TEST(ImagingCopyRead, AnErrorInAGapThatIsReadAcrossIsNoError) {
    FakeSource source(kMiB);
    source.bad = {{100 * kKiB, 101 * kKiB}};
    std::vector<ByteRange> const ranges{{0, 100 * kKiB}, {101 * kKiB, 200 * kKiB}};
    FakeDestination destination(kMiB);
    CopyResult const result = copyRanges(source, destination, ranges);
    EXPECT_THAT(source.reads.front(), (ByteRange{0, 200 * kKiB}));
    EXPECT_EQ(result.copied, 199 * kKiB);
    EXPECT_TRUE(destination.bytes == naiveCopy(source, ranges));
}

TEST(ImagingCopyRead, SkippingListsExactlyWhatCannotBeReadAndCopiesAllElse) {
    FakeSource source(12 * kMiB);
    source.bad = {{1024, 1536}, {4 * kMiB - 512, 4 * kMiB + 512}, {9 * kMiB, 9 * kMiB + 70 * kKiB}};
    std::vector<ByteRange> const ranges{{0, 12 * kMiB}};
    FakeDestination destination(12 * kMiB);
    CopyResult const result = copyRanges(source, destination, ranges, true);
    EXPECT_EQ(result.unreadable, source.bad);
    EXPECT_EQ(result.unreadableBytes(), 512U + 1024U + 70 * kKiB);
    EXPECT_EQ(result.copied, 12 * kMiB - result.unreadableBytes());
    EXPECT_TRUE(destination.bytes == naiveCopy(source, ranges));
}

TEST(ImagingCopyRead, ARangeOfWhichNothingCanBeReadIsOneUnreadableRange) {
    FakeSource source(6 * kMiB, 4096);
    source.bad = {{0, 6 * kMiB}};
    FakeDestination destination(6 * kMiB);
    CopyResult const result = copyRanges(source, destination, {{512, 6 * kMiB}}, true);
    EXPECT_THAT(result.unreadable, ElementsAre(ByteRange{512, 6 * kMiB}));
    EXPECT_EQ(result.copied, 0U);
    EXPECT_EQ(destination.bytes.front(), FakeDestination::kUntouched);
    EXPECT_EQ(destination.bytes.back(), 0);
}

TEST(ImagingCopyRead, AUnitThatCanBeReadIsNotGivenUpForItsNeighbour) {
    // Blocks of 1 KiB, which begin and end inside the device's sectors of 4 KiB.
    FakeSource source(64 * kKiB, 4096);
    source.bad = {{4096, 8192}};
    FakeDestination destination(64 * kKiB);
    CopyResult const result = copyRanges(source, destination, {{kKiB, 5 * kKiB}, {7 * kKiB, 9 * kKiB}}, true);
    EXPECT_THAT(result.unreadable, ElementsAre(ByteRange{4 * kKiB, 5 * kKiB}, ByteRange{7 * kKiB, 8 * kKiB}));
    EXPECT_EQ(failureOf(source, {{kKiB, 5 * kKiB}}), "volume: cannot be read at byte 4096: Input/output error");
}

TEST(ImagingCopyRead, AnErrorThatOnlyLargeReadsHaveLosesNothing) {
    FakeSource source(12 * kMiB);
    source.largestGood = 64 * kKiB;
    std::vector<ByteRange> const ranges{{0, 3 * kMiB + 512}, {4 * kMiB, 12 * kMiB}};
    FakeDestination destination(12 * kMiB);
    CopyResult const result = copyRanges(source, destination, ranges);
    EXPECT_THAT(result.unreadable, IsEmpty());
    EXPECT_EQ(result.copied, 11 * kMiB + 512);
    EXPECT_TRUE(destination.bytes == naiveCopy(source, ranges));
}

TEST(ImagingCopyRead, ASourceThatBecameShorterIsAnErrorEvenWhereUnreadablePlacesAreSkipped) {
    FakeSource source(5 * kMiB + 100);
    std::string const sentence = "volume: ends at byte 5242980, where it was longer when the reading began";
    EXPECT_EQ(failureOf(source, {{0, 6 * kMiB}}), sentence);
    EXPECT_EQ(failureOf(source, {{0, 6 * kMiB}}, true), sentence);
    EXPECT_EQ(failureOf(source, {{5 * kMiB, 5 * kMiB + 100}}), "copied");
}

TEST(ImagingCopyRead, HolesAreNotRead) {
    FakeSource source(40 * kMiB);
    source.addHole({0, 10 * kMiB}).addHole({12 * kMiB, 30 * kMiB}).addHole({33 * kMiB, 40 * kMiB});
    std::vector<ByteRange> const ranges{{kMiB, 39 * kMiB}};
    FakeDestination destination(40 * kMiB);
    CopyResult const result = copyRanges(source, destination, ranges);
    EXPECT_THAT(source.reads, ElementsAre(ByteRange{10 * kMiB, 12 * kMiB}, ByteRange{30 * kMiB, 33 * kMiB}));
    EXPECT_EQ(result.copied, 5 * kMiB);
    EXPECT_EQ(result.zero, 33 * kMiB);
    EXPECT_TRUE(destination.bytes == naiveCopy(source, ranges));
}

TEST(ImagingCopyRead, RangesNearEachOtherAreReadAtOnce) {
    FakeSource source(8 * kMiB);
    std::vector<ByteRange> ranges;
    for (std::uint64_t at = 0; at < 2 * kMiB; at += 64 * kKiB) {
        ranges.push_back({at, at + 4096});
    }
    ranges.push_back({4 * kMiB, 4 * kMiB + 4096}); // too far away
    FakeDestination destination(8 * kMiB);
    CopyResult const result = copyRanges(source, destination, ranges);
    EXPECT_THAT(source.reads, ElementsAre(ByteRange{0, 2 * kMiB - 60 * kKiB}, ByteRange{4 * kMiB, 4 * kMiB + 4096}));
    EXPECT_EQ(result.copied, ranges.size() * 4096);
    EXPECT_TRUE(destination.bytes == naiveCopy(source, ranges));
}

TEST(ImagingCopyRead, AVolumeIsReadInLargePieces) {
    FakeSource source(20 * kMiB);
    FakeDestination destination(20 * kMiB);
    copyRanges(source, destination, {{0, 20 * kMiB}});
    EXPECT_EQ(source.reads.size(), 5U);
}

/// Ranges in order, with gaps, that begin and end at multiples of a unit.
std::vector<ByteRange> randomRanges(std::mt19937& generator, std::uint64_t size, std::uint64_t unit) {
    std::vector<ByteRange> ranges;
    for (std::uint64_t at = generator() % 64 * unit; at < size;) {
        std::uint64_t const longest = generator() % 8 == 0 ? 10 * kMiB : 96 * kKiB;
        std::uint64_t const end = std::min(size, at + (1 + generator() % (longest / unit)) * unit);
        ranges.push_back({at, end});
        at = end + (1 + generator() % ((generator() % 2 == 0 ? 16 * kKiB : kMiB) / unit)) * unit;
    }
    return ranges;
}

TEST(ImagingCopyRead, RandomRangesAreCopiedAsAPlainLoopWould) {
    for (unsigned seed = 1; seed <= 20; ++seed) {
        std::mt19937 generator(seed);
        std::uint64_t const alignment = seed % 3 == 0 ? 4096 : 512;
        std::uint64_t const unit = seed % 3 == 0 && seed % 2 == 0 ? 1024 : alignment;
        FakeSource source(14 * kMiB, alignment);
        for (std::uint64_t at = generator() % (4 * kMiB); at + 3 * kMiB < source.bytes.size(); at += 4 * kMiB) {
            std::uint64_t const begin = at / 4096 * 4096;
            source.addHole({begin, begin + (1 + generator() % 700) * 4096});
        }
        for (unsigned i = 0; i < seed % 5 * 4; ++i) {
            std::uint64_t const begin = generator() % (source.bytes.size() / 4096 - 64) * 4096;
            source.bad.push_back({begin, begin + (1 + generator() % 8) * alignment});
        }
        std::vector<ByteRange> const ranges = randomRanges(generator, source.bytes.size(), unit);
        FakeDestination destination(source.bytes.size());
        CopyResult const result = copyRanges(source, destination, ranges, true);
        EXPECT_TRUE(destination.bytes == naiveCopy(source, ranges)) << "seed " << seed;
        EXPECT_EQ(result.unreadable, naiveUnreadable(source, ranges)) << "seed " << seed;
        std::uint64_t wanted = 0;
        for (ByteRange const& range : ranges) {
            wanted += range.size();
        }
        EXPECT_EQ(result.copied + result.zero + result.unreadableBytes(), wanted) << "seed " << seed;
    }
}

} // namespace
