// Index trees, the upcase table and the security stream of NTFS volumes for tests.
#include "support/NtfsIndex.h"

#include <algorithm>
#include <stdexcept>

namespace tests {

namespace {

constexpr std::uint64_t kCopyDistance = 0x40000; // of the second copy in the security stream
constexpr std::uint64_t kEntryHasChild = 1;
constexpr std::uint64_t kEntryIsLast = 2;
constexpr std::uint64_t kEntryHeader = 16;

std::vector<std::uint16_t> makeUpcaseTable() {
    std::vector<std::uint16_t> table(0x10000);
    for (std::size_t i = 0; i < table.size(); ++i) {
        table[i] = static_cast<std::uint16_t>(i);
    }
    auto const shift = [&table](std::size_t first, std::size_t last, std::size_t distance) {
        for (std::size_t i = first; i <= last; ++i) {
            table[i] = static_cast<std::uint16_t>(i - distance);
        }
    };
    shift(u'a', u'z', 0x20);
    shift(0xE0, 0xFE, 0x20); // Latin-1
    table[0xF7] = 0xF7;      // the sign of division is no letter
    table[0xFF] = 0x178;
    shift(0x3B1, 0x3C9, 0x20); // Greek
    table[0x3C2] = 0x3C2;      // the sigma at the end of words has no capital of its own
    shift(0x430, 0x44F, 0x20); // Cyrillic
    shift(0x450, 0x45F, 0x50);
    return table;
}

std::u16string upperCase(std::u16string text) {
    for (char16_t& character : text) {
        character = static_cast<char16_t>(ntfsUpcaseTable()[character]);
    }
    return text;
}

/// The hash of the security stream: rotated to the left by three bits before each word is added.
std::uint32_t hashOf(NtfsBytes const& descriptor) {
    std::uint32_t hash = 0;
    for (std::size_t i = 0; i + 4 <= descriptor.size(); i += 4) {
        hash = static_cast<std::uint32_t>(getNumber(descriptor, i, 4)) + (hash << 3 | hash >> 29);
    }
    return hash;
}

void putIndexHeader(std::span<std::uint8_t> header, std::uint64_t entriesOffset, std::uint64_t entriesSize,
                    std::uint64_t allocated, bool hasChildren) {
    putNumber(header, 0x00, entriesOffset, 4);
    putNumber(header, 0x04, entriesOffset + entriesSize, 4);
    putNumber(header, 0x08, allocated, 4);
    putNumber(header, 0x0C, hasChildren ? 1 : 0, 1);
}

/// The entry again, with a child behind it.
NtfsBytes withChild(NtfsBytes entry, std::uint64_t child) {
    entry.resize(entry.size() + 8);
    putNumber(entry, 0x08, entry.size(), 2);
    putNumber(entry, 0x0C, getNumber(entry, 0x0C, 2) | kEntryHasChild, 2);
    putNumber(entry, entry.size() - 8, child, 8);
    return entry;
}

/// Makes a tree from the leaves up.
class TreeMaker {
public:
    explicit TreeMaker(NtfsIndexShape const& shape) : shape_(shape) {}

    /// The node's entries as they stand on disk, its children made before.
    NtfsBytes node(std::span<NtfsBytes const> entries, unsigned levels) {
        if (levels <= 1) {
            return ntfsNodeEntries({entries.begin(), entries.end()}, {});
        }
        std::size_t const children = std::min<std::size_t>(shape_.fanOut, entries.size() + 1);
        std::size_t const below = entries.size() - (children - 1); // the others stand between the children
        std::vector<NtfsBytes> own;
        std::vector<std::uint64_t> vcns;
        std::size_t next = 0;
        for (std::size_t i = 0; i < children; ++i) {
            std::size_t const count = below / children + (i < below % children ? 1 : 0);
            vcns.push_back(block(entries.subspan(next, count), levels - 1));
            next += count;
            if (i + 1 < children) {
                own.push_back(entries[next++]);
            }
        }
        return ntfsNodeEntries(own, vcns);
    }

    std::vector<NtfsBytes> blocks;

private:
    std::uint64_t block(std::span<NtfsBytes const> entries, unsigned levels) {
        NtfsBytes const content = node(entries, levels);
        std::uint64_t const vcn = blocks.size() * shape_.unitsPerBlock();
        blocks.push_back(ntfsIndexBlock(shape_, vcn, content, levels > 1));
        return vcn;
    }

