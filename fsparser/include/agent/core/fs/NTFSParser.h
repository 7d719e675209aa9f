/// @file
/// NTFS volumes.
#pragma once

#include "agent/BlockRange.h"
#include "agent/Export.h"
#include "agent/IConfig.h"
#include "agent/LruCache.h"
#include "agent/core/IVolumeReader.h"
#include "agent/core/fs/IBlockBitmapChunkProvider.h"
#include "agent/core/fs/NTFSSecurity.h"
#include "agent/core/fs/NTFSTypes.h"
#include "agent/info/Logger.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace agent::core::fs {

class ZeroedBuffer;

/// The separator of NTFS paths: one backslash.
AGENT_EXPORT extern std::string const SEPARATOR;

/// An NTFS volume: its used clusters, and where its files lie. A unit is a cluster; least significant bit first.
///
/// The boot sector, MFT record 0 and a proof that record 1 can be read are taken at construction. The upcase table is
/// read when a name is first compared. Nothing else is kept: each request reads the records that it needs.
///
/// Logger and volume reader are not owned and must outlive the parser. Several operations that are `const` change what
/// is kept: one thread at a time.
///
/// Limits that are kept on purpose, so that a caller must know them:
/// - When $Bitmap lies in several runs, a chunk that does not begin at cluster 0 may be read from the wrong place: a
///   caller asks for the whole map in one request from cluster 0 then. extents(6) tells the number of runs.
/// - Sparse runs are not turned into holes: the cluster of such a run is the previous one plus the last byte of its
///   length.
/// - Of a child node's VCN in an index, only the lowest byte is read.
/// - With clusters of 64 KiB and more, index blocks and non-resident attribute lists are looked for in the wrong place.
/// - A $UpCase in several runs is put together with gaps, so that names may not match.
/// - Of a standard information of 48 bytes (an older NTFS), getStandardInfo() returns what stands behind it as the
/// rest.
/// - Where $MFT itself is fragmented so that its attribute list names other records, construction is refused.
class AGENT_EXPORT NTFSParser : public IBlockBitmapChunkProvider {
public:
    /// Reads the boot sector and MFT records 0 and 1. The path cache holds 1000 directories.
    /// @param alignment  bytes, the granularity of every read; what the device asks for in direct I/O
    /// @throws std::runtime_error  "Can't read ntfs boot sector", "Not an NTFS filesystem", "volume size is set to
    /// zero.",
    ///     "Invalid $MFT offset.", "Invalid $MFTMirr offset.", a text that names the size which is no power of two, or
    ///     what the records' checks say
    NTFSParser(agent::info::Logger& logger, unsigned int alignment, agent::core::IVolumeReader const& volume);

    /// As above, with the path cache's capacity from the key "ntfsparser.cache.capacity" (1000 where it is missing).
    /// @param config  asked during the call only
    NTFSParser(agent::info::Logger& logger, unsigned int alignment, agent::core::IVolumeReader const& volume,
               agent::IConfig const& config);

    NTFSParser(NTFSParser const&) = delete;
    NTFSParser& operator=(NTFSParser const&) = delete;
    ~NTFSParser() override;

    /// Whether the buffer is an acceptable NTFS boot sector. Never throws.
    ///
    /// The first check that fails ends the test, and all but the null pointer's leave one entry:
    /// `Debug` "Invalid NTFS magic."; `Error` "Unexpected bytes per sector: 0x...", "Unexpected cluster size 0x...",
    /// "Unexpected sectors per cluster value: 0x" and the raw byte, "Reserved fields aren't zero",
    /// "Unexpected clusters per mft record: 0x" and the raw byte, "Unexpected clusters per index record: 0x" and the
    /// raw byte, "Invalid location of MFT or MFTMirr.". A wrong end-of-sector marker is only a `Warning`, "Bootsector
    /// has invalid end of sector marker.".
    /// @param bootSector  the volume's first 512 bytes; null is not recognised
    static bool isNTFileSystem(void* bootSector, agent::info::Logger& logger);

    /// As IBlockBitmapChunkProvider states it; an offset must be a multiple of 8. The whole buffer is cleared before it
    /// is filled. Negative results: -508 no sectors in a cluster; -520 the cluster counts differ; -535 the offset is
    /// not a multiple of 8; -559 $Bitmap is too short; -1 a read failed.
    /// @throws std::runtime_error  what the records of $Bitmap throw
    /// @throws std::bad_alloc      an attribute claims a size that memory cannot hold; so do the operations below
    long getChunk(unsigned long offset, char* buffer, unsigned long length) const override;

    /// The clusters of a file's data, sorted by first cluster: `first` is a cluster number, `count` is in clusters.
    /// @param recordNumber  the file's MFT record number; all ones gives an empty list
    /// @throws std::runtime_error  the record's attributes or runs are damaged
    std::vector<agent::BlockRange> extents(unsigned long recordNumber);

    /// The same for a file's path. Paths are components joined by SEPARATOR; everything up to and including the first
    /// separator is ignored (a leading one, or a drive prefix). Names match case-insensitively through the volume's
    /// upcase table, which this call loads. Directories on the way are kept in the path cache.
    /// @throws std::runtime_error  a component does not exist, or a record is damaged
    std::vector<agent::BlockRange> extents(std::string const& path);

