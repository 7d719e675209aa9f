// Searching a directory's index.
#include "volumes/NtfsDirectoryIndex.h"

#include "volumes/NtfsOracles.h"

#include <algorithm>
#include <set>
#include <stdexcept>

namespace tests {

namespace {

constexpr std::size_t kStride = 512;
constexpr std::size_t kRootHeader = 0x10;  ///< of the entries, in an INDEX_ROOT
constexpr std::size_t kBlockHeader = 0x18; ///< in a block
constexpr std::uint64_t kRecordMask = 0xFFFF'FFFF'FFFF;

std::uint64_t load(std::string const& bytes, std::size_t offset, unsigned width) {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i) {
        value |= static_cast<std::uint64_t>(static_cast<unsigned char>(bytes.at(offset + i))) << (8 * i);
    }
    return value;
}

char capital(char letter) {
    return letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 'a' + 'A') : letter;
}

std::string capitals(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), capital);
    return text;
}

/// The name in the entry at an offset; characters outside ASCII sort behind all others.
std::string nameOfEntry(std::string const& bytes, std::size_t offset) {
    std::string name(load(bytes, offset + 0x50, 1), '\0');
    for (std::size_t i = 0; i < name.size(); ++i) {
        name[i] = static_cast<char>(std::min<std::uint64_t>(load(bytes, offset + 0x52 + 2 * i, 2), 0x7F));
    }
    return name;
}

} // namespace

DirectoryIndex::DirectoryIndex(std::string const& volume, std::uint64_t record, std::uint64_t clusterBytes)
    : record_(record), root_(attributeContent(volume, record, "0x90", "$I30")),
      blocks_(attributeContent(volume, record, "0xA0", "$I30")), blockBytes_(load(root_, 8, 4)),
      unitBytes_(clusterBytes > blockBytes_ ? kStride : clusterBytes) {
    if (blockBytes_ < kStride || blocks_.size() % blockBytes_ != 0) {
        throw std::runtime_error("the index has blocks of " + std::to_string(blockBytes_) + " bytes");
    }
}

/// One block, with the last two bytes of each stride put back.
std::string DirectoryIndex::block(std::uint64_t vcn) const {
    std::string bytes = blocks_.substr(vcn * unitBytes_, blockBytes_);
    bytes.resize(blockBytes_);
    if (!bytes.starts_with("INDX")) {
        return bytes;
    }
    std::size_t const array = load(bytes, 4, 2);
    for (std::size_t i = 0; i < blockBytes_ / kStride; ++i) {
        bytes.replace(kStride * i + kStride - 2, 2, bytes, array + 2 * (i + 1), 2);
    }
    return bytes;
}

DirectoryIndex::Stop DirectoryIndex::walk(std::string const& bytes, std::size_t header, std::string const& name) {
    std::size_t entry = header + load(bytes, header, 4);
    while (true) {
        std::size_t const length = load(bytes, entry + 8, 2);
        std::uint64_t const flags = load(bytes, entry + 12, 2);
        bool const isLast = (flags & 2) != 0;
        int const order = isLast ? -1 : capitals(name).compare(capitals(nameOfEntry(bytes, entry)));
        if (order == 0) {
            return {load(bytes, entry, 8) & kRecordMask, std::nullopt};
        }
        if (order < 0) {
            bool const hasChild = (flags & 1) != 0;
            return {std::nullopt, hasChild ? std::optional(load(bytes, entry + length - 8, 8)) : std::nullopt};
        }
        entry += length;
    }
}

IndexAnswer DirectoryIndex::search(std::string const& name, std::uint64_t mask) const {
    Stop stop = walk(root_, kRootHeader, name);
    if (!stop.match && !stop.child) {
        return {std::nullopt, "Entry not found - between root entries for key " + name};
    }
    std::set<std::uint64_t> seen;
    while (!stop.match) {
        std::uint64_t const vcn = *stop.child & mask;
        if (!seen.insert(vcn).second) {
            return {std::nullopt, "", true};
        }
        std::string const bytes = block(vcn);
        if (!bytes.starts_with("INDX")) {
            return {std::nullopt, "Corrupt index block signature for key: " + name};
        }
        if (std::uint64_t const stored = load(bytes, 0x10, 8); stored != vcn) {
            return {std::nullopt, "Corrupt index block. VCN doesn't match. Expected: " + std::to_string(vcn) +
                                      ", found: " + std::to_string(stored) + " for key: " + name};
        }
        stop = walk(bytes, kBlockHeader, name);
        if (!stop.match && !stop.child) {
            return {std::nullopt,
                    "Could not find entry for key " + name + " in parent inode " + std::to_string(record_)};
        }
    }
    return {stop.match, ""};
}

} // namespace tests
