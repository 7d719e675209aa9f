// Files of an NTFS volume by path, as docs/embedding.md shows it.
//
//     ntfs_files VOLUME
//
// Prints the runs of \docs\letter.txt, a line each, then its attributes and the number of its access lists.
#include <agent/core/backup/VolumeReader.h>
#include <agent/core/fs/NTFSParser.h>
#include <agent/info/Logger.h>

#include <iostream>
#include <vector>

namespace {

class Silent : public agent::info::Logger {
public:
    void write(agent::info::Level, std::string const&) override {}
};

void show(agent::info::Logger& logger, agent::core::IVolumeReader const& volume) {
    agent::core::fs::NTFSParser ntfs(logger, 4096, volume);
    for (agent::BlockRange const& run : ntfs.extents("\\docs\\letter.txt")) {
        std::cout << run.first << ' ' << run.count << '\n'; // clusters
    }
    auto const information = ntfs.getStandardInfo("\\docs\\letter.txt"); // times, attributes
    std::vector<agent::core::fs::NTFS_ACL> const lists = ntfs.readACLFromFile("\\docs\\letter.txt");
    std::cout << information.file_attributes.value() << ' ' << lists.size() << '\n';
}

} // namespace

int main(int count, char** arguments) {
    Silent logger;
    try {
        agent::core::backup::VolumeReader volume(logger, count == 2 ? arguments[1] : "");
        if (volume.open()) {
            show(logger, volume);
            return 0;
        }
    } catch (std::exception const& error) {
        std::cerr << error.what() << '\n';
    }
    return 1;
}
