/// @file
/// FAT32 volumes.
#pragma once

#include "agent/Export.h"

namespace agent::core::fs {

struct fat_boot_sector;

/// Recognises FAT volumes by the type label in their boot sector.
class AGENT_EXPORT FATParser {
public:
    FATParser() = delete;

    /// The type that the labels claim: 0 when the 5 bytes at 0x36 are "FAT12"; else 1 when they are "FAT16"; else 2
    /// when the 5 bytes at 0x52 are "FAT32"; else 3.
    /// @param bootSector  at least 87 bytes
    static int fat_get_type(fat_boot_sector* bootSector);

    /// Whether the buffer is the boot sector of a FAT32 volume.
    /// @param buffer  the volume's first sector, at least 87 bytes; null is not recognised
    static bool isFATFileSystem(void* buffer);
};

} // namespace agent::core::fs
