// The cache of directories: what it keeps, for how long, and what it saves.
#include "support/NtfsFileBench.h"

#include "agent/IConfig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using namespace tests;

using testing::ElementsAre;
using testing::IsEmpty;

using testing::SizeIs;

/// Three levels: \A, \A\B and the file \A\B\f; beside them the directories \C and \D with a file f each.
NtfsBuilder makeTree() {
    NtfsBuilder builder = NtfsBuilder::standard();
    NtfsRecord& root = builder.record(5).remove(ntfs_type::kIndexRoot);
    builder.directory(root, {{u"A", 30}, {u"C", 33}, {u"D", 35}});
    builder.directory(builder.file(30, 5, u"A"), {{u"B", 31}, {u"g", 37}});
    builder.directory(builder.file(31, 30, u"B"), {{u"f", 32}});
    builder.directory(builder.file(33, 5, u"C"), {{u"f", 34}});
    builder.directory(builder.file(35, 5, u"D"), {{u"f", 36}});
    for (auto const& [number, parent] :
         std::vector<std::pair<std::uint64_t, std::uint64_t>>{{32, 31}, {34, 33}, {36, 35}, {37, 30}}) {
        builder.file(number, parent, u"f");
    }
    builder.seal();
    return builder;
}

class CapacityConfig : public agent::IConfig {
public:
    explicit CapacityConfig(unsigned long capacity) : capacity_(capacity) {}

    bool get(std::string const& key, unsigned long& value) const override {
        if (key != "ntfsparser.cache.capacity") {
            return false;
        }
        value = capacity_;
        return true;
    }

private:
    unsigned long capacity_;
};

class NtfsPathCache : public testing::Test {
protected:
    NtfsPathCache() {
        bench.parser.read_upcase();
        bench.forget();
    }

    /// How the parser takes a path apart now.
    struct Portion {
        std::string resolved;
        std::string remaining;
        unsigned long record;

        bool operator==(Portion const&) const = default;
    };

    static Portion portionOf(NtfsFileBench& owner, std::string const& path) {
        Portion portion{"", "", 5};
        owner.parser.resolve_cached_portion(path, portion.resolved, portion.remaining, portion.record);
        return portion;
    }

    Portion portionOf(std::string const& path) { return portionOf(bench, path); }

    /// Whether a directory is kept; asking makes it the most recently used one.
    static bool keeps(NtfsFileBench& owner, std::string const& directory) {
        return portionOf(owner, "\\" + directory + "\\x").resolved == directory;
    }

    bool keeps(std::string const& directory) { return keeps(bench, directory); }

    /// The records that resolving a path reads.
    static std::vector<std::uint64_t> recordsFor(NtfsFileBench& owner, std::string const& path) {
        owner.forget();
        owner.parser.convert_to_inode(path);
        std::vector<std::uint64_t> records;
        NtfsBuilder const tree = makeTree();
        for (VolumeRead const& read : owner.reads()) {
            records.push_back((static_cast<std::uint64_t>(read.offset) - tree.byteOffsetOf(0)) / 1024);
        }
        return records;
    }

    std::vector<std::uint64_t> recordsFor(std::string const& path) { return recordsFor(bench, path); }

    NtfsFileBench bench{makeTree()};
};

TEST_F(NtfsPathCache, APathIsTakenApartAtTheLongestKnownDirectory) {
    EXPECT_EQ(portionOf(""), (Portion{"", "", 5}));
    EXPECT_EQ(portionOf("name"), (Portion{"", "name", 5}));
    EXPECT_EQ(portionOf("\\"), (Portion{"", "", 5}));
    EXPECT_EQ(portionOf("C:\\name"), (Portion{"", "name", 5}));
    EXPECT_EQ(portionOf("\\A\\B\\f"), (Portion{"", "A\\B\\f", 5}));
    bench.parser.convert_to_inode("\\A\\g");
    EXPECT_EQ(portionOf("\\A\\B\\f"), (Portion{"A", "B\\f", 30}));
    EXPECT_EQ(portionOf("\\A\\"), (Portion{"A", "", 30}));
    EXPECT_EQ(portionOf("\\A"), (Portion{"", "A", 5})) << "the last component is not looked for";
    EXPECT_EQ(portionOf("x:y\\A\\B\\f"), (Portion{"A", "B\\f", 30}));
    bench.parser.convert_to_inode("\\A\\B\\f");
    EXPECT_EQ(portionOf("\\A\\B\\f"), (Portion{"A\\B", "f", 31}));
    EXPECT_EQ(portionOf("\\A\\B\\f\\g\\h"), (Portion{"A\\B", "f\\g\\h", 31}));
    EXPECT_EQ(portionOf("\\A\\BB\\f"), (Portion{"A", "BB\\f", 30})) << "whole components only";
}

