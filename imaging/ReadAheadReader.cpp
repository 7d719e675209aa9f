// Windows for reads that follow one another.
#include "imaging/ReadAheadReader.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace imaging {

namespace {

/// What direct I/O asks of offsets and addresses, at most.
constexpr std::uint64_t kAlignment = 4096;

} // namespace

ReadAheadReader::ReadAheadReader(ReasonLogger& logger, agent::core::IVolumeReader const& inner)
    : logger_(logger),
      inner_(inner), streams_{Stream{decltype(Stream::window)(agent::AlignedAllocator<char>(kAlignment))},
                              Stream{decltype(Stream::window)(agent::AlignedAllocator<char>(kAlignment))}} {}

bool ReadAheadReader::Stream::holds(std::uint64_t position, std::uint64_t length) const {
    return position >= start && position - start <= size && length <= size - (position - start);
}

long ReadAheadReader::read(void* buffer, long length) const {
    auto const wanted = static_cast<std::uint64_t>(length);
    Stream& stream = findStream(wanted);
    if (wanted <= kWindowBytes / 2 && !stream.holds(position_, wanted) && stream.expected == position_) {
        fillWindow(stream);
    }
    if (!stream.holds(position_, wanted)) {
        return readAround(stream, buffer, length); // also at the volume's end
    }
    std::memcpy(buffer, stream.window.data() + (position_ - stream.start), wanted);
    position_ += wanted;
    stream.expected = position_;
    return length;
}

/// The stream that the read goes on, else the one that was not read from last.
ReadAheadReader::Stream& ReadAheadReader::findStream(std::uint64_t length) const {
    auto const fits = [&](Stream const& stream) {
        return stream.expected == position_ || stream.holds(position_, length);
    };
    if (!fits(streams_[last_])) {
        last_ = 1 - last_;
    }
    return streams_[last_];
}

/// Reads a window that holds the position; it is empty when that fails.
void ReadAheadReader::fillWindow(Stream& stream) const {
    stream.window.resize(kWindowBytes);
    stream.start = position_ / kAlignment * kAlignment;
    stream.size = 0;
    if (stream.start >= broken_.begin && stream.start < broken_.end) {
        return;
    }
    if (inner_.seek(static_cast<long>(stream.start), SEEK_SET) < 0) {
        return;
    }
    std::size_t const errors = logger_.count();
    long const count = inner_.read(stream.window.data(), static_cast<long>(kWindowBytes));
    if (count < 0) {
        logger_.forgetSince(errors); // what was asked for may be readable all the same
        broken_ = {stream.start, stream.start + kWindowBytes};
        return;
    }
    stream.size = static_cast<std::uint64_t>(count);
}

long ReadAheadReader::readAround(Stream& stream, void* buffer, long length) const {
    if (inner_.seek(static_cast<long>(position_), SEEK_SET) < 0) {
        return -1;
    }
    long const result = inner_.read(buffer, length);
    position_ += static_cast<std::uint64_t>(std::max(result, 0L));
    stream.expected = position_;
    return result;
}

long ReadAheadReader::seek(long offset, int whence) const {
    if (whence != SEEK_SET || offset < 0) {
        return -1;
    }
    position_ = static_cast<std::uint64_t>(offset);
    return offset;
}

void ReadAheadReader::forget() const {
    broken_ = {0, 0};
    for (Stream& stream : streams_) {
        stream.size = 0;
        stream.expected = ~std::uint64_t{0};
    }
}

std::string ReadAheadReader::getVolumePath() const {
    return inner_.getVolumePath();
}

} // namespace imaging
