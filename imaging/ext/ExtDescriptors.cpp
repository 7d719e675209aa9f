// Reading the descriptor table once, a piece at a time.
#include "imaging/ext/ExtDescriptors.h"

#include "imaging/LoadInteger.h"

#include <algorithm>

namespace imaging::ext {

namespace {

/// Bytes of descriptors looked at together.
constexpr std::uint64_t kPieceBytes = std::uint64_t{64} << 10;

constexpr std::size_t kFlags = 0x12;
constexpr std::uint64_t kBitmapUninitialised = 0x02;

/// Descriptors of this size and more hold the high halves of their numbers.
constexpr std::uint64_t kLargeDescriptor = 64;

/// The longest group whose free blocks the low half of their number counts.
constexpr std::uint64_t kMostCounted = 0xFFFF;

/// More groups than the largest volume that the parser covers has; their counts would take too much memory.
constexpr std::uint64_t kMostCounts = std::uint64_t{1} << 20;

std::optional<std::string> findMisplacedBitmap(DescriptorTable const& table, std::uint64_t group,
                                               Descriptor const& descriptor) {
    if (descriptor.isUninitialised()) {
        if (table.mayBeUninitialised) {
            return std::nullopt;
        }
        return "the descriptor of group " + std::to_string(group) +
               " says that its block bitmap is not initialised (0x2), and the volume has no feature for that: "
               "the parser would take the group for free";
    }
    std::uint64_t const location = descriptor.blockBitmap();
    if (location >= table.endBlock() && location < table.blocks) {
        return std::nullopt;
    }
    return "the descriptor of group " + std::to_string(group) + " puts its block bitmap at block " +
           std::to_string(location) + ", where none can be (the volume has " + std::to_string(table.blocks) +
           " blocks)";
}

} // namespace

bool Descriptor::isUninitialised() const {
    return (bytes_[kFlags] & kBitmapUninitialised) != 0;
}

std::uint64_t Descriptor::wide(std::size_t low, std::size_t high, unsigned width) const {
    std::uint64_t const upper = bytes_.size() >= kLargeDescriptor ? load(bytes_, high, width) : 0;
    return upper << (8 * width) | load(bytes_, low, width);
}

void forEachDescriptor(Volume& volume, DescriptorTable const& table,
                       std::function<bool(std::uint64_t, Descriptor const&)> const& visit) {
    std::uint64_t const inPiece = std::max<std::uint64_t>(kPieceBytes / table.descriptorSize, 1);
    for (std::uint64_t first = 0; first < table.groups; first += inPiece) {
        std::uint64_t const count = std::min(inPiece, table.groups - first);
        std::vector<std::uint8_t> const piece =
            volume.readBytes(table.offset + first * table.descriptorSize, count * table.descriptorSize);
        for (std::uint64_t i = 0; i < count; ++i) {
            auto const bytes = std::span(piece).subspan(i * table.descriptorSize, table.descriptorSize);
            if (!visit(first + i, Descriptor(bytes))) {
                return;
            }
        }
    }
}

GroupReport examineGroups(Volume& volume, DescriptorTable const& table) {
    GroupReport report;
    bool const hasCounts =
        table.groups <= kMostCounts && (table.groupBlocks <= kMostCounted || table.descriptorSize >= kLargeDescriptor);
    if (hasCounts) {
        report.freeBlocks.reserve(table.groups); // at most 16 MiB of addresses, and memory as far as it is filled
    }
    forEachDescriptor(volume, table, [&](std::uint64_t group, Descriptor const& descriptor) {
        report.notBelieved = findMisplacedBitmap(table, group, descriptor);
        if (hasCounts) {
            std::uint64_t const start = table.firstDataBlock + group * table.groupBlocks;
            std::uint64_t const blocks = std::min(table.groupBlocks, table.blocks - start);
            if (descriptor.isUninitialised()) {
                report.uninitialised.emplace_back(group, descriptor.freeBlocks());
            }
            report.freeBlocks.push_back({blocks, descriptor.isUninitialised() ? blocks : descriptor.freeBlocks()});
        }
        return !report.notBelieved;
    });
    return report;
}

} // namespace imaging::ext
