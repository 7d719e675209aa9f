// A reader that keeps the pages it read last.
#pragma once

#include "agent/AlignedAllocator.h"
#include "agent/core/IVolumeReader.h"
#include "imaging/ReasonLogger.h"

#include <algorithm>
#include <cstdint>
#include <list>
#include <string>
#include <unordered_map>
#include <vector>

namespace imaging {

/// Keeps a fixed number of pages, the last used ones: records and index blocks that are asked for again and again cost
/// one read of the volume. Long reads pass by, and so do reads on a page that cannot be read as a whole. The volume
/// must not change meanwhile.
class CachingReader : public agent::core::IVolumeReader {
public:
    /// Bytes of a page.
    static constexpr std::uint64_t kPageBytes = std::uint64_t{64} * 1024;

    /// Longer reads pass by: they are not asked for again, and would be copied once more than needed.
    static constexpr std::uint64_t kLongestKept = std::uint64_t{16} * 1024;

    /// @param logger  forgets the reason of a failed page when what was asked for could be read; outlives this reader
    /// @param inner   not owned; must outlive this reader; takes reads of any length anywhere
    /// @param pages   how many are kept, at least 1
    CachingReader(ReasonLogger& logger, agent::core::IVolumeReader const& inner, std::size_t pages);

    long read(void* buffer, long length) const override;
    /// Takes SEEK_SET only.
    long seek(long offset, int whence) const override;
    std::string getVolumePath() const override;

    /// From now on, keeps so many pages, at least as many as before.
    void keepPages(std::size_t pages) { capacity_ = std::max(capacity_, pages); }

    /// Drops what is kept: whatever is asked for next is read anew.
    void forget() const;

private:
    struct Page {
        std::uint64_t number;
        std::uint64_t size; ///< bytes that the volume has there
        std::vector<char, agent::AlignedAllocator<char>> bytes;
    };

    Page takePage() const;
    Page const* find(std::uint64_t number) const;
    long readAround(void* buffer, long length) const;

    ReasonLogger& logger_;
    agent::core::IVolumeReader const& inner_;
    std::size_t capacity_;
    mutable std::list<Page> pages_; // the last used first
    mutable std::unordered_map<std::uint64_t, std::list<Page>::iterator> index_;
    mutable std::uint64_t position_ = 0;
};

} // namespace imaging
