/// @file
/// HFS+ and HFSX volumes.
#pragma once

#include "agent/Export.h"

namespace agent::core::fs {

/// Recognises HFS+ volumes by the signature of their volume header.
class AGENT_EXPORT HFSParser {
public:
    HFSParser() = delete;

    /// Whether the buffer is a volume header: its first two bytes are "H+" or "HX".
    /// @param buffer  what stands at byte 1024 of the volume, at least 2 bytes; null is not recognised
    static bool isHFSFileSystem(void* buffer);
};

} // namespace agent::core::fs
