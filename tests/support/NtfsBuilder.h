// Makes small genuine NTFS volumes in memory, byte by byte, whose every field can be changed afterwards.
#pragma once

#include "support/NtfsIndex.h"
#include "support/NtfsRecord.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tests {

/// Offsets in the boot sector.
namespace ntfs_boot {
inline constexpr std::uint64_t kOemId = 0x03;                 // 8 bytes
inline constexpr std::uint64_t kBytesPerSector = 0x0B;        // 2
inline constexpr std::uint64_t kSectorsPerCluster = 0x0D;     // 1
inline constexpr std::uint64_t kTotalSectors = 0x28;          // 8
inline constexpr std::uint64_t kMftLcn = 0x30;                // 8
inline constexpr std::uint64_t kMirrorLcn = 0x38;             // 8
inline constexpr std::uint64_t kClustersPerMftRecord = 0x40;  // 1
inline constexpr std::uint64_t kClustersPerIndexBlock = 0x44; // 1
inline constexpr std::uint64_t kEndMarker = 0x1FE;            // 2
} // namespace ntfs_boot

/// Numbers of the system's records.
namespace ntfs_record_number {
inline constexpr std::uint64_t kMft = 0;
inline constexpr std::uint64_t kMftMirror = 1;
inline constexpr std::uint64_t kRoot = 5;
inline constexpr std::uint64_t kBitmap = 6;
inline constexpr std::uint64_t kSecure = 9;
inline constexpr std::uint64_t kUpcase = 10;
inline constexpr std::uint64_t kFirstUser = 24;
} // namespace ntfs_record_number

/// The shape of a volume. The defaults give one of 2 MiB.
struct NtfsGeometry {
    std::uint32_t bytesPerSector = 512;
    std::uint32_t clusterBytes = 4096;    ///< a power of two, at least a sector
    std::uint32_t recordBytes = 1024;     ///< of an MFT record
    std::uint32_t indexBlockBytes = 4096; ///< of directories and $SII
    std::uint64_t clusters = 0;           ///< 0: 2 MiB, and at least 64
    std::uint64_t records = 64;           ///< that $MFT has room for
    std::vector<NtfsRun> mftRuns;         ///< empty: one run from cluster 4 (or behind the boot file) on

    /// $UpCase and $Bitmap in so many runs, a free cluster between any two.
    unsigned upcasePieces = 1;
    unsigned bitmapPieces = 1;
    unsigned rootLevels = 1;     ///< nodes from the root of the root directory to a leaf
    unsigned securityLevels = 1; ///< the same for $SII

    /// With clusters of the size, and all else as it goes with it.
    static NtfsGeometry withClusters(std::uint32_t bytes);
};

/// A volume. `bytes` is what a reader reads; records are put there by seal().
///
/// Clusters 0 up are the boot file, then $MFT, then what allocate() hands out in ascending order.
class NtfsBuilder {
public:
    /// Boot sector, and room for $MFT; no records yet.
    explicit NtfsBuilder(NtfsGeometry const& geometry = {});

    /// A sealed volume with all its system files and a few others: record 24 is \readme.txt (two runs, the second one
    /// before the first on disk), 25 is the directory \docs, 26 is \docs\letter.txt (resident).
    static NtfsBuilder standard(NtfsGeometry const& geometry = {});

    NtfsGeometry const& geometry() const { return geometry_; }

    NtfsBytes bytes;
    std::vector<NtfsRun> bitmapRuns;         ///< where seal() writes $Bitmap; empty: nowhere
    std::vector<NtfsDescriptor> descriptors; ///< what standard() puts into $Secure

    // The boot sector.
    NtfsBuilder& setBoot(std::uint64_t offset, std::uint64_t value, std::size_t width);
    std::uint64_t boot(std::uint64_t offset, std::size_t width) const;

    // Clusters.
    /// The next free clusters in a row, which are used then.
    NtfsRun allocate(std::uint64_t clusters);
    /// So many clusters in `pieces` runs with a free cluster between any two.
    std::vector<NtfsRun> allocatePieces(std::uint64_t clusters, unsigned pieces);
    void markUsed(NtfsRun const& run);
    bool isUsed(std::uint64_t cluster) const { return used_.at(cluster); }
    std::uint64_t clustersFor(std::uint64_t size) const;
    std::uint64_t byteOfCluster(std::int64_t cluster) const;
    /// Writes content to runs, in their order; holes take what falls on them.
    void write(std::vector<NtfsRun> const& runs, NtfsBytes const& content);

    // Records.
    /// The record, made (empty, in use) where there was none.
    NtfsRecord& record(std::uint64_t number);
    /// A file with standard information and name, without data.
    NtfsRecord& file(std::uint64_t number, std::uint64_t parent, std::u16string const& name);
    /// Adds a non-resident attribute and writes its content.
    std::vector<NtfsRun> store(NtfsRecord& record, std::uint32_t type, std::u16string const& name,
                               NtfsBytes const& content, unsigned pieces = 1);
    /// Gives a record an index: root, and blocks with their bitmap where there are levels below.
    void index(NtfsRecord& record, std::u16string const& name, NtfsIndexShape const& shape,
               std::vector<NtfsBytes> const& entries, unsigned pieces = 1);
    /// Makes a record a directory of these names.
    void directory(NtfsRecord& record, std::vector<NtfsName> const& names, unsigned levels = 1, unsigned fanOut = 3);
    /// A directory's shape in this geometry.
    NtfsIndexShape directoryShape(unsigned levels = 1, unsigned fanOut = 3) const;

    /// Writes $Bitmap, all records (those nobody made as free ones), and $MFTMirr.
    NtfsBuilder& seal();

    // Damage, after seal().
    /// Byte offset in the volume of a byte of a record.
    std::uint64_t byteOffsetOf(std::uint64_t number, std::uint64_t offsetInRecord = 0) const;
    /// Changes the volume as it stands.
    NtfsBuilder& poke(std::uint64_t byteOffset, std::uint64_t value, std::size_t width);
    /// A number on the volume as it stands.
    std::uint64_t peek(std::uint64_t byteOffset, std::size_t width) const;
    /// Changes a record as a reader will see it: protection taken away, and put back. The array must be in order.
    NtfsBuilder& pokeRecord(std::uint64_t number, std::uint64_t offsetInRecord, std::uint64_t value, std::size_t width);
    /// A number in a record as a reader will see it.
    std::uint64_t peekRecord(std::uint64_t number, std::uint64_t offsetInRecord, std::size_t width) const;
    /// A record as it stands on the volume, and without its protection.
    NtfsBytes protectedRecord(std::uint64_t number) const;
    NtfsBytes plainRecord(std::uint64_t number) const;
    /// Puts protected bytes where a record stands.
    NtfsBuilder& putRecord(std::uint64_t number, NtfsBytes const& record);

private:
    void makeMetadataFiles();
    void makeSecure();
    void makeUserFiles();
    NtfsBytes bitmapContent() const;

    NtfsGeometry geometry_;
    std::vector<bool> used_; // clusters
    std::map<std::uint64_t, NtfsRecord> records_;
    std::uint64_t nextFree_ = 0;
    NtfsRun mirror_{};
};

} // namespace tests
