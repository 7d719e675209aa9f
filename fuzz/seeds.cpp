// Writes the first inputs of every fuzz target: fuzz_seeds DIRECTORY [VOLUME...]
#include "Seeds.h"

#include "FuzzReader.h"
#include "agent/core/fs/EXTParser.h"
#include "agent/core/fs/FATParser.h"
#include "agent/core/fs/FileSystemType.h"
#include "agent/core/fs/HFSParser.h"
#include "agent/core/fs/XFSParser.h"
#include "support/HfsReader.h"
#include "support/NtfsAccess.h"

#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace fuzz {

namespace {

/// Reads a file, and keeps the beginning of every stretch that was read, which is where structures are.
class KeepingReader : public agent::core::IVolumeReader {
public:
    explicit KeepingReader(std::string const& path) : file_(path, std::ios::binary) {}

    long read(void* buffer, long length) const override {
        file_.clear();
        file_.seekg(position_);
        file_.read(static_cast<char*>(buffer), length);
        long const count = file_.gcount();
        std::span const bytes(static_cast<std::uint8_t const*>(buffer), static_cast<std::size_t>(count));
        kept_.write(static_cast<std::uint64_t>(position_), bytes.first(std::min<std::size_t>(bytes.size(), kMostKept)));
        position_ += count;
        return count;
    }

    long seek(long offset, int) const override {
        position_ = offset;
        return offset;
    }

    Image const& kept() const { return kept_; }

private:
    static constexpr std::size_t kMostKept = 4096;

    mutable std::ifstream file_;
    mutable long position_ = 0;
    mutable Image kept_;
};

constexpr std::size_t kMapBytes = 4096;
std::array<std::uint8_t, 9> const kPlainRequest{0, 0xFF, 0x0F};

template <typename Parser>
void walk(agent::core::IVolumeReader const& volume) {
    SinkLogger logger;
    Parser const parser(logger, 512, volume);
    std::vector<char> map(kMapBytes);
    parser.getChunk(0, map.data(), map.size());
}

void keepNtfs(agent::core::IVolumeReader const& volume, std::string const& path) {
    walk<tests::NtfsAccess>(volume);
    SinkLogger logger;
    tests::NtfsAccess parser(logger, 512, volume);
    parser.extents(path);
    // A file of an older kind has no identifier, and so no descriptor.
    mayThrow<std::runtime_error>([&] { static_cast<void>(parser.readACLFromFile(path)); });
}

int detect(agent::core::IVolumeReader const& volume, long offset) {
    std::array<std::uint8_t, 512> sector{};
    volume.seek(offset, SEEK_SET);
    volume.read(sector.data(), sector.size());
    SinkLogger logger;
    return agent::core::fs::FileSystemType(logger).getFileSystemType(sector.data());
}

} // namespace

void SeedFolder::add(std::string const& target, std::string const& name, std::span<std::uint8_t const> bytes) const {
    std::filesystem::path const folder = std::filesystem::path(folder_) / target;
    std::filesystem::create_directories(folder);
    std::ofstream file(folder / name, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<char const*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!file.flush()) {
        throw std::runtime_error("cannot write " + (folder / name).string());
    }
}

void SeedFolder::addVolume(std::string const& target, std::string const& name, Image image, std::uint64_t requestAt,
                           std::span<std::uint8_t const> request) const {
    image.write(requestAt, request);
    add(target, name, image.pack());
}

Image imageOf(std::span<std::uint8_t const> volume) {
    Image image;
    image.write(0, volume);
    return Image::unpack(image.pack());
}

bool addRealVolume(SeedFolder const& seeds, std::string const& file) {
    std::string const name = "real-" + std::filesystem::path(file).stem().string();
    KeepingReader const volume(file);
    int const code = std::max(detect(volume, 0), detect(volume, 1024));
    switch (code) {
    case agent::core::fs::kNtfs:
        keepNtfs(volume, "\\file-1");
        addNtfs(seeds, name, volume.kept(), "\\file-1");
        return true;
    case agent::core::fs::kFat32:
        walk<agent::core::fs::FATParser>(volume);
        seeds.addVolume("fat", name, volume.kept(), 0x60, kPlainRequest);
        return true;
    case agent::core::fs::kExt:
        walk<agent::core::fs::EXTParser>(volume);
        seeds.addVolume("ext", name, volume.kept(), 0, kPlainRequest);
        return true;
    case agent::core::fs::kHfsPlus:
        walk<agent::core::fs::HFSParser>(tests::HfsFrontReader(volume));
        seeds.addVolume("hfs", name, volume.kept(), 0, kPlainRequest);
        return true;
    case agent::core::fs::kXfs:
        walk<agent::core::fs::XFSParser>(volume);
        seeds.addVolume("xfs", name, volume.kept(), 0x110, kPlainRequest);
        return true;
    default:
        return false;
    }
}

} // namespace fuzz

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s DIRECTORY [VOLUME...]\n", argv[0]);
        return 2;
    }
    try {
        fuzz::SeedFolder const seeds(argv[1]);
        fuzz::addNtfsSeeds(seeds);
        fuzz::addSmallSeeds(seeds);
        for (int i = 2; i < argc; ++i) {
            if (!fuzz::addRealVolume(seeds, argv[i])) {
                std::fprintf(stderr, "%s: no volume that a target takes\n", argv[i]);
                return 1;
            }
        }
    } catch (std::exception const& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return 0;
}
