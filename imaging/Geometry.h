// What a volume's own header says of its units.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace imaging {

/// Where a file system keeps its journal.
struct Journal {
    bool isExternal;         ///< on another device; then the rest means nothing
    std::uint64_t first = 0; ///< unit
    std::uint64_t units = 0;
};

/// The units of a file system, read from its header without the parser, so that the parser's answer can be checked.
struct Geometry {
    std::uint64_t unitSize = 0;   ///< bytes
    std::uint64_t units = 0;      ///< units of the volume, numbered from 0; unitSize * units fits 63 bits
    std::uint64_t start = 0;      ///< byte of the volume where unit 0 begins: past the wrapper of an HFS+ volume
    std::uint64_t bytes = 0;      ///< of the file system from there on; the last unit may reach further
    std::uint64_t chunkBytes = 0; ///< how long a chunk must be so that what the parser reads again is no burden

    /// Named where the file system tells it in its header.
    std::optional<Journal> journal = std::nullopt;

    /// Why the parser's map is not the truth here, as one clause with field and value; then every unit counts as used.
    std::optional<std::string> notBelieved = std::nullopt;
};

} // namespace imaging
