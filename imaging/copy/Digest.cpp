// Hashing run by run.
#include "imaging/copy/Digest.h"

#include "imaging/ByteRange.h"
#include "imaging/copy/ContentHasher.h"

#include <algorithm>
#include <string_view>

namespace imaging {

namespace {

constexpr std::string_view kName = "fsparser digest 1\n";

} // namespace

Digest digestVolume(VolumeMap& map, Source const& source, std::string const& path,
                    VolumeMap::Progress const& progress) {
    Geometry const& geometry = map.geometry();
    Sha256 hash;
    hash.add(kName.data(), kName.size());
    for (std::uint64_t const number : {geometry.unitSize, geometry.units, geometry.start}) {
        hash.add(number);
    }
    ContentHasher hasher(source, path, [&progress] {
        if (progress) {
            progress(0); // a chunk of the map may stand for hours of reading
        }
    });
    std::uint64_t const end = std::min(map.volumeSize(), geometry.start + geometry.bytes);
    auto const add = [&](Run const& run) {
        if (!run.used) {
            return;
        }
        hash.add(run.first);
        hash.add(run.count);
        std::uint64_t const first = geometry.start + run.first * geometry.unitSize;
        hasher.add({first, std::min(end, first + run.count * geometry.unitSize)}, hash);
    };
    MapTotals totals = map.walk(add, progress);
    return {hash.hexadecimal(), std::move(totals)};
}

} // namespace imaging
