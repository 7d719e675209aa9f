// Builds self-relative security descriptors, lists, entries and identifiers as bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace tests::security {

using Bytes = std::vector<std::uint8_t>;

/// Bits of a descriptor's control field.
inline constexpr std::uint16_t kDaclPresent = 0x0004;
inline constexpr std::uint16_t kSaclPresent = 0x0010;
inline constexpr std::uint16_t kDaclProtected = 0x1000;
inline constexpr std::uint16_t kSaclProtected = 0x2000;
inline constexpr std::uint16_t kSelfRelative = 0x8000;

/// Where entries carry their trustee.
inline constexpr std::size_t kTrustee = 0x08;
inline constexpr std::size_t kObjectTrustee = 0x34;

/// Writes an integer of `width` bytes, lowest byte first.
inline void put(Bytes& bytes, std::size_t offset, std::uint64_t value, std::size_t width) {
    for (std::size_t i = 0; i < width; ++i) {
        bytes.at(offset + i) = static_cast<std::uint8_t>(value >> (8 * i));
    }
}

inline void append(Bytes& bytes, Bytes const& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

/// An identifier; the authority is a 48-bit number that is stored highest byte first.
inline Bytes makeSid(std::uint64_t authority, std::vector<std::uint32_t> const& subAuthorities,
                     std::uint8_t revision = 1) {
    Bytes bytes(8 + 4 * subAuthorities.size());
    bytes[0] = revision;
    bytes[1] = static_cast<std::uint8_t>(subAuthorities.size());
    for (std::size_t i = 0; i < 6; ++i) {
        bytes[2 + i] = static_cast<std::uint8_t>(authority >> (8 * (5 - i)));
    }
    for (std::size_t i = 0; i < subAuthorities.size(); ++i) {
        put(bytes, 8 + 4 * i, subAuthorities[i], 4);
    }
    return bytes;
}

/// An entry whose trustee stands at `place`.
inline Bytes makeAce(std::uint8_t type, std::uint8_t flags, std::uint32_t mask, Bytes const& sid,
                     std::size_t place = kTrustee) {
    Bytes bytes(place);
    append(bytes, sid);
    bytes[0] = type;
    bytes[1] = flags;
    put(bytes, 2, bytes.size(), 2);
    put(bytes, 4, mask, 4);
    return bytes;
}

inline Bytes makeAcl(std::vector<Bytes> const& entries, std::uint8_t revision = 2) {
    Bytes bytes(8);
    for (Bytes const& entry : entries) {
        append(bytes, entry);
    }
    bytes[0] = revision;
    put(bytes, 2, bytes.size(), 2);
    put(bytes, 4, entries.size(), 2);
    return bytes;
}

/// A descriptor with an owner and a group in front of its lists. The present bits are as `control` says; a list that
/// is not given stands at offset 0.
inline Bytes makeDescriptor(unsigned control, std::optional<Bytes> const& sacl, std::optional<Bytes> const& dacl) {
    Bytes bytes(20);
    bytes[0] = 1;
    put(bytes, 0x02, control, 2);
    put(bytes, 0x04, bytes.size(), 4);
    append(bytes, makeSid(5, {32, 544}));
    put(bytes, 0x08, bytes.size(), 4);
    append(bytes, makeSid(5, {18}));
    if (sacl) {
        put(bytes, 0x0C, bytes.size(), 4);
        append(bytes, *sacl);
    }
    if (dacl) {
        put(bytes, 0x10, bytes.size(), 4);
        append(bytes, *dacl);
    }
    return bytes;
}

/// The usual one: a discretionary list that lets one trustee do everything.
inline Bytes makeSimpleDescriptor(std::uint32_t relativeId = 1000) {
    return makeDescriptor(kSelfRelative | kDaclPresent, std::nullopt,
                          makeAcl({makeAce(0, 0, 0x1F01FF, makeSid(5, {21, relativeId}))}));
}

} // namespace tests::security
