// Access-control lists of files on real NTFS volumes, entry by entry against the descriptors that the driver gives.
#include "imaging/ntfs/NtfsFiles.h"
#include "support/RecordingLogger.h"
#include "support/TempDirectory.h"
#include "volumes/NtfsDescriptors.h"
#include "volumes/NtfsFill.h"
#include "volumes/NtfsOracles.h"
#include "volumes/NtfsVolume.h"
#include "volumes/VolumeAnswers.h"

#include <fstream>
#include <gmock/gmock.h>
#include <map>
#include <random>

namespace tests {

namespace {

using agent::core::fs::NTFS_ACE;
using agent::core::fs::NTFS_ACL;

constexpr char const* kDescriptor = "system.ntfs_acl";

std::string const& everyone() {
    static std::string const sid = sidBytes(1, {0});
    return sid;
}

std::string user(std::uint32_t number) {
    return sidBytes(5, {21, 1004336348, 1177238915, 682003330, number});
}

/// A file's name, and its descriptor.
using Descriptors = std::map<std::string, DescriptorParts>;

Descriptors remarkableDescriptors() {
    std::string const full = aceBytes(0, 0x03, 0x1F01FF, sidBytes(5, {18}));
    return {
        {"null list", {.hasNullDacl = true}},
        {"no list", {}},
        {"empty list", {.dacl = std::vector<std::string>{}}},
        {"one entry", {.dacl = {{full}}}},
        {"denied first",
         {.dacl = {{aceBytes(1, 0, 0x10000, user(1001)), full, aceBytes(0, 0x0B, 0x1200A9, everyone())}}}},
        {"inherited",
         {.dacl = {{aceBytes(0, 0x10, 0x120089, user(1)), aceBytes(0, 0x1B, 0x10000000, sidBytes(3, {0}))}},
          .moreControl = 0x0400}},
        {"protected", {.dacl = {{full}}, .moreControl = 0x1000}},
        {"both lists",
         {.dacl = {{full}},
          .sacl = {{aceBytes(2, 0x40, 0x1F01FF, everyone()), aceBytes(2, 0x80, 0x10000, user(7)),
                    aceBytes(2, 0xC0, 0x2, user(8))}},
          .moreControl = 0x2000}},
        {"audit alone", {.sacl = {{aceBytes(2, 0x80, 0x1F01FF, everyone())}}}},
        {"label", {.dacl = {{full}}, .sacl = {{aceBytes(0x11, 0, 1, sidBytes(16, {12288}))}}}},
        {"callback", {.dacl = {{aceBytes(9, 0, 0x120089, everyone()), aceBytes(10, 0, 0x2, user(5))}}}},
        {"large authority", {.dacl = {{aceBytes(0, 0, 0x1, sidBytes(0x123456789ABC, {1, 4294967295}))}}}},
        {"fifteen numbers",
         {.dacl = {{aceBytes(0, 0, 0x1, sidBytes(5, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}))}}}},
        // What stands where its trustee is looked for begins as one: a trustee that nobody entered.
        {"object misread",
         {.dacl = {{full, objectAceBytes(5, 0, 0x10, sidBytes(5, {1, 0x05000000, 21, 33}))}}, .revision = 4}},
        {"object refused", {.dacl = {{full, objectAceBytes(6, 0, 0x10, user(9))}}, .revision = 4}},
    };
}

DescriptorParts randomDescriptor(std::mt19937& random, std::size_t entries) {
    DescriptorParts parts;
    parts.dacl.emplace();
    for (std::size_t i = 0; i < entries; ++i) {
        parts.dacl->push_back(aceBytes(random() % 2, random() % 0x20, static_cast<std::uint32_t>(random() & 0x1F01FF),
                                       user(static_cast<std::uint32_t>(random()))));
    }
    if (random() % 3 == 0) {
        parts.sacl = {{aceBytes(2, 0x40U << random() % 2, 0x1F01FF, user(static_cast<std::uint32_t>(random())))}};
    }
    parts.moreControl = random() % 2 != 0 ? 0x1000 : 0;
    return parts;
}

/// Enough different descriptors to fill more than the first half block of the stream.
void addManyDescriptors(Descriptors& descriptors) {
    constexpr unsigned kMany = 320;
    std::mt19937 random(20);
    for (unsigned i = 0; i < kMany; ++i) {
        descriptors["random" + std::to_string(i)] = randomDescriptor(random, 20 + random() % 20);
    }
    descriptors["long list"] = randomDescriptor(random, 200);
}

class NtfsWithAccessLists : public testing::Test {
protected:
    void SetUp() override {
        if (auto const reason = missingNtfsMount()) {
            GTEST_SKIP() << *reason;
        }
    }

