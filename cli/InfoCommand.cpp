// fsparser info: a volume's summary.
#include "cli/Commands.h"
#include "cli/Interrupt.h"
#include "cli/OpenVolume.h"
#include "cli/Summary.h"
#include "imaging/Detection.h"

#include <fmt/format.h>

namespace cli {

namespace {

std::string journalText(imaging::Journal const& journal, std::uint64_t unitSize) {
    if (journal.isExternal) {
        return "on another device";
    }
    return fmt::format("{} units from unit {} ({})", journal.units, journal.first, humanSize(journal.units * unitSize));
}

void printText(imaging::Volume const& volume, imaging::VolumeMap const& map, imaging::MapTotals const& totals) {
    imaging::Geometry const& geometry = map.geometry();
    auto const share = static_cast<double>(totals.used) * 100 / static_cast<double>(geometry.units);
    auto const inBytes = [&](std::uint64_t units) { return humanSize(units * geometry.unitSize); };
    fmt::print("volume          {}\n", volume.path());
    fmt::print("file system     {}\n", imaging::fileSystemName(volume.fileSystem()));
    if (volume.start() != 0) {
        fmt::print("begins at       byte {} of {} ({} sectors of 512 bytes)\n", volume.start(), volume.filePath(),
                   volume.start() / 512);
    }
    fmt::print("size            {} bytes ({})\n", volume.size(), humanSize(volume.size()));
    fmt::print("unit size       {} bytes\n", geometry.unitSize);
    fmt::print("units           {} ({})\n", geometry.units, inBytes(geometry.units));
    fmt::print("used            {} units ({}, {:.1f} %)\n", totals.used, inBytes(totals.used), share);
    fmt::print("free            {} units ({})\n", totals.free, inBytes(totals.free));
    if (geometry.start != 0) {
        fmt::print("before unit 0   {} bytes\n", geometry.start);
    }
    fmt::print("past last unit  {} bytes\n", map.bytesPastLastUnit());
    if (geometry.journal) {
        fmt::print("journal         {}\n", journalText(*geometry.journal, geometry.unitSize));
    }
}

void addJournal(Json& document, std::optional<imaging::Journal> const& journal) {
    if (journal && journal->isExternal) {
        document["journal"] = {{"external", true}};
    } else if (journal) {
        document["journal"] = {{"external", false}, {"first", journal->first}, {"count", journal->units}};
    }
}

} // namespace

ExitCode runInfo(Options const& options, Console& console) {
    imaging::Volume volume = openVolume(options, console);
    imaging::VolumeMap map(volume, imaging::VolumeMap::Refused::IsError, options.unit);
    noteIfUnrecognized(console, volume);
    imaging::MapTotals const totals = map.walk([](imaging::Run const&) {}, checkInterrupt);
    if (options.json) {
        Json document = beginDocument("info", volume);
        addGeometry(document, volume, map.geometry());
        document["used"] = totals.used;
        document["free"] = totals.free;
        document["past_last_unit"] = map.bytesPastLastUnit();
        addJournal(document, map.geometry().journal);
        addWarnings(document, totals.warnings);
        printDocument(document);
    } else {
        printText(volume, map, totals);
    }
    console.warnings(totals.warnings);
    return totals.warnings.empty() ? kOk : kInconsistent;
}

} // namespace cli
