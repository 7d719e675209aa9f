// What the imaging layer makes of a volume that lies: an error, a map with warnings, or the right map.
#pragma once

#include "imaging/Error.h"
#include "imaging/VolumeMap.h"
#include "support/Files.h"
#include "support/RecordingLogger.h"
#include "support/ResidentMemory.h"
#include "support/Sanitized.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace tests {

/// The whole of an answer. Sentences are without the volume's path.
struct HostileAnswer {
    std::string error; ///< empty where there is a map
    std::vector<std::string> warnings;
    imaging::Geometry geometry;
    std::vector<imaging::Run> runs;
    std::size_t memory = 0; ///< bytes that it took beyond what there was before

    /// Whether whoever asked was told that something is wrong.
    bool isDoubted() const { return !error.empty() || !warnings.empty(); }

    bool isAllUsed() const {
        return error.empty() && runs.size() == 1 && runs[0].used && runs[0].count == geometry.units;
    }

    /// One state a unit, of the first `count` at most.
    std::vector<bool> units(std::uint64_t count) const {
        std::vector<bool> states;
        for (imaging::Run const& run : runs) {
            states.insert(states.end(), std::min(run.count, count - states.size()), run.used);
        }
        return states;
    }

    /// The first unit in use, by the truth, of which a byte lies in a unit that the map calls free.
    std::optional<std::uint64_t> firstLost(std::vector<bool> const& truth, std::uint64_t unitSize) const {
        for (imaging::Run const& run : runs) {
            std::uint64_t const begin = geometry.start + run.first * geometry.unitSize;
            std::uint64_t const end = begin + run.count * geometry.unitSize;
            for (std::uint64_t unit = begin / unitSize; !run.used && unit < truth.size() && unit * unitSize < end;
                 ++unit) {
                if (truth[unit]) {
                    return unit;
                }
            }
        }
        return std::nullopt;
    }
};

inline void PrintTo(HostileAnswer const& answer, std::ostream* out) {
    *out << "error \"" << answer.error << "\", warnings";
    for (std::string const& warning : answer.warnings) {
        *out << " \"" << warning << '"';
    }
    *out << ", used";
    for (std::size_t i = 0; i < answer.runs.size() && i < 20; ++i) {
        if (answer.runs[i].used) {
            *out << ' ' << answer.runs[i].count << " from " << answer.runs[i].first;
        }
    }
}

/// Asks for the map of a volume of these bytes, with zeros behind them up to `size`.
inline HostileAnswer askForMap(std::vector<std::uint8_t> const& bytes, std::uint64_t size = 0) {
    TempDirectory const directory(TempDirectory::Place::Memory);
    std::string const path = writeFile(directory.file("volume"), bytes);
    std::filesystem::resize_file(path, std::max<std::uint64_t>(size, bytes.size()));
    auto const withoutPath = [&path](std::string const& text) {
        return text.starts_with(path + ": ") ? text.substr(path.size() + 2) : text;
    };
    HostileAnswer answer;
    RecordingLogger logger;
    std::size_t const before = residentBytes();
    auto const measure = [&answer, before](std::uint64_t = 0) {
        answer.memory = std::max(answer.memory, std::max(residentBytes(), before) - before);
    };
    try {
        imaging::Volume volume(path, 512, logger);
        imaging::VolumeMap map(volume);
        answer.geometry = map.geometry();
        measure();
        auto const totals = map.walk([&answer](imaging::Run const& run) { answer.runs.push_back(run); }, measure);
        std::transform(totals.warnings.begin(), totals.warnings.end(), std::back_inserter(answer.warnings),
                       withoutPath);
    } catch (imaging::VolumeError const& error) {
        answer.error = withoutPath(error.what());
        answer.runs.clear();
    }
    measure();
    return answer;
}

/// How a lie ends.
enum class HostileEnd {
    Error,   ///< no map
    AllUsed, ///< every unit counts as used
    Doubted, ///< a map with a warning
    Right,   ///< nothing depends on it
};

/// One field of a volume and what it is changed to.
struct HostileField {
    char const* name;
    std::uint64_t offset; ///< byte of the volume
    std::uint64_t value;
    unsigned width; ///< bytes
    HostileEnd end;
    char const* text = ""; ///< a part of the error or of a warning
};

inline void PrintTo(HostileField const& field, std::ostream* out) {
    *out << field.name;
}

template <typename Instance>
std::string hostileName(Instance const& instance) {
    return instance.param.name;
}

/// What any of these volumes may take: a chunk or two.
inline constexpr std::size_t kMostHostileMemory = std::size_t{96} << 20;

/// Expects the end, and whatever it is, that no unit in use is called free without a word, and that memory is bounded.
/// @param truth  one state a unit of the sound volume
inline void expectEnd(HostileAnswer const& answer, HostileEnd end, std::string const& text,
                      std::vector<bool> const& truth, std::uint64_t unitSize) {
    EXPECT_TRUE(answer.isDoubted() || !answer.firstLost(truth, unitSize))
        << "unit " << answer.firstLost(truth, unitSize).value_or(0) << " is lost";
    EXPECT_TRUE(kIsSanitized || answer.memory < kMostHostileMemory) << answer.memory << " bytes";
    EXPECT_EQ(answer.error.empty(), end != HostileEnd::Error);
    EXPECT_EQ(answer.isDoubted(), end != HostileEnd::Right);
    if (end == HostileEnd::AllUsed) {
        EXPECT_TRUE(answer.isAllUsed());
    }
    if (end == HostileEnd::Right) {
        EXPECT_EQ(answer.units(truth.size()), truth);
    } else {
        auto sentences = answer.warnings;
        sentences.push_back(answer.error);
        EXPECT_THAT(sentences, testing::Contains(testing::HasSubstr(text)));
    }
    if (testing::Test::HasFailure()) {
        ADD_FAILURE() << testing::PrintToString(answer);
    }
}

/// Expects that nobody loses a unit in use without a word; the rest is not fixed.
inline void expectNothingLost(HostileAnswer const& answer, std::vector<bool> const& truth, std::uint64_t unitSize) {
    EXPECT_TRUE(answer.isDoubted() || !answer.firstLost(truth, unitSize))
        << "unit " << answer.firstLost(truth, unitSize).value_or(0) << " is lost: " << testing::PrintToString(answer);
}

} // namespace tests
