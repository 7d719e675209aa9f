// fsparser digest: one number for the map and the used content.
#include "cli/Commands.h"
#include "cli/Interrupt.h"
#include "cli/OpenVolume.h"
#include "cli/Summary.h"
#include "imaging/copy/Digest.h"

#include <fmt/format.h>

namespace cli {

ExitCode runDigest(Options const& options, Console& console) {
    imaging::Volume volume = openVolume(options, console);
    imaging::VolumeMap map(volume, imaging::VolumeMap::Refused::IsError, options.unit);
    noteIfUnrecognized(console, volume);
    imaging::FileSource const source(volume.filePath(), volume.size(), volume.start());
    imaging::Digest const digest = digestVolume(map, source, volume.path(), checkInterrupt);
    if (options.json) {
        Json document = beginDocument("digest", volume);
        addGeometry(document, volume, map.geometry());
        document["used"] = digest.totals.used;
        document["free"] = digest.totals.free;
        document["sha256"] = digest.sha256;
        addWarnings(document, digest.totals.warnings);
        printDocument(document);
    } else {
        fmt::print("{}  {}\n", digest.sha256, volume.path());
    }
    console.warnings(digest.totals.warnings);
    return digest.totals.warnings.empty() ? kOk : kInconsistent;
}

} // namespace cli
