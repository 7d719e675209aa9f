// Volumes that end early: every length from nothing up to 64 KiB byte by byte, then sector by sector. Each gives a
// documented failure, or a map of the right size; and the right answer where nothing that is needed is missing.
#include "support/FaultOperations.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

namespace {

using namespace tests;

constexpr std::uint64_t kEveryByte = 65536;
constexpr std::uint64_t kSector = 512;

/// Where records 0 and 1 of $MFT end on the NTFS volume: before, no parser stands.
constexpr std::uint64_t kProofEnd = 18432;

/// The length to try after one. An NTFS volume's records are protected sector by sector, and its runs are whole
/// clusters: past what the parser needs to stand, a byte before, at and behind each border tells all.
std::uint64_t lengthAfter(std::uint64_t length, bool isNtfs) {
    if (isNtfs && length >= kProofEnd) {
        std::uint64_t const step = length < kEveryByte ? kSector : 8 * kSector;
        std::uint64_t const within = (length + 1) % step; // 0, 1, 2: a byte before, at, behind
        return within < 2 ? length + 1 : length + step - within;
    }
    return length < kEveryByte ? length + 1 : length + kSector;
}

/// A volume of full size whose bytes from a place on are zeros.
class ZeroTailReader : public agent::core::IVolumeReader {
public:
    ZeroTailReader(std::span<std::uint8_t const> bytes, std::uint64_t size) : head_(bytes), size_(size) {}

    long read(void* buffer, long length) const override {
        std::uint64_t const rest = size_ - std::min(size_, position_);
        long const count = static_cast<long>(std::min(rest, static_cast<std::uint64_t>(length)));
        if (count > 0) {
            std::memset(buffer, 0, static_cast<std::size_t>(count));
        }
        head_.seek(static_cast<long>(position_), SEEK_SET);
        head_.read(buffer, count);
        position_ += static_cast<std::uint64_t>(count);
        return count;
    }

    long seek(long offset, int whence) const override {
        if (whence != SEEK_SET || offset < 0) {
            return -1;
        }
        position_ = static_cast<std::uint64_t>(offset);
        return offset;
    }

private:
    SpanReader head_;
    std::uint64_t size_;
    mutable std::uint64_t position_ = 0;
};

/// What a volume of that name is asked: to make a parser, and then a row's question.
struct Row {
    Operation operation;
    std::vector<std::string> failures; ///< of the construction and of the question
};

Row rowOf(std::string const& name) {
    std::vector<Operation> const all = everyOperation();
    auto const find = [&all](std::string const& wanted) {
        return *std::find_if(all.begin(), all.end(), [&](Operation const& each) { return each.name == wanted; });
    };
    std::string const fileSystem = name.substr(0, name[0] == 'N' ? 4 : 3);
    Row row{find(name), find(fileSystem + "Construction").failures};
    for (auto const& more : {row.operation.failures, row.operation.gaps}) {
        row.failures.insert(row.failures.end(), more.begin(), more.end());
    }
    if (fileSystem == "Ntfs") { // what the checks of a record say that is there in part
        for (char const* const text : {"Record 0x", "MFT Record 0x", "Bad end of record for 0x", "Corrupt ",
                                       "Incorrect attribute alignedment", "Attribute 0x", "Invalid ", "Overflow "}) {
            row.failures.push_back(std::string("threw runtime_error: ") + text);
        }
    }
    return row;
}

class Truncation : public testing::TestWithParam<std::string> {
protected:
    std::string ask(agent::core::IVolumeReader const& reader) {
        SilentLogger logger;
        return answerOf([&] { return row.operation.make(logger, reader)(); });
    }

    /// Up to where the question reads the whole volume.
    std::uint64_t neededBytes() {
        SpanReader const whole(volume);
        EXPECT_EQ(ask(whole), right);
        return whole.furthest;
    }

    Row row = rowOf(GetParam());
    std::span<std::uint8_t const> volume{*row.operation.volume};
    std::string right = row.operation.answer();
    bool isNtfs = GetParam().starts_with("Ntfs");
    bool isMap = GetParam().find("MapBy") != std::string::npos;
};

TEST_P(Truncation, AtAnyLengthGivesADocumentedResult) {
    ASSERT_FALSE(isFailure(right)) << right;
    std::uint64_t const needed = neededBytes();
    std::set<std::string> answers;
    for (std::uint64_t length = 0; length <= volume.size(); length = lengthAfter(length, isNtfs)) {
        SpanReader const cut(volume.first(length));
        std::string const answer = ask(cut);
        answers.insert(answer);
        if (length >= needed) {
            ASSERT_EQ(answer, right) << length;
        } else if (isFailure(answer)) {
            ASSERT_TRUE(beginsWithAny(answer, row.failures)) << length << ": " << answer;
        } else if (isMap) {
            // As many units as ever, or as far as the map is there.
            ASSERT_LE(std::stol(answer), std::stol(right)) << length;
        }
        if (length == 0) {
            EXPECT_EQ(answer, answerOf([&] {
                          SilentLogger logger;
                          SpanReader const nothing({});
                          return row.operation.make(logger, nothing)();
                      }));
            EXPECT_TRUE(isFailure(answer));
        }
    }
    EXPECT_GT(answers.size(), 2U) << "a refusal, the right answer, and something between";
    EXPECT_TRUE(answers.contains(right));
}

/// Parsers that take what is missing for zeros.
class TruncationToZeros : public Truncation {};

TEST_P(TruncationToZeros, IsAsGoodAsZeros) {
    std::uint64_t const needed = neededBytes();
    for (std::uint64_t length = 0; length < std::min(needed, volume.size()); length += 7) {
        ASSERT_EQ(ask(SpanReader(volume.first(length))), ask(ZeroTailReader(volume.first(length), volume.size())))
            << length;
    }
}

INSTANTIATE_TEST_SUITE_P(Volumes, Truncation,
                         testing::Values("ExtMapBy2500", "FatMapBy26", "HfsMapBy22528", "XfsMapBy163", "NtfsMapBy64",
                                         "NtfsStandardInformation", "NtfsAccessLists"),
                         [](auto const& instance) { return instance.param; });

INSTANTIATE_TEST_SUITE_P(Volumes, TruncationToZeros, testing::Values("HfsMapBy22528", "XfsMapBy163"),
                         [](auto const& instance) { return instance.param; });

} // namespace
