// fsparser bitmap: the raw bitmap, least significant bit first.
#include "cli/Commands.h"
#include "cli/Interrupt.h"
#include "cli/OpenVolume.h"
#include "cli/Summary.h"
#include "imaging/BitmapWriter.h"
#include "imaging/Error.h"
#include "imaging/OutputFile.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace cli {

namespace {

struct Written {
    imaging::MapTotals totals;
    std::uint64_t bytes;
};

Written writeBitmap(imaging::VolumeMap& map, imaging::BitmapWriter::ByteSink const& sink) {
    imaging::BitmapWriter writer(sink);
    imaging::MapTotals totals =
        map.walk([&writer](imaging::Run const& run) { writer.addRun(run.count, run.used); }, checkInterrupt);
    writer.finish();
    return {std::move(totals), writer.bytesWritten()};
}

void writeToStandardOutput(std::span<std::uint8_t const> bytes) {
    if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size()) {
        throw imaging::VolumeError(imaging::Trouble::Io,
                                   std::string("standard output: cannot be written: ") + std::strerror(errno));
    }
}

Written writeToFile(Options const& options, imaging::VolumeMap& map) {
    imaging::OutputFile file(options.output, options.volume);
    Written written = writeBitmap(map, [&file](std::span<std::uint8_t const> bytes) { file.write(bytes); });
    file.commit();
    return written;
}

void printSummary(Options const& options, imaging::Volume const& volume, imaging::VolumeMap const& map,
                  Written const& written) {
    Json document = beginDocument("bitmap", volume);
    addGeometry(document, volume, map.geometry());
    document["used"] = written.totals.used;
    document["free"] = written.totals.free;
    document["output"] = options.output;
    document["output_bytes"] = written.bytes;
    document["bit_order"] = "least-significant-first";
    addWarnings(document, written.totals.warnings);
    printDocument(document);
}

} // namespace

ExitCode runBitmap(Options const& options, Console& console) {
    imaging::Volume volume = openVolume(options, console);
    using Refused = imaging::VolumeMap::Refused;
    imaging::VolumeMap map(volume, options.allUsedIfRefused ? Refused::CountsAsUsed : Refused::IsError, options.unit);
    noteIfUnrecognized(console, volume);
    bool const toStandardOutput = options.output == "-";
    Written const written = toStandardOutput ? writeBitmap(map, writeToStandardOutput) : writeToFile(options, map);
    if (options.json) {
        printSummary(options, volume, map, written);
    }
    console.warnings(written.totals.warnings);
    return written.totals.warnings.empty() ? kOk : kInconsistent;
}

} // namespace cli
