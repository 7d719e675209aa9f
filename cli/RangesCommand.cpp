// fsparser ranges: the used runs.
#include "cli/Commands.h"
#include "cli/Interrupt.h"
#include "cli/Summary.h"

#include <cstdio>
#include <fmt/format.h>

namespace cli {

namespace {

imaging::MapTotals printText(imaging::VolumeMap& map) {
    auto const print = [](imaging::Run const& run) {
        if (run.used) {
            fmt::print("{} {}\n", run.first, run.count);
        }
    };
    return map.walk(print, checkInterrupt);
}

/// The document is written as the walk goes: a volume may have more runs than memory holds. Nothing is written before
/// the first run is known; when the walk fails later, the document stays without its end, so that nobody takes it for
/// whole.
imaging::MapTotals printJson(imaging::Volume const& volume, imaging::VolumeMap& map) {
    Json head = beginDocument("ranges", volume);
    addGeometry(head, volume, map.geometry());
    std::string const text = dumpDocument(head);
    std::string separator = text.substr(0, text.size() - 1) + ",\"ranges\":[\n";
    auto const print = [&separator](imaging::Run const& run) {
        if (run.used) {
            fmt::print("{}{{\"first\":{},\"count\":{}}}", separator, run.first, run.count);
            separator = ",\n";
        }
    };
    imaging::MapTotals totals = map.walk(print, checkInterrupt);
    fmt::print("{}]", totals.used == 0 ? separator : "\n");
    if (!totals.warnings.empty()) {
        fmt::print(",\"warnings\":{}", dumpDocument(Json(totals.warnings)));
    }
    fmt::print("}}\n");
    return totals;
}

} // namespace

ExitCode runRanges(Options const& options, Console& console) {
    imaging::Volume volume(options.volume, options.alignment, console);
    imaging::VolumeMap map(volume, imaging::VolumeMap::Refused::IsError, options.unit);
    noteIfUnrecognized(console, volume);
    imaging::MapTotals const totals = options.json ? printJson(volume, map) : printText(map);
    console.warnings(totals.warnings);
    return totals.warnings.empty() ? kOk : kInconsistent;
}

} // namespace cli
