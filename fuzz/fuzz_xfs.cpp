// Fuzzes the XFS parser: construction, the journal's place, and the map, with trace and without: both must agree.
#include "MapWalk.h"

#include "agent/core/fs/XFSParser.h"

#include <memory>
#include <stdexcept>

namespace {

using agent::core::fs::XFSParser;

/// The answer to one request, and the bits that mean something.
struct Answer {
    long units;
    std::vector<char> bits;

    bool operator==(Answer const&) const = default;
};

Answer ask(XFSParser const& parser, unsigned long start, std::size_t bytes) {
    Answer answer{0, std::vector<char>(bytes)};
    answer.units = fuzz::chunkOf<std::bad_alloc>(parser, start, answer.bits);
    if (answer.units < 0) {
        answer.bits.clear(); // what the buffer holds after an error means nothing
    }
    return answer;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::Image const image = fuzz::Image::unpack({data, size});
    fuzz::Request request(image, 0x110); // behind the superblock's fields
    fuzz::ImageReader const volume(image);
    unsigned const alignment = request.alignment();
    std::size_t const bytes = 1 + request.number(2) % 4096;
    unsigned long const start = request.number(4);
    fuzz::SinkLogger loud(true);
    fuzz::SinkLogger quiet(false);
    std::unique_ptr<XFSParser> traced;
    std::unique_ptr<XFSParser> silent;
    fuzz::mayThrow<std::runtime_error, std::invalid_argument>([&] {
        traced = std::make_unique<XFSParser>(loud, alignment, volume);
        silent = std::make_unique<XFSParser>(quiet, alignment, volume);
    });
    if (silent == nullptr) {
        return 0;
    }
    fuzz::mayThrow<std::runtime_error>([&] { static_cast<void>(traced->getXFSJournalBlocks()); });
    volume.renew();
    fuzz::walkMap<std::bad_alloc>(*silent, start & ~7UL, bytes);
    for (unsigned long const from : {0UL, start}) {
        volume.renew();
        Answer const first = ask(*traced, from, bytes);
        volume.renew();
        fuzz::require(first == ask(*silent, from, bytes));
    }
    return 0;
}
