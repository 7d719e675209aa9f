// Small sound volumes of every file system, full of bytes, to be copied; and what a copy of each must hold.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tests {

/// A volume whose every byte outside its own structures is not zero.
struct CopyVolume {
    std::string name;
    std::vector<std::uint8_t> bytes;
    std::uint64_t unitSize;
    std::vector<bool> used; ///< one element a unit, the first at byte 0
};

/// Their names: one of each file system; of ext, NTFS and HFS+ also one whose map lies in pieces.
std::vector<std::string> const& copyVolumeNames();

/// The names of those of at most 3 MiB, which can be copied again and again.
std::vector<std::string> smallCopyVolumeNames();

/// The one of that number, made when it is first asked for: a list of tests costs nothing.
CopyVolume const& copyVolume(std::size_t number);
CopyVolume const& copyVolume(std::string const& name);

/// The first used unit in which a copy differs; the number of units where it differs in none.
std::uint64_t firstLoss(CopyVolume const& volume, std::vector<std::uint8_t> const& copy);

} // namespace tests
