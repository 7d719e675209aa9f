// The interfaces' defaults, and the provider for volumes that are not recognised.
#include "agent/core/fs/IBlockBitmapChunkProvider.h"
#include "agent/core/fs/IFileSystemType.h"
#include "agent/core/fs/UnrecognizedParser.h"

#include <algorithm>

namespace agent::core::fs {

IBlockBitmapChunkProvider::~IBlockBitmapChunkProvider() = default;

bool IBlockBitmapChunkProvider::isMostSignificantBitFirst() const {
    return false;
}

IFileSystemType::~IFileSystemType() = default;

UnrecognizedParser::UnrecognizedParser(unsigned long totalUnits) : totalUnits_(totalUnits) {}

UnrecognizedParser::~UnrecognizedParser() = default;

long UnrecognizedParser::getChunk(unsigned long offset, char* buffer, unsigned long length) const {
    if (totalUnits_ <= offset) {
        return 0;
    }
    std::fill_n(buffer, length, '\xFF');
    return static_cast<long>(std::min(length * 8, totalUnits_ - offset));
}

} // namespace agent::core::fs
