// The HFS+ B-tree structures as they stand on disk.
#pragma once

#include "agent/core/fs/HFSTypes.h"

namespace agent::core::fs {

/// What a B-tree node holds.
enum HfsNodeKind : std::int8_t {
    kHfsLeafNode = -1,
    kHfsIndexNode = 0,
    kHfsHeaderNode = 1,
    kHfsMapNode = 2,
};

/// The beginning of every B-tree node.
struct BTNodeDescriptor {
    be32 fLink;          // 0x00
    be32 bLink;          // 0x04
    std::int8_t kind;    // 0x08
    std::uint8_t height; // 0x09
    be16 numRecords;     // 0x0A
    be16 reserved;       // 0x0C
};

static_assert(sizeof(BTNodeDescriptor) == 14 && alignof(BTNodeDescriptor) == 1);
static_assert(offsetof(BTNodeDescriptor, kind) == 0x08);
static_assert(offsetof(BTNodeDescriptor, numRecords) == 0x0A);

/// The first record of a tree's header node, right after its descriptor.
struct BTHeaderRec {
    be16 treeDepth;                     // 0x00
    be32 rootNode;                      // 0x02
    be32 leafRecords;                   // 0x06
    be32 firstLeafNode;                 // 0x0A
    be32 lastLeafNode;                  // 0x0E
    be16 nodeSize;                      // 0x12: bytes
    be16 maxKeyLength;                  // 0x14
    be32 totalNodes;                    // 0x16
    be32 freeNodes;                     // 0x1A
    std::array<std::uint8_t, 76> other; // 0x1E
};

static_assert(sizeof(BTHeaderRec) == 106 && alignof(BTHeaderRec) == 1);
static_assert(offsetof(BTHeaderRec, rootNode) == 0x02);
static_assert(offsetof(BTHeaderRec, nodeSize) == 0x12);

/// The key of a record of the extents-overflow tree.
struct HFSPlusExtentKey {
    be16 keyLength;        // 0x00: bytes of the key without this field
    std::uint8_t forkType; // 0x02
    std::uint8_t pad;      // 0x03
    be32 fileID;           // 0x04
    be32 startBlock;       // 0x08
};

static_assert(sizeof(HFSPlusExtentKey) == 12 && alignof(HFSPlusExtentKey) == 1);
static_assert(offsetof(HFSPlusExtentKey, fileID) == 0x04);

/// The data of such a record.
using HFSPlusExtentRecord = std::array<HFSPlusExtentDescriptor, kHfsExtents>;

static_assert(sizeof(HFSPlusExtentRecord) == 64);

/// Bytes of a record's place in the table at the end of its node.
inline constexpr std::uint64_t kHfsSlotBytes = 2;

} // namespace agent::core::fs
