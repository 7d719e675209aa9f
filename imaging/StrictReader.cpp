// Refusing short reads.
#include "imaging/StrictReader.h"

namespace imaging {

using agent::info::Level;
using agent::info::Logger;

StrictReader::StrictReader(Logger& logger, agent::core::IVolumeReader const& inner, std::uint64_t size,
                           std::uint64_t tail)
    : logger_(logger), inner_(inner), size_(size), tail_(tail) {}

long StrictReader::read(void* buffer, long length) const {
    long const result = inner_.read(buffer, length);
    if (result < 0) {
        return -1;
    }
    std::uint64_t const start = position_;
    position_ += static_cast<std::uint64_t>(result);
    if (result < length && !isTail(position_, start + static_cast<std::uint64_t>(length))) {
        Logger::Entry(logger_, Level::Error)
            << "The volume delivers nothing at byte " << position_ << ", where " << length - result
            << " more bytes were to be read (it has " << size_ << " bytes)";
        return -1;
    }
    return result;
}

bool StrictReader::isTail(std::uint64_t end, std::uint64_t wantedEnd) const {
    return end == size_ && wantedEnd - size_ < tail_;
}

long StrictReader::seek(long offset, int whence) const {
    long const result = inner_.seek(offset, whence);
    if (result >= 0) {
        position_ = static_cast<std::uint64_t>(result);
    }
    return result;
}

std::string StrictReader::getVolumePath() const {
    return inner_.getVolumePath();
}

long StrictReader::size() {
    return static_cast<long>(size_);
}

} // namespace imaging
