// fsparser extents: the clusters of a file's data.
#include "cli/FileQuery.h"

#include <fmt/format.h>

namespace cli {

namespace {

/// A hole, as the library reports it, has no place on the volume.
Json run(agent::BlockRange const& range, std::uint64_t clusterSize) {
    Json result{{"cluster", range.first}, {"count", range.count}};
    if (range.first >= 0 && range.count >= 0) {
        result["offset"] = static_cast<std::uint64_t>(range.first) * clusterSize;
        result["bytes"] = static_cast<std::uint64_t>(range.count) * clusterSize;
    }
    return result;
}

Json answer(imaging::ntfs::Files& files, std::string const& path) {
    Json runs = Json::array();
    for (agent::BlockRange const& range : files.extents(path)) {
        runs.push_back(run(range, files.clusterSize()));
    }
    return {{"extents", runs}};
}

void print(std::string const& path, Json const& answered) {
    fmt::print("{}\n", path);
    for (Json const& range : answered.at("extents")) {
        fmt::print("  clusters {} + {}", range.at("cluster").get<std::int64_t>(),
                   range.at("count").get<std::int64_t>());
        if (range.contains("offset")) {
            fmt::print("  bytes {} + {}", range.at("offset").get<std::uint64_t>(),
                       range.at("bytes").get<std::uint64_t>());
        }
        fmt::print("\n");
    }
    if (answered.at("extents").empty()) {
        fmt::print("  no clusters: empty, or kept in its record\n");
    }
}

} // namespace

ExitCode runExtents(Options const& options, Console& console) {
    return queryFiles(options, console, "extents", answer, print);
}

} // namespace cli
