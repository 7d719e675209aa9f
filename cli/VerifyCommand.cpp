// fsparser verify: whether a copy holds what the volume has in use.
#include "cli/Commands.h"
#include "cli/Interrupt.h"
#include "cli/OpenVolume.h"
#include "cli/Summary.h"
#include "imaging/copy/Compare.h"

#include <fmt/format.h>

namespace cli {

namespace {

using imaging::Difference;

std::string differenceText(Difference const& difference) {
    std::string const where = difference.unit ? fmt::format("byte {} (unit {})", difference.offset, *difference.unit)
                                              : fmt::format("byte {} (in no unit)", difference.offset);
    if (!difference.found) {
        return where + ": the image ends there";
    }
    return fmt::format("{}: the volume holds 0x{:02x}, the image 0x{:02x}", where, difference.expected,
                       *difference.found);
}

void printJson(imaging::Volume const& volume, imaging::Geometry const& geometry,
               imaging::Comparison const& comparison) {
    Json document = beginDocument("verify", volume);
    addGeometry(document, volume, geometry);
    document["compared_bytes"] = comparison.compared;
    document["equal"] = !comparison.difference;
    if (comparison.difference) {
        Json& difference = document["difference"];
        difference["offset"] = comparison.difference->offset;
        if (comparison.difference->unit) {
            difference["unit"] = *comparison.difference->unit;
        }
        difference["expected"] = comparison.difference->expected;
        if (comparison.difference->found) {
            difference["found"] = *comparison.difference->found;
        }
    }
    addWarnings(document, comparison.warnings);
    printDocument(document);
}

} // namespace

ExitCode runVerify(Options const& options, Console& console) {
    imaging::Volume volume = openVolume(options, console);
    imaging::Volume const image(options.destination, options.alignment, console);
    using Refused = imaging::VolumeMap::Refused;
    imaging::CopyPlan plan(volume, options.allUsedIfRefused ? Refused::CountsAsUsed : Refused::IsError, options.unit);
    noteIfUnrecognized(console, volume);
    imaging::FileSource const expected(volume.filePath(), volume.size(), volume.start());
    imaging::FileSource const found(image.path(), image.size());
    imaging::Comparison const comparison = compareVolumes(plan, {expected, volume.path(), volume.size()},
                                                          {found, image.path(), image.size()}, checkInterrupt);
    if (options.json) {
        printJson(volume, plan.geometry(), comparison);
    } else if (!comparison.difference) {
        fmt::print("equal: {} bytes in use or kept, {} bytes of free space not compared\n", comparison.compared,
                   comparison.totals.free);
    }
    console.warnings(comparison.warnings);
    if (comparison.difference) {
        std::string const onDisk = volume.start() == 0
                                       ? ""
                                       : fmt::format("; that is byte {} of {}",
                                                     volume.start() + comparison.difference->offset, volume.filePath());
        console.error(image.path() + ": differs from " + volume.path() + " at " +
                      differenceText(*comparison.difference) + onDisk);
        return kDifferent;
    }
    return comparison.warnings.empty() ? kOk : kInconsistent;
}

} // namespace cli
