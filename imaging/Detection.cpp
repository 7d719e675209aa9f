// Detection with the right bytes for each test.
#include "imaging/Detection.h"

#include "agent/core/fs/FSUtil.h"
#include "agent/core/fs/FileSystemType.h"
#include "imaging/Error.h"

#include <array>
#include <string>

namespace imaging {

using namespace agent::core::fs;

namespace {

int detectAt(ReasonLogger& logger, agent::core::IVolumeReader const& volume, std::uint64_t alignment,
             std::uint64_t offset) {
    std::array<char, kSectorBytes> buffer{};
    unsigned long bytesRead = 0;
    if (fs_seek_read_aligned(logger, volume, alignment, offset, buffer.data(), buffer.size(), &bytesRead) != 0) {
        throw VolumeError(Trouble::Io, volume.getVolumePath() + ": cannot be read at byte " + std::to_string(offset) +
                                           ": " + logger.takeReason("the read failed"));
    }
    return FileSystemType(logger).getFileSystemType(buffer.data());
}

} // namespace

FileSystemCode detectFileSystem(ReasonLogger& logger, agent::core::IVolumeReader const& volume, std::uint64_t alignment,
                                std::uint64_t size) {
    // A match of a test that expects other bytes means nothing and is passed over.
    int const sector = detectAt(logger, volume, alignment, 0);
    if (sector == kNtfs || sector == kFat32) {
        return static_cast<FileSystemCode>(sector);
    }
    if (size >= kHeaderOffset + kSectorBytes) {
        int const header = detectAt(logger, volume, alignment, kHeaderOffset);
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
