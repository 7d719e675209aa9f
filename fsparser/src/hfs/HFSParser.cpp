// The HFS+ parser: the volume header once, then for each chunk the stretch of the allocation file that it stands for.
#include "agent/core/fs/HFSParser.h"

#include "agent/core/fs/FSUtil.h"

#include <algorithm>
#include <bit>
#include <stdexcept>
#include <string_view>

namespace agent::core::fs {

using agent::info::Level;
using agent::info::Logger;

namespace {

constexpr unsigned int kAllocationFileId = 6;

bool isEmpty(HFSPlusExtentDescriptor const& extent) {
    return extent.startBlock.value() == 0 && extent.blockCount.value() == 0;
}

/// The extents before the first empty one; none where no extent is empty, on purpose: a list that is filled exactly has
/// no end, and so no map.
std::span<HFSPlusExtentDescriptor const> usedExtents(std::vector<HFSPlusExtentDescriptor> const& extents) {
    auto const end = std::find_if(extents.begin(), extents.end(), isEmpty);
    return {extents.data(), end == extents.end() ? 0 : static_cast<std::size_t>(end - extents.begin())};
}

} // namespace

/// The part of the allocation file that a chunk asks for.
struct HFSParser::Stretch {
    std::uint64_t firstByte; ///< of the allocation file
    std::span<char> buffer;
    std::uint64_t blockSize;
    std::uint64_t bitmapBytes; ///< of the whole volume
};

HFSParser::HFSParser(Logger& logger, unsigned int alignment, agent::core::IVolumeReader const& volume)
    : logger_(&logger), volume_(&volume), alignment_(alignment) {
    unsigned long bytesRead = 0;
    // At byte 0 of what the reader presents and not at byte 1024, on purpose.
    if (fs_seek_read_aligned(logger, volume, alignment_, 0, &header_, sizeof header_, &bytesRead) == -1) {
        throw std::runtime_error("Error reading HFS+ superblock.");
    }
    if (!isHFSFileSystem(&header_)) {
        throw std::runtime_error("Not an HFS+ filesystem.");
    }
}

HFSParser::~HFSParser() = default;

bool HFSParser::isHFSFileSystem(void* buffer) {
    if (buffer == nullptr) {
        return false;
    }
    std::string_view const signature(static_cast<char const*>(buffer), 2);
    return signature == "H+" || signature == "HX";
}

bool HFSParser::isMostSignificantBitFirst() const {
    return true;
}

long HFSParser::getChunk(unsigned long offset, char* buffer, unsigned long length) const {
    long const result = fs_get_blocks_bitmap_chunk(offset, buffer, length);
    if (result < 0) {
        Logger::Entry(*logger_, Level::Error)
            << "A logical error occurred while attempting to parse the HFS bitmap, err: " << result;
    }
    return result;
}

unsigned long HFSParser::fs_get_num_blocks(HFSPlusForkData const& fork) const {
    unsigned long blocks = 0;
    for (HFSPlusExtentDescriptor const& extent : fork.extents) {
        blocks += extent.blockCount.value();
    }
    return blocks;
}

long HFSParser::fs_get_blocks_bitmap_chunk(unsigned long offset, char* buffer, unsigned long length) const {
    std::uint64_t const totalBlocks = header_.totalBlocks.value();
    if (offset >= totalBlocks) {
        return 0;
    }
    if (offset % 8 != 0) {
        fail("startBlock must be divisible by 8");
        return -1;
    }
    std::vector<HFSPlusExtentDescriptor> extents(kHfsExtents);
    if (!findBitmap(extents)) {
        return -1;
    }
    long const units = copyBitmap(usedExtents(extents),
                                  {offset / 8, {buffer, length}, header_.blockSize.value(), (totalBlocks + 7) / 8});
    return std::min(units, static_cast<long>(totalBlocks - offset));
}

bool HFSParser::findBitmap(std::vector<HFSPlusExtentDescriptor>& extents) const {
    HFSPlusForkData const& fork = header_.allocationFile;
    if (fork.totalBlocks.value() > fs_get_num_blocks(fork)) {
        Logger::Entry(*logger_, Level::Debug) << "Bitmap extents overflow file needed.";
        if (!fs_search_overflow(header_, kAllocationFileId, extents)) {
            return fail("Couldn't parse extent overflow file for bitmap extents.");
        }
    }
    std::copy(fork.extents.begin(), fork.extents.end(), extents.begin());
    return true;
}

long HFSParser::copyBitmap(std::span<HFSPlusExtentDescriptor const> extents, Stretch const& stretch) const {
    std::uint64_t position = stretch.firstByte;
    std::uint64_t blocksBefore = 0; // of the file, before the current extent
    std::uint64_t done = 0;         // bytes
    for (HFSPlusExtentDescriptor const& extent : extents) {
        std::uint64_t const blocksAfter = blocksBefore + extent.blockCount.value();
        std::uint64_t const end = blocksAfter * stretch.blockSize;
        if (done == 0 && end <= position) {
            blocksBefore = blocksAfter;
            continue;
        }
        // The last bound counts from the start of this chunk and not of the bitmap, on purpose.
        std::uint64_t const count =
            std::min({end - position, stretch.buffer.size() - done, stretch.bitmapBytes - done});
        if (count == 0) {
            break;
        }
        std::uint64_t const address = (extent.startBlock.value() - blocksBefore) * stretch.blockSize + position;
        if (!readBlocks(stretch.blockSize, address, stretch.buffer.data() + done, count)) {
            fail("Error in HFS+ parsing read.");
            return -1;
        }
        blocksBefore = blocksAfter;
        done += count;
        position = end;
        if (done >= stretch.buffer.size()) {
            break;
        }
    }
    return static_cast<long>(done * 8);
}

bool HFSParser::readBlocks(std::uint64_t blockSize, std::uint64_t address, void* buffer, std::uint64_t length) const {
    if (!std::has_single_bit(blockSize)) {
        return false; // no memory is aligned that way
    }
    unsigned long bytesRead = 0;
    return fs_seek_read_aligned(*logger_, *volume_, blockSize, address, buffer, length, &bytesRead) == 0;
}

bool HFSParser::fail(char const* message) const {
    Logger::Entry(*logger_, Level::Error) << message;
    return false;
}

} // namespace agent::core::fs
