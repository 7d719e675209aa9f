// Lookup of one entry in an index B-tree.
#include "BoundedRead.h"
#include "ZeroedBuffer.h"
#include "agent/StringUtils.h"
#include "agent/core/fs/FSUtil.h"
#include "agent/core/fs/NTFSParser.h"
#include "ntfs/NtfsLayout.h"
#include "ntfs/Runlist.h"
#include "ntfs/Shifts.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

namespace agent::core::fs {

using agent::info::Level;
using agent::info::Logger;

namespace {

/// Collation rules of NTFS, which tell the two kinds of key apart.
constexpr unsigned int kFileNameKey = 1;
constexpr unsigned int kSecurityIdKey = 16;

constexpr char const* kSecurityIndexName = "$SII";

constexpr std::uint32_t kSmallestBlock = 512;

/// The header of an entry, the least that can be at hand.
constexpr std::uint64_t kEntryHeader = 16;

/// A file reference that leads nowhere.
constexpr std::uint64_t kNoReference = std::numeric_limits<std::uint64_t>::max();

std::string const& nameOf(void const* value) {
    return *static_cast<std::string const*>(value);
}

unsigned int identifierOf(void const* value) {
    return *static_cast<unsigned int const*>(value);
}

} // namespace

/// A key, and what comparing it with many entries needs once.
struct NTFSParser::PreparedKey {
    PreparedKey(NTFSParser const& owner, BTreeKey const& searched)
        : parser(owner), key(searched),
          wide(searched.type == kFileNameKey ? agent::StringUtils::StrToWStr(nameOf(searched.value)) : std::wstring()) {
    }

    /// For messages.
    std::string text() const { return parser.keyToString(key); }

    NTFSParser const& parser;
    BTreeKey const& key;
    std::wstring wide; ///< of a name
};

/// The entries of one node: the bytes at hand, where the walk stands, and where the entries end.
struct NTFSParser::IndexNode {
    Bytes bytes;
    std::uint64_t position;
    std::uint64_t end;

    Bytes entry() const { return from(bytes, position); }

