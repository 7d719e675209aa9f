// ext: a superblock that is accepted.
#include "Mutator.h"

#include "ext/ExtLayout.h"

namespace fuzz {

namespace {

using namespace agent::core::fs;

constexpr std::uint64_t kSuper = 1024;

std::uint64_t tableOffset(Image const& image) {
    std::uint64_t const block = std::uint64_t{1024}
                                << (image.little(kSuper + offsetof(ext_super_block, s_log_block_size), 4) & 7);
    return block * (image.little(kSuper + offsetof(ext_super_block, s_first_data_block), 4) + 1);
}

void repairExt(Image& image, Dice& dice) {
    auto const field = [&](std::uint64_t offset, unsigned width, std::uint64_t value, auto const& isSound) {
        repairLittle(image, dice, kSuper + offset, width, value, isSound);
    };
    field(offsetof(ext_super_block, s_magic), 2, kExtMagic, equals(kExtMagic));
    field(offsetof(ext_super_block, s_log_block_size), 4, dice.below(7), [](std::uint64_t log) { return log <= 6; });
    field(offsetof(ext_super_block, s_first_data_block), 4, dice.below(2),
          [](std::uint64_t block) { return block <= 16; });
    field(offsetof(ext_super_block, s_blocks_per_group), 4, 1 + dice.below(1024),
          [](std::uint64_t count) { return count != 0 && count <= 65536; });
    field(offsetof(ext_super_block, s_desc_size), 2, 32U << dice.below(3),
          [](std::uint64_t size) { return size == 0 || (size >= 19 && size <= 128); });
}

std::vector<Place> findExtPlaces(Image const& image) {
    std::vector<Place> places{{0, 8}, {kSuper, 0x68}, {kSuper + 0xF8, 0x10}, {tableOffset(image) % 65536, 192}};
    for (std::uint64_t const sector : image.sectors()) {
        places.push_back({sector, kSector});
    }
    return places;
}

} // namespace

Format const formatUnderTest{true, false, findExtPlaces, repairExt};

} // namespace fuzz
