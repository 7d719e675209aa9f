// A look at an ext volume's group descriptors before the parser's map is believed.
#pragma once

#include "imaging/Volume.h"

#include <cstdint>
#include <optional>
#include <string>

namespace imaging::ext {

/// Where the descriptors stand and what they may name.
struct DescriptorTable {
    std::uint64_t offset;         ///< bytes from the volume's start
    std::uint64_t groups;         ///< descriptors in the table
    std::uint64_t descriptorSize; ///< bytes, at least 32
    std::uint64_t firstDataBlock;
    std::uint64_t blocks;
    bool mayBeUninitialised; ///< the volume has the feature under which a bitmap need not be initialised
};

/// The first group whose block bitmap lies where no bitmap can be, or is marked as not initialised on a volume that has
/// no such feature, as one clause; nothing when all are sound. Groups
/// whose bitmap is not initialised have none. Bits read from a wrong place would free blocks that are in use.
/// @throws VolumeError  the table cannot be read
std::optional<std::string> findMisplacedBitmap(Volume& volume, DescriptorTable const& table);

} // namespace imaging::ext
