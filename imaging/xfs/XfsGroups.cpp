// Holding free lists against their counts.
#include "imaging/xfs/XfsGroups.h"

#include "imaging/LoadInteger.h"

#include <algorithm>
#include <array>

namespace imaging::xfs {

namespace {

constexpr std::uint64_t kHeaderMagic = 0x58414746; // "XAGF"
constexpr std::uint64_t kHeaderBytes = 64;

/// Fields of the header, in the group's second sector.
constexpr std::size_t kNumber = 8;
constexpr std::size_t kLength = 12;
constexpr std::size_t kTreeRoot = 16;
constexpr std::array<std::size_t, 2> kOtherRoots{20, 24}; // by length; of owners, or 0
constexpr std::size_t kTreeLevels = 28;
constexpr std::size_t kListFirst = 40;
constexpr std::size_t kListLast = 44;
constexpr std::size_t kListCount = 48;
constexpr std::size_t kFreeBlocks = 52;

/// The free list lies in the fourth sector, after a header where metadata carry checksums.
constexpr std::uint64_t kListSector = 3;
constexpr std::uint64_t kListHeader = 36;
constexpr std::uint64_t kEntryBytes = 4;

/// What nodes and lists begin with: "ABTB", and with checksums "AB3B" and "XAFL".
constexpr std::uint64_t kPlainNode = 0x41425442;
constexpr std::uint64_t kCheckedNode = 0x41423342;
constexpr std::uint64_t kCheckedList = 0x5841464C;
constexpr std::uint64_t kMagicBytes = 4;

/// Entries of a free list that the parser reads.
constexpr std::uint64_t kEntriesRead = 128;
constexpr std::uint64_t kEntriesReadWithChecksums = 119;

std::optional<std::string> findOdd(std::span<std::uint8_t const> header, std::uint64_t group, std::uint64_t length) {
    std::string const name = "the free-space header of group " + std::to_string(group);
    if (std::uint64_t const number = loadBig(header, kNumber, 4); number != group) {
        return name + " says that it is that of group " + std::to_string(number);
    }
    if (std::uint64_t const blocks = loadBig(header, kLength, 4); blocks != length) {
        return name + " says that the group has " + std::to_string(blocks) + " blocks, and it has " +
               std::to_string(length);
    }
    if (std::uint64_t const root = loadBig(header, kTreeRoot, 4); root >= length) {
        return name + " puts the root of its tree at block " + std::to_string(root) + " of the group, which has " +
               std::to_string(length);
    }
    std::uint64_t const first = loadBig(header, kListFirst, 4);
    std::uint64_t const last = loadBig(header, kListLast, 4);
    std::uint64_t const count = loadBig(header, kListCount, 4);
    // A list that wraps around its end is not marked, so nothing can go wrong there.
    if (first <= last && count != last - first + 1) {
        return name + " counts " + std::to_string(count) + " blocks in its free list from entry " +
               std::to_string(first) + " to entry " + std::to_string(last) +
               ": the parser would take old entries for free blocks";
    }
    return std::nullopt;
}

std::uint64_t readMagic(Volume& volume, std::uint64_t offset) {
    return loadBig(volume.readBytes(offset, kMagicBytes), 0, kMagicBytes);
}

/// A list or a root of the other version, which the parser would read at other places than it was written.
std::optional<std::string> findOtherVersion(Volume& volume, GroupLayout const& layout, std::uint64_t group,
                                            std::uint64_t root) {
    std::uint64_t const start = group * layout.groupBlocks * layout.blockSize;
    std::string const version = layout.hasChecksums ? "5" : "4";
    bool const isChecked = readMagic(volume, start + kListSector * layout.sectorSize) == kCheckedList;
    if (isChecked != layout.hasChecksums) {
        return "the free list of group " + std::to_string(group) + " is none of version " + version;
    }
    std::uint64_t const other = layout.hasChecksums ? kPlainNode : kCheckedNode;
    if (readMagic(volume, start + root * layout.blockSize) == other) {
        return "the root of the free-space tree of group " + std::to_string(group) + " is none of version " + version;
    }
    return std::nullopt;
}

void addRoots(GroupLayout const& layout, std::uint64_t group, std::span<std::uint8_t const> header,
              std::uint64_t length, std::vector<ByteRange>& roots) {
    auto const add = [&](std::uint64_t root) {
        if (root != 0 && root < length) {
            std::uint64_t const block = group * layout.groupBlocks + root;
            roots.push_back({block * layout.blockSize, (block + 1) * layout.blockSize});
        }
    };
    add(loadBig(header, kTreeRoot, 4));
    for (std::size_t const field : kOtherRoots) {
        add(loadBig(header, field, 4));
    }
}

/// Entries that the parser marks.
std::uint64_t markedEntries(std::span<std::uint8_t const> header, bool hasChecksums) {
    std::uint64_t const first = loadBig(header, kListFirst, 4);
    std::uint64_t const entries = hasChecksums ? kEntriesReadWithChecksums : kEntriesRead;
    std::uint64_t const end = std::min(loadBig(header, kListLast, 4) + 1, entries);
    return first < end ? end - first : 0;
}

void addListed(Volume& volume, GroupLayout const& layout, std::uint64_t group, std::span<std::uint8_t const> header,
               std::vector<ByteRange>& listed) {
    std::uint64_t const entries = markedEntries(header, layout.hasChecksums);
    if (entries == 0) {
        return;
    }
    std::uint64_t const start = group * layout.groupBlocks;
    std::uint64_t const first = loadBig(header, kListFirst, 4);
    std::uint64_t const list = start * layout.blockSize + kListSector * layout.sectorSize +
                               (layout.hasChecksums ? kListHeader : 0) + first * kEntryBytes;
    std::vector<std::uint8_t> const bytes = volume.readBytes(list, entries * kEntryBytes);
    for (std::uint64_t i = 0; i < entries; ++i) {
        std::uint64_t const block = start + loadBig(bytes, i * kEntryBytes, kEntryBytes);
        if (block < layout.blocks) {
            listed.push_back({block * layout.blockSize, (block + 1) * layout.blockSize});
        }
    }
}

} // namespace

GroupHeaders readGroupHeaders(Volume& volume, GroupLayout const& layout) {
    GroupHeaders result;
    for (std::uint64_t group = 0; group < layout.groups; ++group) {
        std::uint64_t const start = group * layout.groupBlocks;
        std::uint64_t const length = std::min(layout.groupBlocks, layout.blocks - start);
        std::vector<std::uint8_t> const header =
            volume.readBytes(start * layout.blockSize + layout.sectorSize, kHeaderBytes);
        if (loadBig(header, 0, 4) != kHeaderMagic) {
            return {}; // the parser says so
        }
        if ((result.notBelieved = findOdd(header, group, length))) {
            return result;
        }
        result.notBelieved = findOtherVersion(volume, layout, group, loadBig(header, kTreeRoot, 4));
        if (result.notBelieved) {
            return result;
        }
        result.levels = std::max(result.levels, loadBig(header, kTreeLevels, 4));
        addRoots(layout, group, header, length, result.roots);
        addListed(volume, layout, group, header, result.listed);
        result.freeCounts.push_back(
            {length, loadBig(header, kFreeBlocks, 4) + markedEntries(header, layout.hasChecksums)});
    }
    return result;
}

} // namespace imaging::xfs
