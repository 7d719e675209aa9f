/// @file
/// What a detector of file systems offers.
#pragma once

#include "agent/Export.h"

namespace agent::core::fs {

/// The codes that getFileSystemType() returns.
enum FileSystemCode : int {
    kUnrecognized = 0, ///< served by UnrecognizedParser
    kNtfs = 1,         ///< NTFSParser
    kFat32 = 2,        ///< FATParser
    kExt = 3,          ///< ext2, ext3 or ext4: EXTParser
    kHfsPlus = 4,      ///< HFS+ or HFSX: HFSParser
    kXfs = 5,          ///< XFSParser
};

/// Tells which file system a volume's structures belong to, from a buffer alone. Reads no volume. Any thread that its
/// logger allows.
///
/// @code
/// struct XfsOnly : agent::core::fs::IFileSystemType {
///     int getFileSystemType(void* bootBuffer) const override {
///         bool const isXfs = agent::core::fs::XFSParser::isXFSFileSystem(bootBuffer);
///         return isXfs ? agent::core::fs::kXfs : agent::core::fs::kUnrecognized;
///     }
/// };
/// @endcode
class AGENT_EXPORT IFileSystemType {
public:
    IFileSystemType() = default;
    IFileSystemType(IFileSystemType const&) = default;
    IFileSystemType& operator=(IFileSystemType const&) = default;
    virtual ~IFileSystemType();

    /// Names the file system that the buffer is the beginning of. Any thread that its logger allows.
    /// @param bootBuffer  at least 512 bytes, not changed; may be null, which is not recognised
    /// @return a FileSystemCode
    virtual int getFileSystemType(void* bootBuffer) const = 0;
};

} // namespace agent::core::fs
