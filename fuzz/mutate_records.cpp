// MFT records and index blocks as they stand: sealed.
#include "NtfsPlaces.h"

namespace fuzz {

namespace {

using namespace agent::core::fs;

constexpr std::uint64_t kRecord = 1024;

void repairAlone(Image& image, Dice& dice) {
    if (dice.oneIn(3)) {
        return; // an attribute, or entries of an index
    }
    bool const isBlock = image.little(0, 4) == kMagicIndx;
    std::uint64_t const size = isBlock ? kSector : kRecord;
    repairLittle(image, dice, 0, 4, kMagicFile,
                 [](std::uint64_t magic) { return magic == kMagicFile || magic == kMagicIndx; });
    repairLittle(image, dice, offsetof(ntfs_record, usa_offset), 2, isBlock ? 0x28 : 0x30,
                 [size](std::uint64_t at) { return at % 2 == 0 && at + 2 * (size / kSector) <= size; });
    repairLittle(image, dice, offsetof(ntfs_record, usa_count), 2, size / kSector + 1, equals(size / kSector + 1));
    if (!isBlock) {
        repairLittle(image, dice, offsetof(ntfs_mft_record_t, bytes_allocated), 4, size, equals(size));
        repairLittle(image, dice, offsetof(ntfs_mft_record_t, bytes_in_use), 4, size,
                     [](std::uint64_t used) { return used <= kRecord; });
    }
    std::uint64_t const sequence = image.little(image.little(offsetof(ntfs_record, usa_offset), 2), 2);
    for (std::uint64_t tail = kSector - 2; tail < size && dice.repairs(); tail += kSector) {
        image.putLittle(tail, sequence, 2);
    }
}

std::vector<Place> findPlaces(Image const& image) {
    std::vector<Place> places{{0, 64}, {0, image.size()}};
    if (image.little(0, 4) == kMagicFile) {
        addRecordPlaces(image, 0, kRecord, places);
    } else if (image.little(0, 4) == kMagicIndx) {
        addEntryPlaces(image, offsetof(ntfs_index_allocation, index), kSector, places);
    }
    return places;
}

} // namespace

Format const formatUnderTest{false, false, findPlaces, repairAlone};

} // namespace fuzz
