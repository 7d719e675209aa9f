// Packing of volumes, and access to their sectors.
#include "Image.h"

#include <algorithm>
#include <cstring>

namespace fuzz {

namespace {

/// No sector lies behind this byte: a volume that a gap makes huge takes no time.
constexpr std::uint64_t kLargestVolume = std::uint64_t{1} << 30;

/// Zeros that are shorter than this stay in their piece.
constexpr std::uint64_t kShortestGap = 4;

void putVariable(Bytes& out, std::uint64_t value) {
    for (; value >= 0x80; value >>= 7) {
        out.push_back(static_cast<std::uint8_t>(value | 0x80));
    }
    out.push_back(static_cast<std::uint8_t>(value));
}

/// Takes a number from the front; what is missing is zero.
std::uint64_t takeVariable(std::span<std::uint8_t const>& in) {
    std::uint64_t value = 0;
    for (unsigned shift = 0; !in.empty() && shift < 35; shift += 7) {
        std::uint8_t const byte = in.front();
        in = in.subspan(1);
        value |= std::uint64_t{byte & 0x7FU} << shift;
        if (byte < 0x80) {
            break;
        }
    }
    return value;
}

struct Piece {
    std::uint64_t offset;
    Bytes bytes;

    std::uint64_t end() const { return offset + bytes.size(); }
};

/// Adds a byte to the last piece, or begins the next one.
void add(std::vector<Piece>& pieces, std::uint64_t offset, std::uint8_t byte) {
    if (pieces.empty() || offset >= pieces.back().end() + kShortestGap) {
        pieces.push_back({offset, {}});
    }
    Piece& last = pieces.back();
    last.bytes.resize(offset - last.offset);
    last.bytes.push_back(byte);
}

} // namespace

Image Image::unpack(std::span<std::uint8_t const> packed) {
    Image image;
    for (std::uint64_t offset = 0; !packed.empty();) {
        offset += takeVariable(packed);
        std::uint64_t const count = std::min<std::uint64_t>(takeVariable(packed), packed.size());
        if (offset + count > kLargestVolume) {
            break;
        }
        image.touch(offset);
        image.write(offset, packed.first(count));
        packed = packed.subspan(count);
        offset += count;
    }
    return image;
}

Bytes Image::pack() const {
    std::vector<Piece> pieces;
    for (auto const& [sector, bytes] : sectors_) {
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            if (bytes[i] != 0) {
                add(pieces, sector * kSector + i, bytes[i]);
            }
        }
    }
    std::uint64_t const end = pieces.empty() ? 0 : pieces.back().end();
    if (end + kSector <= size()) {
        pieces.push_back({size() - kSector, {}}); // a volume that ends in zeros
    }
    Bytes packed;
    std::uint64_t position = 0;
    for (Piece const& piece : pieces) {
        putVariable(packed, piece.offset - position);
        putVariable(packed, piece.bytes.size());
        packed.insert(packed.end(), piece.bytes.begin(), piece.bytes.end());
        position = piece.end();
    }
    return packed;
}

std::uint64_t Image::size() const {
    return sectors_.empty() ? 0 : (sectors_.rbegin()->first + 1) * kSector;
}

void Image::read(std::uint64_t offset, std::span<std::uint8_t> destination) const {
    std::fill(destination.begin(), destination.end(), std::uint8_t{0});
    std::uint64_t const end = offset + destination.size();
    for (auto at = sectors_.lower_bound(offset / kSector); at != sectors_.end() && at->first * kSector < end; ++at) {
        std::uint64_t const start = at->first * kSector;
        std::uint64_t const first = std::max(start, offset);
        std::uint64_t const last = std::min(start + kSector, end);
        std::copy_n(at->second.begin() + static_cast<std::ptrdiff_t>(first - start), last - first,
                    destination.begin() + static_cast<std::ptrdiff_t>(first - offset));
    }
}

void Image::write(std::uint64_t offset, std::span<std::uint8_t const> bytes) {
    while (!bytes.empty()) {
        std::uint64_t const within = offset % kSector;
        std::uint64_t const count = std::min<std::uint64_t>(kSector - within, bytes.size());
        std::copy_n(bytes.begin(), count, sectors_[offset / kSector].begin() + static_cast<std::ptrdiff_t>(within));
        bytes = bytes.subspan(count);
        offset += count;
    }
}

std::uint64_t Image::little(std::uint64_t offset, unsigned width) const {
    std::array<std::uint8_t, 8> bytes{};
    read(offset, std::span(bytes).first(width));
    std::uint64_t value = 0;
    std::memcpy(&value, bytes.data(), sizeof value);
    return value;
}

std::uint64_t Image::big(std::uint64_t offset, unsigned width) const {
    std::array<std::uint8_t, 8> bytes{};
    read(offset, std::span(bytes).last(width));
    std::reverse(bytes.begin(), bytes.end());
    std::uint64_t value = 0;
    std::memcpy(&value, bytes.data(), sizeof value);
    return value;
}

void Image::putLittle(std::uint64_t offset, std::uint64_t value, unsigned width) {
    std::array<std::uint8_t, 8> bytes{};
    std::memcpy(bytes.data(), &value, sizeof value);
    write(offset, std::span(bytes).first(width));
}

void Image::putBig(std::uint64_t offset, std::uint64_t value, unsigned width) {
    std::array<std::uint8_t, 8> bytes{};
    std::memcpy(bytes.data(), &value, sizeof value);
    std::reverse(bytes.begin(), bytes.end());
    write(offset, std::span(bytes).last(width));
}

std::vector<std::uint64_t> Image::sectors() const {
    std::vector<std::uint64_t> offsets;
    for (auto const& [sector, bytes] : sectors_) {
        offsets.push_back(sector * kSector);
    }
    return offsets;
}

} // namespace fuzz
