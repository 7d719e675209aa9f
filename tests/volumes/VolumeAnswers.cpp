// Asking the library and the command.
#include "volumes/VolumeAnswers.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace tests {

LibraryMap readMap(std::string const& volume, std::uint64_t alignment) {
    RecordingLogger logger;
    imaging::Volume opened(volume, alignment, logger);
    imaging::VolumeMap map(opened);
    LibraryMap result;
    result.geometry = map.geometry();
    result.bytesPastLastUnit = map.bytesPastLastUnit();
    result.totals = map.walk([&result](imaging::Run const& run) {
        if (run.first != result.used.size()) {
            throw std::runtime_error("a run begins at unit " + std::to_string(run.first) + " instead of " +
                                     std::to_string(result.used.size()));
        }
        result.used.resize(run.first + run.count, run.used);
    });
    return result;
}

CommandResult runFsparser(std::vector<std::string> const& arguments) {
    std::vector<std::string> words{FSPARSER_COMMAND};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return runCommand(words);
}

BlockMap mapFromRanges(nlohmann::json const& document) {
    BlockMap map(document.at("units").get<std::uint64_t>(), false);
    std::uint64_t end = 0;
    for (auto const& range : document.at("ranges")) {
        auto const first = range.at("first").get<std::uint64_t>();
        auto const count = range.at("count").get<std::uint64_t>();
        bool const touches = end != 0 && first <= end;
        if (touches || count == 0 || first >= map.size() || count > map.size() - first) {
            throw std::runtime_error("a run of " + std::to_string(count) + " units at " + std::to_string(first) +
                                     " follows one that ends at " + std::to_string(end));
        }
        end = first + count;
        std::fill_n(map.begin() + static_cast<std::ptrdiff_t>(first), count, true);
    }
    return map;
}

std::string contentOfFile(std::string const& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    if (!file) {
        throw std::runtime_error("cannot read " + path);
    }
    return content.str();
}

std::uint64_t readField(std::string const& path, std::uint64_t offset, unsigned bytes) {
    std::ifstream file(path, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(offset));
    std::uint64_t value = 0;
    for (unsigned i = 0; i < bytes; ++i) {
        value |= static_cast<std::uint64_t>(file.get() & 0xFF) << (8 * i);
    }
    if (!file) {
        throw std::runtime_error("cannot read " + path);
    }
    return value;
}

void changeField(std::string const& path, std::uint64_t offset, std::uint64_t value, unsigned bytes) {
    if (readField(path, offset, bytes) == value) {
        throw std::runtime_error("nothing to change at byte " + std::to_string(offset) + " of " + path);
    }
    {
        std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
        file.seekp(static_cast<std::streamoff>(offset));
        for (unsigned i = 0; i < bytes; ++i) {
            file.put(static_cast<char>(value >> (8 * i)));
        }
    }
    if (readField(path, offset, bytes) != value) {
        throw std::runtime_error("byte " + std::to_string(offset) + " of " + path + " did not change");
    }
}

} // namespace tests
