// Copying to a destination that fails, and a copy that whoever watches it ends.
#include "imaging/Error.h"
#include "imaging/copy/Copier.h"
#include "imaging/copy/RescueMap.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <sstream>
#include <system_error>

namespace {

using imaging::ByteRange;
using imaging::Copier;

constexpr std::uint64_t kMiB = std::uint64_t{1} << 20;
constexpr std::uint64_t kSize = 64 * kMiB;

/// A volume without content that counts its reads. Every second MiB of its last half is a hole.
class CountingSource : public imaging::Source {
public:
    std::uint64_t alignment() const override { return 512; }

    std::size_t read(std::uint64_t offset, std::span<std::uint8_t> buffer) const override {
        ++reads;
        if (offset >= failsFrom) {
            throw std::system_error(EIO, std::generic_category());
        }
        std::fill(buffer.begin(), buffer.end(), static_cast<std::uint8_t>(offset / kMiB));
        return buffer.size();
    }

    Stretch stretchAt(std::uint64_t offset) const override {
        if (offset < kSize / 2) {
            return {kSize / 2, false};
        }
        return {(offset / kMiB + 1) * kMiB, offset / kMiB % 2 == 1};
    }

    mutable std::atomic<unsigned> reads{0};
    std::uint64_t failsFrom = UINT64_MAX;
};

/// Refuses the n-th call, counted from 0, and every later one.
class FailingDestination : public imaging::Destination {
public:
    explicit FailingDestination(unsigned n) : n_(n) {}

    void write(std::uint64_t offset, std::span<std::uint8_t const>) override { call(offset); }
    void zero(std::uint64_t offset, std::uint64_t) override { call(offset); }
    void finish() override { ADD_FAILURE() << "finished"; }

    std::optional<std::uint64_t> failedAt; ///< the offset of the call that was refused
    unsigned afterwards = 0;               ///< calls after that
    unsigned calls = 0;

private:
    void call(std::uint64_t offset) {
        if (failedAt) {
            ++afterwards;
        } else if (calls++ == n_) {
            failedAt = offset;
            throw imaging::VolumeError(imaging::Trouble::Io, "no room at " + std::to_string(offset));
        }
    }

