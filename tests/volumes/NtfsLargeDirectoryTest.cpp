// Directories of thousands of names: which are reached though only the lowest byte of a child's number is followed,
// and what is said of the others.
#include "imaging/Answerer.h"
#include "support/NtfsAccess.h"
#include "support/RecordingLogger.h"
#include "support/TempDirectory.h"
#include "volumes/NtfsDirectoryIndex.h"
#include "volumes/NtfsFill.h"
#include "volumes/NtfsVolume.h"
#include "volumes/VolumeAnswers.h"

#include <gmock/gmock.h>
#include <map>
#include <sys/stat.h>

namespace tests {

namespace {

struct LargeDirectory {
    NtfsRecipe recipe;
    unsigned files;
    bool isWhole; ///< every name is reached
};

void PrintTo(LargeDirectory const& directory, std::ostream* out) {
    *out << directory.recipe.name;
}

class NtfsDirectory : public testing::TestWithParam<LargeDirectory> {
protected:
    void SetUp() override {
        if (auto const reason = missingNtfsMount()) {
            GTEST_SKIP() << *reason;
        }
        path = makeNtfsVolume(GetParam().recipe, directory.file("volume.img"));
        std::filesystem::create_directory(directory.path() / "mount");
        NtfsMount mount(path, directory.path() / "mount");
        fillDirectory(mount.path() / "many", GetParam().files);
        parent = recordOf(mount.path() / "many");
        for (unsigned i = 0; i < GetParam().files; ++i) {
            records[nameInLargeDirectory(i)] = recordOf(mount.path() / "many" / nameInLargeDirectory(i));
        }
        mount.unmount();
        ASSERT_EQ(records.size(), GetParam().files);
    }

    static std::uint64_t recordOf(std::filesystem::path const& file) {
        struct stat status {};
        if (::stat(file.c_str(), &status) != 0) {
            throw std::runtime_error("no status of " + file.string());
        }
        return status.st_ino;
    }

    TempDirectory directory;
    std::string path;
    std::uint64_t parent = 0;
    std::map<std::string, std::uint64_t> records;
};

/// The record that the parser finds, or what it says.
IndexAnswer answerOf(NtfsAccess& parser, std::string const& name) {
    try {
        return {parser.convert_to_inode("\\many\\" + name), ""};
    } catch (std::runtime_error const& error) {
        return {std::nullopt, error.what()};
    }
}

TEST_P(NtfsDirectory, NamesAreReachedWhereLowestBytesLead) {
    DirectoryIndex const index(path, parent, GetParam().recipe.clusterBytes);
    SilentLogger logger;
    imaging::Volume volume(path, 0, logger);
    auto const parser = imaging::makeParser<NtfsAccess>(volume);
    parser->read_upcase();
    unsigned reached = 0;
    for (auto const& [name, record] : records) {
        ASSERT_EQ(index.find(name).record, record) << name;
        IndexAnswer const expected = index.findByLowestByte(name);
        ASSERT_FALSE(expected.endless) << name; // no answer would ever come
        IndexAnswer const answer = answerOf(*parser, name);
        EXPECT_EQ(answer.error, expected.error);
        EXPECT_EQ(answer.record, expected.record) << name;
        reached += answer.record == record ? 1U : 0U;
    }
    EXPECT_GT(reached, 0U);
    EXPECT_EQ(reached == records.size(), GetParam().isWhole) << reached << " names in " << index.blocks() << " blocks";
}

INSTANTIATE_TEST_SUITE_P(Volumes, NtfsDirectory,
                         testing::Values(LargeDirectory{{"Of400Names", 4096, 32}, 400, true},
                                         LargeDirectory{{"Of2000Names", 4096, 32}, 2000, true},
                                         LargeDirectory{{"Of6000Names", 4096, 64}, 6000, false},
                                         LargeDirectory{{"Of300NamesInClusters512", 512, 32}, 300, true},
                                         LargeDirectory{{"Of3000NamesInClusters512", 512, 32}, 3000, false},
                                         LargeDirectory{{"Of3000NamesInClusters16384", 16384, 64}, 3000, false}),
                         [](auto const& parameter) { return parameter.param.recipe.name; });

} // namespace

} // namespace tests
