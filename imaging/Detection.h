// Which file system a volume holds.
#pragma once

#include "agent/core/IVolumeReader.h"
#include "agent/core/fs/IFileSystemType.h"
#include "imaging/ReasonLogger.h"

#include <cstdint>
#include <string>

namespace imaging {

/// A volume shorter than this has no first sector that could be recognised.
inline constexpr std::uint64_t kSectorBytes = 512;

/// Where the ext superblock and the HFS+ volume header stand.
inline constexpr std::uint64_t kHeaderOffset = 1024;

/// Hands the library's detector the bytes that each of its tests expects: the first sector for NTFS, FAT32 and XFS,
/// what stands at byte 1024 for ext and HFS+, there also of the volume inside an HFS wrapper; the first that matches in
/// the detector's own order wins.
/// @param size  bytes of the volume, at least kSectorBytes
/// @throws VolumeError  the volume cannot be read there; `path` begins the sentence
agent::core::fs::FileSystemCode detectFileSystem(ReasonLogger& logger, agent::core::IVolumeReader const& volume,
                                                 std::uint64_t alignment, std::uint64_t size);

/// A short name, as the command prints it: "ntfs", "fat32", "ext", "hfs+", "xfs", or "unrecognized".
char const* fileSystemName(agent::core::fs::FileSystemCode code);

/// What to say of a volume in which nothing was recognised.
/// @param refusal  what the detector found wrong with it, or empty
std::string unrecognizedSentence(std::string const& path, std::string const& refusal);

} // namespace imaging
