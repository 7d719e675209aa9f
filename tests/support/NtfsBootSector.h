// A good NTFS boot sector, for tests that change one field of it.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>

namespace tests {

using Sector512 = std::array<std::uint8_t, 512>;

/// Writes an integer of `width` bytes, lowest byte first.
inline void putLittleEndian(Sector512& sector, std::size_t offset, std::uint64_t value, std::size_t width) {
    for (std::size_t i = 0; i < width; ++i) {
        sector[offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
    }
}

/// The boot sector of a volume of 16 MiB: what every check accepts without an entry.
inline Sector512 ntfsBootSector() {
    Sector512 sector{};
    std::memcpy(sector.data() + 0x03, "NTFS    ", 8);
    putLittleEndian(sector, 0x0B, 512, 2);     // bytes per sector
    putLittleEndian(sector, 0x0D, 8, 1);       // sectors per cluster: clusters of 4 KiB
    putLittleEndian(sector, 0x15, 0xF8, 1);    // media: a fixed disk
    putLittleEndian(sector, 0x28, 32767, 8);   // total sectors: the last one is the copy of this one
    putLittleEndian(sector, 0x30, 4, 8);       // first cluster of $MFT
    putLittleEndian(sector, 0x38, 2047, 8);    // first cluster of $MFTMirr: the middle
    putLittleEndian(sector, 0x40, 0xF6, 1);    // records of two to the power of 10 bytes
    putLittleEndian(sector, 0x44, 1, 1);       // index blocks of one cluster
    putLittleEndian(sector, 0x1FE, 0xAA55, 2); // end of sector
    return sector;
}

} // namespace tests
