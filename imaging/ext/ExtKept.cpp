// Superblock copies, and the metadata of groups that the map reports as free.
#include "imaging/ext/ExtKept.h"

#include "imaging/ext/ExtFacts.h"

#include <algorithm>
#include <utility>

namespace imaging::ext {

namespace {

/// Volumes of more groups are kept as a whole: their list would take too much memory.
constexpr std::uint64_t kMostGroups = std::uint64_t{1} << 21;

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

/// Where the volume's own structures lie.
class Collector {
public:
    Collector(Facts const& facts, DescriptorTable const& table) : facts_(facts), table_(table) {}

    /// A copy of superblock and descriptors, with so many blocks behind it.
    void addSuperBlock(std::uint64_t group, std::uint64_t more) {
        std::uint64_t const first = facts_.firstDataBlock + group * facts_.blocksPerGroup;
        addBlocks(first, 1 + blocksFor(table_.groups * table_.descriptorSize) + more);
    }

    /// A location before `lowest` is none.
    void addDescriptor(Descriptor const& descriptor, std::uint64_t lowest) {
        std::uint64_t const tableBlocks = blocksFor(std::uint64_t{facts_.inodesPerGroup} * facts_.inodeSize);
        for (auto const& [first, count] :
             {std::pair{descriptor.blockBitmap(), std::uint64_t{1}},
              std::pair{descriptor.inodeBitmap(), std::uint64_t{1}}, std::pair{descriptor.inodeTable(), tableBlocks}}) {
            addBlocks(first, first < lowest ? 0 : count);
        }
    }

    void addBlocks(std::uint64_t first, std::uint64_t count) {
        if (first < facts_.blocks) {
            std::uint64_t const end = first + std::min(count, facts_.blocks - first);
            add({first * facts_.blockSize(), end * facts_.blockSize()});
        }
    }

    std::vector<ByteRange> take() { return normalized(std::move(ranges_), facts_.blocks * facts_.blockSize()); }

private:
    /// Bitmaps and tables of groups that follow one another often do so too: most ranges go on one of the last.
    void add(ByteRange const& range) {
        constexpr std::size_t kLooked = 4;
        std::size_t const first = ranges_.size() - std::min(ranges_.size(), kLooked);
        for (std::size_t i = first; i < ranges_.size(); ++i) {
            if (ranges_[i].end == range.begin) {
                ranges_[i].end = range.end;
                return;
            }
        }
        ranges_.push_back(range);
    }

    std::uint64_t blocksFor(std::uint64_t bytes) const { return (bytes + facts_.blockSize() - 1) / facts_.blockSize(); }

    Facts const& facts_;
    DescriptorTable const& table_;
    std::vector<ByteRange> ranges_;
};

/// What is left of ranges without what lies outside all groups, or in a group whose bitmap is not initialised.
std::vector<ByteRange> inInitialised(std::vector<ByteRange> const& ranges, Facts const& facts,
                                     std::vector<bool> const& isUninitialised) {
    std::uint64_t const start = std::uint64_t{facts.firstDataBlock} * facts.blockSize();
    std::uint64_t const groupBytes = std::uint64_t{facts.blocksPerGroup} * facts.blockSize();
    std::vector<ByteRange> left;
    for (ByteRange range : ranges) {
        for (range.begin = std::max(range.begin, start); range.begin < range.end;) {
            std::uint64_t const group = (range.begin - start) / groupBytes;
            std::uint64_t const end = std::min(range.end, start + (group + 1) * groupBytes);
            if (!isUninitialised[group]) {
                left.push_back({range.begin, end});
            }
            range.begin = end;
        }
    }
    return left;
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
    forEachDescriptor(volume, table, [&](std::uint64_t group, Descriptor const& descriptor) {
        kept.addDescriptor(descriptor, 0);
        if (hasSuperBlock(facts, group)) {
            kept.addSuperBlock(group, facts.reservedTableBlocks);
        }
        return true;
    });
    return kept.take();
}

std::optional<std::string> findUsedUninitialised(Volume& volume,
                                                 std::vector<std::pair<std::uint64_t, std::uint64_t>> const& groups) {
    if (groups.empty()) {
        return std::nullopt;
    }
    Facts const facts = readFacts(volume);
    std::vector<ByteRange> const own = alwaysKept(volume);
    auto range = own.begin();
    for (auto const& [group, free] : groups) {
        std::uint64_t const first = facts.firstDataBlock + group * facts.blocksPerGroup;
        std::uint64_t const end = std::min<std::uint64_t>(first + facts.blocksPerGroup, facts.blocks);
        while (range != own.end() && range->end <= first * facts.blockSize()) {
            ++range;
        }
        std::uint64_t ownBytes = 0;
        for (auto it = range; it != own.end() && it->begin < end * facts.blockSize(); ++it) {
            ownBytes += std::min(it->end, end * facts.blockSize()) - std::max(it->begin, first * facts.blockSize());
        }
        if (std::uint64_t const expected = end - first - ownBytes / facts.blockSize(); free < expected) {
            return "the descriptor of group " + std::to_string(group) +
                   " says that its block bitmap is not initialised (0x2), and counts " + std::to_string(free) +
                   " free blocks where an unused group has " + std::to_string(expected);
        }
    }
    return std::nullopt;
}

std::vector<ByteRange> mustBeUsed(Volume& volume) {
    Facts const facts = readFacts(volume);
    if (facts.blocksPerGroup == 0) {
        return {}; // the parser refuses such a volume
    }
    DescriptorTable const table = tableOf(facts);
    if (table.groups > kMostGroups) {
        return {}; // all of it is kept
    }
    Collector own(facts, table);
    own.addSuperBlock(0, 0);
    std::vector<bool> isUninitialised;
    forEachDescriptor(volume, table, [&](std::uint64_t, Descriptor const& descriptor) {
        isUninitialised.push_back(descriptor.isUninitialised());
        own.addDescriptor(descriptor, facts.firstDataBlock + std::uint64_t{1});
        return true;
    });
    return inInitialised(own.take(), facts, isUninitialised);
}

} // namespace imaging::ext
