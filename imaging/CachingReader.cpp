// Pages, the last used first.
#include "imaging/CachingReader.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace imaging {

namespace {

/// What direct I/O asks of addresses, at most.
constexpr std::size_t kAddressAlignment = 4096;

} // namespace

CachingReader::CachingReader(ReasonLogger& logger, agent::core::IVolumeReader const& inner, std::size_t pages)
    : logger_(logger), inner_(inner), capacity_(pages) {}

/// A new page while there may be more, else the one that was used longest ago.
CachingReader::Page CachingReader::takePage() const {
    if (pages_.size() < capacity_) {
        Page page{0, 0, decltype(Page::bytes)(agent::AlignedAllocator<char>(kAddressAlignment))};
        page.bytes.resize(kPageBytes);
        return page;
    }
    Page page = std::move(pages_.back());
    index_.erase(page.number);
    pages_.pop_back();
    return page;
}

CachingReader::Page const* CachingReader::find(std::uint64_t number) const {
    if (!pages_.empty() && pages_.front().number == number) {
        return &pages_.front();
    }
    if (auto const known = index_.find(number); known != index_.end()) {
        pages_.splice(pages_.begin(), pages_, known->second);
        return &pages_.front();
    }
    Page page = takePage();
    if (inner_.seek(static_cast<long>(number * kPageBytes), SEEK_SET) < 0) {
        return nullptr;
    }
    long const count = inner_.read(page.bytes.data(), kPageBytes);
    if (count < 0) {
        return nullptr; // nothing is kept of a failure: the next reading may do better
    }
    page.number = number;
    page.size = static_cast<std::uint64_t>(count);
    pages_.push_front(std::move(page));
    index_[number] = pages_.begin();
    return &pages_.front();
}

long CachingReader::read(void* buffer, long length) const {
    auto const wanted = static_cast<std::uint64_t>(length);
    if (wanted > kLongestKept) {
        return readAround(buffer, length);
    }
    std::uint64_t const start = position_;
    std::size_t const errors = logger_.count();
    std::uint64_t done = 0;
    while (done < wanted) {
        std::uint64_t const within = position_ % kPageBytes;
        Page const* const page = find(position_ / kPageBytes);
        if (page == nullptr) {
            position_ = start; // what was asked for may be readable all the same
            logger_.forgetSince(errors);
            return readAround(buffer, length);
        }
        std::uint64_t const there = page->size - std::min(page->size, within);
        std::uint64_t const count = std::min(there, wanted - done);
        if (count == 0) {
            break; // the end of the volume
        }
        std::memcpy(static_cast<char*>(buffer) + done, page->bytes.data() + within, count);
        done += count;
        position_ += count;
    }
    return static_cast<long>(done);
}

long CachingReader::readAround(void* buffer, long length) const {
    if (inner_.seek(static_cast<long>(position_), SEEK_SET) < 0) {
        return -1;
    }
    long const result = inner_.read(buffer, length);
    position_ += static_cast<std::uint64_t>(std::max(result, 0L));
    return result;
}

long CachingReader::seek(long offset, int whence) const {
    if (whence != SEEK_SET || offset < 0) {
        return -1;
    }
    position_ = static_cast<std::uint64_t>(offset);
    return offset;
}

void CachingReader::forget() const {
    index_.clear();
    pages_.clear();
}

std::string CachingReader::getVolumePath() const {
    return inner_.getVolumePath();
}

} // namespace imaging
