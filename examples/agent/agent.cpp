// A small agent: opens a volume, finds its file system, walks the map of used units, and prints the used runs.
#include "agent/core/backup/VolumeReader.h"
#include "agent/core/fs/EXTParser.h"
#include "agent/core/fs/Endian.h"
#include "agent/core/fs/FATParser.h"
#include "agent/core/fs/FSUtil.h"
#include "agent/core/fs/FileSystemType.h"
#include "agent/core/fs/HFSParser.h"
#include "agent/core/fs/NTFSParser.h"
#include "agent/core/fs/UnrecognizedParser.h"
#include "agent/core/fs/XFSParser.h"
#include "agent/info/Logger.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <exception>
#include <iostream>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace agent::core;

constexpr unsigned int kAlignment = 4096;          // suits devices with sectors of 512 and of 4096 bytes
constexpr std::uint64_t kHeaderOffset = 1024;      // where the headers of ext and HFS+ stand
constexpr std::uint64_t kSmallestUnit = 512;       // no file system has smaller blocks or clusters
constexpr std::uint64_t kChunkBytes = 8ULL << 20U; // few long chunks are cheaper than many short ones

using Sector = std::array<char, 512>;

/// Errors and warnings go to standard error. The libraries print nothing themselves.
class StandardErrorLogger : public agent::info::Logger {
public:
    bool isEnabled(agent::info::Level level) const override { return level != agent::info::Level::Debug; }
    void write(agent::info::Level, std::string const& text) override { std::cerr << text << '\n'; }
};

/// Fails where a volume delivers less than was asked for. The parsers take what is missing as zeros, and a zero bit
/// means free: an agent that copies by the map would lose data. Only the last alignment unit may come short.
class StrictVolume : public IVolumeReader {
public:
    explicit StrictVolume(IVolumeReader const& volume) : volume_(volume) {}

    long read(void* buffer, long length) const override {
        long const count = volume_.read(buffer, length);
        return count >= 0 && length - count < long{kAlignment} ? count : -1;
    }
    long seek(long offset, int whence) const override { return volume_.seek(offset, whence); }

private:
    IVolumeReader const& volume_;
};

/// Shows the volume header of HFS+ at byte 0, where its parser expects it; all else stays at its place.
class HeaderFirstVolume : public IVolumeReader {
public:
    HeaderFirstVolume(IVolumeReader const& volume, Sector const& header) : volume_(volume), header_(header) {}

    long read(void* buffer, long length) const override {
        long const count = volume_.read(buffer, length);
        if (position_ == 0 && count > 0) {
            std::memcpy(buffer, header_.data(), std::min<std::size_t>(header_.size(), static_cast<std::size_t>(count)));
        }
        position_ += std::max(count, 0L);
        return count;
    }
    long seek(long offset, int whence) const override {
        position_ = volume_.seek(offset, whence);
        return position_;
    }

private:
    IVolumeReader const& volume_;
    Sector header_;
    mutable long position_ = 0;
};

/// A volume with its parser, and what the parser does not tell.
struct Volume {
    Volume(agent::info::Logger& logger, std::string const& path)
        : device(logger, path), strict(device), bytes(static_cast<std::uint64_t>(device.size())) {}

    backup::VolumeReader device;
    StrictVolume strict;
    std::uint64_t bytes;
    std::unique_ptr<HeaderFirstVolume> headerFirst;
    std::unique_ptr<fs::IBlockBitmapChunkProvider> parser;
    char const* name = "unrecognized";
    std::uint64_t unitBytes = kAlignment;
    std::uint64_t units = std::numeric_limits<std::uint64_t>::max(); // where the parser's answer may reach past the end
    bool wantsOneRequest = false; // the parser answers a request from unit 0 rightly, and no other
};

Sector readSector(agent::info::Logger& logger, Volume const& volume, std::uint64_t offset) {
    Sector sector{};
    unsigned long count = 0;
    if (fs::fs_seek_read_aligned(logger, volume.strict, kAlignment, offset, sector.data(), sector.size(), &count) !=
        0) {
        throw std::runtime_error("the volume cannot be read at byte " + std::to_string(offset));
    }
    return sector;
}

/// The number that stands in a sector: fs::le16, fs::be32 and so on.
template <typename Field>
std::uint64_t numberAt(Sector const& sector, std::size_t offset) {
    Field field;
    std::memcpy(&field, sector.data() + offset, sizeof field);
    return field.value();
}

void openNtfs(Volume& volume, agent::info::Logger& logger, Sector const& boot) {
    auto parser = std::make_unique<fs::NTFSParser>(logger, kAlignment, volume.strict);
    volume.name = "ntfs";
    auto const sectors = static_cast<unsigned char>(boot[0x0D]); // above 0x80 a negative exponent
    std::uint64_t const sectorsPerCluster = sectors <= 0x80 ? sectors : 1U << (256U - sectors);
    volume.unitBytes = numberAt<fs::le16>(boot, 0x0B) * sectorsPerCluster;
    volume.units = numberAt<fs::le64>(boot, 0x28) / sectorsPerCluster;
    volume.wantsOneRequest = parser->extents(6).size() > 1; // record 6 is $Bitmap
    volume.parser = std::move(parser);
}

