// NTFS volumes that ask for far more memory than anyone should give them.
#include "command/GreedyVolumes.h"

#include "support/NtfsBuilder.h"

namespace tests {

namespace {

constexpr bool kLarge = true;

constexpr std::uint64_t kGiB = std::uint64_t{1} << 30;

GreedyVolume ntfs(std::string const& name, std::function<NtfsBuilder()> const& make, std::uint64_t size = 0,
                  bool isLarge = false) {
    return {"Ntfs" + name, [make, size](std::string const& path) { writeSparse(path, make().bytes, size); }, isLarge};
}

NtfsBuilder withBoot(std::uint64_t field, std::uint64_t value, std::size_t width) {
    return NtfsBuilder::standard().setBoot(field, value, width);
}

/// A volume whose boot sector has it end at `size`, so that runs may lie in the hole behind what is there.
NtfsBuilder makeLarge(std::uint64_t size, std::uint32_t clusterBytes = 4096) {
    NtfsBuilder builder = NtfsBuilder::standard(NtfsGeometry::withClusters(clusterBytes));
    return builder.setBoot(ntfs_boot::kTotalSectors, size / 512 - 1, 8);
}

/// The data of $Bitmap: these runs, as large as they are.
NtfsBuilder withBitmap(NtfsBuilder builder, std::vector<NtfsRun> const& runs) {
    builder.record(ntfs_record_number::kBitmap).remove(ntfs_type::kData).nonResident(ntfs_type::kData, u"", runs);
    builder.bitmapRuns.clear();
    return builder.seal();
}

/// An attribute list in these runs, in a record.
NtfsBuilder withList(NtfsBuilder builder, std::uint64_t record, std::vector<NtfsRun> const& runs) {
    builder.record(record).nonResident(ntfs_type::kAttributeList, u"", runs);
    return builder.seal();
}

/// A field of the unnamed data of a record.
NtfsBuilder withDataField(std::uint64_t record, std::uint64_t field, std::uint64_t value) {
    NtfsBuilder builder = NtfsBuilder::standard();
    std::uint64_t const data = builder.record(record).offsetOf(ntfs_type::kData);
    return builder.pokeRecord(record, data + field, value, 8);
}

constexpr std::uint64_t kDataSize = 0x30;

/// Lists in records that each name all the others.
NtfsBuilder withListsThatNameOneAnother() {
    NtfsBuilder builder = NtfsBuilder::standard();
    for (std::uint64_t number = 40; number < 60; ++number) {
        NtfsRecord& made = builder.record(number);
        made.baseReference = ntfs_record_number::kBitmap;
        std::vector<NtfsListEntry> entries;
        for (std::uint64_t other = 40; other < 60; ++other) {
            entries.push_back({ntfs_type::kData, other, 0, {}});
        }
        made.attributeList({entries.begin(), entries.begin() + 10});
    }
    builder.record(ntfs_record_number::kBitmap).attributeList({{ntfs_type::kData, 40, 0, {}}});
    return builder.seal();
}

} // namespace

std::vector<GreedyVolume> greedyNtfsVolumes() {
    constexpr std::uint64_t kBitmap = ntfs_record_number::kBitmap;
    constexpr std::int64_t kHole = 1000; // a cluster behind what is there
    std::uint64_t const large = 4 * kGiB;
    std::uint64_t const largest = 16384 * kGiB - 4096;
    return {ntfs("MostSectors", [=] { return withBoot(ntfs_boot::kTotalSectors, 0x7FFFFFFFFFFFFFFF, 8); }),
            ntfs("ManySectors", [=] { return withBoot(ntfs_boot::kTotalSectors, std::uint64_t{1} << 44, 8); }),
            ntfs("LargestClusters", [=] { return withBoot(ntfs_boot::kSectorsPerCluster, 128, 1); }),
            ntfs("LargestRecords", [=] { return withBoot(ntfs_boot::kClustersPerMftRecord, 0xE1, 1); }),
            ntfs("LargestIndexBlocks", [=] { return withBoot(ntfs_boot::kClustersPerIndexBlock, 0xE1, 1); }),
            ntfs("BitmapOfClaimedSize", [=] { return withDataField(kBitmap, kDataSize, std::uint64_t{1} << 62); }),
            ntfs("MftOfClaimedSize", [=] { return withDataField(0, kDataSize, std::uint64_t{1} << 62); }),
            ntfs(
                "BitmapInOneLongRun",
                [=] {
                    return withBitmap(makeLarge(largest), {{kHole, 131072}});
                },
                largest, kLarge),
            ntfs(
                "BitmapInTwoRuns",
                [=] {
                    return withBitmap(makeLarge(large), {{kHole, 16}, {kHole + 100, 16}});
                },
                large, kLarge),
            ntfs(
                "BitmapInTwoLongRuns",
                [=] {
                    return withBitmap(makeLarge(largest, 512), {{100000, 4194304}, {9000000, 4194304}});
                },
                largest, kLarge),
            ntfs(
                "ListOfTwoGiBInTheMft",
                [=] {
                    return withList(makeLarge(large), 0, {{kHole, 524288}});
                },
                large, kLarge),
            ntfs(
                "ListOfTwoGiBInTheBitmap",
                [=] {
                    return withList(makeLarge(large), kBitmap, {{kHole, 524288}});
                },
                large, kLarge),
            ntfs(
                "ListBehindTheEnd",
                [=] {
                    return withList(makeLarge(large), kBitmap, {{1 << 30, 524288}});
                },
                large, kLarge),
            ntfs("ListsThatNameOneAnother", [=] { return withListsThatNameOneAnother(); })};
}

} // namespace tests
