// One chunk of each parser, on a volume in memory.
#include "agent/core/fs/EXTParser.h"
#include "agent/core/fs/FATParser.h"
#include "agent/core/fs/HFSParser.h"
#include "agent/core/fs/XFSParser.h"
#include "support/ExtBuilder.h"
#include "support/FatBuilder.h"
#include "support/HfsBuilder.h"
#include "support/HfsReader.h"
#include "support/NtfsAccess.h"
#include "support/NtfsBuilder.h"
#include "support/Readers.h"
#include "support/RecordingLogger.h"
#include "support/XfsBuilder.h"

#include <benchmark/benchmark.h>

#include <vector>

namespace {

using namespace tests;
using namespace agent::core::fs;

constexpr unsigned kAlignment = 512;
constexpr unsigned kSeed = 1;

/// Asks for the first `units` units again and again.
void askForChunk(benchmark::State& state, IBlockBitmapChunkProvider const& parser, std::uint64_t units) {
    std::vector<char> chunk((units + 7) / 8);
    for ([[maybe_unused]] auto const& pass : state) {
        if (parser.getChunk(0, chunk.data(), chunk.size()) <= 0) {
            state.SkipWithError("the parser fails");
            break;
        }
        benchmark::DoNotOptimize(chunk.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(chunk.size()));
    state.counters["units/s"] = benchmark::Counter(static_cast<double>(units) * static_cast<double>(state.iterations()),
                                                   benchmark::Counter::kIsRate);
}

void chunkOfExt(benchmark::State& state) {
    constexpr std::uint32_t kBlocks = 8U << 20; // 256 groups: a megabyte of map
    ExtBuilder builder(ExtGeometry::with4KiBBlocks(kBlocks));
    builder.fillBitmapsAtRandom(kSeed);
    MemoryReader const reader = builder.reader();
    SilentLogger logger;
    askForChunk(state, EXTParser(logger, kAlignment, reader), kBlocks);
}
BENCHMARK(chunkOfExt);

void chunkOfFat(benchmark::State& state) {
    FatBuilder builder;
    builder.fillAtRandom(kSeed);
    MemoryReader const reader = builder.reader();
    SilentLogger logger;
    askForChunk(state, FATParser(logger, kAlignment, reader), builder.geometry().units());
}
BENCHMARK(chunkOfFat);

/// @param fragments  extents of the allocation file; more than eight are looked for in the extents-overflow file
void chunkOfHfs(benchmark::State& state) {
    constexpr std::uint32_t kBlocks = 8U << 20;
    constexpr std::uint32_t kBitmapBlocks = kBlocks / 8 / 512;
    auto const fragments = static_cast<std::uint32_t>(state.range(0));
    HfsGeometry geometry;
    geometry.totalBlocks = kBlocks;
    geometry.allocationFile = hfsFragments(fragments, (kBitmapBlocks + fragments - 1) / fragments, 16);
    geometry.recordsPerNode = 4; // so that the tree has two levels
    HfsBuilder builder(geometry);
    builder.fillBitmapAtRandom(kSeed);
    MemoryReader const whole(builder.bytes);
    HfsFrontReader const reader(whole);
    SilentLogger logger;
    askForChunk(state, HFSParser(logger, kAlignment, reader), kBlocks);
}
BENCHMARK(chunkOfHfs)->Arg(1)->Arg(61);

void chunkOfXfs(benchmark::State& state) {
    XfsGeometry geometry;
    geometry.groupBlocks = 8000;
    geometry.totalBlocks = 64000;
    XfsBuilder builder(geometry);
    builder.fillAtRandom(kSeed);
    MemoryReader const reader = builder.reader();
    SilentLogger logger;
    askForChunk(state, XFSParser(logger, kAlignment, reader), geometry.totalBlocks);
}
BENCHMARK(chunkOfXfs);

void chunkOfNtfs(benchmark::State& state) {
    NtfsGeometry geometry;
    geometry.clusterBytes = 512;
    geometry.clusters = 1U << 18;
    NtfsBuilder const builder = NtfsBuilder::standard(geometry);
    MemoryReader const reader(builder.bytes);
    SilentLogger logger;
    askForChunk(state, NTFSParser(logger, kAlignment, reader), geometry.clusters);
}
BENCHMARK(chunkOfNtfs);

} // namespace
