// Nodes of the free-space trees.
#include "agent/core/fs/XFSParser.h"
#include "xfs/XfsLayout.h"
#include "xfs/XfsLog.h"

#include <stdexcept>

namespace agent::core::fs {

namespace {

std::uint32_t toHost(std::uint32_t bigEndian) {
    return __builtin_bswap32(bigEndian);
}

/// The header's length follows from the node's own magic, not from the superblock's version.
std::uint32_t headerBytes(std::uint32_t magic) {
    return magic == kXfsByBlockTreeMagic5 ? kXfsNodeHeader5 : kXfsNodeHeader;
}

/// Keys of an inner node that has room for all; as its child pointers. The difference wraps where a block is shorter
/// than the header.
std::uint32_t mostKeys(std::uint32_t blockSize, std::uint32_t header) {
    return (blockSize - header) / (kXfsRecordBytes + kXfsPointerBytes);
}

std::uint32_t mostRecords(std::uint32_t blockSize, std::uint32_t header) {
    return (blockSize - header) / kXfsRecordBytes;
}

} // namespace

XFSParser::XFSBTreeNode::XFSBTreeNode(XFSParser const* parser, unsigned int agNumber, unsigned int agBlock) {
    if (agBlock == kXfsNullBlock) {
        throw std::runtime_error("XFS: cannot create null btree node");
    }
    std::uint64_t const address =
        parser->blockSize_ * (std::uint64_t{parser->agBlocks_} * agNumber + std::uint64_t{agBlock});
    logDebug(*parser->logger_, "btn addr = ", address);
    xfs_btree_block header{};
    if (!parser->read(address, &header, sizeof header)) { // always 56 bytes, on purpose
        throw std::runtime_error("XFS: cannot read btree node header");
    }
    magic = header.bb_magic.value();
    num_recs = header.bb_numrecs.value();
    level = header.bb_level.value();
    left_sib = header.bb_leftsib.value();
    right_sib = header.bb_rightsib.value();
    if (magic != kXfsByBlockTreeMagic && magic != kXfsByBlockTreeMagic5) {
        throw std::runtime_error("XFS: Invalid btree node magic number.");
    }
    std::uint32_t const length = headerBytes(magic);
    if (num_recs > (level != 0 ? mostKeys(parser->blockSize_, length) : mostRecords(parser->blockSize_, length))) {
        throw std::runtime_error("XFS: Invalid num_recs in btree node.");
    }
    if (num_recs == 0 && level != 0) {
        throw std::runtime_error("XFS: Internal node can't have 0 records.");
    }
    readRecords(*parser, address + length);
    if (level != 0) {
        readChildren(*parser, address + length + std::uint64_t{mostKeys(parser->blockSize_, length)} * kXfsRecordBytes);
    }
    logNode(*parser);
}

XFSParser::XFSBTreeNode::XFSBTreeNode(XFSBTreeNode&& other) noexcept = default;
XFSParser::XFSBTreeNode& XFSParser::XFSBTreeNode::operator=(XFSBTreeNode&& other) noexcept = default;
XFSParser::XFSBTreeNode::~XFSBTreeNode() = default;

void XFSParser::XFSBTreeNode::readRecords(XFSParser const& parser, std::uint64_t address) {
    records = std::make_unique<xfs_btree_record[]>(num_recs);
    if (num_recs == 0) {
        return; // an empty leaf; no read is of 0 bytes
    }
    if (!parser.read(address, records.get(), std::uint64_t{num_recs} * kXfsRecordBytes)) {
        throw std::runtime_error("XFS: Can't read records in btree node.");
    }
    for (std::size_t i = 0; i < num_recs; ++i) {
        records[i] = {toHost(records[i].start), toHost(records[i].count)};
    }
}

void XFSParser::XFSBTreeNode::readChildren(XFSParser const& parser, std::uint64_t address) {
    children = std::make_unique<std::uint32_t[]>(num_recs);
    if (!parser.read(address, children.get(), std::uint64_t{num_recs} * kXfsPointerBytes)) {
        throw std::runtime_error("XFS: Can't read children in btree node.");
    }
    for (std::size_t i = 0; i < num_recs; ++i) {
        children[i] = toHost(children[i]);
    }
}

void XFSParser::XFSBTreeNode::logNode(XFSParser const& parser) const {
    logDebug(*parser.logger_, "---BTN HERE---");
    logMagic(*parser.logger_, magic);
    logDebug(*parser.logger_, "level ", level);
    logDebug(*parser.logger_, "num_recs ", num_recs);
    logDebug(*parser.logger_, "left_sib ", left_sib);
    logDebug(*parser.logger_, "right_sib ", right_sib);
    logDebug(*parser.logger_, "---BTN END---");
}

} // namespace agent::core::fs