    /// The MFT record number behind a path; 5, the root directory, for an empty path. Does not load the upcase table
    /// itself.
    /// @throws std::invalid_argument  "Upcase file is not read.": nothing has loaded the upcase table yet
    /// @throws std::runtime_error     a component does not exist, or a record is damaged
    unsigned long convert_to_inode(std::string const& path);

    /// The standard information of the file behind a path, as it stands on disk. Does not load the upcase table itself.
    /// @throws std::invalid_argument  as convert_to_inode()
    /// @throws std::runtime_error     "Could not find STANDARD_INFORMATION for file " and the path; or as
    ///     convert_to_inode()
    ntfs_standard_information getStandardInfo(std::string const& path);

    /// The access-control lists of the file behind a path: first the system list, then the discretionary one, each if
    /// it is present and has entries. The first call reads the whole $SDS stream, which is kept until clearSDS().
    /// @throws std::runtime_error  "Failed to read ACLs for \"PATH\": " and the reason; or what reading the upcase
    /// table
    ///     or the stream says
    std::vector<NTFS_ACL> readACLFromFile(std::string const& path);

    /// Reads the volume's metadata again and forgets every path; needed after the volume changed.
    /// @throws std::runtime_error  as the constructor
    void resetMftCache();

    /// Forgets the $SDS stream; the next ACL read loads it again.
    void clearSDS();

protected:
    /// One directory in the path cache.
    struct Element {
        std::string path;    ///< relative to the root, without leading or trailing separator
        unsigned long inode; ///< MFT record number

        bool operator<(Element const& other) const { return path < other.path; }
    };

    /// What btree_lookup() looks for. Does not own what it points to.
    struct BTreeKey {
        void const* value; ///< type 1: a std::string, the name; type 16: an unsigned int, the security identifier
        unsigned int type; ///< the index's collation rule
    };

    /// How iterateDataRuns() places runs in its destination.
    enum class BufferType : int {
        Bytes = 0,
        Units16 = 1, ///< an array of 16-bit units
    };

    /// Record number of the holder, and byte offset of the attribute in it.
    using AttributeHit = std::pair<unsigned long, long>;
    using AttributeHits = std::vector<AttributeHit>;

    // Construction, geometry, metadata (NTFSParser.cpp)
    void reinit();
    void initVolumeMetaData();
    void read_upcase();

    // Record access and fixup (MftRecord.cpp)
    int read_record(unsigned long recordNumber, unsigned long byteOffset, void* buffer) const;
    int read_mft_record(unsigned long recordNumber, void* buffer) const;
    void read_mft_record_throw(unsigned long recordNumber, void* buffer, std::string const& context) const;
    int post_read_fixup(ntfs_record* record, unsigned int size) const;
    // The buffer holds whole records, also when the last one begins less than a record before `total`.
    int post_read_fixup(void* buffer, unsigned int total, unsigned int recordSize) const;
    std::vector<ntfs_runlist> get_mft_runlist() const;
    ntfs_runlist runlist_from_vcn(std::vector<ntfs_runlist> const& runs, long& vcn) const;

    // Consistency checks (Consistency.cpp)
    void checkFileRecordConsistency(void* record, unsigned long reference) const;
    void checkAttributeConsistency(void* attribute, unsigned long reference) const;

    // Attributes and attribute lists (Attributes.cpp)
    AttributeHits get_attributes(unsigned long recordNumber, ntfs_mft_record_t* record, NtfsAttrTypes type) const;
    AttributeHits get_attribute_external(unsigned long baseRecord, ntfs_attribute_record* listAttribute,
                                         NtfsAttrTypes type) const;
    AttributeHits traverse_attr_list(unsigned long baseRecord, NtfsAttrTypes type, unsigned long listLength,
                                     unsigned char* list) const;
    AttributeHit findAttributeByName(unsigned long recordNumber, ntfs_mft_record_t* record, AttributeHits const& hits,
                                     std::string const& name);

    // Runlists (Runlist.cpp)
    unsigned int get_no_runlist(ntfs_attribute_record const* attribute) const;
    // Given a pointer alone, an attribute's bytes end where its length says: what would lie on that border is cut off.
    std::vector<ntfs_runlist> get_run_list(ntfs_attribute_record const* attribute) const;
    std::vector<ntfs_runlist> get_data_runs(ntfs_attribute_record const* attribute) const;
    std::vector<ntfs_runlist> get_inode_runlist(unsigned long recordNumber) const;
    std::vector<agent::BlockRange> runs_to_blockRange(std::vector<ntfs_runlist> const& runs) const;

    // The used-cluster bitmap (Bitmap.cpp)
    long fs_get_blocks_bitmap_chunk(unsigned long length, unsigned long lcn, char* buffer) const;
    unsigned long iterateDataRuns(unsigned short* destination, std::vector<ntfs_runlist> const& runs, BufferType type,
                                  std::string const& errorText);

