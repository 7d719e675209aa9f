// Superblock copies, and the metadata of groups that the map reports as free.
#include "imaging/ext/ExtKept.h"

#include "imaging/ext/ExtFacts.h"

#include <algorithm>

namespace imaging::ext {

namespace {

/// Volumes of more groups are kept as a whole: their list would take too much memory.
constexpr std::uint64_t kMostGroups = std::uint64_t{1} << 21;

/// Bytes of descriptors looked at together.
constexpr std::uint64_t kPieceBytes = std::uint64_t{1} << 20;

/// Descriptors of this size and more hold the high halves of their locations.
constexpr std::uint64_t kLargeDescriptor = 64;

/// Where in a descriptor the low and the high half of a location stand.
struct Location {
    std::size_t low;
    std::size_t high;
};
constexpr Location kBlockBitmap{0x00, 0x20};
constexpr Location kInodeBitmap{0x04, 0x24};
constexpr Location kInodeTable{0x08, 0x28};

bool isPowerOf(std::uint64_t number, std::uint64_t base) {
    std::uint64_t power = base;
    while (power < number) {
        power *= base;
    }
    return power == number;
}

/// Whether a group begins with a copy of the superblock.
bool hasSuperBlock(Facts const& facts, std::uint64_t group) {
    if (group == 0) {
        return true;
    }
    if ((facts.compatible & kCompatSparseSuper2) != 0) {
        return group == facts.backupGroups[0] || group == facts.backupGroups[1];
    }
    if ((facts.readOnlyCompatible & kRoCompatSparseSuper) == 0) {
        return true;
    }
    return group == 1 || isPowerOf(group, 3) || isPowerOf(group, 5) || isPowerOf(group, 7);
}

/// The kept ranges of a volume, as they are found.
class Collector {
public:
    Collector(Facts const& facts, DescriptorTable const& table) : facts_(facts), table_(table) {}

    void addSuperBlock(std::uint64_t group) {
        std::uint64_t const tableBytes = table_.groups * table_.descriptorSize;
        std::uint64_t const tableBlocks = (tableBytes + facts_.blockSize() - 1) / facts_.blockSize();
        addBlocks(facts_.firstDataBlock + group * facts_.blocksPerGroup, 1 + tableBlocks + facts_.reservedTableBlocks);
    }

    void addDescriptor(std::span<std::uint8_t const> descriptor) {
        std::uint64_t const tableBytes = std::uint64_t{facts_.inodesPerGroup} * facts_.inodeSize;
        addBlocks(locate(descriptor, kBlockBitmap), 1);
        addBlocks(locate(descriptor, kInodeBitmap), 1);
        addBlocks(locate(descriptor, kInodeTable), (tableBytes + facts_.blockSize() - 1) / facts_.blockSize());
    }

    void addBlocks(std::uint64_t first, std::uint64_t count) {
        if (first < facts_.blocks) {
            std::uint64_t const end = first + std::min(count, facts_.blocks - first);
            ranges_.push_back({first * facts_.blockSize(), end * facts_.blockSize()});
        }
    }

    std::vector<ByteRange> take() { return normalized(std::move(ranges_), facts_.blocks * facts_.blockSize()); }

private:
    static std::uint64_t locate(std::span<std::uint8_t const> descriptor, Location location) {
        std::uint64_t const high = descriptor.size() >= kLargeDescriptor ? load(descriptor, location.high, 4) : 0;
        return high << 32 | load(descriptor, location.low, 4);
    }

    Facts const& facts_;
    DescriptorTable const& table_;
    std::vector<ByteRange> ranges_;
};

/// Reads the descriptors, a piece at a time.
template <typename Visit>
void forEachDescriptor(Volume& volume, DescriptorTable const& table, Visit const& visit) {
    std::uint64_t const inPiece = std::max<std::uint64_t>(kPieceBytes / table.descriptorSize, 1);
    for (std::uint64_t first = 0; first < table.groups; first += inPiece) {
        std::uint64_t const count = std::min(inPiece, table.groups - first);
        std::vector<std::uint8_t> const piece =
            volume.readBytes(table.offset + first * table.descriptorSize, count * table.descriptorSize);
        for (std::uint64_t i = 0; i < count; ++i) {
            visit(first + i, std::span(piece).subspan(i * table.descriptorSize, table.descriptorSize));
        }
    }
}

} // namespace

std::vector<ByteRange> alwaysKept(Volume& volume) {
    Facts const facts = readFacts(volume);
    if (facts.blocksPerGroup == 0) {
        return {}; // the parser refuses such a volume
    }
    DescriptorTable const table = tableOf(facts);
    Collector kept(facts, table);
    if (table.groups > kMostGroups) {
        kept.addBlocks(0, facts.blocks);
        return kept.take();
    }
    kept.addBlocks(0, facts.firstDataBlock);
    forEachDescriptor(volume, table, [&](std::uint64_t group, std::span<std::uint8_t const> descriptor) {
        kept.addDescriptor(descriptor);
        if (hasSuperBlock(facts, group)) {
            kept.addSuperBlock(group);
        }
    });
    return kept.take();
}

} // namespace imaging::ext
