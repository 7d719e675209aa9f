// Fuzzes the FAT32 parser: construction, then the requests that are not documented to end the process.
#include "MapWalk.h"

#include "agent/core/fs/FATParser.h"
#include "fat/FatLayout.h"

#include <memory>
#include <stdexcept>

namespace {

/// Where the data area begins as the parser reckons it: every product is one of 32 signed bits.
struct Layout {
    explicit Layout(agent::core::fs::fat_boot_sector const& boot) {
        auto const product = [](std::uint32_t a, std::uint32_t b) { return static_cast<std::int32_t>(a * b); };
        std::uint32_t const sector = boot.bytes_per_sector.value();
        auto const fatSectors = static_cast<std::uint16_t>(boot.sectors_per_fat_32.value());
        clusterBytes = product(boot.sectors_per_cluster, sector);
        dataStart = product(boot.reserved_sectors.value(), sector) +
                    std::int64_t{product(fatSectors, sector)} * boot.number_of_fats;
    }

    /// The least that keeps a request from unit 0 inside the entries that it reads.
    bool isSafeFromZero() const { return clusterBytes == 0 || dataStart >= clusterBytes; }

    /// Units that hold no data, from unit 0 on: no entry is consulted for them.
    std::uint64_t reservedUnits() const {
        return clusterBytes == 0 || dataStart < 0 ? 0 : static_cast<std::uint64_t>(dataStart / clusterBytes);
    }

    std::int64_t clusterBytes;
    std::int64_t dataStart;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::Image const image = fuzz::Image::unpack({data, size});
    fuzz::Request request(image, 0x60); // boot code
    fuzz::ImageReader const volume(image);
    unsigned const alignment = request.alignment();
    std::size_t const bytes = request.number(2) % 8192;
    std::size_t const early = request.number(2);
    fuzz::SinkLogger logger(request.number(1) % 2 == 0);
    std::unique_ptr<agent::core::fs::FATParser> parser;
    fuzz::mayThrow<std::runtime_error, std::invalid_argument>(
        [&] { parser = std::make_unique<agent::core::fs::FATParser>(logger, alignment, volume); });
    if (parser == nullptr) {
        return 0;
    }
    agent::core::fs::fat_boot_sector boot{};
    image.read(0, {reinterpret_cast<std::uint8_t*>(&boot), sizeof boot});
    Layout const layout(boot);
    if (layout.isSafeFromZero()) {
        std::vector<char> buffer(bytes);
        fuzz::chunkOf<std::bad_alloc, std::invalid_argument>(*parser, 0, buffer);
    }
    std::uint64_t const reserved = layout.reservedUnits();
    if (reserved >= 8) {
        std::uint64_t const start = early % (reserved - 7);
        std::vector<char> buffer(std::min<std::uint64_t>((reserved - start) / 8, 4096));
        fuzz::chunkOf<std::bad_alloc, std::invalid_argument>(*parser, start, buffer);
    }
    return 0;
}