    // Paths (PathResolution.cpp)
    void resolve_cached_portion(std::string path, std::string& resolved, std::string& remaining, unsigned long& record);
    void resolve_uncached_portion(std::string resolved, std::string remaining, unsigned long& record);

    // Security (Security.cpp)
    void readSDS();
    std::vector<NTFS_ACL> getACLFromSDS(unsigned long offset) const;

    // Index lookup (Index.cpp, Collation.cpp)
    ntfs_index_entry btree_lookup(unsigned long parent, BTreeKey const& key);
    bool traverse_index_entry(ntfs_index_entry** entry, unsigned char const* end, unsigned char const* lowerBound,
                              BTreeKey const& key) const;
    int collate_index_names(ntfs_index_entry** entry, std::string const& name) const;
    int collate_index_security_IDs(ntfs_index_entry** entry, unsigned int const& identifier) const;
    int collate_unicode_names(wchar_t const* name1, unsigned int length1, unsigned short const* name2,
                              unsigned int length2, bool ignoreCase, unsigned short const* upcase,
                              unsigned int upcaseLength) const;
    void check_index_entry_consistency(ntfs_index_entry const* entry, BTreeKey const& key) const;
    void check_index_block_consistency(ntfs_index_allocation const* block, unsigned long blockSize, long vcn,
                                       std::string const& key) const;
    std::string keyToString(BTreeKey const& key) const;

private:
    using Bytes = std::span<std::uint8_t const>;
    struct AGENT_LOCAL Walks;
    struct AGENT_LOCAL PreparedKey;
    struct AGENT_LOCAL IndexNode;

    AGENT_LOCAL std::uint32_t clusterSize() const;
    AGENT_LOCAL std::uint16_t clusterSize16() const;
    AGENT_LOCAL std::uint64_t volumeBytes() const;
    AGENT_LOCAL Bytes recordBytes(void const* record) const;
    AGENT_LOCAL void deriveGeometry(void const* bootSector);
    AGENT_LOCAL std::vector<ntfs_runlist> directMftRuns() const;
    AGENT_LOCAL void checkAttribute(Bytes attribute, unsigned long reference) const;
    AGENT_LOCAL AttributeHits externalHits(unsigned long baseRecord, Bytes attribute, NtfsAttrTypes type) const;
    AGENT_LOCAL AttributeHits nonResidentListHits(unsigned long baseRecord, Bytes attribute, NtfsAttrTypes type) const;
    AGENT_LOCAL AttributeHits listHits(unsigned long baseRecord, NtfsAttrTypes type, unsigned long listLength,
                                       Bytes list) const;
    AGENT_LOCAL void appendHolderHits(unsigned long baseRecord, unsigned long holder, NtfsAttrTypes type,
                                      AttributeHits& hits) const;
    AGENT_LOCAL bool hasName(Bytes attribute, std::wstring const& name) const;
    AGENT_LOCAL std::vector<ntfs_runlist> dataRuns(Bytes attribute) const;
    AGENT_LOCAL long readBitmap(std::vector<ntfs_runlist> const& runs, std::uint64_t lcn,
                                std::span<std::uint8_t> buffer) const;
    AGENT_LOCAL std::uint64_t readRuns(std::span<std::uint8_t> destination, std::vector<ntfs_runlist> const& runs,
                                       BufferType type, std::string const& errorText) const;
    AGENT_LOCAL Bytes indexAttribute(unsigned long parent, BTreeKey const& key, NtfsAttrTypes type,
                                     std::string const& name, ZeroedBuffer& record);
    AGENT_LOCAL ntfs_index_entry descend(unsigned long parent, PreparedKey const& key, std::uint8_t child,
                                         std::uint32_t blockBytes);
    AGENT_LOCAL std::uint8_t childVcn(IndexNode const& node, PreparedKey const& key) const;
    AGENT_LOCAL bool walkNode(IndexNode& node, PreparedKey const& key) const;
    AGENT_LOCAL int collateEntry(Bytes entry, PreparedKey const& key) const;
    AGENT_LOCAL void checkEntry(Bytes entry, PreparedKey const& key) const;
    AGENT_LOCAL int collateNames(Bytes entry, std::wstring const& name) const;
    AGENT_LOCAL unsigned short const* upcaseTable() const;

    agent::info::Logger& logger;
    agent::core::IVolumeReader const& volume;
    std::uint64_t blockSize;
    std::int8_t clustersPerMftRecord = 0;
    std::uint8_t sectorsPerCluster = 0;
    std::uint16_t bytesPerSector = 0;
    std::int64_t totalSectors = 0;
    std::int64_t mftLcn = 0;
    std::uint32_t mftRecordSize = 0;
    std::uint32_t upcaseLength = 0;          // bytes read, not units; on purpose
    std::unique_ptr<ZeroedBuffer> mftRecord; // record 0, fixed up
    std::unique_ptr<ZeroedBuffer> upcase;    // null until it is read
    std::unique_ptr<agent::LruCache<Element>> cache;
    std::unique_ptr<ZeroedBuffer> sds; // empty until an ACL is read
    std::unique_ptr<Walks> walks;      // what is being worked out now, so that hostile volumes end
};

} // namespace agent::core::fs