TEST_F(NtfsPathCache, DirectoriesOnTheWayAreKeptAndTheFileIsNot) {
    EXPECT_EQ(bench.parser.convert_to_inode("\\A\\B\\f"), 32U);
    EXPECT_TRUE(keeps("A"));
    EXPECT_TRUE(keeps("A\\B"));
    EXPECT_FALSE(keeps("A\\B\\f"));
    EXPECT_FALSE(keeps("C"));
}

TEST_F(NtfsPathCache, ATrailingSeparatorKeepsNoLastDirectory) {
    EXPECT_EQ(bench.parser.convert_to_inode("\\A\\B\\"), 31U);
    EXPECT_TRUE(keeps("A"));
    EXPECT_FALSE(keeps("A\\B"));
}

TEST_F(NtfsPathCache, AKnownDirectoryCostsOneLookup) {
    EXPECT_THAT(recordsFor("\\A\\B\\f"), ElementsAre(5, 30, 31));
    EXPECT_THAT(recordsFor("\\A\\B\\f"), ElementsAre(31));
    EXPECT_THAT(recordsFor("\\A\\g"), ElementsAre(30));
    EXPECT_THAT(recordsFor("\\A\\B\\"), IsEmpty()) << "the directory itself is known";
    EXPECT_THAT(recordsFor("\\A\\B"), ElementsAre(30)) << "and without the separator it is the last component";
    EXPECT_THAT(recordsFor("\\A"), ElementsAre(5));
}

TEST_F(NtfsPathCache, CaseMakesAnotherEntryOfTheSameDirectory) {
    EXPECT_THAT(recordsFor("\\A\\B\\f"), ElementsAre(5, 30, 31));
    EXPECT_THAT(recordsFor("\\a\\B\\f"), ElementsAre(5, 30, 31));
    EXPECT_TRUE(keeps("A"));
    EXPECT_TRUE(keeps("a"));
    EXPECT_TRUE(keeps("a\\B"));
    EXPECT_FALSE(keeps("a\\b"));
    EXPECT_EQ(portionOf("\\a\\x").record, 30U);
    EXPECT_EQ(portionOf("\\A\\x").record, 30U);
}

TEST_F(NtfsPathCache, WhatWasResolvedBeforeAFailureStays) {
    EXPECT_EQ(failureOf([&] { bench.parser.convert_to_inode("\\A\\B\\nothing\\f"); }),
              "Entry not found - between root entries for key nothing");
    EXPECT_TRUE(keeps("A"));
    EXPECT_TRUE(keeps("A\\B"));
    EXPECT_THAT(recordsFor("\\A\\B\\f"), ElementsAre(31));
}

TEST_F(NtfsPathCache, EntriesAreNotComparedWithTheVolumeUntilTheyAreForgotten) {
    EXPECT_EQ(bench.parser.convert_to_inode("\\C\\f"), 34U);
    NtfsBuilder changed = makeTree();
    changed.directory(changed.record(5).remove(ntfs_type::kIndexRoot), {{u"C", 35}});
    bench.volume.bytes = changed.seal().bytes;
    EXPECT_EQ(bench.parser.convert_to_inode("\\C\\f"), 34U) << "the directory as it was";
    bench.parser.resetMftCache();
    EXPECT_FALSE(keeps("C"));
    EXPECT_EQ(bench.parser.convert_to_inode("\\C\\f"), 36U);
}

TEST_F(NtfsPathCache, ForgettingReadsTheFirstTwoRecordsAndNeitherBootSectorNorTable) {
    NtfsBuilder const tree = makeTree();
    bench.forget();
    bench.parser.resetMftCache();
    EXPECT_THAT(bench.reads(), ElementsAre(VolumeRead{static_cast<long>(tree.byteOffsetOf(0)), 1024},
                                           VolumeRead{static_cast<long>(tree.byteOffsetOf(1)), 1024}));
    EXPECT_THAT(recordsFor("\\C\\f"), ElementsAre(5, 33)) << "the upcase table is still there";
}

