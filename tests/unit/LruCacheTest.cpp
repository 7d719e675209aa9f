// The cache that forgets what was used longest ago.
#include "agent/LruCache.h"

#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

/// An element as the owners of such caches keep them: a key that is ordered and a value that is not.
struct Directory {
    std::string path;
    unsigned long inode;
};

bool operator<(Directory const& left, Directory const& right) {
    return left.path < right.path;
}

using Cache = agent::LruCache<Directory>;

/// The value stored under a path, 0 for none. Looks up, so the entry becomes the most recently used one.
unsigned long inodeOf(Cache& cache, std::string const& path) {
    Directory const* const hit = cache.find({path, 0});
    return hit == nullptr ? 0 : hit->inode;
}

TEST(LruCache, FindsWhatWasStored) {
    Cache cache(10);
    cache.put({"a", 1});
    cache.put({"b", 2});
    EXPECT_EQ(inodeOf(cache, "a"), 1U);
    EXPECT_EQ(inodeOf(cache, "b"), 2U);
    EXPECT_EQ(cache.find({"c", 0}), nullptr);
    EXPECT_EQ(cache.size(), 2U);
    EXPECT_EQ(cache.capacity(), 10U);
}

TEST(LruCache, AnEmptyCacheFindsNothing) {
    Cache cache(10);
    EXPECT_EQ(cache.find({"a", 0}), nullptr);
    EXPECT_EQ(cache.size(), 0U);
}

TEST(LruCache, TheKeyAloneTellsElementsApart) {
    Cache cache(10);
    cache.put({"Dir", 1});
    cache.put({"dir", 2});
    EXPECT_EQ(cache.size(), 2U) << "letter case is part of the key";
    EXPECT_EQ(cache.find({"Dir", 99})->inode, 1U) << "the value of the question plays no part";
}

TEST(LruCache, WithCapacityZeroStoresNothing) {
    Cache cache(0);
    cache.put({"a", 1});
    cache.put({"a", 1});
    EXPECT_EQ(cache.size(), 0U);
    EXPECT_EQ(cache.find({"a", 0}), nullptr);
    cache.clear();
    EXPECT_EQ(cache.capacity(), 0U);
}

TEST(LruCache, WithCapacityOneKeepsTheLast) {
    Cache cache(1);
    cache.put({"a", 1});
    cache.put({"b", 2});
    EXPECT_EQ(cache.size(), 1U);
    EXPECT_EQ(inodeOf(cache, "a"), 0U);
    EXPECT_EQ(inodeOf(cache, "b"), 2U);
    cache.put({"b", 3});
    EXPECT_EQ(cache.size(), 1U);
    EXPECT_EQ(inodeOf(cache, "b"), 3U);
}

TEST(LruCache, EvictsTheLeastRecentlyStoredOfThree) {
    Cache cache(2);
    cache.put({"A", 1});
    cache.put({"B", 2});
    cache.put({"C", 3});
    EXPECT_EQ(cache.size(), 2U);
    EXPECT_EQ(inodeOf(cache, "A"), 0U);
    EXPECT_EQ(inodeOf(cache, "B"), 2U);
    EXPECT_EQ(inodeOf(cache, "C"), 3U);
}

TEST(LruCache, AFindSavesAnElementFromEviction) {
    Cache cache(2);
    cache.put({"A", 1});
    cache.put({"B", 2});
    EXPECT_EQ(inodeOf(cache, "A"), 1U);
    cache.put({"C", 3});
    EXPECT_EQ(inodeOf(cache, "B"), 0U);
    EXPECT_EQ(inodeOf(cache, "A"), 1U);
    EXPECT_EQ(inodeOf(cache, "C"), 3U);
}

TEST(LruCache, AFailedFindChangesNoOrder) {
    Cache cache(2);
    cache.put({"A", 1});
    cache.put({"B", 2});
    EXPECT_EQ(cache.find({"Z", 0}), nullptr);
    cache.put({"C", 3});
    EXPECT_EQ(inodeOf(cache, "A"), 0U);
}

TEST(LruCache, StoringAgainReplacesTheValueAndSavesFromEviction) {
    Cache cache(2);
    cache.put({"A", 1});
    cache.put({"B", 2});
    cache.put({"A", 11});
    EXPECT_EQ(cache.size(), 2U) << "a replacement evicts nobody";
    cache.put({"C", 3});
    EXPECT_EQ(inodeOf(cache, "B"), 0U);
    EXPECT_EQ(inodeOf(cache, "A"), 11U);
}

