// Detection: the parsers' own tests in their fixed order.
#include "agent/core/fs/FileSystemType.h"

#include "agent/core/fs/EXTParser.h"
#include "agent/core/fs/FATParser.h"
#include "agent/core/fs/HFSParser.h"
#include "agent/core/fs/NTFSParser.h"
#include "agent/core/fs/XFSParser.h"

namespace agent::core::fs {

FileSystemType::FileSystemType(agent::info::Logger& logger) : logger_(logger) {}

FileSystemType::~FileSystemType() = default;

int FileSystemType::getFileSystemType(void* bootBuffer) const {
    if (NTFSParser::isNTFileSystem(bootBuffer, logger_)) {
        return kNtfs;
    }
    if (FATParser::isFATFileSystem(bootBuffer)) {
        return kFat32;
    }
    if (EXTParser::isEXTFileSystem(bootBuffer)) {
        return kExt;
    }
    if (HFSParser::isHFSFileSystem(bootBuffer)) {
        return kHfsPlus;
    }
    if (XFSParser::isXFSFileSystem(bootBuffer)) {
        return kXfs;
    }
    return kUnrecognized;
}

} // namespace agent::core::fs