    NtfsIndexShape const& shape_;
};

/// A security identifier of authority 5 or 1.
NtfsBytes sid(std::uint8_t authority, std::vector<std::uint32_t> const& parts) {
    NtfsBytes bytes(8 + 4 * parts.size());
    bytes[0] = 1;
    bytes[1] = static_cast<std::uint8_t>(parts.size());
    bytes[7] = authority;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        putNumber(bytes, 8 + 4 * i, parts[i], 4);
    }
    return bytes;
}

void appendGrant(NtfsBytes& list, std::uint32_t mask, NtfsBytes const& trustee) {
    std::size_t const start = list.size();
    list.resize(start + 8);
    list.insert(list.end(), trustee.begin(), trustee.end());
    putNumber(list, start + 2, list.size() - start, 2);
    putNumber(list, start + 4, mask, 4);
}

} // namespace

std::vector<std::uint16_t> const& ntfsUpcaseTable() {
    static std::vector<std::uint16_t> const table = makeUpcaseTable();
    return table;
}

NtfsBytes ntfsUpcaseBytes() {
    std::vector<std::uint16_t> const& table = ntfsUpcaseTable();
    NtfsBytes bytes(2 * table.size());
    for (std::size_t i = 0; i < table.size(); ++i) {
        putNumber(bytes, 2 * i, table[i], 2);
    }
    return bytes;
}

NtfsBytes ntfsSampleDescriptor() {
    NtfsBytes const administrators = sid(5, {32, 544});
    NtfsBytes list(8);
    appendGrant(list, 0x1F01FF, sid(5, {18}));
    appendGrant(list, 0x1200A9, sid(1, {0}));
    putNumber(list, 0, 2, 1); // revision
    putNumber(list, 2, list.size(), 2);
    putNumber(list, 4, 2, 2);

    NtfsBytes bytes(20);
    putNumber(bytes, 0x00, 1, 1);      // revision
    putNumber(bytes, 0x02, 0x8004, 2); // self-relative, with a discretionary list
    putNumber(bytes, 0x04, 20 + list.size(), 4);
    putNumber(bytes, 0x08, 20 + list.size() + administrators.size(), 4);
    putNumber(bytes, 0x10, 20, 4);
    bytes.insert(bytes.end(), list.begin(), list.end());
    bytes.insert(bytes.end(), administrators.begin(), administrators.end());
    bytes.insert(bytes.end(), administrators.begin(), administrators.end());
    return bytes;
}

std::vector<NtfsSdsPlace> ntfsSdsPlaces(std::vector<NtfsDescriptor> const& descriptors) {
    std::vector<NtfsSdsPlace> places;
    std::uint64_t offset = 0;
    for (NtfsDescriptor const& descriptor : descriptors) {
        auto const length = static_cast<std::uint32_t>(20 + descriptor.bytes.size());
        if (offset % kCopyDistance + length > kCopyDistance) {
            offset = (offset / kCopyDistance + 2) * kCopyDistance; // none crosses into the copy
        }
        places.push_back({descriptor.id, hashOf(descriptor.bytes), offset, length});
        offset = (offset + length + 15) / 16 * 16;
        if (offset % kCopyDistance == 0) {
            offset += kCopyDistance;
        }
    }
    return places;
}

NtfsBytes ntfsSdsStream(std::vector<NtfsDescriptor> const& descriptors) {
    std::vector<NtfsSdsPlace> const places = ntfsSdsPlaces(descriptors);
    NtfsBytes stream;
    for (std::size_t i = 0; i < places.size(); ++i) {
        NtfsSdsPlace const& place = places[i];
        stream.resize(std::max<std::size_t>(stream.size(), place.offset + kCopyDistance + place.length));
        for (std::uint64_t const start : {place.offset, place.offset + kCopyDistance}) {
            putNumber(stream, start, place.hash, 4);
            putNumber(stream, start + 4, place.id, 4);
            putNumber(stream, start + 8, place.offset, 8);
            putNumber(stream, start + 16, place.length, 4);
            std::copy(descriptors[i].bytes.begin(), descriptors[i].bytes.end(),
                      stream.begin() + static_cast<std::ptrdiff_t>(start + 20));
        }
    }
    return stream;
}

NtfsBytes ntfsIndexEntry(std::uint64_t header, NtfsBytes const& key) {
    NtfsBytes entry(alignTo8(kEntryHeader + key.size()));
    putNumber(entry, 0x00, header, 8);
    putNumber(entry, 0x08, entry.size(), 2);
    putNumber(entry, 0x0A, key.size(), 2);
    std::copy(key.begin(), key.end(), entry.begin() + kEntryHeader);
    return entry;
}