TEST(LruCache, AStoredElementCanBeStoredAgainByReference) {
    Cache cache(2);
    cache.put({"A", 1});
    cache.put({"B", 2});
    cache.put(*cache.find({"A", 0}));
    EXPECT_EQ(cache.size(), 2U);
    EXPECT_EQ(inodeOf(cache, "A"), 1U);
    EXPECT_EQ(inodeOf(cache, "B"), 2U);
}

TEST(LruCache, EvictsInTheOrderOfUse) {
    Cache cache(4);
    for (char const* const path : {"1", "2", "3", "4"}) {
        cache.put({path, 7});
    }
    for (char const* const path : {"3", "1", "4", "2"}) { // from now on, 3 is the oldest
        EXPECT_EQ(inodeOf(cache, path), 7U);
    }
    std::vector<std::string> const evictedInOrder{"3", "1", "4", "2"};
    for (std::size_t i = 0; i < evictedInOrder.size(); ++i) {
        cache.put({"new" + std::to_string(i), 8});
        EXPECT_EQ(cache.size(), 4U);
        EXPECT_EQ(inodeOf(cache, evictedInOrder[i]), 0U);
    }
}

TEST(LruCache, ClearForgetsTheElementsAndKeepsTheCapacity) {
    Cache cache(2);
    cache.put({"A", 1});
    cache.put({"B", 2});
    cache.clear();
    EXPECT_EQ(cache.size(), 0U);
    EXPECT_EQ(cache.capacity(), 2U);
    EXPECT_EQ(cache.find({"A", 0}), nullptr);
    cache.put({"A", 5});
    cache.put({"B", 6});
    cache.put({"C", 7});
    EXPECT_EQ(cache.size(), 2U);
    EXPECT_EQ(inodeOf(cache, "A"), 0U);
    EXPECT_EQ(inodeOf(cache, "C"), 7U);
}

TEST(LruCache, NeverHoldsMoreThanItsCapacity) {
    Cache cache(37);
    for (unsigned long i = 0; i < 5000; ++i) {
        cache.put({std::to_string(i * 7919 % 211), i});
        ASSERT_LE(cache.size(), 37U);
        ASSERT_EQ(inodeOf(cache, std::to_string(i * 7919 % 211)), i) << "the last one stored is always there";
    }
    EXPECT_EQ(cache.size(), 37U);
}

/// An element whose copy fails when a countdown runs out.
struct Fragile {
    explicit Fragile(int number) : key(number) {}
    Fragile(Fragile const& other) : key(other.key) {
        if (copiesLeft == 0) {
            throw std::runtime_error("no copy");
        }
        --copiesLeft;
    }
    Fragile& operator=(Fragile const&) = delete;
    ~Fragile() = default;

    int key;
    static inline int copiesLeft = 0;
};

bool operator<(Fragile const& left, Fragile const& right) {
    return left.key < right.key;
}

/// A full cache of the keys 1 and 2, of which 1 is the older.
void fill(agent::LruCache<Fragile>& cache) {
    Fragile::copiesLeft = 1000;
    cache.put(Fragile(1));
    cache.put(Fragile(2));
}

TEST(LruCache, AFailedCopyOfANewElementLeavesAWorkingCache) {
    for (int copies = 0; copies < 2; ++copies) {
        agent::LruCache<Fragile> cache(2);
        fill(cache);
        Fragile::copiesLeft = copies;
        EXPECT_THROW(cache.put(Fragile(3)), std::runtime_error);
        Fragile::copiesLeft = 1000;

        EXPECT_EQ(cache.find(Fragile(3)), nullptr);
        EXPECT_NE(cache.find(Fragile(2)), nullptr);
        EXPECT_LE(cache.size(), 2U);
        cache.put(Fragile(3));
        cache.put(Fragile(4));
        EXPECT_EQ(cache.size(), 2U);
        EXPECT_EQ(cache.find(Fragile(2)), nullptr);
        EXPECT_EQ(cache.find(Fragile(3))->key, 3);
        EXPECT_EQ(cache.find(Fragile(4))->key, 4);
    }
}

TEST(LruCache, AFailedCopyOfAReplacementKeepsTheOldElement) {
    agent::LruCache<Fragile> cache(2);
    fill(cache);
    Fragile::copiesLeft = 0;
    EXPECT_THROW(cache.put(Fragile(1)), std::runtime_error);
    Fragile::copiesLeft = 1000;
    EXPECT_EQ(cache.size(), 2U);
    EXPECT_NE(cache.find(Fragile(1)), nullptr);
    EXPECT_NE(cache.find(Fragile(2)), nullptr);
}

} // namespace
