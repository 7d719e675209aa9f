/// @file
/// A map of bounded size that forgets what was used longest ago.
#pragma once

#include <list>
#include <map>

namespace agent {

/// Keeps the `capacity` elements that were stored or found last.
///
/// Elements are told apart by `std::less<Element>` alone: an element carries its key and its value, and only the key
/// takes part in the order. Stored elements are never compared with anything outside; their owner empties the cache
/// when they may be stale. Not synchronised: a find changes the recency order, so one thread at a time.
///
/// @code
/// struct Directory {
///     std::string path;
///     unsigned long inode;
///     bool operator<(Directory const& other) const { return path < other.path; }
/// };
/// agent::LruCache<Directory> cache(1000);
/// cache.put({"dir", 42});
/// if (Directory const* hit = cache.find({"dir", 0})) { use(hit->inode); }
/// @endcode
template <typename Element>
class LruCache {
public:
    /// An empty cache.
    /// @param capacity  most elements kept; 0 stores nothing
    explicit LruCache(unsigned long capacity) : capacity_(capacity) {}

    LruCache(LruCache const&) = delete;
    LruCache& operator=(LruCache const&) = delete;
    ~LruCache() = default;

    /// Stores an element as the most recently used one. One that is equal to a stored element replaces it; otherwise,
    /// when the cache is full, the least recently used element goes first. On an exception the cache is as before,
    /// except that an element may have been evicted.
    void put(Element const& element) {
        if (capacity_ == 0) {
            return;
        }
        auto found = index_.find(element);
        if (found == index_.end() && index_.size() >= capacity_) {
            evict();
        }
        recency_.push_front(element);
        if (found != index_.end()) {
            recency_.erase(found->second);
            found->second = recency_.begin();
            return;
        }
        try {
            index_.emplace(element, recency_.begin());
        } catch (...) {
            recency_.pop_front();
            throw;
        }
    }

    /// Looks up the element that is equal to `key` and makes it the most recently used one.
    /// @return the stored element, valid until the next put() or clear(); null when there is none
    Element const* find(Element const& key) {
        auto found = index_.find(key);
        if (found == index_.end()) {
            return nullptr;
        }
        recency_.splice(recency_.begin(), recency_, found->second);
        return &*found->second;
    }

    /// Forgets every element; the capacity stays.
    void clear() noexcept {
        index_.clear();
        recency_.clear();
    }

    /// Elements stored now.
    unsigned long size() const noexcept { return index_.size(); }

    /// The capacity given to the constructor.
    unsigned long capacity() const noexcept { return capacity_; }

private:
    void evict() {
        index_.erase(recency_.back());
        recency_.pop_back();
    }

    std::list<Element> recency_; // most recently used first
    std::map<Element, typename std::list<Element>::iterator> index_;
    unsigned long capacity_;
};

} // namespace agent
