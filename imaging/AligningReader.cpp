// Widening reads to whole alignment units.
#include "imaging/AligningReader.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace imaging {

namespace {

/// Most bytes widened at a time.
constexpr std::uint64_t kPieceBytes = std::uint64_t{1} << 20;

} // namespace

AligningReader::AligningReader(agent::core::IVolumeReader const& inner, std::uint64_t alignment)
    : inner_(inner), alignment_(alignment), buffer_(agent::AlignedAllocator<char>(alignment)) {}

bool AligningReader::isAligned(void const* buffer, std::uint64_t length) const {
    return ((position_ | length | reinterpret_cast<std::uintptr_t>(buffer)) & (alignment_ - 1)) == 0 &&
           innerPosition_ == position_;
}

long AligningReader::read(void* buffer, long length) const {
    auto const wanted = static_cast<std::uint64_t>(length);
    if (isAligned(buffer, wanted)) {
        long const result = inner_.read(buffer, length);
        position_ += static_cast<std::uint64_t>(std::max(result, 0L));
        innerPosition_ = result < 0 ? kUnknown : position_;
        return result;
    }
    std::uint64_t done = 0;
    while (done < wanted) {
        long const result = readPiece(static_cast<char*>(buffer) + done, wanted - done);
        if (result < 0) {
            return -1;
        }
        if (result == 0) {
            break; // the end of the volume
        }
        done += static_cast<std::uint64_t>(result);
    }
    return static_cast<long>(done);
}

long AligningReader::readPiece(char* buffer, std::uint64_t length) const {
    std::uint64_t const lead = position_ & (alignment_ - 1);
    std::uint64_t const start = position_ - lead;
    std::uint64_t const piece = std::max(kPieceBytes, alignment_);
    std::uint64_t const size = std::min(piece, (lead + length + alignment_ - 1) & ~(alignment_ - 1));
    buffer_.resize(std::max<std::size_t>(buffer_.size(), size));
    if (innerPosition_ != start && inner_.seek(static_cast<long>(start), SEEK_SET) < 0) {
        return -1;
    }
    long const result = inner_.read(buffer_.data(), static_cast<long>(size));
    if (result < 0) {
        innerPosition_ = kUnknown;
        return -1;
    }
    auto const delivered = static_cast<std::uint64_t>(result);
    innerPosition_ = start + delivered;
    std::uint64_t const useful = std::min(delivered - std::min(delivered, lead), length);
    std::memcpy(buffer, buffer_.data() + lead, useful);
    position_ += useful;
    return static_cast<long>(useful);
}

long AligningReader::seek(long offset, int whence) const {
    if (whence != SEEK_SET || offset < 0) {
        return -1;
    }
    auto const position = static_cast<std::uint64_t>(offset);
    std::uint64_t const start = position & ~(alignment_ - 1);
    long const result = inner_.seek(static_cast<long>(start), SEEK_SET);
    if (result < 0) {
        innerPosition_ = kUnknown;
        return -1;
    }
    position_ = position;
    innerPosition_ = start;
    return offset;
}

std::string AligningReader::getVolumePath() const {
    return inner_.getVolumePath();
}

} // namespace imaging
