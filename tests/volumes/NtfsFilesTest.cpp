// Files of real NTFS volumes: where they are found, where their data lie, and what is known of them.
#include "imaging/Answerer.h"
#include "support/NtfsAccess.h"
#include "support/RecordingLogger.h"
#include "support/TempDirectory.h"
#include "volumes/ExtRecipe.h"
#include "volumes/NtfsFill.h"
#include "volumes/NtfsOracles.h"
#include "volumes/NtfsVolume.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <gmock/gmock.h>
#include <map>
#include <set>
#include <sys/stat.h>

namespace tests {

namespace {

using agent::core::fs::ntfs_runlist;
using agent::core::fs::ntfs_standard_information;
using testing::IsEmpty;

/// What the driver says of a file while it is mounted.
struct MountedFile {
    std::string path;
    std::uint64_t record;
    std::array<std::uint64_t, 4> times; ///< creation, change of data, access, change of the record
    std::uint32_t attributes;
    bool isDirectory;
};

template <typename Number>
Number numberAt(std::string const& bytes, std::size_t place) {
    Number value{};
    std::memcpy(&value, bytes.data() + place * sizeof value, sizeof value);
    return value;
}

MountedFile describe(std::filesystem::path const& root, std::filesystem::directory_entry const& entry) {
    MountedFile file;
    file.path = entry.path().lexically_relative(root).string();
    struct stat status {};
    if (::lstat(entry.path().c_str(), &status) != 0) {
        throw std::runtime_error("no status of " + file.path);
    }
    file.record = status.st_ino;
    file.isDirectory = entry.is_directory();
    std::string const times = readAttribute(entry.path(), "system.ntfs_times");
    for (std::size_t i = 0; i < file.times.size(); ++i) {
        file.times[i] = numberAt<std::uint64_t>(times, i);
    }
    file.attributes = numberAt<std::uint32_t>(readAttribute(entry.path(), "system.ntfs_attrib"), 0);
    return file;
}

std::vector<MountedFile> describeAll(std::filesystem::path const& root) {
    std::vector<MountedFile> files;
    for (auto const& entry : std::filesystem::recursive_directory_iterator(root)) {
        files.push_back(describe(root, entry));
    }
    return files;
}

/// Attributes and times that no other test would tell apart.
void setKnownFacts(std::filesystem::path const& root) {
    unsigned number = 0;
    for (std::uint32_t const attributes : {0x1U, 0x2U, 0x4U, 0x27U, 0x100U, 0x1000U, 0x2020U, 0x80U}) {
        std::filesystem::path const path = root / ("facts" + std::to_string(++number));
        writeLetters(path, 10);
        std::array<std::uint64_t, 4> const times{116444736000000000U + number, 132000000012345678U - number, number,
                                                 0x7FFFFFFFFFFFFFFFU - number};
        std::string bytes(sizeof times, '\0');
        std::memcpy(bytes.data(), times.data(), sizeof times);
        setAttribute(path, "system.ntfs_times", bytes);
        bytes.resize(sizeof attributes);
        std::memcpy(bytes.data(), &attributes, sizeof attributes);
        setAttribute(path, "system.ntfs_attrib", bytes);
    }
}

class FilesOfNtfs : public testing::TestWithParam<NtfsRecipe> {
protected:
    void SetUp() override {
        if (auto const reason = missingNtfsMount()) {
            GTEST_SKIP() << *reason;
        }
        std::string const path = makeNtfsVolume(GetParam(), directory.file("volume.img"));
        std::filesystem::create_directory(directory.path() / "mount");
        NtfsMount mount(path, directory.path() / "mount");
        fillWithVariety(mount.path(), GetParam().clusterBytes <= 4096);
        fillDirectory(mount.path() / "many", 400);
        setKnownFacts(mount.path());
        files = describeAll(mount.path());
        mount.unmount();
        volume.emplace(path, 0, logger);
        parser = imaging::makeParser<NtfsAccess>(*volume);
        parser->read_upcase();
    }

