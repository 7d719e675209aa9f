// A $Bitmap that lies in several runs.
#pragma once

#include "agent/BlockRange.h"
#include "agent/core/fs/IBlockBitmapChunkProvider.h"
#include "imaging/Volume.h"

#include <cstdint>
#include <utility>
#include <vector>

namespace imaging::ntfs {

/// The map of a volume whose $Bitmap lies in several runs. Of such a one the parser answers a request from cluster 0
/// rightly, and no other, and would have to be asked for everything at once; here each chunk is read from the runs.
class BitmapRuns : public agent::core::fs::IBlockBitmapChunkProvider {
public:
    /// @param volume       must outlive this provider
    /// @param runs         of $Bitmap, in order; each lies on the volume
    /// @param clusterSize  bytes
    /// @param clusters     of the volume
    BitmapRuns(Volume& volume, std::vector<agent::BlockRange> runs, std::uint64_t clusterSize, std::uint64_t clusters)
        : volume_(volume), runs_(std::move(runs)), clusterSize_(clusterSize), clusters_(clusters) {}

    /// As every provider, for offsets that are multiples of 8; 0 where the runs or the clusters end.
    /// @throws VolumeError  the bitmap cannot be read
    long getChunk(unsigned long offset, char* buffer, unsigned long length) const override;

private:
    Volume& volume_;
    std::vector<agent::BlockRange> runs_;
    std::uint64_t clusterSize_;
    std::uint64_t clusters_;
};

} // namespace imaging::ntfs
