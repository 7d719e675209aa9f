/// @file
/// NTFS volumes.
#pragma once

#include "agent/Export.h"
#include "agent/info/Logger.h"

namespace agent::core::fs {

/// Recognises NTFS volumes by their boot sector.
class AGENT_EXPORT NTFSParser {
public:
    NTFSParser() = delete;

    /// Whether the buffer is an acceptable NTFS boot sector. Never throws.
    ///
    /// The first check that fails ends the test, and all but the null pointer's leave one entry:
    /// `Debug` "Invalid NTFS magic."; `Error` "Unexpected bytes per sector: 0x...", "Unexpected cluster size 0x...",
    /// "Unexpected sectors per cluster value: 0x" and the raw byte, "Reserved fields aren't zero",
    /// "Unexpected clusters per mft record: 0x" and the raw byte, "Unexpected clusters per index record: 0x" and the
    /// raw byte, "Invalid location of MFT or MFTMirr.". A wrong end-of-sector marker is only a `Warning`, "Bootsector
    /// has invalid end of sector marker.".
    /// @param bootSector  the volume's first 512 bytes; null is not recognised
    static bool isNTFileSystem(void* bootSector, agent::info::Logger& logger);
};

} // namespace agent::core::fs
