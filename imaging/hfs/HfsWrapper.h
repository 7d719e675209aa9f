// An HFS+ volume inside an HFS volume.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

namespace imaging::hfs {

/// Where the embedded volume lies.
struct Embedded {
    std::uint64_t start; ///< byte of the outer volume
    std::uint64_t bytes;
};

/// Looks for a wrapper: the outer volume's header (signature "BD") that names an embedded volume with an HFS+ or HFSX
/// signature.
/// @param header  what stands at byte 1024 of the outer volume, at least 130 bytes
std::optional<Embedded> findEmbedded(std::span<std::uint8_t const> header);

} // namespace imaging::hfs
