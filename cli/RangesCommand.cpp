// fsparser ranges: the used runs, or what a copy takes along, in the formats of other programs.
#include "cli/Commands.h"
#include "cli/Interrupt.h"
#include "cli/OpenVolume.h"
#include "cli/Summary.h"
#include "imaging/Error.h"
#include "imaging/OutputFile.h"
#include "imaging/copy/TakenRanges.h"
#include "imaging/formats/RangeFormat.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fmt/format.h>
#include <optional>

namespace cli {

namespace {

using imaging::TextSink;
using Warnings = std::vector<std::string>;

/// Text that is handed over at once.
constexpr std::size_t kPieceBytes = std::size_t{64} * 1024;

/// Standard output, or a file that appears under its name only when it is whole.
class Output {
public:
    explicit Output(Options const& options) {
        if (options.output != "-") {
            file_.emplace(options.output, options.volume);
        }
    }

    void write(std::string_view text) {
        if (!file_) {
            if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
                throw imaging::VolumeError(imaging::Trouble::Io,
                                           std::string("standard output: cannot be written: ") + std::strerror(errno));
            }
            return;
        }
        piece_ += text;
        if (piece_.size() >= kPieceBytes) {
            flush();
        }
    }

    void finish() {
        if (file_) {
            flush();
            file_->commit();
        }
    }

private:
    void flush() {
        file_->write({reinterpret_cast<std::uint8_t const*>(piece_.data()), piece_.size()});
        piece_.clear();
    }

    std::optional<imaging::OutputFile> file_;
    std::string piece_;
};

imaging::MapTotals walkUsed(imaging::VolumeMap& map, imaging::RunSink const& sink) {
    auto const takeUsed = [&sink](imaging::Run const& run) {
        if (run.used) {
            sink(run);
        }
    };
    return map.walk(takeUsed, checkInterrupt);
}

Warnings writeText(imaging::VolumeMap& map, TextSink const& sink) {
    return walkUsed(map, [&sink](imaging::Run const& run) { sink(fmt::format("{} {}\n", run.first, run.count)); })
        .warnings;
}

Warnings writeCsv(imaging::VolumeMap& map, TextSink const& sink) {
    imaging::Geometry const& geometry = map.geometry();
    sink("first,count,offset,length\n");
    auto const write = [&](imaging::Run const& run) {
        sink(fmt::format("{},{},{},{}\n", run.first, run.count, geometry.start + run.first * geometry.unitSize,
                         run.count * geometry.unitSize));
    };
    return walkUsed(map, write).warnings;
}

/// The document is written as the walk goes: a volume may have more runs than memory holds. Nothing is written before
/// the first run is known; when the walk fails later, the document stays without its end, so that nobody takes it for
/// whole.
Warnings writeJson(imaging::Volume const& volume, imaging::VolumeMap& map, TextSink const& sink) {
    Json head = beginDocument("ranges", volume);
    addGeometry(head, volume, map.geometry());
    std::string const text = dumpDocument(head);
    std::string separator = text.substr(0, text.size() - 1) + ",\"ranges\":[\n";
    auto const write = [&](imaging::Run const& run) {
        sink(fmt::format("{}{{\"first\":{},\"count\":{}}}", separator, run.first, run.count));
        separator = ",\n";
    };
    imaging::MapTotals totals = walkUsed(map, write);
    sink(fmt::format("{}]", totals.used == 0 ? separator : "\n"));
    if (!totals.warnings.empty()) {
        sink(fmt::format(",\"warnings\":{}", dumpDocument(Json(totals.warnings))));
    }
    sink("}\n");
    return totals.warnings;
}

/// The formats in units: what the map calls used.
Warnings writeUnits(Options const& options, imaging::Volume& volume, Console const& console, TextSink const& sink) {
    imaging::VolumeMap map(volume, imaging::VolumeMap::Refused::IsError, options.unit);
    noteIfUnrecognized(console, volume);
    if (options.format == "csv") {
        return writeCsv(map, sink);
    }
    return options.json || options.format == "json" ? writeJson(volume, map, sink) : writeText(map, sink);
}

/// The formats in bytes: what a copy takes along.
Warnings writeBytes(Options const& options, imaging::Volume& volume, imaging::RangeFormat const& format,
                    Console const& console, TextSink const& sink) {
    imaging::CopyPlan plan(volume, imaging::VolumeMap::Refused::IsError, options.unit);
    noteIfUnrecognized(console, volume);
    imaging::FileSource const source(volume.filePath(), volume.size(), volume.start());
    imaging::TakenRanges ranges(plan, volume.path(), checkInterrupt, {"listed", "the list is not whole", true});
    auto const walk = [&ranges](imaging::FormatInput::RangeSink const& taken) { ranges.walk(taken); };
    format.write({volume.path(), volume.size(), source, walk, [] { checkInterrupt(0); }}, sink);
    return ranges.warnings();
}

} // namespace

ExitCode runRanges(Options const& options, Console& console) {
    imaging::Volume volume = openVolume(options, console);
    Output output(options);
    TextSink const sink = [&output](std::string_view text) { output.write(text); };
    auto const format = imaging::makeRangeFormat(options.format);
    Warnings const warnings =
        format ? writeBytes(options, volume, *format, console, sink) : writeUnits(options, volume, console, sink);
    output.finish();
    console.warnings(warnings);
    return warnings.empty() ? kOk : kInconsistent;
}

} // namespace cli
