// Laying the volume header over the first bytes.
#include "imaging/hfs/HeaderFirstReader.h"

#include <algorithm>

namespace imaging::hfs {

HeaderFirstReader::HeaderFirstReader(agent::core::IVolumeReader const& inner,
                                     std::array<std::uint8_t, kHeaderBytes> const& header)
    : inner_(inner), header_(header) {}

long HeaderFirstReader::read(void* buffer, long length) const {
    long const result = inner_.read(buffer, length);
    if (result <= 0) {
        return result;
    }
    auto const delivered = static_cast<std::uint64_t>(result);
    if (position_ < kHeaderBytes) {
        std::uint64_t const count = std::min(delivered, kHeaderBytes - position_);
        std::copy_n(header_.begin() + position_, count, static_cast<std::uint8_t*>(buffer));
    }
    position_ += delivered;
    return result;
}

long HeaderFirstReader::seek(long offset, int whence) const {
    long const result = inner_.seek(offset, whence);
    if (result >= 0) {
        position_ = static_cast<std::uint64_t>(result);
    }
    return result;
}

std::string HeaderFirstReader::getVolumePath() const {
    return inner_.getVolumePath();
}

} // namespace imaging::hfs
