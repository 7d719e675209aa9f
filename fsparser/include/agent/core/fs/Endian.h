/// @file
/// Integers as they stand on disk: byte arrays, read by an explicit call.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace agent::core::fs {

static_assert(std::endian::native == std::endian::little, "written for x86-64");

/// An unsigned integer of the given width stored lowest byte first. Alignment 1, so that a structure of such fields
/// lies over bytes at any address.
/// @code
/// struct OnDisk { agent::core::fs::le32 blocks; }; // 4 bytes, without padding
/// OnDisk onDisk{};
/// long const count = volume.read(&onDisk, sizeof onDisk);
/// std::uint32_t const blocks = onDisk.blocks.value();
/// @endcode
template <typename Native>
struct LittleEndian {
    std::array<std::uint8_t, sizeof(Native)> bytes; ///< as they stand on disk

    /// The number in the order of the host.
    constexpr Native value() const { return std::bit_cast<Native>(bytes); }
};

/// An unsigned integer of the given width stored highest byte first. Alignment 1.
template <typename Native>
struct BigEndian {
    std::array<std::uint8_t, sizeof(Native)> bytes; ///< as they stand on disk

    /// The number in the order of the host.
    constexpr Native value() const {
        auto reversed = bytes;
        std::reverse(reversed.begin(), reversed.end());
        return std::bit_cast<Native>(reversed);
    }
};

using le16 = LittleEndian<std::uint16_t>; ///< 2 bytes, lowest first
using le32 = LittleEndian<std::uint32_t>; ///< 4 bytes, lowest first
using le64 = LittleEndian<std::uint64_t>; ///< 8 bytes, lowest first
using be16 = BigEndian<std::uint16_t>;    ///< 2 bytes, highest first
using be32 = BigEndian<std::uint32_t>;    ///< 4 bytes, highest first
using be64 = BigEndian<std::uint64_t>;    ///< 8 bytes, highest first

static_assert(sizeof(le16) == 2 && alignof(le16) == 1);
static_assert(sizeof(le32) == 4 && alignof(le32) == 1);
static_assert(sizeof(le64) == 8 && alignof(le64) == 1);
static_assert(sizeof(be16) == 2 && alignof(be16) == 1);
static_assert(sizeof(be32) == 4 && alignof(be32) == 1);
static_assert(sizeof(be64) == 8 && alignof(be64) == 1);

} // namespace agent::core::fs
