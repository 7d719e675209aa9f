// FAT32: a boot sector that is accepted, and whose numbers keep the table on the volume.
#include "Mutator.h"

#include "fat/FatLayout.h"

namespace fuzz {

namespace {

using namespace agent::core::fs;

void repairFat(Image& image, Dice& dice) {
    auto const field = [&](std::uint64_t offset, unsigned width, std::uint64_t value, auto const& isSound) {
        repairLittle(image, dice, offset, width, value, isSound);
    };
    field(offsetof(fat_boot_sector, fat32_label), 5, 0x3233544146, equals(0x3233544146)); // "FAT32"
    std::uint64_t const old = image.little(offsetof(fat_boot_sector, label_area), 4);
    if (old == 0x31544146 && dice.repairs()) { // "FAT1"
        image.putLittle(offsetof(fat_boot_sector, label_area), 0, 4);
    }
    field(offsetof(fat_boot_sector, bytes_per_sector), 2, std::uint64_t{512} << dice.below(4),
          isPowerBetween(128, 4096));
    field(offsetof(fat_boot_sector, sectors_per_cluster), 1, std::uint64_t{1} << dice.below(8), isPowerBetween(1, 128));
    field(offsetof(fat_boot_sector, reserved_sectors), 2, 1 + dice.below(32),
          [](std::uint64_t count) { return count != 0 && count <= 64; });
    field(offsetof(fat_boot_sector, number_of_fats), 1, 1 + dice.below(2),
          [](std::uint64_t count) { return count != 0 && count <= 4; });
    field(offsetof(fat_boot_sector, sectors_per_fat_32), 4, 1 + dice.below(16),
          [](std::uint64_t count) { return count != 0 && count <= 4096; });
    field(offsetof(fat_boot_sector, total_sectors_32), 4, dice.below(65536),
          [](std::uint64_t count) { return count != 0; });
}

std::vector<Place> findFatPlaces(Image const& image) {
    std::vector<Place> places{{0x0B, 0x1D}, {0x36, 0x21}, {0x60, 8}};
    for (std::uint64_t const sector : image.sectors()) {
        places.push_back({sector, kSector});
    }
    return places;
}

} // namespace

Format const formatUnderTest{true, false, findFatPlaces, repairFat};

} // namespace fuzz
