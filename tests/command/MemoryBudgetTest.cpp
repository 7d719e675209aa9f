// The command on volumes that ask for gigabytes: it ends soon, in little memory, with an exit code of its own.
#include "command/Fsparser.h"
#include "command/GreedyVolumes.h"
#include "support/Sanitized.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

namespace {

using namespace tests;
using testing::AnyOf;

constexpr std::uint64_t kMostMemory = std::uint64_t{256} << 20;

/// The command's own limit on time, and that of the whole run.
constexpr char const* kMostSeconds = "20";
constexpr std::chrono::seconds kTimeout{40};

/// Every verb that reads the map, and those that read the content too unless there is too much of it; what they write
/// is not kept.
std::vector<std::vector<std::string>> verbsFor(GreedyVolume const& volume, std::string const& path) {
    std::vector<std::vector<std::string>> verbs{{"info", path}, {"map", path}, {"bitmap", path}, {"ranges", path}};
    if (!volume.isLarge) {
        verbs.insert(verbs.end(), {{"digest", path}, {"copy", path, "-"}, {"verify", path, path}});
    }
    return verbs;
}

class MemoryBudget : public testing::TestWithParam<GreedyVolume> {
protected:
    TempDirectory directory{TempDirectory::Place::Memory}; // files there may be larger than 16 TiB
    std::string path = directory.file("volume");
};

TEST_P(MemoryBudget, IsKeptByEveryVerb) {
    if (kIsSanitized) {
        GTEST_SKIP() << "the sanitizer keeps memory that was given back";
    }
    GetParam().write(path);
    CommandOptions options = plainOptions();
    options.timeout = kTimeout;
    options.outputPath = "/dev/null";
    for (auto arguments : verbsFor(GetParam(), path)) {
        arguments.insert(arguments.begin() + 1, {"--max-time", kMostSeconds, "--max-reads", "200000"});
        CommandResult const result = fsparser(arguments, options);
        EXPECT_LT(result.peakBytes, kMostMemory)
            << arguments[0] << ": " << (result.peakBytes >> 20) << " MiB, " << result;
        EXPECT_FALSE(result.timedOut) << arguments[0];
        EXPECT_THAT(result.exitCode, AnyOf(0, 1, 3, 4)) << arguments[0] << ": " << result;
        EXPECT_TRUE(result.exitCode == 0 || !result.error.empty()) << arguments[0] << ": " << result;
    }
}

std::string nameOf(testing::TestParamInfo<GreedyVolume> const& instance) {
    return instance.param.name;
}

INSTANTIATE_TEST_SUITE_P(Ext, MemoryBudget, testing::ValuesIn(greedyExtVolumes()), nameOf);
INSTANTIATE_TEST_SUITE_P(Fat, MemoryBudget, testing::ValuesIn(greedyFatVolumes()), nameOf);
INSTANTIATE_TEST_SUITE_P(Hfs, MemoryBudget, testing::ValuesIn(greedyHfsVolumes()), nameOf);
INSTANTIATE_TEST_SUITE_P(Xfs, MemoryBudget, testing::ValuesIn(greedyXfsVolumes()), nameOf);
INSTANTIATE_TEST_SUITE_P(Ntfs, MemoryBudget, testing::ValuesIn(greedyNtfsVolumes()), nameOf);

TEST(MemoryBudgetMeasure, SeesWhatTheCommandTakes) {
    if (kIsSanitized) {
        GTEST_SKIP() << "the sanitizer keeps memory that was given back";
    }
    ThousandBlocks const volume;
    CommandResult const result = fsparser({"info", volume.path});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_GT(result.peakBytes, std::uint64_t{1} << 20);
}

} // namespace
