// Fuzzes the ext parser: construction, then chunks from several starts.
#include "FuzzReader.h"

#include "agent/core/fs/EXTParser.h"

#include <array>
#include <cstdlib>
#include <new>
#include <stdexcept>

namespace {

/// A volume may claim 2^32 groups of one block; a few chunks reach all of the code.
constexpr int kMostChunks = 4;

void walk(agent::core::fs::EXTParser const& parser, unsigned long start) {
    std::array<char, 256> chunk{};
    for (int i = 0; i < kMostChunks; ++i) {
        long const count = parser.getChunk(start, chunk.data(), chunk.size());
        if (count > static_cast<long>(chunk.size() * 8)) {
            std::abort();
        }
        if (count <= 0) {
            return;
        }
        start += static_cast<unsigned long>(count);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::SpanReader const volume({data, size});
    fuzz::SinkLogger logger;
    try {
        agent::core::fs::EXTParser const parser(logger, 512, volume);
        for (unsigned long const start : {0UL, 1UL, 40000UL, 0xFFFFFFF0UL}) {
            walk(parser, start);
        }
    } catch (std::runtime_error const&) { // not a volume
    } catch (std::bad_alloc const&) {     // a table that memory cannot hold
    }
    return 0;
}
