// Reading chunks from the runs of $Bitmap.
#include "imaging/ntfs/BitmapRuns.h"

#include <algorithm>

namespace imaging::ntfs {

long BitmapRuns::getChunk(unsigned long offset, char* buffer, unsigned long length) const {
    if (offset >= clusters_) {
        return 0;
    }
    std::uint64_t const first = offset / 8;
    std::uint64_t const wanted = std::min<std::uint64_t>(length, (clusters_ + 7) / 8 - first);
    std::uint64_t done = 0;
    std::uint64_t runStart = 0; // byte of the bitmap
    for (agent::BlockRange const& run : runs_) {
        std::uint64_t const runBytes = static_cast<std::uint64_t>(run.count) * clusterSize_;
        std::uint64_t const position = first + done;
        if (done < wanted && position < runStart + runBytes) {
            std::uint64_t const count = std::min(wanted - done, runStart + runBytes - position);
            std::uint64_t const place = static_cast<std::uint64_t>(run.first) * clusterSize_ + position - runStart;
            std::vector<std::uint8_t> const bytes = volume_.readBytes(place, count);
            std::copy(bytes.begin(), bytes.end(), buffer + done);
            done += count;
        }
        runStart += runBytes;
    }
    return static_cast<long>(std::min(done * 8, clusters_ - offset));
}

} // namespace imaging::ntfs
