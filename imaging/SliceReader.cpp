// Moving and bounding another reader.
#include "imaging/SliceReader.h"

#include <algorithm>
#include <cstdio>

namespace imaging {

SliceReader::SliceReader(agent::core::IVolumeReader const& inner, std::uint64_t start, std::uint64_t size)
    : inner_(inner), start_(start), size_(size) {}

long SliceReader::read(void* buffer, long length) const {
    std::uint64_t const rest = position_ < size_ ? size_ - position_ : 0;
    std::uint64_t const wanted = std::min(static_cast<std::uint64_t>(length), rest);
    if (wanted == 0) {
        return 0;
    }
    long const result = inner_.read(buffer, static_cast<long>(wanted));
    position_ += static_cast<std::uint64_t>(std::max(result, 0L));
    return result;
}

long SliceReader::seek(long offset, int whence) const {
    if (whence != SEEK_SET || offset < 0) {
        return -1;
    }
    auto const position = static_cast<std::uint64_t>(offset);
    // Past the end nothing is read, so the inner reader need not go there.
    if (position < size_ && inner_.seek(static_cast<long>(start_ + position), SEEK_SET) < 0) {
        return -1;
    }
    position_ = position;
    return offset;
}

std::string SliceReader::getVolumePath() const {
    return inner_.getVolumePath();
}

long SliceReader::size() {
    return static_cast<long>(size_);
}

} // namespace imaging