    TempDirectory directory;
    SilentLogger logger;
    std::vector<MountedFile> files;
    std::optional<imaging::Volume> volume;
    std::unique_ptr<NtfsAccess> parser;
};

TEST_P(FilesOfNtfs, EveryNameThatFlsListsIsFoundWithItsRecord) {
    std::vector<ListedName> const names = listNames(volume->path());
    EXPECT_GT(names.size(), 600U);
    std::map<std::string, std::uint64_t> found;
    for (ListedName const& name : names) {
        found[name.path] = name.record;
        EXPECT_EQ(parser->convert_to_inode(backslashed(name.path)), name.record) << name.path;
    }
    for (MountedFile const& file : files) {
        EXPECT_EQ(found[file.path], file.record) << file.path;
    }
}

TEST_P(FilesOfNtfs, LettersOfOtherCaseFindTheSameRecord) {
    std::uint64_t const record =
        parser->convert_to_inode("\\Données\\日本語\\папка\\ελληνικά\\deep\\deeper\\é7 ßüÄ 名前 7.txt");
    EXPECT_EQ(parser->convert_to_inode("c:\\DONNÉES\\日本語\\ПАПКА\\ΕΛΛΗΝΙΚΆ\\Deep\\DEEPER\\É7 ßÜä 名前 7.TXT"),
              record);
    EXPECT_EQ(parser->convert_to_inode("\\LINKS\\LINKED"), parser->convert_to_inode("\\links\\linked"));
}

TEST_P(FilesOfNtfs, EveryHardLinkLeadsToOneRecord) {
    std::set<std::uint64_t> records;
    for (MountedFile const& file : files) {
        if (file.path.starts_with("links/link")) {
            records.insert(parser->convert_to_inode(backslashed(file.path)));
        }
    }
    EXPECT_EQ(records.size(), 1U);
}

TEST_P(FilesOfNtfs, MissingNamesAreRefused) {
    for (char const* const path : {"\\missing", "\\pieces\\piece0", "\\links\\linked\\deeper", "\\many\\zzz"}) {
        EXPECT_THROW(parser->convert_to_inode(path), std::runtime_error) << path;
    }
}

bool isSame(ntfs_runlist const& left, ntfs_runlist const& right) {
    return left.lcn == right.lcn && left.length == right.length;
}

TEST_P(FilesOfNtfs, RunsAreThoseOfNtfsinfo) {
    std::set<std::uint64_t> asked;
    unsigned inClusters = 0;
    unsigned sparse = 0;
    unsigned spread = 0;
    for (MountedFile const& file : files) {
        bool const isOneOfMany = file.path.starts_with("many/");
        if (file.isDirectory || isOneOfMany || !asked.insert(file.record).second) {
            continue;
        }
        ExpectedRuns expected = runsFromNtfsinfo(volume->path(), file.record);
        inClusters += expected.runs.empty() ? 0U : 1U;
        sparse += expected.hasSparse ? 1U : 0U;
        spread += expected.isSpread ? 1U : 0U;
        std::vector<ntfs_runlist> const runs = parser->get_inode_runlist(file.record);
        EXPECT_TRUE(std::equal(runs.begin(), runs.end(), expected.runs.begin(), expected.runs.end(), isSame))
            << file.path << ", record " << file.record;

        std::vector<agent::BlockRange> const extents = parser->extents(backslashed(file.path));
        std::sort(expected.runs.begin(), expected.runs.end(), [](ntfs_runlist const& left, ntfs_runlist const& right) {
            return left.lcn != right.lcn ? left.lcn < right.lcn : left.length < right.length;
        });
        EXPECT_TRUE(std::equal(extents.begin(), extents.end(), expected.runs.begin(), expected.runs.end(),
                               [](agent::BlockRange const& range, ntfs_runlist const& run) {
                                   return range.first == run.lcn && range.count == run.length;
                               }))
            << file.path;
    }
    EXPECT_GT(inClusters, 150U);
    EXPECT_GT(sparse, 1U);
    EXPECT_GT(spread, 0U);
}

TEST_P(FilesOfNtfs, TimesAndAttributesAreThoseOfTheDriver) {
    std::set<std::uint32_t> seen;
    for (MountedFile const& file : files) {
        ntfs_standard_information const facts = parser->getStandardInfo(backslashed(file.path));
        std::array<std::uint64_t, 4> const times{facts.creation_time.value(), facts.last_data_change_time.value(),
                                                 facts.last_access_time.value(), facts.last_mft_change_time.value()};
        EXPECT_EQ(times, file.times) << file.path;
        // On disk a directory is marked in its record, and "nothing special" is 0.
        constexpr std::uint32_t kDirectory = 0x10;
        constexpr std::uint32_t kNormal = 0x80;
        std::uint32_t shown = facts.file_attributes.value() & ~kDirectory;
        shown = shown == 0 && !file.isDirectory ? kNormal : shown;
        EXPECT_EQ(shown, file.attributes & ~kDirectory) << file.path;
        seen.insert(file.attributes);
    }
    EXPECT_GT(seen.size(), 8U);
}

INSTANTIATE_TEST_SUITE_P(Volumes, FilesOfNtfs,
                         testing::Values(NtfsRecipe{"Clusters512", 512, 64}, NtfsRecipe{"Clusters4096", 4096, 64},
                                         NtfsRecipe{"Records4096", 4096, 64, 4096}),
                         ntfsRecipeName);

} // namespace

} // namespace tests
