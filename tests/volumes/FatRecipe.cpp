// Making FAT32 volumes as an ordinary user, without mounting anything.
#include "volumes/FatRecipe.h"

#include "volumes/ExtRecipe.h"
#include "volumes/VolumeAnswers.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace tests {

namespace {

constexpr unsigned kFiles = 120;

void writeText(std::filesystem::path const& path, std::string const& content) {
    std::ofstream file(path, std::ios::binary);
    file << content;
    if (!file.flush()) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

/// The tools must not refuse what they find unusual, nor ask.
void run(std::vector<std::string> const& arguments, Environment const& more = {{"MTOOLS_SKIP_CHECK", "1"}}) {
    CommandResult const result = runTool(arguments, more);
    if (!result.succeeded()) {
        std::ostringstream text;
        text << arguments.front() << ": " << result;
        throw std::runtime_error(text.str());
    }
}

std::string inImage(unsigned number) {
    return "::/d/f" + std::to_string(number);
}

/// Files of 0.3 to 24 KiB, one behind the other.
void copyFiles(std::string const& volume, std::filesystem::path const& source) {
    std::filesystem::create_directories(source / "d");
    for (unsigned i = 0; i < kFiles; ++i) {
        writeText(source / "d" / ("f" + std::to_string(i)), std::string((i * 7919 % 24 + 1) * 1024 - i % 700, 'x'));
    }
    run({"mcopy", "-Q", "-s", "-i", volume, (source / "d").string(), "::/"});
}

void makeHoles(std::string const& volume, std::filesystem::path const& source) {
    std::vector<std::string> removal{"mdel", "-i", volume};
    for (unsigned i = 0; i < kFiles; i += 2) {
        removal.push_back(inImage(i));
    }
    run(removal);
    for (unsigned i = 0; i < kFiles; i += 8) {
        run({"mcopy", "-Q", "-i", volume, (source / "d" / "f3").string(), inImage(1000 + i)});
    }
}

/// mkfs.fat counts bad clusters as free in its summary; fsck.fat puts that right.
void correctSummary(std::string const& volume) {
    CommandResult const result = runTool({"fsck.fat", "-a", volume});
    if (result.exitCode != 1 || result.output.find("Free cluster summary wrong") == std::string::npos) {
        throw std::runtime_error("fsck.fat found something else: " + result.output);
    }
}

} // namespace

std::string makeFatVolume(FatRecipe const& recipe, std::filesystem::path const& directory) {
    std::string volume = (directory / "volume.img").string();
    std::filesystem::path const source = directory / "source";
    writeText(volume, "");
    std::filesystem::resize_file(volume, recipe.bytes);
    std::vector<std::string> arguments{"mkfs.fat", "-F", "32", "-i", "1a2b3c4d", "--invariant"};
    arguments.insert(arguments.end(), recipe.options.begin(), recipe.options.end());
    if (!recipe.badKibibytes.empty()) {
        std::string list;
        for (std::uint64_t const piece : recipe.badKibibytes) {
            list += std::to_string(piece) + "\n";
        }
        writeText(directory / "bad", list);
        arguments.insert(arguments.end(), {"-l", (directory / "bad").string()});
    }
    arguments.push_back(volume);
    run(arguments);
    if (recipe.fill != FatFill::Nothing) {
        copyFiles(volume, source);
    }
    if (recipe.fill == FatFill::Holes) {
        makeHoles(volume, source);
    }
    if (!recipe.badKibibytes.empty()) {
        correctSummary(volume);
    }
    return volume;
}

int checkWithFsckFat(std::string const& volume) {
    return runTool({"fsck.fat", "-n", volume}).exitCode;
}

FatGeometry readFatGeometry(std::string const& volume) {
    FatGeometry geometry;
    geometry.bytesPerSector = static_cast<std::uint16_t>(readField(volume, fat_boot::kBytesPerSector, 2));
    geometry.sectorsPerCluster = static_cast<std::uint8_t>(readField(volume, fat_boot::kSectorsPerCluster, 1));
    geometry.reservedSectors = static_cast<std::uint16_t>(readField(volume, fat_boot::kReservedSectors, 2));
    geometry.numberOfFats = static_cast<std::uint8_t>(readField(volume, fat_boot::kNumberOfFats, 1));
    geometry.sectorsPerFat = static_cast<std::uint32_t>(readField(volume, fat_boot::kSectorsPerFat32, 4));
    geometry.totalSectors = static_cast<std::uint32_t>(readField(volume, fat_boot::kTotalSectors32, 4));
    geometry.totalSectors16 = static_cast<std::uint16_t>(readField(volume, fat_boot::kTotalSectors16, 2));
    return geometry;
}

} // namespace tests
