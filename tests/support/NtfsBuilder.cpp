// Makes small genuine NTFS volumes in memory.
#include "support/NtfsBuilder.h"

#include "support/NtfsBootSector.h"

#include <algorithm>
#include <bit>
#include <stdexcept>

namespace tests {

namespace {

constexpr std::uint64_t kSector = 512;
constexpr std::uint64_t kBootBytes = 8192; // of the boot file
constexpr std::uint64_t kMirroredRecords = 4;

/// What the boot sector says for a size that may be smaller than a cluster.
std::uint8_t clustersPer(std::uint32_t size, std::uint32_t clusterBytes) {
    return size >= clusterBytes ? static_cast<std::uint8_t>(size / clusterBytes)
                                : static_cast<std::uint8_t>(256 - std::countr_zero(size));
}

std::uint8_t sectorsPerCluster(std::uint32_t count) {
    return count <= 128 ? static_cast<std::uint8_t>(count) : static_cast<std::uint8_t>(256 - std::countr_zero(count));
}

} // namespace

NtfsGeometry NtfsGeometry::withClusters(std::uint32_t clusterBytes) {
    NtfsGeometry geometry;
    geometry.clusterBytes = clusterBytes;
    return geometry;
}

NtfsBuilder::NtfsBuilder(NtfsGeometry const& geometry) : geometry_(geometry) {
    NtfsGeometry& g = geometry_;
    if (g.clusters == 0) {
        g.clusters = std::max<std::uint64_t>(64, (std::uint64_t{2} << 20) / g.clusterBytes);
    }
    used_.resize(g.clusters);
    bytes.resize(g.clusters * g.clusterBytes +
                 std::max<std::uint64_t>(g.bytesPerSector, kSector)); // the copy of the boot sector lies behind
    markUsed({0, static_cast<std::int64_t>(clustersFor(kBootBytes))});
    nextFree_ = clustersFor(kBootBytes);
    if (g.mftRuns.empty()) {
        nextFree_ = std::max<std::uint64_t>(4, nextFree_);
        g.mftRuns.push_back(allocate(clustersFor(g.records * g.recordBytes)));
    }
    for (NtfsRun const& run : g.mftRuns) {
        markUsed(run);
    }
    mirror_ = allocate(clustersFor(kMirroredRecords * g.recordBytes));

    Sector512 const sector = ntfsBootSector();
    std::copy(sector.begin(), sector.end(), bytes.begin());
    std::uint32_t const sectors = g.clusterBytes / g.bytesPerSector;
    setBoot(ntfs_boot::kBytesPerSector, g.bytesPerSector, 2);
    setBoot(ntfs_boot::kSectorsPerCluster, sectorsPerCluster(sectors), 1);
    setBoot(ntfs_boot::kTotalSectors, g.clusters * sectors, 8);
    setBoot(ntfs_boot::kMftLcn, static_cast<std::uint64_t>(g.mftRuns.front().lcn), 8);
    setBoot(ntfs_boot::kMirrorLcn, static_cast<std::uint64_t>(mirror_.lcn), 8);
    setBoot(ntfs_boot::kClustersPerMftRecord, clustersPer(g.recordBytes, g.clusterBytes), 1);
    setBoot(ntfs_boot::kClustersPerIndexBlock, clustersPer(g.indexBlockBytes, g.clusterBytes), 1);
}

NtfsBuilder& NtfsBuilder::setBoot(std::uint64_t offset, std::uint64_t value, std::size_t width) {
    putNumber(bytes, offset, value, width);
    std::copy_n(bytes.begin(), kSector,
                bytes.begin() + static_cast<std::ptrdiff_t>(geometry_.clusters * geometry_.clusterBytes));
    return *this;
}

std::uint64_t NtfsBuilder::boot(std::uint64_t offset, std::size_t width) const {
    return getNumber(bytes, offset, width);
}

void NtfsBuilder::markUsed(NtfsRun const& run) {
    for (std::int64_t i = 0; run.lcn >= 0 && i < run.length; ++i) {
        used_.at(static_cast<std::size_t>(run.lcn + i)) = true;
    }
}

NtfsRun NtfsBuilder::allocate(std::uint64_t clusters) {
    for (std::uint64_t first = nextFree_; first + clusters <= used_.size(); ++first) {
        auto const begin = used_.begin() + static_cast<std::ptrdiff_t>(first);
        if (std::none_of(begin, begin + static_cast<std::ptrdiff_t>(clusters), [](bool isUsed) { return isUsed; })) {
            NtfsRun const run{static_cast<std::int64_t>(first), static_cast<std::int64_t>(clusters)};
            markUsed(run);
            nextFree_ = first + clusters;
            return run;
        }
    }
    throw std::logic_error("the volume is full");
}

std::vector<NtfsRun> NtfsBuilder::allocatePieces(std::uint64_t clusters, unsigned pieces) {
    std::vector<NtfsRun> runs;
    for (std::uint64_t i = 0; i < pieces; ++i) {
        std::uint64_t const share = clusters / pieces + (i < clusters % pieces ? 1 : 0);
        if (share != 0) {
            runs.push_back(allocate(share));
            nextFree_ += pieces > 1 ? 1 : 0;
        }
    }
    return runs;
}

std::uint64_t NtfsBuilder::clustersFor(std::uint64_t size) const {
    return (size + geometry_.clusterBytes - 1) / geometry_.clusterBytes;
}

std::uint64_t NtfsBuilder::byteOfCluster(std::int64_t cluster) const {
    return static_cast<std::uint64_t>(cluster) * geometry_.clusterBytes;
}

void NtfsBuilder::write(std::vector<NtfsRun> const& runs, NtfsBytes const& content) {
    std::uint64_t done = 0;
    for (NtfsRun const& run : runs) {
        std::uint64_t const part = std::min(content.size() - done, byteOfCluster(run.length));
        if (run.lcn >= 0) {
            std::copy_n(content.begin() + static_cast<std::ptrdiff_t>(done), part,
                        bytes.begin() + static_cast<std::ptrdiff_t>(byteOfCluster(run.lcn)));
        }
        done += part;
    }
    if (done != content.size()) {
        throw std::logic_error("the runs cannot hold the content");
    }
}

NtfsRecord& NtfsBuilder::record(std::uint64_t number) {
    return records_.try_emplace(number, number, geometry_.recordBytes, geometry_.clusterBytes).first->second;
}

NtfsRecord& NtfsBuilder::file(std::uint64_t number, std::uint64_t parent, std::u16string const& name) {
    bool const isSystem = number < ntfs_record_number::kFirstUser;
    NtfsRecord& made = record(number);
    made.resident(ntfs_type::kStandardInformation, u"", ntfsStandardInformation(0x100, isSystem ? 0x06 : 0x20));
    made.resident(ntfs_type::kFileName, u"", ntfsFileName(record(parent).reference(), name, isSystem ? 3 : 1));
    return made;
}

std::vector<NtfsRun> NtfsBuilder::store(NtfsRecord& holder, std::uint32_t type, std::u16string const& name,
                                        NtfsBytes const& content, unsigned pieces) {
    std::vector<NtfsRun> runs = allocatePieces(clustersFor(content.size()), pieces);
    write(runs, content);
    holder.nonResident(type, name, runs, content.size());
    return runs;
}

NtfsIndexShape NtfsBuilder::directoryShape(unsigned levels, unsigned fanOut) const {
    return {ntfs_type::kFileName, 1, geometry_.indexBlockBytes, geometry_.clusterBytes, levels, fanOut};
}

void NtfsBuilder::index(NtfsRecord& holder, std::u16string const& name, NtfsIndexShape const& shape,
                        std::vector<NtfsBytes> const& entries, unsigned pieces) {
    NtfsTree const tree = ntfsIndexTree(shape, entries);
    holder.resident(ntfs_type::kIndexRoot, name, tree.root);
    if (tree.blocks.empty()) {
        return;
    }
    NtfsBytes content;
    for (NtfsBytes const& block : tree.blocks) {
        content.insert(content.end(), block.begin(), block.end());
    }
    store(holder, ntfs_type::kIndexAllocation, name, content, pieces);
    NtfsBytes inUse(alignTo8((tree.blocks.size() + 7) / 8));
    for (std::size_t i = 0; i < tree.blocks.size(); ++i) {
        inUse[i / 8] = static_cast<std::uint8_t>(inUse[i / 8] | 1U << (i % 8));
    }
    holder.resident(ntfs_type::kBitmap, name, inUse);
}

void NtfsBuilder::directory(NtfsRecord& holder, std::vector<NtfsName> const& names, unsigned levels, unsigned fanOut) {
    holder.flags = 3;
    index(holder, u"$I30", directoryShape(levels, fanOut), ntfsNameEntries(names, holder.reference()));
}

NtfsBytes NtfsBuilder::bitmapContent() const {
    NtfsBytes content(alignTo8((used_.size() + 7) / 8));
    for (std::size_t i = 0; i < content.size() * 8; ++i) {
        if (i >= used_.size() || used_[i]) { // there is nothing behind the end to be free
            content[i / 8] = static_cast<std::uint8_t>(content[i / 8] | 1U << (i % 8));
        }
    }
    return content;
}

NtfsBuilder& NtfsBuilder::seal() {
    if (!bitmapRuns.empty()) {
        write(bitmapRuns, bitmapContent());
    }
    for (std::uint64_t number = 0; number < geometry_.records; ++number) {
        auto const found = records_.find(number);
        NtfsRecord free(number, geometry_.recordBytes, geometry_.clusterBytes);
        free.flags = 0;
        NtfsBytes content = (found == records_.end() ? free : found->second).bytes();
        ntfsProtect(content);
        putRecord(number, content);
    }
    NtfsBytes copies;
    for (std::uint64_t number = 0; number < kMirroredRecords; ++number) {
        NtfsBytes const content = protectedRecord(number);
        copies.insert(copies.end(), content.begin(), content.end());
    }
    write({mirror_}, copies);
    return *this;
}

std::uint64_t NtfsBuilder::byteOffsetOf(std::uint64_t number, std::uint64_t offsetInRecord) const {
    std::uint64_t rest = number * geometry_.recordBytes + offsetInRecord;
    for (NtfsRun const& run : geometry_.mftRuns) {
        if (rest < byteOfCluster(run.length)) {
            return byteOfCluster(run.lcn) + rest;
        }
        rest -= byteOfCluster(run.length);
    }
    throw std::logic_error("the record lies behind the end of the MFT");
}

NtfsBuilder& NtfsBuilder::poke(std::uint64_t byteOffset, std::uint64_t value, std::size_t width) {
    putNumber(bytes, byteOffset, value, width);
    return *this;
}

std::uint64_t NtfsBuilder::peek(std::uint64_t byteOffset, std::size_t width) const {
    return getNumber(bytes, byteOffset, width);
}

NtfsBytes NtfsBuilder::protectedRecord(std::uint64_t number) const {
    NtfsBytes content;
    for (std::uint64_t offset = 0; offset < geometry_.recordBytes; offset += kSector) { // a cluster may be smaller
        auto const place = bytes.begin() + static_cast<std::ptrdiff_t>(byteOffsetOf(number, offset));
        content.insert(content.end(), place, place + kSector);
    }
    return content;
}

NtfsBytes NtfsBuilder::plainRecord(std::uint64_t number) const {
    NtfsBytes content = protectedRecord(number);
    ntfsUnprotect(content);
    return content;
}

NtfsBuilder& NtfsBuilder::putRecord(std::uint64_t number, NtfsBytes const& content) {
    for (std::uint64_t offset = 0; offset < geometry_.recordBytes; offset += kSector) {
        std::copy_n(content.begin() + static_cast<std::ptrdiff_t>(offset), kSector,
                    bytes.begin() + static_cast<std::ptrdiff_t>(byteOffsetOf(number, offset)));
    }
    return *this;
}

NtfsBuilder& NtfsBuilder::pokeRecord(std::uint64_t number, std::uint64_t offsetInRecord, std::uint64_t value,
                                     std::size_t width) {
    NtfsBytes content = plainRecord(number);
    putNumber(content, offsetInRecord, value, width);
    ntfsProtect(content);
    return putRecord(number, content);
}

std::uint64_t NtfsBuilder::peekRecord(std::uint64_t number, std::uint64_t offsetInRecord, std::size_t width) const {
    return getNumber(plainRecord(number), offsetInRecord, width);
}

} // namespace tests
