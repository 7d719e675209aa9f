// Asking for many paths.
#include "cli/FileQuery.h"

#include "agent/PosixError.h"
#include "cli/Interrupt.h"
#include "imaging/Error.h"

#include <cerrno>
#include <fmt/format.h>
#include <fstream>
#include <iostream>

namespace cli {

namespace {

void appendLines(std::istream& stream, std::vector<std::string>& paths) {
    for (std::string line; std::getline(stream, line);) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (!line.empty()) {
            paths.push_back(line);
        }
    }
}

std::vector<std::string> allPaths(Options const& options) {
    std::vector<std::string> paths = options.paths;
    if (options.pathList == "-") {
        appendLines(std::cin, paths);
    } else if (!options.pathList.empty()) {
        std::ifstream file(options.pathList);
        if (!file) {
            throw imaging::VolumeError(imaging::Trouble::Io,
                                       options.pathList + ": cannot be opened: " + agent::PosixError::strerror(errno));
        }
        appendLines(file, paths);
    }
    return paths;
}

} // namespace

ExitCode queryFiles(Options const& options, Console& console, std::string const& verb, FileAnswer const& answer,
                    FilePrinter const& print) {
    imaging::Volume volume(options.volume, options.alignment, console);
    imaging::ntfs::Files files(volume, options.cache);
    Json document = beginDocument(verb, volume);
    document["unit_size"] = files.clusterSize();
    Json& list = document["files"] = Json::array();
    ExitCode code = kOk;
    for (std::string const& path : allPaths(options)) {
        checkInterrupt(0);
        Json entry{{"path", path}};
        try {
            Json const found = answer(files, path);
            if (options.json) {
                entry.update(found);
            } else {
                print(path, found);
            }
        } catch (std::runtime_error const& error) {
            console.error(volume.path() + ": " + path + ": " + error.what());
            entry["error"] = error.what();
            code = kNotUnderstood;
        }
        if (options.json) {
            list.push_back(std::move(entry));
        }
    }
    if (options.json) {
        printDocument(document);
    }
    return code;
}

} // namespace cli