    unsigned n_;
};

TEST(ImagingCopyWrite, EveryWriteThatFailsEndsTheCopyWithItsOwnSentence) {
    unsigned n = 0;
    for (bool fired = true; fired; ++n) {
        CountingSource const source;
        FailingDestination destination(n);
        std::string sentence;
        try {
            Copier copier(source, destination, "volume", false, {});
            copier.add({0, 10 * kMiB});
            copier.add({11 * kMiB, kSize});
            copier.finish();
        } catch (imaging::VolumeError const& error) {
            sentence = error.what();
        }
        fired = destination.failedAt.has_value();
        EXPECT_EQ(sentence, fired ? "no room at " + std::to_string(*destination.failedAt) : "") << n;
        EXPECT_EQ(destination.afterwards, 0U) << n;
    }
    EXPECT_GT(n, 30U); // reads of data, and holes
}

TEST(ImagingCopyWrite, AWriteThatFailsEarlyStopsTheReading) {
    CountingSource const source;
    FailingDestination destination(0);
    EXPECT_THROW(
        {
            Copier copier(source, destination, "volume", false, {});
            for (std::uint64_t at = 0; at < 100'000 * kMiB; at += kSize) {
                copier.add({at, at + kSize / 2});
            }
            copier.finish();
        },
        imaging::VolumeError);
    EXPECT_LE(source.reads, 8U);
}

TEST(ImagingCopyWrite, AReadThatFailsIsToldThoughEarlierWritesStillWait) {
    CountingSource source;
    source.failsFrom = 8 * kMiB;
    FailingDestination destination(1000);
    try {
        Copier copier(source, destination, "volume", false, {});
        copier.add({0, kSize});
        copier.finish();
        FAIL() << "copied";
    } catch (imaging::VolumeError const& error) {
        EXPECT_STREQ(error.what(), "volume: cannot be read at byte 8388608: Input/output error");
    }
}

struct Enough {};

TEST(ImagingCopyWrite, WhoeverWatchesEndsTheCopyAtAnyTime) {
    unsigned most = 0;
    {
        CountingSource const source;
        FailingDestination destination(UINT32_MAX);
        Copier copier(source, destination, "volume", false, [&most](imaging::CopyProgress const&) { ++most; });
        copier.add({0, kSize});
        copier.finish();
    }
    ASSERT_GT(most, 8U);
    for (unsigned n = 0; n < most; ++n) {
        CountingSource const source;
        FailingDestination destination(UINT32_MAX);
        unsigned calls = 0;
        auto const copy = [&] {
            Copier copier(source, destination, "volume", false, [&](imaging::CopyProgress const&) {
                if (calls++ == n) {
                    throw Enough();
                }
            });
            copier.add({0, kSize});
            copier.finish();
        };
        EXPECT_THROW(copy(), Enough) << n;
        EXPECT_EQ(calls, n + 1);
    }
}

TEST(ImagingCopyWrite, ProgressNeverGoesBackAndEndsAtTheTotal) {
    CountingSource const source;
    FailingDestination destination(UINT32_MAX);
    std::uint64_t done = 0;
    std::uint64_t offset = 0;
    Copier copier(source, destination, "volume", false, [&](imaging::CopyProgress const& state) {
        EXPECT_GE(state.done, done);
        EXPECT_GE(state.offset, offset);
        done = state.done;
        offset = state.offset;
    });
    copier.add({0, 10 * kMiB});
    copier.add({20 * kMiB, kSize});
    copier.finish();
    EXPECT_EQ(done, 10 * kMiB + kSize - 20 * kMiB);
    EXPECT_EQ(offset, kSize);
}

TEST(ImagingCopyWrite, ACopierThatIsGivenUpWithoutAnEndDoesNotHang) {
    CountingSource const source;
    FailingDestination destination(UINT32_MAX);
    {
        Copier copier(source, destination, "volume", false, {});
        copier.add({0, 30 * kMiB});
    }
    EXPECT_LE(destination.calls, 30U);
}

TEST(ImagingCopyWrite, NothingToCopyIsCopied) {
    CountingSource const source;
    FailingDestination destination(0);
    Copier copier(source, destination, "volume", false, {});
    imaging::CopyResult const result = copier.finish();
    EXPECT_EQ(result.copied + result.zero + result.unreadableBytes(), 0U);
    EXPECT_EQ(source.reads, 0U);
}

/// The lines of a mapfile that are no comments.
std::vector<std::string> linesOf(std::string const& map) {
    std::vector<std::string> lines;
    std::istringstream text(map);
    for (std::string line; std::getline(text, line);) {
        if (!line.starts_with("#")) {
            lines.push_back(line);
        }
    }
    return lines;
}

TEST(ImagingCopyRescueMap, CoversTheVolumeToItsLastByte) {
    EXPECT_THAT(linesOf(imaging::rescueMap({{512, 1024}, {4096, 0x123456789}}, 0x200000001)),
                testing::ElementsAre("0x00000000     +               1", "0x00000000  0x00000200  +",
                                     "0x00000200  0x00000200  -", "0x00000400  0x00000C00  +",
                                     "0x00001000  0x123455789  -", "0x123456789  0xDCBA9878  +"));
}

TEST(ImagingCopyRescueMap, MayBeginAndEndWithWhatCannotBeRead) {
    EXPECT_THAT(linesOf(imaging::rescueMap({{0, 512}, {1024, 1536}}, 1536)),
                testing::ElementsAre("0x00000000     +               1", "0x00000000  0x00000200  -",
                                     "0x00000200  0x00000200  +", "0x00000400  0x00000200  -"));
}

TEST(ImagingCopyRescueMap, OfAVolumeThatWasReadWholeIsOneFinishedRange) {
    EXPECT_THAT(linesOf(imaging::rescueMap({}, 4096)),
                testing::ElementsAre("0x00000000     +               1", "0x00000000  0x00001000  +"));
}

} // namespace
