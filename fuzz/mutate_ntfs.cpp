// NTFS: sealed records and index blocks, a boot sector that is accepted.
#include "NtfsPlaces.h"

#include <algorithm>

namespace fuzz {

namespace {

using namespace agent::core::fs;

constexpr std::uint64_t kRequest = 0x60; // what the target asks for, in the boot code

std::uint64_t clusterBytes(Image const& image) {
    return image.little(offsetof(ntfs_boot_sector, bytes_per_sector), 2) *
           image.little(offsetof(ntfs_boot_sector, sectors_per_cluster), 1);
}

std::uint64_t recordBytes(Image const& image) {
    auto const stored = static_cast<std::int8_t>(image.little(offsetof(ntfs_boot_sector, clusters_per_mft_record), 1));
    std::uint64_t const size =
        stored >= 0 ? static_cast<std::uint64_t>(stored) * clusterBytes(image) : std::uint64_t{1} << (-stored & 31);
    return isPowerBetween(512, 4096)(size) ? size : 1024;
}

std::uint64_t mftStart(Image const& image) {
    return image.little(offsetof(ntfs_boot_sector, mft_lcn), 8) * clusterBytes(image);
}

void repairBoot(Image& image, Dice& dice) {
    auto const field = [&](std::uint64_t offset, unsigned width, std::uint64_t value, auto const& isSound) {
        repairLittle(image, dice, offset, width, value, isSound);
    };
    field(offsetof(ntfs_boot_sector, oem_id), 8, 0x202020205346544E, equals(0x202020205346544E));
    field(offsetof(ntfs_boot_sector, bytes_per_sector), 2, 512, isPowerBetween(256, 4096));
    field(offsetof(ntfs_boot_sector, sectors_per_cluster), 1, 1, isPowerBetween(1, 128));
    field(offsetof(ntfs_boot_sector, reserved_sectors), 7, 0, equals(0));
    field(offsetof(ntfs_boot_sector, sectors_per_fat), 2, 0, equals(0));
    field(offsetof(ntfs_boot_sector, large_sectors), 4, 0, equals(0));
    field(offsetof(ntfs_boot_sector, number_of_sectors), 8, image.size() / kSector,
          [](std::uint64_t sectors) { return sectors != 0; });
    auto const isSize = [](std::uint64_t stored) {
        return (stored != 0 && stored < 0x80 && (stored & (stored - 1)) == 0) || (stored >= 0xE1 && stored <= 0xF7);
    };
    field(offsetof(ntfs_boot_sector, clusters_per_mft_record), 1, 0xF6, isSize);
    field(offsetof(ntfs_boot_sector, clusters_per_index_record), 1, 1, isSize);
    field(offsetof(ntfs_boot_sector, mftmirr_lcn), 8, 3, [](std::uint64_t lcn) { return lcn > 0 && lcn < 1000; });
    std::uint64_t const cluster = std::max<std::uint64_t>(clusterBytes(image), 1);
    for (std::uint64_t const sector : image.sectors()) {
        if (sector != 0 && image.little(sector, 4) == kMagicFile) { // the first record is where $MFT must begin
            field(offsetof(ntfs_boot_sector, mft_lcn), 8, sector / cluster, equals(sector / cluster));
            return;
        }
    }
}

/// Puts the sequence number where the header's array says that it protects.
void seal(Image& image, Dice& dice, std::uint64_t record, std::uint64_t size, std::uint16_t arrayOffset) {
    repairLittle(image, dice, record + offsetof(ntfs_record, usa_offset), 2, arrayOffset,
                 [&](std::uint64_t at) { return at % 2 == 0 && at + 2 * (size / kSector) <= size; });
    repairLittle(image, dice, record + offsetof(ntfs_record, usa_count), 2, size / kSector + 1,
                 equals(size / kSector + 1));
    std::uint64_t const array = record + image.little(record + offsetof(ntfs_record, usa_offset), 2);
    if (!dice.repairs()) {
        return; // torn
    }
    for (std::uint64_t tail = record + kSector - 2; tail < record + size; tail += kSector) {
        image.putLittle(tail, image.little(array, 2), 2);
    }
}

/// Lets the attributes end where the next one would not be accepted.
void endAttributes(Image& image, Dice& dice, std::uint64_t record, std::uint64_t size) {
    std::uint64_t offset = image.little(record + offsetof(ntfs_mft_record_t, attrs_offset), 2);
    std::uint64_t previous = 0;
    while (offset + 32 <= size) {
        std::uint64_t const type = image.little(record + offset, 4);
        std::uint64_t const length = image.little(record + offset + 4, 4);
        if (type == kEndOfAttributes) {
            return;
        }
        bool const isSound = type >= previous && length >= 24 && length % 8 == 0 && offset + length + 8 <= size;
        if (!isSound && dice.repairs()) {
            image.putLittle(record + offset, kEndOfAttributes, 4);
            return;
        }
        if (!isSound) {
            return;
        }
        previous = type;
        offset += length;
    }
}

void repairRecord(Image& image, Dice& dice, std::uint64_t record, std::uint64_t size, std::uint64_t number) {
    repairLittle(image, dice, record, 4, kMagicFile, equals(kMagicFile));
    seal(image, dice, record, size, 0x30);
    repairLittle(image, dice, record + offsetof(ntfs_mft_record_t, bytes_allocated), 4, size, equals(size));
    repairLittle(image, dice, record + offsetof(ntfs_mft_record_t, bytes_in_use), 4, size,
                 [size](std::uint64_t used) { return used <= size && used > 0x40; });
    repairLittle(image, dice, record + offsetof(ntfs_mft_record_t, mft_record_number), 4, number, equals(number));
    repairLittle(image, dice, record + offsetof(ntfs_mft_record_t, attrs_offset), 2, 0x38,
                 [](std::uint64_t offset) { return offset % 8 == 0 && offset >= 0x30 && offset < 0x100; });
    endAttributes(image, dice, record, size);
}

void repairBlock(Image& image, Dice& dice, std::uint64_t block) {
    std::uint64_t const allocated = block + offsetof(ntfs_index_allocation, index) + 8;
    std::uint64_t const size = image.little(allocated, 4) + offsetof(ntfs_index_allocation, index);
    if (isPowerBetween(512, 16384)(size)) {
        seal(image, dice, block, size, 0x28);
    } else if (dice.repairs()) {
        image.putLittle(allocated, kSector - offsetof(ntfs_index_allocation, index), 4);
    }
}

/// Whether a record stands here or stood here before the mutation.
bool isRecord(Image const& image, std::uint64_t sector) {
    std::uint64_t const start = mftStart(image);
    std::uint64_t const size = recordBytes(image);
    bool const isAligned = sector >= start && (sector - start) % size == 0;
    return isAligned && (image.little(sector, 4) == kMagicFile || image.little(sector + 0x1C, 4) == size);
}

void repairNtfs(Image& image, Dice& dice) {
    repairBoot(image, dice);
    for (std::uint64_t const sector : image.sectors()) {
        if (isRecord(image, sector)) {
            repairRecord(image, dice, sector, recordBytes(image), (sector - mftStart(image)) / recordBytes(image));
        } else if (image.little(sector, 4) == kMagicIndx) {
            repairBlock(image, dice, sector);
        }
    }
}

std::vector<Place> findNtfsPlaces(Image const& image) {
    std::vector<Place> places{{0x0B, 0x45}, {kRequest, 0x40}};
    for (std::uint64_t const sector : image.sectors()) {
        if (isRecord(image, sector)) {
            addRecordPlaces(image, sector, recordBytes(image), places);
        } else if (image.little(sector, 4) == kMagicIndx) {
            places.push_back({sector, sizeof(ntfs_index_allocation)});
            addEntryPlaces(image, sector + offsetof(ntfs_index_allocation, index), sector + 4096, places);
        } else if (sector != 0) {
            places.push_back({sector, kSector});
        }
    }
    return places;
}

} // namespace

Format const formatUnderTest{true, false, findNtfsPlaces, repairNtfs};

} // namespace fuzz
