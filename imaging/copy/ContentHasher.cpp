// Hashing window by window.
#include "imaging/copy/ContentHasher.h"

#include "imaging/Error.h"

#include <algorithm>
#include <array>
#include <system_error>

namespace imaging {

namespace {

constexpr std::size_t kZeroBytes = std::size_t{64} * 1024;

/// Bytes of a hole hashed between two pauses: a fraction of a second.
constexpr std::uint64_t kHolePiece = std::uint64_t{64} << 20;

void addZeros(std::uint64_t count, Sha256& hash) {
    static std::array<std::uint8_t, kZeroBytes> const zeros{};
    while (count != 0) {
        auto const part = static_cast<std::size_t>(std::min<std::uint64_t>(count, kZeroBytes));
        hash.add(zeros.data(), part);
        count -= part;
    }
}

} // namespace

void ContentHasher::add(ByteRange const& range, Sha256& hash) {
    for (std::uint64_t begin = range.begin; begin < range.end;) {
        ByteRange part{begin, std::min(range.end, begin + kWindowBytes)};
        Source::Stretch const stretch = source_.stretchAt(begin);
        if (stretch.isHole) {
            part.end = std::min({range.end, stretch.end, begin + kHolePiece});
            addZeros(part.size(), hash);
        } else {
            addRead(part, hash);
        }
        if (pause_) {
            pause_();
        }
        begin = part.end;
    }
}

void ContentHasher::addRead(ByteRange const& part, Sha256& hash) {
    try {
        window_.read(part, path_);
    } catch (std::system_error const& error) {
        throw VolumeError(Trouble::Io, path_ + ": cannot be read between byte " + std::to_string(part.begin) +
                                           " and byte " + std::to_string(part.end) + ": " + error.code().message());
    }
    hash.add(window_.bytes(part).data(), part.size());
}

} // namespace imaging
