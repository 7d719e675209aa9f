/// @file
/// XFS volumes.
#pragma once

#include "agent/Export.h"

namespace agent::core::fs {

/// Recognises XFS volumes by the magic of their superblock.
class AGENT_EXPORT XFSParser {
public:
    XFSParser() = delete;

    /// Whether the buffer is a superblock: its first four bytes are "XFSB". No other byte is looked at.
    /// @param buffer  the volume's first sector, at least 4 bytes; null is not recognised
    static bool isXFSFileSystem(void* buffer);
};

} // namespace agent::core::fs