    /// The first 40 bytes of the current entry; what lies past the bytes at hand is zero.
    ntfs_index_entry copy() const {
        ntfs_index_entry result{};
        std::memcpy(&result, entry().data(), std::min(entry().size(), sizeof result));
        return result;
    }
};

namespace {

/// Header of an entry that walkNode() has found to be inside its node.
ntfs_index_entry headerOf(std::span<std::uint8_t const> entry) {
    ntfs_index_entry header{};
    std::memcpy(&header, entry.data(), std::min<std::size_t>(entry.size(), kEntryHeader));
    return header;
}

[[noreturn]] void failOutOfBounds(std::string const& key) {
    throw std::runtime_error("Index entry out of bounds in inode for node with key " + key);
}

/// The value of a resident attribute.
std::span<std::uint8_t const> valueOf(std::span<std::uint8_t const> attribute) {
    auto const form = readAt<ntfs_resident_form>(attribute, kAttributeForm);
    return from(attribute, form ? form->value_offset.value() : attribute.size());
}

int compareIdentifiers(unsigned int key, unsigned int entry) {
    if (key == entry) {
        return 0;
    }
    return key < entry ? -1 : 1;
}

bool hasChild(std::span<std::uint8_t const> entry) {
    return (headerOf(entry).flags.value() & kEntryHasChild) != 0;
}

/// An entry of a directory whose reference is all ones never matches.
bool isMatch(bool found, std::span<std::uint8_t const> entry, unsigned int keyType) {
    return found && !(keyType == kFileNameKey && headerOf(entry).file_reference.value() == kNoReference);
}

} // namespace

std::string NTFSParser::keyToString(BTreeKey const& key) const {
    switch (key.type) {
    case kFileNameKey:
        return nameOf(key.value);
    case kSecurityIdKey:
        return std::to_string(identifierOf(key.value));
    default:
        throw std::runtime_error("Key type not recognized, aborting operation.");
    }
}

ntfs_index_entry NTFSParser::btree_lookup(unsigned long parent, BTreeKey const& key) {
    std::string const text = keyToString(key);
    Logger::Entry(logger, Level::Debug) << "Searching for \"" << text << "\" in b-tree of parent inode " << parent;
    PreparedKey const prepared(*this, key);
    ZeroedBuffer record(mftRecordSize);
    Bytes const root = valueOf(indexAttribute(parent, key, kIndexRoot, "INDEX_ROOT", record));
    auto const header = readAt<ntfs_index_root>(root, 0);
    std::uint32_t const blockBytes = header ? header->index_block_size.value() : 0;
    if (blockBytes < kSmallestBlock || !std::has_single_bit(blockBytes)) {
        throw std::runtime_error("Invalid index block size");
    }
    constexpr std::uint64_t indexHeader = offsetof(ntfs_index_root, index);
    IndexNode node{root, indexHeader + header->index.entries_offset.value(),
                   indexHeader + header->index.index_length.value()};
    bool const found = walkNode(node, prepared); // moves to the entry that is looked at next
    if (isMatch(found, node.entry(), key.type)) {
        return node.copy();
    }
    if (!hasChild(node.entry())) {
        throw std::runtime_error("Entry not found - between root entries for key " + prepared.text());
    }
    return descend(parent, prepared, childVcn(node, prepared), blockBytes);
}

NTFSParser::Bytes NTFSParser::indexAttribute(unsigned long parent, BTreeKey const& key, NtfsAttrTypes type,
                                             std::string const& name, ZeroedBuffer& record) {
    read_mft_record_throw(parent, record.data(), "");
    auto* const header = reinterpret_cast<ntfs_mft_record_t*>(record.data());
    AttributeHits const hits = get_attributes(parent, header, type);
    if (hits.empty()) {
        throw std::runtime_error("Could not find " + name + " for key " + keyToString(key) + " in parent inode " +
                                 std::to_string(parent));
    }
    AttributeHit const hit =
        key.type == kSecurityIdKey ? findAttributeByName(parent, header, hits, kSecurityIndexName) : hits.front();
    if (hit.first != parent) {
        read_mft_record_throw(hit.first, record.data(), std::to_string(parent));
    }
    return from(record.bytes(), static_cast<std::uint64_t>(hit.second));
}

ntfs_index_entry NTFSParser::descend(unsigned long parent, PreparedKey const& key, std::uint8_t child,
                                     std::uint32_t blockBytes) {
    ZeroedBuffer record(mftRecordSize);
    std::vector<ntfs_runlist> const runs =
        decodeMappingPairs(indexAttribute(parent, key.key, kIndexAllocation, "INDEX_ALLOCATION", record));
    // In 16 bits, on purpose: 64 KiB clusters count as 0, and both shifts as all ones.
    std::uint32_t const cluster = clusterSize16();
    std::uint32_t const clusterShift = log2Of(cluster);
    // VCNs count 512 bytes when blocks are smaller than clusters, clusters otherwise.
    std::uint32_t const blockShift = cluster > blockBytes ? 9 : clusterShift;

    ZeroedBuffer block(blockBytes);
    bool isUsed = false;
    while (true) {             // no limit on the depth and no look-out for a cycle, on purpose
        long firstVcn = child; // unscaled, also when it counts 512 bytes; on purpose
        ntfs_runlist const run = runlist_from_vcn(runs, firstVcn);
        std::uint64_t const position = shiftLeft(child, blockShift) -
                                       shiftLeft(static_cast<std::uint64_t>(firstVcn), clusterShift) +
                                       shiftLeft(static_cast<std::uint64_t>(run.lcn), clusterShift);
        if (std::exchange(isUsed, true)) {
            block.clear();
        }
        unsigned long count = 0;
        if (fs_seek_read_aligned(logger, volume, blockSize, position, block.data(), blockBytes, &count) != 0) {
            throw std::runtime_error("Unable to read INDEX ENTRY");
        }
        // A torn block shows in its magic.
        post_read_fixup(block.data(), static_cast<unsigned>(count), blockBytes);
        auto const* const header = reinterpret_cast<ntfs_index_allocation const*>(block.data());
        check_index_block_consistency(header, blockBytes, child, key.text());

        constexpr std::uint64_t indexHeader = offsetof(ntfs_index_allocation, index);
        IndexNode node{block.bytes(), indexHeader + header->index.entries_offset.value(),
                       indexHeader + header->index.index_length.value()};
        bool const found = walkNode(node, key);
        if (isMatch(found, node.entry(), key.key.type)) {
            return node.copy();
        }
        if (!hasChild(node.entry())) {
            throw std::runtime_error("Could not find entry for key " + key.text() + " in parent inode " +
                                     std::to_string(parent));
        }
        if ((header->index.flags & kNodeHasChildren) == 0) {
            throw std::runtime_error("Index entry with child node found in a leaf node containing key " + key.text());
        }
        child = childVcn(node, key);
    }
}

/// Of the eight bytes of a child's VCN the lowest alone, on purpose.
std::uint8_t NTFSParser::childVcn(IndexNode const& node, PreparedKey const& key) const {
    Bytes const entry = node.entry();
    std::uint16_t const length = headerOf(entry).entry_length.value();
    if (length < 8 || !holds(entry, length - 8U, 1)) {
        failOutOfBounds(key.text());
    }
    return entry[length - 8U];
}

bool NTFSParser::traverse_index_entry(ntfs_index_entry** entry, unsigned char const* end,
                                      unsigned char const* lowerBound, BTreeKey const& key) const {
    auto const* const current = reinterpret_cast<unsigned char const*>(*entry);
    PreparedKey const prepared(*this, key);
    if (current < lowerBound || end < lowerBound) {
        failOutOfBounds(prepared.text());
    }
    auto const size = static_cast<std::size_t>(end - lowerBound);
    IndexNode node{{lowerBound, size}, static_cast<std::uint64_t>(current - lowerBound), size};
    bool const found = walkNode(node, prepared);
    *entry = reinterpret_cast<ntfs_index_entry*>(reinterpret_cast<unsigned char*>(*entry) +
                                                 (node.position - static_cast<std::uint64_t>(current - lowerBound)));
    return found;
}

bool NTFSParser::walkNode(IndexNode& node, PreparedKey const& key) const {
    std::uint64_t const end = std::min<std::uint64_t>(node.end, node.bytes.size());
    while (true) {
        if (node.position > end || end - node.position < kEntryHeader) {
            failOutOfBounds(key.text());
        }
        Bytes const entry = node.entry();
        ntfs_index_entry const header = headerOf(entry);
        std::uint16_t const length = header.entry_length.value();
        if (length > end - node.position) {
            failOutOfBounds(key.text());
        }
        if ((header.flags.value() & kEntryIsLast) != 0) {
            return false;
        }
        checkEntry(entry, key);
        int const order = collateEntry(entry, key);
        if (order <= 0) {
            return order == 0;
        }
        if (length == 0) {
            failOutOfBounds(key.text()); // it would never advance
        }
        node.position += length;
    }
}

int NTFSParser::collateEntry(Bytes entry, PreparedKey const& key) const {
    switch (key.key.type) {
    case kFileNameKey:
        return collateNames(entry, key.wide);
    case kSecurityIdKey: {
        auto const identifier = readAt<le32>(entry, offsetof(ntfs_index_entry, key));
        if (!identifier) {
            failOutOfBounds(key.text());
        }
        return compareIdentifiers(identifierOf(key.key.value), identifier->value());
    }
    default:
        throw std::runtime_error("Key type not recognized, aborting collation.");
    }
}

int NTFSParser::collate_index_names(ntfs_index_entry** entry, std::string const& name) const {
    // Given a pointer alone, the caller vouches for the name behind it.
    auto const* const bytes = reinterpret_cast<std::uint8_t const*>(*entry);
    std::size_t const size = kEntryName + std::size_t{bytes[kEntryNameLength]} * sizeof(unsigned short);
    return collateNames({bytes, size}, agent::StringUtils::StrToWStr(name));
}

/// The entry holds its whole name: checkEntry() or the caller has made sure.
int NTFSParser::collateNames(Bytes entry, std::wstring const& name) const {
    std::size_t const length = entry[kEntryNameLength];
    std::array<unsigned short, 255> own; // not cleared for each entry: what is looked at is copied next
    std::memcpy(own.data(), entry.data() + kEntryName, length * sizeof(unsigned short));
    // The table's length is a byte count, on purpose.
    return collate_unicode_names(name.data(), static_cast<unsigned>(name.size()), own.data(),
                                 static_cast<unsigned>(length), true, upcaseTable(), upcaseLength);
}

int NTFSParser::collate_index_security_IDs(ntfs_index_entry** entry, unsigned int const& identifier) const {
    return compareIdentifiers(identifier, (*entry)->key.value());
}

void NTFSParser::check_index_entry_consistency(ntfs_index_entry const* entry, BTreeKey const& key) const {
    std::size_t const length = std::max<std::size_t>(entry->entry_length.value(), kEntryHeader);
    checkEntry({reinterpret_cast<std::uint8_t const*>(entry), length}, PreparedKey(*this, key));
}

void NTFSParser::checkEntry(Bytes entry, PreparedKey const& key) const {
    ntfs_index_entry const header = headerOf(entry);
    std::uint32_t const length = header.entry_length.value();
    if (length != 0 && header.key_length.value() + kEntryHeader > length) {
        throw std::runtime_error("Overflow from index entry for key: " + key.text());
    }
    if (key.key.type == kFileNameKey) {
        // An entry shorter than its fixed part has no name length that could be read.
        if (length < kEntryName || kEntryName + std::uint64_t{2} * entry[kEntryNameLength] > length) {
            throw std::runtime_error("Filename overflow from index entry for key: " + key.text());
        }
        return;
    }
    if (key.key.type == kSecurityIdKey) {
        auto const reference = header.file_reference.value();
        std::uint32_t const dataOffset = reference & 0xFFFFU;
        std::uint32_t const dataLength = (reference >> 16) & 0xFFFFU;
        if (dataLength != 0 && dataOffset + dataLength > length) {
            throw std::runtime_error("Data overflow from index entry for key: " + key.text());
        }
        return;
    }
    throw std::runtime_error("Invalid key type for key: " + key.text());
}

void NTFSParser::check_index_block_consistency(ntfs_index_allocation const* block, unsigned long expectedSize, long vcn,
                                               std::string const& key) const {
    auto const stored = static_cast<std::int64_t>(block->index_block_vcn.value());
    std::uint64_t const allocated = block->index.allocated_size.value();
    std::uint64_t const size = allocated + offsetof(ntfs_index_allocation, index);
    std::uint32_t const entries = block->index.entries_offset.value();
    std::uint32_t const length = block->index.index_length.value();
    if (block->header.magic.value() != kMagicIndx) {
        throw std::runtime_error("Corrupt index block signature for key: " + key);
    }
    if (stored != vcn) {
        throw std::runtime_error("Corrupt index block. VCN doesn't match. Expected: " + std::to_string(vcn) +
                                 ", found: " + std::to_string(stored) + " for key: " + key);
    }
    if (size != expectedSize) {
        throw std::runtime_error(
            "Corrupt index block. Block size doesn't match. Expected: " + std::to_string(expectedSize) +
            ", found: " + std::to_string(size) + " for key: " + key);
    }
    if (entries < 16) {
        throw std::runtime_error("Invalid index entry offset for key: " + key);
    }
    if (entries >= length) {
        throw std::runtime_error("No space available in index entry for key: " + key);
    }
    if (allocated < length) {
        throw std::runtime_error("Index entries overflow for key: " + key);
    }
}

} // namespace agent::core::fs
