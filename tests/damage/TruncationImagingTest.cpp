// Volumes in files that end early, as the command sees them: one clear sentence, or a warning, or nothing lost.
#include "imaging/Error.h"
#include "imaging/copy/CopyVolume.h"
#include "support/CopyVolumes.h"
#include "support/Files.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

namespace {

using namespace tests;
using imaging::Trouble;

constexpr std::uint64_t kHeaderEnd = 1536; // of the header that lies furthest behind

/// What the command would do with a volume.
struct Ending {
    int exitCode = 0;
    std::string sentence;
    std::vector<std::string> warnings;
    std::vector<bool> used; ///< one element a unit
};

class TruncatedVolume : public testing::TestWithParam<std::size_t> {
protected:
    /// Walks and copies the first bytes of the volume.
    Ending run(std::uint64_t length) const {
        writeFile(path, {volume.bytes.begin(), volume.bytes.begin() + static_cast<std::ptrdiff_t>(length)});
        std::filesystem::remove(copyPath);
        Ending ending;
        SilentLogger logger;
        try {
            imaging::Volume opened(path, 0, logger);
            imaging::VolumeMap map(opened);
            map.walk([&](imaging::Run const& run) { ending.used.resize(ending.used.size() + run.count, run.used); });
            imaging::CopyPlan plan(opened, imaging::VolumeMap::Refused::IsError, 0);
            imaging::FileSource const source(path, opened.size());
            imaging::FileDestination destination(copyPath, path, opened.size(),
                                                 imaging::OutputFile::Existing::IsRefused);
            ending.warnings = imaging::copyVolume(plan, source, destination, path, opened.size(), false, {}).warnings;
            ending.exitCode = ending.warnings.empty() ? 0 : 4;
        } catch (imaging::VolumeError const& error) {
            ending.sentence = error.what();
            ending.exitCode = error.trouble() == Trouble::NotUnderstood ? 3 : 1;
        }
        return ending;
    }

    /// A sentence that begins with the path, on one line.
    void expectClear(std::string const& sentence) const {
        EXPECT_THAT(sentence, testing::StartsWith(path + ": "));
        EXPECT_THAT(sentence, testing::Not(testing::HasSubstr("\n")));
        EXPECT_GT(sentence.size(), path.size() + 10);
    }

    std::vector<std::uint64_t> lengths() const {
        std::uint64_t const size = volume.bytes.size();
        return {0,        1,        511,          512,          1023,        1024,        1025,       1535,    1536,
                2048,     4095,     4096,         8191,         8192,        16384,       16896,      20000,   65536,
                size / 3, size / 2, size / 4 * 3, size - 65536, size - 4096, size - 1024, size - 512, size - 1};
    }

    CopyVolume const& volume = copyVolume(GetParam());
    TempDirectory directory{TempDirectory::Place::Memory};
    std::string path = directory.file("volume");
    std::string copyPath = directory.file("copy");
};

TEST_P(TruncatedVolume, IsRefusedInASentenceOrCopiedWithAWarning) {
    for (std::uint64_t const length : lengths()) {
        SCOPED_TRACE(std::to_string(length) + " bytes of " + std::to_string(volume.bytes.size()));
        Ending const ending = run(length);
        EXPECT_EQ(ending.sentence.empty(), ending.exitCode == 0 || ending.exitCode == 4);
        EXPECT_EQ(std::filesystem::exists(copyPath), ending.sentence.empty());
        if (!ending.sentence.empty()) {
            expectClear(ending.sentence);
            continue;
        }
        for (std::string const& warning : ending.warnings) {
            expectClear(warning);
        }
        // What is there of the used units is in the copy, whatever became of the rest.
        auto const copied = readFile(copyPath);
        ASSERT_EQ(copied.size(), length);
        for (std::uint64_t unit = 0; (unit + 1) * volume.unitSize <= length && unit < volume.used.size(); ++unit) {
            auto const begin = static_cast<std::ptrdiff_t>(unit * volume.unitSize);
            auto const end = begin + static_cast<std::ptrdiff_t>(volume.unitSize);
            ASSERT_TRUE(!volume.used[unit] ||
                        std::equal(volume.bytes.begin() + begin, volume.bytes.begin() + end, copied.begin() + begin))
                << "unit " << unit << " is lost";
        }
    }
}

TEST_P(TruncatedVolume, IsNeverTakenForAWholeOne) {
    for (std::uint64_t const length : lengths()) {
        if (length >= volume.used.size() * volume.unitSize) {
            continue; // only the copy of the boot sector, or less than a unit, is missing
        }
        Ending const ending = run(length);
        // What is too short for its header holds no file system: all of it is used.
        bool const isAll = std::find(ending.used.begin(), ending.used.end(), false) == ending.used.end();
        EXPECT_TRUE(ending.exitCode != 0 || (length < kHeaderEnd && isAll)) << length;
    }
}

TEST_P(TruncatedVolume, IsSoundWhenNothingIsMissing) {
    Ending const ending = run(volume.bytes.size());
    EXPECT_EQ(ending.exitCode, 0) << ending.sentence << testing::PrintToString(ending.warnings);
    EXPECT_EQ(ending.used, volume.used);
}

INSTANTIATE_TEST_SUITE_P(Volumes, TruncatedVolume, testing::Range(std::size_t{0}, copyVolumeNames().size()),
                         [](auto const& instance) { return copyVolumeNames().at(instance.param); });

} // namespace