std::vector<NtfsBytes> ntfsNameEntries(std::vector<NtfsName> names, std::uint64_t parentReference) {
    std::stable_sort(names.begin(), names.end(), [](NtfsName const& left, NtfsName const& right) {
        return upperCase(left.name) < upperCase(right.name);
    });
    std::vector<NtfsBytes> entries;
    for (NtfsName const& name : names) {
        entries.push_back(ntfsIndexEntry(name.reference, ntfsFileName(parentReference, name.name, name.nameSpace)));
    }
    return entries;
}

std::vector<NtfsBytes> ntfsIdentifierEntries(std::vector<NtfsSdsPlace> places) {
    std::stable_sort(places.begin(), places.end(),
                     [](NtfsSdsPlace const& left, NtfsSdsPlace const& right) { return left.id < right.id; });
    std::vector<NtfsBytes> entries;
    for (NtfsSdsPlace const& place : places) {
        NtfsBytes entry(40);
        putNumber(entry, 0x00, 20, 2); // where the data stand: behind the key
        putNumber(entry, 0x02, 20, 2); // and how long they are
        putNumber(entry, 0x08, entry.size(), 2);
        putNumber(entry, 0x0A, 4, 2);
        putNumber(entry, 0x10, place.id, 4);
        putNumber(entry, 0x14, place.hash, 4);
        putNumber(entry, 0x18, place.id, 4);
        putNumber(entry, 0x1C, place.offset, 8);
        putNumber(entry, 0x24, place.length, 4);
        entries.push_back(entry);
    }
    return entries;
}

NtfsBytes ntfsNodeEntries(std::vector<NtfsBytes> const& entries, std::vector<std::uint64_t> const& children) {
    NtfsBytes end(kEntryHeader);
    putNumber(end, 0x08, kEntryHeader, 2);
    putNumber(end, 0x0C, kEntryIsLast, 2);
    std::vector<NtfsBytes> all = entries;
    all.push_back(end);
    NtfsBytes bytes;
    for (std::size_t i = 0; i < all.size(); ++i) {
        NtfsBytes const entry = children.empty() ? all[i] : withChild(all[i], children.at(i));
        bytes.insert(bytes.end(), entry.begin(), entry.end());
    }
    return bytes;
}

NtfsBytes ntfsIndexRoot(NtfsIndexShape const& shape, NtfsBytes const& nodeEntries, bool hasChildren) {
    NtfsBytes value(0x20);
    putNumber(value, 0x00, shape.type, 4);
    putNumber(value, 0x04, shape.collation, 4);
    putNumber(value, 0x08, shape.blockBytes, 4);
    putNumber(value, 0x0C, shape.unitsPerBlock(), 1);
    putIndexHeader(std::span(value).subspan(0x10), 0x10, nodeEntries.size(), 0x10 + nodeEntries.size(), hasChildren);
    value.insert(value.end(), nodeEntries.begin(), nodeEntries.end());
    return value;
}

NtfsBytes ntfsIndexBlock(NtfsIndexShape const& shape, std::uint64_t vcn, NtfsBytes const& nodeEntries,
                         bool hasChildren) {
    NtfsBytes block(shape.blockBytes);
    std::uint64_t const arrayEntries = shape.blockBytes / 512 + 1;
    std::uint64_t const first = alignTo8(0x28 + 2 * arrayEntries); // of the entries: behind the array
    if (first + nodeEntries.size() > block.size()) {
        throw std::logic_error("an index block cannot hold its entries");
    }
    putNumber(block, 0x00, 0x58444E49, 4); // "INDX"
    putNumber(block, 0x04, 0x28, 2);
    putNumber(block, 0x06, arrayEntries, 2);
    putNumber(block, 0x10, vcn, 8);
    putIndexHeader(std::span(block).subspan(0x18), first - 0x18, nodeEntries.size(), block.size() - 0x18, hasChildren);
    std::copy(nodeEntries.begin(), nodeEntries.end(), block.begin() + static_cast<std::ptrdiff_t>(first));
    ntfsProtect(block);
    return block;
}

NtfsTree ntfsIndexTree(NtfsIndexShape const& shape, std::vector<NtfsBytes> const& entries) {
    TreeMaker maker(shape);
    NtfsBytes const top = maker.node(entries, shape.levels);
    return {ntfsIndexRoot(shape, top, shape.levels > 1), std::move(maker.blocks)};
}

} // namespace tests
