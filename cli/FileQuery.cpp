// Asking for many paths.
#include "cli/FileQuery.h"

#include "agent/PosixError.h"
#include "cli/Interrupt.h"
#include "cli/OpenVolume.h"
#include "imaging/Error.h"

#include <cerrno>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <iostream>
#include <variant>

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
        if (!file || std::filesystem::is_directory(options.pathList)) {
            errno = file ? EISDIR : errno;
            throw imaging::VolumeError(imaging::Trouble::Io,
                                       options.pathList + ": cannot be opened: " + agent::PosixError::strerror(errno));
        }
        appendLines(file, paths);
    }
    return paths;
}

/// Why a path has no answer.
struct Refusal {
    std::string reason;
    ExitCode code; ///< kFailure when reading failed, kInconsistent when it does not end, otherwise kNotUnderstood
};

std::variant<Json, Refusal> ask(FileAnswer const& answer, imaging::ntfs::Files& files, std::string const& path,
                                imaging::Volume& volume) {
    try {
        return answer(files, path);
    } catch (std::exception const& error) {
        std::string const logged = volume.logger().takeReason("");
        return Refusal{error.what() + (logged.empty() ? "" : " (" + logged + ")"),
                       volume.readTrouble() == imaging::Trouble::Unending ? kInconsistent
                       : logged.empty()                                   ? kNotUnderstood
                                                                          : kFailure};
    }
}

} // namespace

ExitCode queryFiles(Options const& options, Console& console, std::string const& verb, FileAnswer const& answer,
                    FilePrinter const& print) {
    imaging::Volume volume = openVolume(options, console);
    imaging::ntfs::Files files(volume, options.cache);
    Json document = beginDocument(verb, volume);
    document["unit_size"] = files.clusterSize();
    Json& list = document["files"] = Json::array();
    ExitCode code = kOk;
    for (std::string const& path : allPaths(options)) {
        checkInterrupt(0);
        std::variant<Json, Refusal> const answered = ask(answer, files, path, volume);
        if (auto const* const refusal = std::get_if<Refusal>(&answered)) {
            console.error(volume.path() + ": " + path + ": " + refusal->reason);
            list.push_back({{"path", path}, {"error", refusal->reason}});
            code = code == kFailure || code == kInconsistent ? code : refusal->code;
        } else if (options.json) {
            Json entry{{"path", path}};
            entry.update(std::get<Json>(answered));
            list.push_back(std::move(entry));
        } else {
            print(path, std::get<Json>(answered));
        }
    }
    if (options.json) {
        printDocument(document);
    }
    return code;
}

} // namespace cli
