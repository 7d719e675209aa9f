// A program outside of this project, as small as a backup agent can be: how many units of a volume are in use?
//
//     used_units VOLUME
//
// Prints the file system's code, the units and the used units. What the library logs goes to standard error.
#include <agent/AlignedAllocator.h>
#include <agent/PosixError.h>
#include <agent/core/backup/VolumeReader.h>
#include <agent/core/fs/EXTParser.h>
#include <agent/core/fs/FSUtil.h>
#include <agent/core/fs/FileSystemType.h>
#include <agent/info/Logger.h>

#include <iostream>
#include <vector>

namespace {

constexpr unsigned kAlignment = 4096;
constexpr unsigned long kExtSuperblock = 1024;

class StandardError : public agent::info::Logger {
public:
    bool isEnabled(agent::info::Level level) const override { return level != agent::info::Level::Debug; }
    void write(agent::info::Level, std::string const& text) override { std::cerr << text << '\n'; }
};

int countUnits(agent::info::Logger& logger, char const* path) {
    agent::core::backup::VolumeReader volume(logger, path);
    if (!volume.open()) {
        return 1;
    }
    std::vector<char> start(512);
    unsigned long bytesRead = 0;
    agent::core::fs::fs_seek_read_aligned(logger, volume, kAlignment, kExtSuperblock, start.data(), start.size(),
                                          &bytesRead);
    int const code = agent::core::fs::FileSystemType(logger).getFileSystemType(start.data());
    agent::core::fs::EXTParser const parser(logger, kAlignment, volume);
    std::vector<char> chunk(1024);
    unsigned long units = 0;
    unsigned long used = 0;
    for (long count = 0; (count = parser.getChunk(units, chunk.data(), chunk.size())) > 0;) {
        for (unsigned long unit = 0; unit < static_cast<unsigned long>(count); ++unit) {
            used += (static_cast<unsigned char>(chunk[unit / 8]) >> (unit % 8)) & 1U;
        }
        units += static_cast<unsigned long>(count);
    }
    std::cout << code << ' ' << units << ' ' << used << '\n';
    return 0;
}

} // namespace

int main(int count, char** arguments) {
    StandardError logger;
    try {
        return count == 2 ? countUnits(logger, arguments[1]) : 2;
    } catch (agent::PosixError const& error) {
        std::cerr << "error number " << error.code() << '\n';
    } catch (std::exception const& error) {
        std::cerr << error.what() << '\n';
    }
    return 1;
}