    void make(NtfsRecipe const& recipe) {
        path = makeNtfsVolume(recipe, directory.file("volume.img"));
        std::filesystem::create_directory(directory.path() / "mount");
        NtfsMount mount(path, directory.path() / "mount");
        setDescriptors(mount.path() / "listed");
        mount.unmount();
        volume.emplace(path, 0, logger);
        files.emplace(*volume, std::nullopt);
    }

    void setDescriptors(std::filesystem::path const& place) {
        std::filesystem::create_directory(place);
        Descriptors descriptors = remarkableDescriptors();
        addManyDescriptors(descriptors);
        for (auto const& [name, parts] : descriptors) {
            writeLetters(place / name, 10);
            setAttribute(place / name, kDescriptor, descriptorBytes(parts));
            stored[name] = readAttribute(place / name, kDescriptor);
            EXPECT_EQ(stored[name], descriptorBytes(parts)) << name;
        }
    }

    std::string listsBy(std::string const& name) { return asText(files->accessLists("/listed/" + name)); }

    TempDirectory directory;
    std::string path;
    std::map<std::string, std::string> stored; ///< names and descriptors, as the driver gave them
    SilentLogger logger;
    std::optional<imaging::Volume> volume;
    std::optional<imaging::ntfs::Files> files;
};

class AccessListsOfNtfs : public NtfsWithAccessLists, public testing::WithParamInterface<NtfsRecipe> {
protected:
    void SetUp() override {
        NtfsWithAccessLists::SetUp();
        if (!IsSkipped()) {
            make(GetParam());
        }
    }
};

TEST_P(AccessListsOfNtfs, AreThoseThatTheDriverGives) {
    EXPECT_GT(attributeContent(path, 9, "0x80", "$SDS").size(), std::size_t{3} << 18);
    for (auto const& [name, descriptor] : stored) {
        if (name != "object refused") {
            EXPECT_EQ(listsBy(name), asText(listsOf(descriptor))) << name;
        }
    }
}

TEST_P(AccessListsOfNtfs, AreEmptyWhereThereIsNoListWithEntries) {
    for (char const* const name : {"null list", "no list", "empty list"}) {
        EXPECT_EQ(listsBy(name), "") << name;
    }
}

TEST_P(AccessListsOfNtfs, TrusteesOfObjectEntriesAreTakenFromAFixedPlace) {
    EXPECT_EQ(listsBy("object misread"), "list 4 open\n2 3 1f01ff S-1-5-18\n2 0 10 S-1-5\n");
    EXPECT_THROW(listsOf(stored.at("object refused")), std::runtime_error);
    try {
        listsBy("object refused");
        ADD_FAILURE() << "an answer";
    } catch (std::runtime_error const& error) {
        EXPECT_STREQ(error.what(),
                     "Failed to read ACLs for \"\\listed\\object refused\": SID is invalid! Cannot convert "
                     "to string.");
    }
}

/// The lists in what the command prints as JSON, in the library's order.
std::vector<NTFS_ACL> listsInDocument(nlohmann::json const& file) {
    std::vector<NTFS_ACL> lists;
    for (auto const& list : file.at("lists")) {
        NTFS_ACL& acl = lists.emplace_back();
        acl.revision = list.at("revision");
        acl.inheritanceAllowed = list.at("inheritance_allowed");
        for (auto const& entry : list.at("entries")) {
            acl.aces.push_back(
                {entry.at("sid"), entry.at("mask_value"), entry.at("mode_value"), entry.at("flags_value")});
        }
    }
    return lists;
}

TEST_P(AccessListsOfNtfs, AreTheSameInWhatTheCommandPrints) {
    std::string const names = directory.file("names");
    std::string text;
    for (auto const& [name, descriptor] : stored) {
        text += name == "object refused" ? "" : "listed/" + name + "\n";
    }
    std::ofstream(names) << text;
    CommandResult const result = runFsparser({"acl", "--json", "--from", names, path});
    ASSERT_EQ(result.exitCode, 0) << result;
    auto const document = nlohmann::json::parse(result.output);
    auto file = document.at("files").begin();
    for (auto const& [name, descriptor] : stored) {
        if (name != "object refused") {
            EXPECT_EQ(asText(listsInDocument(*file++)), asText(listsOf(descriptor))) << name;
        }
    }
    EXPECT_EQ(file, document.at("files").end());
}

/// Entries that SDDL has no word for without what the library does not tell (labels, callbacks, objects), and an
/// authority of more than 32 bits, which that parser stops reading at the x of its hexadecimal form.
bool isPlain(std::string const& name) {
    return name != "label" && name != "callback" && name != "large authority" && name.rfind("object", 0) != 0;
}

TEST_P(AccessListsOfNtfs, AsSddlAreReadBackByAnIndependentParser) {
    if (runCommand({"/usr/bin/python3", "-c", "import samba.dcerpc.security"}).exitCode != 0) {
        GTEST_SKIP() << "python3-samba is not installed";
    }
    std::filesystem::create_directory(directory.path() / "raw");
    std::string names;
    unsigned count = 0;
    for (auto const& [name, descriptor] : stored) {
        if (isPlain(name)) {
            names += "listed/" + name + "\n";
            std::ofstream(directory.path() / "raw" / std::to_string(count++), std::ios::binary) << descriptor;
        }
    }
    std::ofstream(directory.path() / "names") << names;
    CommandResult const printed = runFsparser({"acl", "--sddl", "--from", directory.file("names"), path});
    ASSERT_EQ(printed.exitCode, 0) << printed;
    std::ofstream(directory.path() / "sddl") << printed.output;
    CommandResult const compared = runCommand({"/usr/bin/python3", FSPARSER_SOURCE_DIR "/tests/volumes/compare_sddl.py",
                                               directory.file("sddl"), directory.file("raw")});
    EXPECT_EQ(compared.exitCode, 0) << compared;
    EXPECT_THAT(compared.output, testing::HasSubstr(std::to_string(count) + " descriptors, 0 differ"));
}

INSTANTIATE_TEST_SUITE_P(Volumes, AccessListsOfNtfs,
                         testing::Values(NtfsRecipe{"Clusters2048", 2048, 24}, NtfsRecipe{"Clusters4096", 4096, 24},
                                         NtfsRecipe{"Records4096", 4096, 24, 4096}),
                         ntfsRecipeName);

/// The stream's half blocks do not end where a descriptor does; clusters that are smaller than what is left there are
/// a sparse run, which moves all runs behind it.
TEST_F(NtfsWithAccessLists, DescriptorsBehindAHoleInTheirStreamAreRefusedNotMistaken) {
    make({"", 512, 24});
    ASSERT_TRUE(runsFromNtfsinfo(path, 9).hasSparse);
    unsigned right = 0;
    unsigned refused = 0;
    for (auto const& [name, descriptor] : stored) {
        if (name == "object refused") {
            continue;
        }
        try {
            EXPECT_EQ(listsBy(name), asText(listsOf(descriptor))) << name;
            ++right;
        } catch (std::runtime_error const& error) {
            EXPECT_THAT(error.what(), testing::HasSubstr("doesn't yield $SDS header with matching offset."));
            ++refused;
        }
    }
    EXPECT_GT(right, 100U);
    EXPECT_GT(refused, 0U);
}

/// Index blocks are looked for in the wrong place where clusters have 64 KiB; the root directory always has some.
TEST_F(NtfsWithAccessLists, NamesInIndexBlocksAreRefusedWhereClustersHave64KiB) {
    make({"", 65536, 64});
    for (auto const& [name, descriptor] : stored) {
        EXPECT_THROW(listsBy(name), std::runtime_error) << name;
    }
    EXPECT_NO_THROW(files->extents("/"));
}

} // namespace

} // namespace tests
