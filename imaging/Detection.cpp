// Detection with the right bytes for each test.
#include "imaging/Detection.h"

#include "agent/core/fs/FSUtil.h"
#include "agent/core/fs/FileSystemType.h"
#include "imaging/Error.h"
#include "imaging/hfs/HfsWrapper.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace imaging {

using namespace agent::core::fs;

namespace {

using Sector = std::array<std::uint8_t, kSectorBytes>;

Sector readSector(ReasonLogger& logger, agent::core::IVolumeReader const& volume, std::uint64_t alignment,
                  std::uint64_t offset) {
    Sector buffer{};
    unsigned long bytesRead = 0;
    if (fs_seek_read_aligned(logger, volume, alignment, offset, buffer.data(), buffer.size(), &bytesRead) != 0) {
        throw VolumeError(Trouble::Io, volume.getVolumePath() + ": cannot be read at byte " + std::to_string(offset) +
                                           ": " + logger.takeReason("the read failed"));
    }
    return buffer;
}

/// What the header at byte 1024 says; that of the volume inside an HFS wrapper where it is one.
int detectHeader(ReasonLogger& logger, agent::core::IVolumeReader const& volume, std::uint64_t alignment,
                 std::uint64_t size) {
    Sector header = readSector(logger, volume, alignment, kHeaderOffset);
    std::optional<hfs::Embedded> const embedded = hfs::findEmbedded(header);
    if (embedded && embedded->start < size && embedded->start + kHeaderOffset + kSectorBytes <= size) {
        header = readSector(logger, volume, alignment, embedded->start + kHeaderOffset);
    }
    return FileSystemType(logger).getFileSystemType(header.data());
}

/// The boot sector of an encrypted volume keeps the label of FAT32, but describes no volume.
bool isEncrypted(Sector const& first) {
    constexpr std::string_view kSystemName = "-FVE-FS-"; // at byte 3
    return std::equal(kSystemName.begin(), kSystemName.end(), first.begin() + 3);
}

} // namespace

FileSystemCode detectFileSystem(ReasonLogger& logger, agent::core::IVolumeReader const& volume, std::uint64_t alignment,
                                std::uint64_t size) {
    // A match of a test that expects other bytes means nothing and is passed over.
    Sector first = readSector(logger, volume, alignment, 0);
    int const sector = FileSystemType(logger).getFileSystemType(first.data());
    if (sector == kNtfs || (sector == kFat32 && !isEncrypted(first))) {
        return static_cast<FileSystemCode>(sector);
    }
    if (size >= kHeaderOffset + kSectorBytes) {
        int const header = detectHeader(logger, volume, alignment, size);
        if (header == kExt || header == kHfsPlus) {
            return static_cast<FileSystemCode>(header);
        }
    }
    return sector == kXfs ? kXfs : kUnrecognized;
}

char const* fileSystemName(FileSystemCode code) {
    switch (code) {
    case kNtfs:
        return "ntfs";
    case kFat32:
        return "fat32";
    case kExt:
        return "ext";
    case kHfsPlus:
        return "hfs+";
    case kXfs:
        return "xfs";
    case kUnrecognized:
        break;
    }
    return "unrecognized";
}

std::string unrecognizedSentence(std::string const& path, std::string const& refusal) {
    return path +
           ": holds no file system that is understood: neither the first sector (byte 0) nor the header at byte "
           "1024 is recognised" +
           (refusal.empty() ? "" : " (" + refusal + ")");
}

} // namespace imaging
