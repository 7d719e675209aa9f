// fsparser detect: which file system a volume holds.
#include "cli/Commands.h"
#include "cli/Summary.h"
#include "imaging/Detection.h"
#include "imaging/Error.h"

#include <fmt/format.h>

namespace cli {

ExitCode runDetect(Options const& options, Console& console) {
    imaging::Volume const volume(options.volume, options.alignment, console);
    if (options.json) {
        Json document = beginDocument("detect", volume);
        document["size"] = volume.size();
        printDocument(document);
    } else {
        fmt::print("{}\n", imaging::fileSystemName(volume.fileSystem()));
    }
    if (volume.fileSystem() == agent::core::fs::kUnrecognized) {
        console.error(imaging::unrecognizedSentence(volume.path(), volume.refusal()));
        return kNotUnderstood;
    }
    return kOk;
}

} // namespace cli
