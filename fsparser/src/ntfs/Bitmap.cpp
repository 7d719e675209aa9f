// The used-cluster bitmap, and whole runs into memory.
#include "ZeroedBuffer.h"
#include "agent/core/fs/FSUtil.h"
#include "agent/core/fs/NTFSParser.h"
#include "ntfs/NtfsLayout.h"
#include "ntfs/Shifts.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace agent::core::fs {

using agent::info::Level;
using agent::info::Logger;

namespace {

constexpr unsigned long kBitmapRecord = 6;

/// What fs_get_blocks_bitmap_chunk returns when it fails.
enum BitmapCode : long {
    kNoSectors = -508,
    kCountsDiffer = -520,
    kNotAMultiple = -535,
    kBitmapTooShort = -559,
};

} // namespace

long NTFSParser::getChunk(unsigned long offset, char* buffer, unsigned long length) const {
    long const result = fs_get_blocks_bitmap_chunk(length, offset, buffer);
    if (result < 0) {
        Logger::Entry(logger, Level::Error)
            << "A logical error occurred while attempting to parse the NTFS bitmap, err: " << result;
    }
    return result;
}

long NTFSParser::fs_get_blocks_bitmap_chunk(unsigned long length, unsigned long lcn, char* buffer) const {
    if (sectorsPerCluster == 0) {
        Logger::Entry(logger, Level::Debug) << "Invalid sectors per cluster.";
        return kNoSectors;
    }
    auto const sectors = static_cast<std::uint64_t>(totalSectors);
    std::uint64_t const clusters = shiftRight(sectors, log2Of(sectorsPerCluster));
    std::uint64_t const otherCount = sectors / sectorsPerCluster;
    if (clusters != otherCount) {
        Logger::Entry(logger, Level::Debug)
            << "Sanity check failed. ClusterCount: " << clusters << " Alt ClusterCount: " << otherCount;
        return kCountsDiffer;
    }
    if (clusters <= lcn) {
        Logger::Entry(logger, Level::Debug)
            << "LCN: " << lcn << " Total blocks: " << clusters << ". Nothing more to read in bitmap.";
        return 0;
    }
    if (lcn % 8 != 0) {
        Logger::Entry(logger, Level::Debug) << "LCN " << lcn << " is not a multiple of 8.";
        return kNotAMultiple;
    }
    std::vector<ntfs_runlist> const runs = get_inode_runlist(kBitmapRecord);
    std::uint64_t bitmapBits = 0;
    for (ntfs_runlist const& run : runs) {
        bitmapBits += static_cast<std::uint64_t>(run.length) * clusterSize() * 8;
    }
    if (bitmapBits < clusters) {
        // The words say bytes and the numbers are bits, on purpose.
        Logger::Entry(logger, Level::Debug) << "Sanity check failed on total bytes from BootRecord: " << clusters
                                            << " vs total bytes from Bitmap: " << bitmapBits;
        return kBitmapTooShort;
    }
    std::fill_n(buffer, length, '\0');
    return readBitmap(runs, lcn, {reinterpret_cast<std::uint8_t*>(buffer), length});
}

long NTFSParser::readBitmap(std::vector<ntfs_runlist> const& runs, std::uint64_t lcn,
                            std::span<std::uint8_t> buffer) const {
    std::uint64_t const skip = lcn / 8;
    std::uint64_t written = 0;
    std::uint64_t passed = 0;
    bool first = true;
    unsigned long count = 0;
    for (ntfs_runlist const& run : runs) {
        std::uint64_t runBytes = static_cast<std::uint64_t>(run.length) * clusterSize();
        passed += runBytes;
        if (passed * 8 < lcn) {
            continue;
        }
        std::uint64_t offset = static_cast<std::uint64_t>(run.lcn) * clusterSize();
        if (first) {
            // The whole of it, also when earlier runs were passed over; on purpose.
            offset += skip;
            runBytes -= skip;
        }
        std::uint64_t const wanted = std::min(runBytes, buffer.size() - written);
        long const result =
            fs_seek_read_aligned(logger, volume, blockSize, offset, buffer.data() + written, wanted, &count);
        if (result != 0) {
            return result;
        }
        written += count;
        if (written == buffer.size()) {
            break;
        }
        first = false;
    }
    return static_cast<long>(written * 8);
}

unsigned long NTFSParser::iterateDataRuns(unsigned short* destination, std::vector<ntfs_runlist> const& runs,
                                          BufferType type, std::string const& errorText) {
    // The caller vouches for the destination.
    std::span<std::uint8_t> const unbounded{reinterpret_cast<std::uint8_t*>(destination),
                                            static_cast<std::size_t>(std::numeric_limits<std::ptrdiff_t>::max())};
    return readRuns(unbounded, runs, type, errorText);
}

std::uint64_t NTFSParser::readRuns(std::span<std::uint8_t> destination, std::vector<ntfs_runlist> const& runs,
                                   BufferType type, std::string const& errorText) const {
    std::uint32_t const shift = log2Of(clusterSize());
    std::uint64_t done = 0;
    for (ntfs_runlist const& run : runs) {
        std::uint64_t const bytes = std::uint64_t{clusterSize()} * static_cast<std::uint64_t>(run.length);
        // In 16-bit units the byte count serves as the index, on purpose: a second run lands at twice its position.
        std::uint64_t const place = type == BufferType::Units16 ? done * 2 : done;
        if (bytes > static_cast<std::uint64_t>(std::numeric_limits<std::ptrdiff_t>::max())) {
            throw std::runtime_error(errorText); // a length that wraps around
        }
        bool const fits = place <= destination.size() && bytes <= destination.size() - place;
        ZeroedBuffer overflow(fits ? 0 : bytes); // read as every run is, though not all of it has a place
        unsigned long count = 0;
        if (fs_seek_read_aligned(logger, volume, blockSize, shiftLeft(static_cast<std::uint64_t>(run.lcn), shift),
                                 fits ? destination.data() + place : overflow.data(), bytes, &count) != 0) {
            throw std::runtime_error(errorText);
        }
        if (!fits && place < destination.size()) {
            std::copy_n(overflow.data(), destination.size() - place, destination.data() + place);
        }
        done += bytes;
    }
    return done;
}

} // namespace agent::core::fs
