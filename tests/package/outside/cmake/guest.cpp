// What a host loads: it uses the library in each of its ways, exceptions included, and leaves nothing behind.
#include <agent/PosixError.h>
#include <agent/core/backup/VolumeReader.h>
#include <agent/core/fs/EXTParser.h>
#include <agent/core/fs/FATParser.h>
#include <agent/core/fs/HFSParser.h>
#include <agent/core/fs/NTFSParser.h>
#include <agent/core/fs/XFSParser.h>
#include <agent/info/Logger.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using agent::core::backup::VolumeReader;

class CountingLogger : public agent::info::Logger {
public:
    void write(agent::info::Level, std::string const& text) override { bytes += text.size(); }
    unsigned long bytes = 0;
};

constexpr unsigned kAlignment = 4096;

void require(bool condition, char const* what) {
    if (!condition) {
        throw std::logic_error(what);
    }
}

/// Walks the map of a volume.
template <typename Parser>
long countUnits(agent::info::Logger& logger, std::string const& path) {
    VolumeReader volume(logger, path);
    require(volume.open(), "a volume cannot be opened");
    Parser const parser(logger, kAlignment, volume);
    std::vector<char> chunk(65536);
    long units = 0;
    long count = 0;
    do {
        count = parser.getChunk(static_cast<unsigned long>(units), chunk.data(), chunk.size());
        require(count >= 0, "a map cannot be read");
        units += count;
    } while (count > 0 && chunk.size() * 8 == static_cast<unsigned long>(count)); // one request is all that FAT answers
    return units;
}

/// The clusters of a file, its record's number, and the entries of its lists.
long askForFile(agent::info::Logger& logger, std::string const& path) {
    VolumeReader volume(logger, path);
    require(volume.open(), "a volume cannot be opened");
    agent::core::fs::NTFSParser parser(logger, kAlignment, volume);
    std::string const file = "\\readme.txt";
    long sum = 0;
    for (agent::BlockRange const& range : parser.extents(file)) {
        sum += range.count;
    }
    sum += static_cast<long>(parser.convert_to_inode(file));
    for (agent::core::fs::NTFS_ACL const& list : parser.readACLFromFile(file)) {
        sum += static_cast<long>(list.aces.size());
    }
    try {
        parser.extents("\\docs\\none");
        require(false, "a file that is not there is found");
    } catch (std::runtime_error const&) {
    }
    parser.resetMftCache();
    return sum;
}

void provokeErrors(agent::info::Logger& logger, std::string const& ext) {
    VolumeReader volume(logger, ext);
    require(volume.open(), "a volume cannot be opened");
    try {
        agent::core::fs::NTFSParser const refused(logger, kAlignment, volume);
        require(false, "an ext volume is taken for NTFS");
    } catch (std::runtime_error const&) {
    }
    try {
        VolumeReader const missing(logger, "/nowhere/at/all");
        require(false, "a missing volume is taken");
    } catch (agent::PosixError const& error) {
        require(error.code() == 2, "a missing volume is missing for another reason");
    }
}

} // namespace

/// Asks volumes of every kind: `stem` and ".ext", ".ntfs", ".fat", ".xfs", and ".hfs", which begins with its volume
/// header. The sum of the maps' units and of what is known of the NTFS file; negative where anything went otherwise
/// than it should.
extern "C" __attribute__((visibility("default"))) long visit(char const* stem) {
    using namespace agent::core::fs;
    CountingLogger logger;
    std::string const name = stem;
    try {
        provokeErrors(logger, name + ".ext");
        long const units = countUnits<EXTParser>(logger, name + ".ext") +
                           countUnits<NTFSParser>(logger, name + ".ntfs") +
                           countUnits<FATParser>(logger, name + ".fat") + countUnits<HFSParser>(logger, name + ".hfs") +
                           countUnits<XFSParser>(logger, name + ".xfs");
        return logger.bytes == 0 ? -1 : units + askForFile(logger, name + ".ntfs");
    } catch (std::exception const& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return -2;
    }
}
