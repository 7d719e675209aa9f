// Fuzzes detection: any 512 bytes give a code from 0 to 5.
#include "FuzzReader.h"

#include "agent/core/fs/FileSystemType.h"

#include <array>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::array<std::uint8_t, 512> sector{};
    std::memcpy(sector.data(), data, std::min(size, sector.size()));
    fuzz::SinkLogger logger;
    int const code = agent::core::fs::FileSystemType(logger).getFileSystemType(sector.data());
    if (code < 0 || code > 5) {
        std::abort();
    }
    return 0;
}
