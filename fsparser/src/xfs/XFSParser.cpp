// The XFS parser: superblock, geometry and the journal's place.
#include "agent/core/fs/XFSParser.h"

#include "agent/core/fs/FSUtil.h"
#include "xfs/XfsLayout.h"
#include "xfs/XfsLog.h"

#include <stdexcept>
#include <string_view>

namespace agent::core::fs {

using agent::info::Level;
using agent::info::Logger;

XFSParser::XFSParser(Logger& logger, unsigned int alignment, agent::core::IVolumeReader const& volume)
    : logger_(&logger), volume_(&volume), alignment_(alignment) {
    xfs_super_block super{};
    if (!read(0, &super, sizeof super)) {
        throw std::runtime_error("Can't read XFS super block.");
    }
    if (!isXFSFileSystem(&super)) {
        throw std::runtime_error("Not an XFS filesystem");
    }
    magic_ = super.sb_magicnum.value();
    blockSize_ = super.sb_blocksize.value();
    agCount_ = super.sb_agcount.value();
    agBlocks_ = super.sb_agblocks.value();
    totalBlocks_ = super.sb_dblocks.value();
    version_ = super.sb_versionnum.value();
    sectorSize_ = super.sb_sectsize.value();
    logBlocks_ = super.sb_logblocks.value();
    logStart_ = super.sb_logstart.value();
    agBlocksLog_ = super.sb_agblklog;
    logGeometry();
}

XFSParser::~XFSParser() = default;

void XFSParser::logGeometry() const {
    logMagic(*logger_, magic_);
    logDebug(*logger_, "block_size ", blockSize_);
    logDebug(*logger_, "sector_size ", sectorSize_);
    logDebug(*logger_, "ag_count ", agCount_);
    logDebug(*logger_, "ag_blocks ", agBlocks_);
    logDebug(*logger_, "total_blocks ", totalBlocks_);
    logDebug(*logger_, "version ", version_);
    logDebug(*logger_, "log_blocks ", logBlocks_);
    logDebug(*logger_, "log_start ", logStart_);
    logDebug(*logger_, "log2(ag_blocks) ", unsigned{agBlocksLog_}); // as a number, not as a character
}

bool XFSParser::isXFSFileSystem(void* buffer) {
    return buffer != nullptr && std::string_view(static_cast<char const*>(buffer), 4) == "XFSB";
}

bool XFSParser::xfs_sb_version_hascrc(unsigned short version) const {
    return (version & 0xFU) == 5;
}

unsigned long XFSParser::getXFSJournalBlocks() const {
    if (agBlocksLog_ == 0 || logBlocks_ == 0) {
        throw std::runtime_error("Unable to get XFS Journal Blocks due to corrupted superblock!");
    }
    unsigned const shift = agBlocksLog_ % 64U;
    std::uint64_t const agNumber = logStart_ >> shift;
    std::uint64_t const agBlock = logStart_ & ((std::uint64_t{1} << shift) - 1);
    return agBlock + agNumber * agBlocks_;
}

long XFSParser::getChunk(unsigned long offset, char* buffer, unsigned long length) const {
    long const result = fs_get_blocks_bitmap_chunk(length, offset, buffer);
    if (result < 0) {
        // Without the "the" of its siblings' texts, on purpose.
        Logger::Entry(*logger_, Level::Error)
            << "A logical error occurred while attempting to parse XFS bitmap, err: " << result;
    }
    return result;
}

bool XFSParser::read(std::uint64_t address, void* buffer, std::uint64_t length) const {
    unsigned long bytesRead = 0;
    return fs_seek_read_aligned(*logger_, *volume_, alignment_, address, buffer, length, &bytesRead) != -1;
}

} // namespace agent::core::fs
