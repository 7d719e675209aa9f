// The inner steps of NTFS: fixup, mapping pairs, collation, lookup by name and by identifier, access lists.
#include "agent/core/fs/NTFSTypes.h"
#include "support/NtfsAccess.h"
#include "support/NtfsBuilder.h"
#include "support/Readers.h"
#include "support/RecordingLogger.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace tests;
using agent::core::fs::ntfs_attribute_record;
using agent::core::fs::ntfs_record;

constexpr unsigned kAlignment = 512;
constexpr std::size_t kRecordBytes = 1024;

/// The volume of three small files, opened, with the upcase table read.
struct Opened {
    explicit Opened(NtfsBuilder const& builder = NtfsBuilder::standard())
        : volume(builder.bytes), parser(logger, kAlignment, volume) {
        parser.extents(std::string());
    }

    MemoryReader volume;
    SilentLogger logger;
    NtfsAccess parser;
};

void fixup(benchmark::State& state) {
    Opened const opened;
    NtfsBytes const stored = NtfsBuilder::standard().protectedRecord(ntfs_record_number::kRoot);
    NtfsBytes record(kRecordBytes);
    for ([[maybe_unused]] auto const& pass : state) {
        std::memcpy(record.data(), stored.data(), kRecordBytes);
        int const result = opened.parser.post_read_fixup(reinterpret_cast<ntfs_record*>(record.data()), kRecordBytes);
        benchmark::DoNotOptimize(result);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kRecordBytes));
}
BENCHMARK(fixup);

void mappingPairs(benchmark::State& state) {
    Opened const opened;
    auto const count = static_cast<std::int64_t>(state.range(0));
    std::vector<NtfsRun> runs;
    for (std::int64_t i = 0; i < count; ++i) {
        runs.push_back({i % 2 == 0 ? 1'000'000 + i * 300 : 5'000 + i * 70'000, 1 + i % 500});
    }
    NtfsBytes const attribute = ntfsNonResident(ntfs_type::kData, u"", {.pairs = ntfsMappingPairs(runs)});
    auto const* const typed = reinterpret_cast<ntfs_attribute_record const*>(attribute.data());
    for ([[maybe_unused]] auto const& pass : state) {
        benchmark::DoNotOptimize(opened.parser.get_run_list(typed));
    }
    state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(mappingPairs)->Arg(1)->Arg(8)->Arg(128);

void collation(benchmark::State& state) {
    Opened const opened;
    std::wstring const left = L"A rather long name of a file, last edited.document";
    std::u16string const text = u"a rather long name of a file, last edited.Documents";
    std::vector<unsigned short> const right(text.begin(), text.end());
    std::vector<unsigned short> const table(ntfsUpcaseTable().begin(), ntfsUpcaseTable().end());
    constexpr unsigned kTableBytes = 0x20000;
    for ([[maybe_unused]] auto const& pass : state) {
        benchmark::DoNotOptimize(opened.parser.collate_unicode_names(left.data(), static_cast<unsigned>(left.size()),
                                                                     right.data(), static_cast<unsigned>(right.size()),
                                                                     true, table.data(), kTableBytes));
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(left.size()));
}
BENCHMARK(collation);

void lookupByName(benchmark::State& state) {
    Opened opened;
    std::string const name = "readme.txt";
    for ([[maybe_unused]] auto const& pass : state) {
        benchmark::DoNotOptimize(opened.parser.btree_lookup(ntfs_record_number::kRoot, {&name, 1}));
    }
}
BENCHMARK(lookupByName);

void pathToRecord(benchmark::State& state) {
    Opened opened;
    for ([[maybe_unused]] auto const& pass : state) {
        benchmark::DoNotOptimize(opened.parser.getStandardInfo("\\docs\\letter.txt"));
    }
}
BENCHMARK(pathToRecord);

void accessLists(benchmark::State& state) {
    Opened opened;
    for ([[maybe_unused]] auto const& pass : state) {
        benchmark::DoNotOptimize(opened.parser.readACLFromFile("\\readme.txt"));
    }
}
BENCHMARK(accessLists);

} // namespace
