// Fuzzes the HFS+ parser: construction, the map, and the search of the extents-overflow tree.
#include "MapWalk.h"

#include "agent/core/fs/HFSParser.h"
#include "support/HfsReader.h"

#include <memory>
#include <stdexcept>

namespace {

struct ExposedParser : agent::core::fs::HFSParser {
    using HFSParser::fs_get_num_blocks;
    using HFSParser::fs_search_overflow;
    using HFSParser::HFSParser;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::Image const image = fuzz::Image::unpack({data, size});
    fuzz::Request request(image, 0); // in front of the volume header
    fuzz::ImageReader const whole(image);
    tests::HfsFrontReader const volume(whole);
    unsigned const alignment = request.alignment();
    std::size_t const bytes = 1 + request.number(2) % 4096;
    unsigned long const start = request.number(4);
    auto const file = static_cast<unsigned>(request.number(1));
    fuzz::SinkLogger logger(request.number(1) % 2 == 0);
    std::unique_ptr<ExposedParser> parser;
    fuzz::mayThrow<std::runtime_error, std::invalid_argument>(
        [&] { parser = std::make_unique<ExposedParser>(logger, alignment, volume); });
    if (parser == nullptr) {
        return 0;
    }
    for (unsigned long const from : {0UL, start, start & ~7UL}) {
        whole.renew();
        fuzz::walkMap<std::bad_alloc>(*parser, from, bytes);
    }
    agent::core::fs::HFSPlusVolumeHeader header{};
    image.read(1024, {reinterpret_cast<std::uint8_t*>(&header), sizeof header});
    std::vector<agent::core::fs::HFSPlusExtentDescriptor> extents;
    whole.renew();
    fuzz::mayThrow<std::bad_alloc>([&] { parser->fs_search_overflow(header, file, extents); });
    fuzz::require(extents.size() % agent::core::fs::kHfsExtents == 0);
    return 0;
}