void openFat(Volume& volume, agent::info::Logger& logger, Sector const& boot) {
    volume.parser = std::make_unique<fs::FATParser>(logger, kAlignment, volume.strict);
    volume.name = "fat32";
    volume.unitBytes = numberAt<fs::le16>(boot, 0x0B) * static_cast<unsigned char>(boot[0x0D]);
    volume.wantsOneRequest = true;
}

void openExt(Volume& volume, agent::info::Logger& logger, Sector const& super) {
    volume.parser = std::make_unique<fs::EXTParser>(logger, kAlignment, volume.strict);
    volume.name = "ext";
    volume.unitBytes = 1024ULL << (numberAt<fs::le32>(super, 0x18) & 31U);
}

void openHfs(Volume& volume, agent::info::Logger& logger, Sector const& header) {
    volume.headerFirst = std::make_unique<HeaderFirstVolume>(volume.strict, header);
    volume.parser = std::make_unique<fs::HFSParser>(logger, kAlignment, *volume.headerFirst);
    volume.name = "hfs+";
    volume.unitBytes = numberAt<fs::be32>(header, 0x28);
}

void openXfs(Volume& volume, agent::info::Logger& logger, Sector const& super) {
    volume.parser = std::make_unique<fs::XFSParser>(logger, kAlignment, volume.strict);
    volume.name = "xfs";
    volume.unitBytes = numberAt<fs::be32>(super, 0x04);
}

/// Each test of the detector expects other bytes; a match on the wrong ones means nothing.
void openFileSystem(Volume& volume, agent::info::Logger& logger) {
    Sector first = readSector(logger, volume, 0);
    Sector header = readSector(logger, volume, kHeaderOffset);
    fs::FileSystemType const detector(logger);
    int const byFirst = detector.getFileSystemType(first.data());
    int const byHeader = detector.getFileSystemType(header.data());
    if (byFirst == fs::kNtfs) {
        openNtfs(volume, logger, first);
    } else if (byFirst == fs::kFat32) {
        openFat(volume, logger, first);
    } else if (byHeader == fs::kExt) {
        openExt(volume, logger, header);
    } else if (byHeader == fs::kHfsPlus) {
        openHfs(volume, logger, header);
    } else if (byFirst == fs::kXfs) {
        openXfs(volume, logger, first);
    } else {
        volume.parser = std::make_unique<fs::UnrecognizedParser>(volume.bytes / volume.unitBytes);
    }
}

/// Calls `take` with the first unit and the number of units of each used run. An agent would copy these units.
template <typename Take>
void forEachUsedRun(Volume const& volume, Take const& take) {
    std::uint64_t const mapBytes = volume.bytes / kSmallestUnit / 8 + 1;
    std::vector<char> chunk(volume.wantsOneRequest ? mapBytes : std::min(mapBytes, kChunkBytes));
    bool const highestFirst = volume.parser->isMostSignificantBitFirst();

    std::uint64_t runStart = 0;
    std::uint64_t runUnits = 0;
    for (std::uint64_t offset = 0;;) {
        long const units = volume.parser->getChunk(offset, chunk.data(), chunk.size());
        if (units < 0) {
            throw std::runtime_error("the map cannot be read: code " + std::to_string(units));
        }
        for (std::uint64_t i = 0; i < static_cast<std::uint64_t>(units) && offset + i < volume.units; ++i) {
            unsigned const bit = highestFirst ? 0x80U >> (i % 8) : 1U << (i % 8);
            if ((static_cast<unsigned char>(chunk[i / 8]) & bit) == 0) {
                continue;
            }
            if (runUnits != 0 && runStart + runUnits == offset + i) {
                ++runUnits;
                continue;
            }
            if (runUnits != 0) {
                take(runStart, runUnits);
            }
            runStart = offset + i;
            runUnits = 1;
        }
        if (units == 0 || volume.wantsOneRequest) {
            break;
        }
        offset += static_cast<std::uint64_t>(units);
    }
    if (runUnits != 0) {
        take(runStart, runUnits);
    }
}

} // namespace

int main(int argc, char** argv) try {
    if (argc != 2) {
        std::cerr << "usage: agent VOLUME\n";
        return 2;
    }
    StandardErrorLogger logger;
    Volume volume(logger, argv[1]); // measures, then closes
    if (!volume.device.open()) {
        return 1; // the logger has told why
    }
    openFileSystem(volume, logger);

    std::uint64_t used = 0;
    forEachUsedRun(volume, [&used](std::uint64_t first, std::uint64_t units) {
        std::cout << first << ' ' << units << '\n';
        used += units;
    });
    std::cerr << volume.name << ": " << used << " units of " << volume.unitBytes << " bytes are used\n";
    return 0;
} catch (std::exception const& error) {
    std::cerr << "agent: " << error.what() << '\n';
    return 1;
}