TEST_F(NtfsPathCache, ForgettingOnADamagedVolumeFailsAndCanBeRepeated) {
    bench.parser.convert_to_inode("\\C\\f");
    NtfsBytes const good = bench.volume.bytes;
    bench.volume.bytes.at(makeTree().byteOffsetOf(0)) = 0;
    EXPECT_EQ(failureOf([&] { bench.parser.resetMftCache(); }), "MFT Record 0x0 has invalid file magic");
    EXPECT_TRUE(keeps("C")) << "nothing was forgotten";
    bench.volume.bytes = good;
    bench.parser.resetMftCache();
    EXPECT_EQ(bench.parser.convert_to_inode("\\A\\g"), 37U);
}

using NtfsPathCacheCapacity = NtfsPathCache;

TEST_F(NtfsPathCacheCapacity, OfZeroStoresNothing) {
    NtfsFileBench owner(makeTree(), CapacityConfig(0));
    owner.parser.read_upcase();
    for (int i = 0; i < 2; ++i) {
        EXPECT_THAT(recordsFor(owner, "\\A\\B\\f"), ElementsAre(5, 30, 31));
        EXPECT_FALSE(keeps(owner, "A"));
    }
}

TEST_F(NtfsPathCacheCapacity, OfTwoEvictsTheLeastRecentlyUsed) {
    NtfsFileBench owner(makeTree(), CapacityConfig(2));
    owner.parser.read_upcase();
    for (std::string const path : {"\\A\\g", "\\C\\f", "\\D\\f"}) {
        owner.parser.convert_to_inode(path);
    }
    EXPECT_THAT(recordsFor(owner, "\\C\\f"), ElementsAre(33));
    EXPECT_THAT(recordsFor(owner, "\\D\\f"), ElementsAre(35));
    EXPECT_THAT(recordsFor(owner, "\\A\\g"), ElementsAre(5, 30)) << "it was the oldest";
}

TEST_F(NtfsPathCacheCapacity, OfTwoKeepsWhatWasUsedInBetween) {
    NtfsFileBench owner(makeTree(), CapacityConfig(2));
    owner.parser.read_upcase();
    for (std::string const path : {"\\A\\g", "\\C\\f", "\\A\\g", "\\D\\f"}) {
        owner.parser.convert_to_inode(path);
    }
    EXPECT_THAT(recordsFor(owner, "\\A\\g"), ElementsAre(30));
    EXPECT_THAT(recordsFor(owner, "\\D\\f"), ElementsAre(35));
    EXPECT_THAT(recordsFor(owner, "\\C\\f"), ElementsAre(5, 33));
}

TEST_F(NtfsPathCacheCapacity, OfOneKeepsTheDeepestDirectory) {
    NtfsFileBench owner(makeTree(), CapacityConfig(1));
    owner.parser.read_upcase();
    EXPECT_THAT(recordsFor(owner, "\\A\\B\\f"), ElementsAre(5, 30, 31));
    EXPECT_THAT(recordsFor(owner, "\\A\\B\\f"), ElementsAre(31));
    EXPECT_FALSE(keeps(owner, "A"));
}

TEST_F(NtfsPathCacheCapacity, IsAThousandUnlessItIsConfigured) {
    // A thousand directories, which are one and the same under many names: the case of ten letters.
    NtfsBuilder builder = makeTree();
    builder.directory(builder.file(40, 5, u"abcdefghij"), {{u"f", 41}});
    builder.directory(builder.record(5).remove(ntfs_type::kIndexRoot), {{u"abcdefghij", 40}});
    NtfsFileBench owner(builder.seal());
    owner.parser.read_upcase();
    auto const path = [](unsigned number) {
        std::string name = "abcdefghij";
        for (std::size_t i = 0; i < name.size(); ++i) {
            name[i] = static_cast<char>(name[i] - static_cast<int>((number >> i) % 2) * 32);
        }
        return "\\" + name + "\\f";
    };
    for (unsigned i = 0; i < 1000; ++i) {
        ASSERT_EQ(owner.parser.convert_to_inode(path(i)), 41U);
    }
    EXPECT_THAT(recordsFor(owner, path(0)), SizeIs(1)) << "none had to go; the oldest is now number 1";
    EXPECT_THAT(recordsFor(owner, path(1000)), SizeIs(2));
    EXPECT_THAT(recordsFor(owner, path(0)), SizeIs(1));
    EXPECT_THAT(recordsFor(owner, path(1)), SizeIs(2));
}

} // namespace
