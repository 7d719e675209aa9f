// Reading the descriptor table once, a piece at a time.
#include "imaging/ext/ExtDescriptors.h"

#include "imaging/LoadInteger.h"

#include <algorithm>
#include <span>
#include <vector>

namespace imaging::ext {

namespace {

/// Bytes of descriptors looked at together.
constexpr std::uint64_t kPieceBytes = std::uint64_t{1} << 20;

constexpr std::uint64_t kBitmapUninitialised = 0x02;

/// Descriptors of this size and more hold the high half of the location at 0x20.
constexpr std::uint64_t kLargeDescriptor = 64;

std::uint64_t bitmapLocation(std::span<std::uint8_t const> descriptor) {
    std::uint64_t const high = descriptor.size() >= kLargeDescriptor ? load(descriptor, 0x20, 4) : 0;
    return high << 32 | load(descriptor, 0x00, 4);
}

} // namespace

std::optional<std::string> findMisplacedBitmap(Volume& volume, DescriptorTable const& table) {
    std::uint64_t const inPiece = std::max<std::uint64_t>(kPieceBytes / table.descriptorSize, 1);
    for (std::uint64_t first = 0; first < table.groups; first += inPiece) {
        std::uint64_t const count = std::min(inPiece, table.groups - first);
        std::vector<std::uint8_t> const piece =
            volume.readBytes(table.offset + first * table.descriptorSize, count * table.descriptorSize);
        for (std::uint64_t i = 0; i < count; ++i) {
            auto const descriptor = std::span(piece).subspan(i * table.descriptorSize, table.descriptorSize);
            std::uint64_t const location = bitmapLocation(descriptor);
            bool const isUninitialised = (descriptor[0x12] & kBitmapUninitialised) != 0;
            if (isUninitialised && !table.mayBeUninitialised) {
                return "the descriptor of group " + std::to_string(first + i) +
                       " says that its block bitmap is not initialised (0x2), and the volume has no feature for that: "
                       "the parser would take the group for free";
            }
            bool const isPossible = location > table.firstDataBlock && location < table.blocks;
            if (!isUninitialised && !isPossible) {
                return "the descriptor of group " + std::to_string(first + i) + " puts its block bitmap at block " +
                       std::to_string(location) + ", where none can be (the volume has " +
                       std::to_string(table.blocks) + " blocks)";
            }
        }
    }
    return std::nullopt;
}

} // namespace imaging::ext
