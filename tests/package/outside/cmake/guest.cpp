// What a host loads: it uses the library in each of its ways, exceptions included, and leaves nothing behind.
#include <agent/PosixError.h>
#include <agent/core/backup/VolumeReader.h>
#include <agent/core/fs/EXTParser.h>
#include <agent/core/fs/NTFSParser.h>
#include <agent/info/Logger.h>

#include <string>
#include <vector>

namespace {

class CountingLogger : public agent::info::Logger {
public:
    void write(agent::info::Level, std::string const& text) override { bytes += text.size(); }
    unsigned long bytes = 0;
};

constexpr unsigned kAlignment = 4096;

long countUnits(agent::info::Logger& logger, char const* path) {
    agent::core::backup::VolumeReader volume(logger, path);
    if (!volume.open()) {
        return -1;
    }
    agent::core::fs::EXTParser const parser(logger, kAlignment, volume);
    std::vector<char> chunk(65536);
    long units = 0;
    for (long count = 0;
         (count = parser.getChunk(static_cast<unsigned long>(units), chunk.data(), chunk.size())) > 0;) {
        units += count;
    }
    try {
        agent::core::fs::NTFSParser const refused(logger, kAlignment, volume);
        return -2;
    } catch (std::runtime_error const&) {
    }
    try {
        agent::core::backup::VolumeReader const missing(logger, "/nowhere/at/all");
        return -3;
    } catch (agent::PosixError const& error) {
        return error.code() == 2 ? units : -4;
    }
}

} // namespace

/// The units of an ext volume; negative where anything went otherwise than it should.
extern "C" __attribute__((visibility("default"))) long visit(char const* path) {
    CountingLogger logger;
    try {
        long const units = countUnits(logger, path);
        return logger.bytes == 0 ? -5 : units;
    } catch (...) {
        return -6;
    }
}
