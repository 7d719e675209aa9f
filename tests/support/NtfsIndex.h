// Index trees, the upcase table and the security stream of NTFS volumes for tests.
#pragma once

#include "support/NtfsBytes.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tests {

/// A table of 65536 characters: Latin, Greek and Cyrillic letters have capitals, all others stand for themselves.
std::vector<std::uint16_t> const& ntfsUpcaseTable();

/// The table as it stands on disk.
NtfsBytes ntfsUpcaseBytes();

/// One name in a directory.
struct NtfsName {
    std::u16string name;
    std::uint64_t reference;    ///< record number, and the sequence number from bit 48 on
    std::uint8_t nameSpace = 1; ///< the long one
};

/// One descriptor of the security stream.
struct NtfsDescriptor {
    std::uint32_t id;
    NtfsBytes bytes;
};

/// Where a descriptor stands in the stream: its entry, header included.
struct NtfsSdsPlace {
    std::uint32_t id;
    std::uint32_t hash;
    std::uint64_t offset;
    std::uint32_t length;
};

/// A self-relative descriptor: owner and group S-1-5-32-544, full access for S-1-5-18 and read access for S-1-1-0.
NtfsBytes ntfsSampleDescriptor();

/// The stream, with its copy 256 KiB behind.
NtfsBytes ntfsSdsStream(std::vector<NtfsDescriptor> const& descriptors);

/// Where ntfsSdsStream() puts them.
std::vector<NtfsSdsPlace> ntfsSdsPlaces(std::vector<NtfsDescriptor> const& descriptors);

/// Entries without child, in the order that a directory keeps: by capitals, in code units.
std::vector<NtfsBytes> ntfsNameEntries(std::vector<NtfsName> names, std::uint64_t parentReference);

/// Entries of $SII without child, by identifier.
std::vector<NtfsBytes> ntfsIdentifierEntries(std::vector<NtfsSdsPlace> places);

/// One entry with any key; `header` is the first eight bytes.
NtfsBytes ntfsIndexEntry(std::uint64_t header, NtfsBytes const& key);

/// The entries of a node as they stand on disk, with the end entry. `children` is empty (a leaf) or one longer than
/// `entries`.
NtfsBytes ntfsNodeEntries(std::vector<NtfsBytes> const& entries, std::vector<std::uint64_t> const& children);

/// The shape of an index.
struct NtfsIndexShape {
    std::uint32_t type = ntfs_type::kFileName; ///< 0 in $SII
    std::uint32_t collation = 1;               ///< 16 in $SII
    std::uint32_t blockBytes = 4096;
    std::uint32_t clusterBytes = 4096;
    unsigned levels = 1; ///< nodes from the root to a leaf: 1 has no blocks
    unsigned fanOut = 3; ///< children of a node that has any

    /// Clusters a block takes, or where clusters are larger units of 512 bytes: what a child's VCN counts.
    std::uint64_t unitsPerBlock() const {
        return clusterBytes > blockBytes ? blockBytes / 512 : blockBytes / clusterBytes;
    }
};

/// A tree of entries.
struct NtfsTree {
    NtfsBytes root;                ///< the value of the INDEX_ROOT
    std::vector<NtfsBytes> blocks; ///< protected; none where the root is a leaf
};

/// The value of an INDEX_ROOT.
NtfsBytes ntfsIndexRoot(NtfsIndexShape const& shape, NtfsBytes const& nodeEntries, bool hasChildren);

/// An index block, protected.
NtfsBytes ntfsIndexBlock(NtfsIndexShape const& shape, std::uint64_t vcn, NtfsBytes const& nodeEntries,
                         bool hasChildren);

/// Spreads the entries over a tree. Among the blocks, children come before the node above them.
NtfsTree ntfsIndexTree(NtfsIndexShape const& shape, std::vector<NtfsBytes> const& entries);

} // namespace tests
