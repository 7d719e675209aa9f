// Fuzzes detection: any 512 bytes give a code from 0 to 5.
#include "FuzzReader.h"

#include "agent/core/fs/FileSystemType.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::Bytes sector(512); // on the heap: a look behind it is seen
    if (size != 0) {
        std::memcpy(sector.data(), data, std::min(size, sector.size()));
    }
    fuzz::SinkLogger logger;
    int const code = agent::core::fs::FileSystemType(logger).getFileSystemType(sector.data());
    fuzz::require(code >= agent::core::fs::kUnrecognized && code <= agent::core::fs::kXfs);
    return 0;
}
