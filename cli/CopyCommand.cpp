// fsparser copy: the used units and what must always be kept.
#include "cli/Commands.h"
#include "cli/Interrupt.h"
#include "cli/OpenVolume.h"
#include "cli/Summary.h"
#include "imaging/Error.h"
#include "imaging/OutputFile.h"
#include "imaging/copy/CopyVolume.h"
#include "imaging/copy/RescueMap.h"

#include <filesystem>
#include <fmt/format.h>
#include <unistd.h>

namespace cli {

namespace {

using imaging::CopyReport;

std::unique_ptr<imaging::Destination> openDestination(Options const& options, imaging::Volume const& volume) {
    std::uint64_t const size = volume.size();
    if (options.destination == "-") {
        return std::make_unique<imaging::StreamDestination>(STDOUT_FILENO, "standard output", size,
                                                            [] { checkInterrupt(0); });
    }
    if (options.toDevice) {
        return std::make_unique<imaging::DeviceDestination>(options.destination, options.volume, size, volume.start());
    }
    using Existing = imaging::OutputFile::Existing;
    return std::make_unique<imaging::FileDestination>(options.destination, options.volume, size,
                                                      options.force ? Existing::IsReplaced : Existing::IsRefused);
}

/// Where the unreadable ranges are listed.
std::string rescueMapPath(Options const& options) {
    return options.rescueMap.empty() ? options.destination + ".map" : options.rescueMap;
}

/// The list of what could not be read; it is begun before the copy, so that a name that cannot be is told at once.
std::unique_ptr<imaging::OutputFile> beginRescueMap(Options const& options) {
    if (!options.skipUnreadable) {
        return nullptr;
    }
    namespace fs = std::filesystem;
    std::string const path = rescueMapPath(options);
    std::error_code ignored;
    if (fs::weakly_canonical(path, ignored) == fs::weakly_canonical(options.destination, ignored)) {
        throw imaging::VolumeError(imaging::Trouble::Io, path + ": is the copy itself, and cannot be the list");
    }
    using Existing = imaging::OutputFile::Existing;
    return std::make_unique<imaging::OutputFile>(path, options.volume,
                                                 options.force ? Existing::IsReplaced : Existing::IsRefused);
}

void writeRescueMap(imaging::OutputFile& file, imaging::CopyResult const& result, std::uint64_t size) {
    std::string const text = imaging::rescueMap(result.unreadable, size);
    file.write({reinterpret_cast<std::uint8_t const*>(text.data()), text.size()});
    file.commit();
}

void printText(CopyReport const& report, std::uint64_t size, std::FILE* stream) {
    auto const line = [stream](char const* name, std::uint64_t bytes) {
        fmt::print(stream, "{:<16}{} bytes ({})\n", name, bytes, humanSize(bytes));
    };
    line("volume", size);
    line("used", report.totals.used);
    line("kept beyond it", report.totals.kept);
    line("left out", report.totals.free);
    line("copied", report.result.copied);
    line("zero", report.result.zero);
    if (!report.result.unreadable.empty()) {
        line("unreadable", report.result.unreadableBytes());
    }
}

void printJson(Options const& options, imaging::Volume const& volume, imaging::Geometry const& geometry,
               CopyReport const& report) {
    Json document = beginDocument("copy", volume);
    addGeometry(document, volume, geometry);
    document["destination"] = options.destination;
    document["used_bytes"] = report.totals.used;
    document["kept_bytes"] = report.totals.kept;
    document["left_out_bytes"] = report.totals.free;
    document["copied_bytes"] = report.result.copied;
    document["zero_bytes"] = report.result.zero;
    document["unreadable_bytes"] = report.result.unreadableBytes();
    addWarnings(document, report.warnings);
    printDocument(document);
}

CopyReport copy(Options const& options, imaging::Volume const& volume, imaging::CopyPlan& plan,
                imaging::OutputFile* rescueMap) {
    imaging::FileSource const source(volume.filePath(), volume.size(), volume.start());
    std::unique_ptr<imaging::Destination> const destination = openDestination(options, volume);
    Progress progress(options.progress);
    imaging::CopyWatch watch;
    watch.begin = [&progress](imaging::CopyTotals const& totals) { progress.begin(totals.taken()); };
    watch.progress = [&progress](imaging::CopyProgress const& state) {
        checkInterrupt(0);
        progress.update(state.done, state.offset);
    };
    watch.chunk = checkInterrupt;
    watch.beforeFinish = [rescueMap, &volume](imaging::CopyResult const& result) {
        if (rescueMap != nullptr) {
            writeRescueMap(*rescueMap, result, volume.size());
        }
    };
    CopyReport report =
        imaging::copyVolume(plan, source, *destination, volume.path(), volume.size(), options.skipUnreadable, watch);
    progress.end();
    return report;
}

} // namespace

ExitCode runCopy(Options const& options, Console& console) {
    imaging::Volume volume = openVolume(options, console);
    using Refused = imaging::VolumeMap::Refused;
    imaging::CopyPlan plan(volume, options.allUsedIfRefused ? Refused::CountsAsUsed : Refused::IsError, options.unit);
    noteIfUnrecognized(console, volume);
    std::unique_ptr<imaging::OutputFile> const rescueMap = beginRescueMap(options);
    CopyReport report = copy(options, volume, plan, rescueMap.get());
    if (!report.result.unreadable.empty()) {
        report.warnings.back() += "; " + rescueMapPath(options) + " lists them";
    }
    if (options.json) {
        printJson(options, volume, plan.geometry(), report);
    } else if (options.destination != "-") {
        printText(report, volume.size(), stdout);
    } else if (!console.isQuiet()) {
        printText(report, volume.size(), stderr);
    }
    console.warnings(report.warnings);
    return report.warnings.empty() ? kOk : kInconsistent;
}

} // namespace cli
