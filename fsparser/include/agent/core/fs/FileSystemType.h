/// @file
/// The detector of file systems.
#pragma once

#include "agent/core/fs/IFileSystemType.h"
#include "agent/info/Logger.h"

namespace agent::core::fs {

/// Asks the parsers' own tests, in this order: NTFS, FAT32, ext, HFS+, XFS. The first that recognises the buffer wins.
///
/// Each test expects the buffer to begin with its own structure. Those of NTFS, FAT32 and XFS stand in the volume's
/// first sector; those of ext (its superblock) and HFS+ (its volume header) at byte 1024 of the volume. A caller that
/// wants all five asks twice: once with the first sector and once with the 512 bytes at byte 1024.
///
/// The NTFS test logs what it finds wrong: each buffer that is not NTFS leaves one `Debug` entry "Invalid NTFS magic.".
///
/// A match says what a buffer looks like, not that the volume can be read: the parser's constructor checks on. No state
/// but the logger; any thread that the logger allows.
///
/// @code
/// agent::core::fs::FileSystemType const detector(logger);
/// std::array<char, 2048> begin{};
/// long const count = volume.read(begin.data(), 2048); // after a seek to byte 0
/// int code = detector.getFileSystemType(begin.data());
/// if (code == agent::core::fs::kUnrecognized) { code = detector.getFileSystemType(begin.data() + 1024); }
/// @endcode
class AGENT_EXPORT FileSystemType : public IFileSystemType {
public:
    /// @param logger  takes what the NTFS test says; not owned, must outlive the detector
    explicit FileSystemType(agent::info::Logger& logger);
    FileSystemType(FileSystemType const&) = default;
    FileSystemType& operator=(FileSystemType const&) = delete;
    ~FileSystemType() override;

    /// As IFileSystemType states it. Throws nothing but what the logger's isEnabled() throws; looks at no byte past the
    /// 512th.
    int getFileSystemType(void* bootBuffer) const override;

private:
    agent::info::Logger& logger_;
};

} // namespace agent::core::fs
