// Fuzzes the ext parser: construction, then the map from several starts.
#include "MapWalk.h"

#include "agent/core/fs/EXTParser.h"

#include <memory>
#include <stdexcept>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::Image const image = fuzz::Image::unpack({data, size});
    fuzz::Request request(image, 0); // the boot block
    fuzz::ImageReader const volume(image);
    unsigned const alignment = request.alignment();
    std::size_t const bytes = 1 + request.number(2) % 4096;
    unsigned long const start = request.number(4);
    fuzz::SinkLogger logger(request.number(1) % 2 == 0);
    std::unique_ptr<agent::core::fs::EXTParser> parser;
    fuzz::mayThrow<std::runtime_error, std::invalid_argument>(
        [&] { parser = std::make_unique<agent::core::fs::EXTParser>(logger, alignment, volume); });
    if (parser == nullptr) {
        return 0;
    }
    for (unsigned long const from : {0UL, 1UL, start, 0xFFFFFFF0UL}) {
        volume.renew();
        fuzz::walkMap<std::bad_alloc>(*parser, from, bytes);
    }
    return 0;
}
