// Fuzzes the NTFS parser: construction, then the map, in one request and in several.
#include "MapWalk.h"
#include "NtfsVolume.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::NtfsVolume ntfs({data, size});
    std::size_t const bytes = 1 + ntfs.request.number(2) % 4096;
    unsigned long const start = ntfs.request.number(4);
    if (!ntfs.open()) {
        return 0;
    }
    for (unsigned long const from : {0UL, start & ~7UL, start}) {
        ntfs.reader.renew();
        fuzz::walkMap<std::runtime_error, std::bad_alloc>(*ntfs.parser, from, bytes);
    }
    ntfs.reader.renew();
    fuzz::mayThrow<std::runtime_error, std::bad_alloc>([&] { ntfs.parser->resetMftCache(); });
    return 0;
}
