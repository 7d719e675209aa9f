// A volume as the fuzzer's inputs hold it: only what is not zero takes bytes, so that a few kilobytes are a whole
// volume.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <span>
#include <vector>

namespace fuzz {

using Bytes = std::vector<std::uint8_t>;

inline constexpr std::uint64_t kSector = 512;

/// The sectors of a volume that were written; all others are zero. The volume ends behind the last of them.
///
/// Packed, it is a list of pieces: how many zero bytes come before the piece, how many bytes it has, and these. Both
/// numbers take seven bits a byte, the lowest first. A piece of no bytes makes its sector a part of the volume. Any
/// bytes are a volume.
class Image {
public:
    static Image unpack(std::span<std::uint8_t const> packed);
    Bytes pack() const;

    std::uint64_t size() const;
    void read(std::uint64_t offset, std::span<std::uint8_t> destination) const;
    void write(std::uint64_t offset, std::span<std::uint8_t const> bytes);

    /// Makes the sector a part of the volume.
    void touch(std::uint64_t offset) { static_cast<void>(sectors_[offset / kSector]); }

    std::uint64_t little(std::uint64_t offset, unsigned width) const;
    std::uint64_t big(std::uint64_t offset, unsigned width) const;
    void putLittle(std::uint64_t offset, std::uint64_t value, unsigned width);
    void putBig(std::uint64_t offset, std::uint64_t value, unsigned width);

    /// Where the sectors begin that were written.
    std::vector<std::uint64_t> sectors() const;

private:
    std::map<std::uint64_t, std::array<std::uint8_t, kSector>> sectors_;
};

} // namespace fuzz
