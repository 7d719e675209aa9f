/// @file
/// NTFS volumes.
#pragma once

#include "agent/AlignedAllocator.h"
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
/// read by the first extents() of a path or readACLFromFile(), and kept, as are the path cache and the $SDS stream.
/// Nothing else is: each request reads the records that it needs.
///
/// Logger and volume reader are not owned and must outlive the parser. Several operations that are `const` change what
/// is kept: one thread at a time. docs/formats/ntfs.md lists the fields that are read.
///
/// @code
/// agent::core::fs::NTFSParser parser(logger, 4096, volume);
/// for (agent::BlockRange const& run : parser.extents("\\Users\\readme.txt")) { use(run.first, run.count); }
/// auto const info = parser.getStandardInfo("\\Users\\readme.txt"); // after extents(), which loads the upcase table
/// auto const lists = parser.readACLFromFile("\\Users\\readme.txt");
/// @endcode
///
/// Limits that are kept on purpose, so that a caller must know them:
/// - When $Bitmap lies in several runs, a chunk that does not begin at cluster 0 may be read from the wrong place: a
///   caller asks for the whole map in one request from cluster 0 then. extents(6) tells the number of runs.
/// - Sparse runs are not turned into holes: the cluster of such a run is the previous one plus the last byte of its
///   length.
/// - Of a child node's VCN in an index, only the lowest byte is read.
/// - With clusters of 64 KiB and more, index blocks and non-resident attribute lists are looked for in the wrong place.
/// - A $UpCase in several runs is put together with gaps, so that names may not match.
/// - Of a standard information of 48 bytes (an older NTFS), getStandardInfo() returns what follows it as the rest.
/// - The last chunk of a walk counts what the last cluster of $Bitmap holds, so that the sum may be more than the
///   volume's clusters: total sectors / sectors per cluster. What lies past them carries no meaning.
/// - Index blocks whose children lead in a circle are followed without end. Who opens hostile volumes bounds the reads
///   in the volume reader, which may fail them at any time.
/// - Where $MFT itself is fragmented so that its attribute list names other records, construction is refused.
class AGENT_EXPORT NTFSParser : public IBlockBitmapChunkProvider {
public:
    /// Reads the boot sector and MFT records 0 and 1. The path cache holds 1000 directories.
    /// @param logger     takes every message; not owned
    /// @param alignment  bytes, the granularity of every read; what the device asks for in direct I/O
    /// @param volume     an open volume; not owned
    /// @throws std::runtime_error
    ///     - "Can't read ntfs boot sector" (also for an alignment of 0)
    ///     - "Not an NTFS filesystem"
    ///     - "volume size is set to zero."
    ///     - "Invalid $MFT offset.", after `Error` "$MFT LCN: 0xN is greater than the number of clusters: 0xM"
    ///     - "Invalid $MFTMirr offset.", after `Error` "$MFTMirr LCN: 0xN is greater than the number of clusters: M",
    ///       both in hexadecimal
    ///     - "Sector per cluster isn't power of two. SectorPerCluster: 0x" and the raw byte, after an `Error` entry of
    ///       the same text
    ///     - "Cluster size isn't power of two. ClusterSize: 0x" or "$MFT bytes per record isn't power of two.
    ///       MFTBytesPerRecord: 0x" and the number in hexadecimal, likewise
    ///     - the texts of checkFileRecordConsistency(), get_attributes() and get_run_list(), of records 0 and 1
    ///     - "Could not read MFT record for inode number 1"
    /// @throws std::invalid_argument  the alignment is no power of two
    /// @throws std::bad_alloc  an attribute list of record 0 claims a negative size
    NTFSParser(agent::info::Logger& logger, unsigned int alignment, agent::core::IVolumeReader const& volume);

    /// As above, with the path cache's capacity from the key "ntfsparser.cache.capacity" (1000 where it is missing).
    /// @param logger     takes every message; of another capacity than 1000, `Debug` "NTFSParser LRU cache size
    ///     re-configured to N"
    /// @param alignment  as above
    /// @param volume     as above
    /// @param config     asked during the call only
    NTFSParser(agent::info::Logger& logger, unsigned int alignment, agent::core::IVolumeReader const& volume,
               agent::IConfig const& config);

    NTFSParser(NTFSParser const&) = delete;
    NTFSParser& operator=(NTFSParser const&) = delete;
    ~NTFSParser() override;

    /// Whether the buffer is an acceptable NTFS boot sector. Throws nothing but what the logger's isEnabled() throws.
    /// Any thread that the logger allows.
    ///
    /// The first check that fails ends the test, and all but the null pointer's leave one entry: `Debug` "Invalid NTFS
    /// magic."; `Error` "Unexpected bytes per sector: 0x...", "Unexpected cluster size 0x...", "Unexpected sectors per
    /// cluster value: 0x" and the raw byte, "Reserved fields aren't zero", "Unexpected clusters per mft record: 0x" and
    /// the raw byte, "Unexpected clusters per index record: 0x" and the raw byte, "Invalid location of MFT or
    /// MFTMirr.". A wrong end-of-sector marker is only a `Warning`, "Bootsector has invalid end of sector marker.".
    /// @param bootSector  the volume's first 512 bytes; null is not recognised
    /// @param logger      takes the entry
    static bool isNTFileSystem(void* bootSector, agent::info::Logger& logger);

    /// As IBlockBitmapChunkProvider states it; an offset before the end must be a multiple of 8. The whole buffer is
    /// cleared before it is filled. A negative result comes after a `Debug` entry of its cause and an `Error` entry, "A
    /// logical error occurred while attempting to parse the NTFS bitmap, err: " and the code:
    ///     - -508, no sectors in a cluster: "Invalid sectors per cluster."
    ///     - -520, the cluster counts differ: "Sanity check failed. ClusterCount: N Alt ClusterCount: M"
    ///     - -535: "LCN N is not a multiple of 8."
    ///     - -559, $Bitmap is too short: "Sanity check failed on total bytes from BootRecord: N vs total bytes from
    ///       Bitmap: M", both in bits, on purpose
    ///     - -1, a read failed: the entry of fs_seek_read_aligned(); none where the seek failed or the place wraps
    ///       around
    ///
    /// The result 0 leaves `Debug` "LCN: N Total blocks: M. Nothing more to read in bitmap.".
    /// @throws std::runtime_error  what the records of $Bitmap throw
    /// @throws std::bad_alloc      an attribute claims a size that memory cannot hold; so do the operations below, but
    ///     for readACLFromFile(), which turns it into its std::runtime_error once upcase table and $SDS stream are
    ///     loaded
    long getChunk(unsigned long offset, char* buffer, unsigned long length) const override;

    /// The clusters of a file's data, sorted by first cluster: `first` is a cluster number, `count` is in clusters.
    /// Streams with a name count, too, and so do the runs of an attribute list outside its record. Data that stand in
    /// the record itself have no clusters.
    ///
    /// A record that cannot be read is no exception: it ends the list, after a `Debug` entry "Unable to read inode N".
    /// @param recordNumber  the file's MFT record number; all ones gives an empty list
    /// @return what was found until then
    /// @throws std::runtime_error  the record's attributes or runs are damaged; the texts are those of get_attributes()
    ///     and get_run_list()
    std::vector<agent::BlockRange> extents(unsigned long recordNumber);

    /// The same for a file's path. Paths are components joined by SEPARATOR; everything up to and including the first
    /// separator is ignored (a leading one, or a drive prefix), and a path without any is one component in the root
    /// directory. Names match case-insensitively through the volume's upcase table, which this call loads. Directories
    /// on the way are kept in the path cache.
    ///
    /// When a run of $UpCase cannot be read, this call fails, and the table stays with a length of 0, on purpose: it is
    /// not read again, and later calls match names by their exact case.
    /// @param path  UTF-8, as "\\directory\\file" or "C:\\directory\\file"
    /// @return as above, of the path's record: none where that record cannot be read or has no data outside itself, and
    ///     the root directory's for an empty path
    /// @throws std::runtime_error
    ///     - a component does not exist, or an index is damaged: the texts of btree_lookup()
    ///     - $UpCase cannot be read: the texts of read_upcase(), such as "Could not read MFT record for inode number
    ///       10" and "Unable to read INDEX ENTRY"
    ///     - the record's attributes or runs are damaged: the texts of get_attributes() and get_run_list()
    /// @throws std::invalid_argument  "Upcase file is not read.": $UpCase has no data, or its extension record cannot
    ///     be read
    std::vector<agent::BlockRange> extents(std::string const& path);

    /// The MFT record number behind a path; 5, the root directory, for an empty path. Does not load the upcase table
    /// itself, on purpose: extents(), readACLFromFile() do.
    /// @param path  as in extents()
    /// @return the number, never all ones: an entry of that name without a file is passed over as not found
    /// @throws std::invalid_argument  "Upcase file is not read.": nothing has loaded the upcase table yet
    /// @throws std::runtime_error     a component does not exist, or a record is damaged; the texts are those of
    ///     btree_lookup()
    unsigned long convert_to_inode(std::string const& path);

    /// The standard information of the file behind a path, as it stands on disk. Does not load the upcase table itself.
    /// @param path  as in extents()
    /// @return 72 bytes, whatever the length of the attribute's value
    /// @throws std::invalid_argument  as convert_to_inode()
    /// @throws std::runtime_error
    ///     - "Could not find STANDARD_INFORMATION for file PATH"
    ///     - "Could not read MFT record N for PATH"; for an empty path "Could not read MFT record for inode number 5"
    ///     - the texts of checkFileRecordConsistency() and get_attributes()
    ///     - as convert_to_inode()
    ntfs_standard_information getStandardInfo(std::string const& path);

    /// The access-control lists of the file behind a path: first the system list, then the discretionary one, each if
    /// it is present and has entries. The first call reads the whole $SDS stream, which is kept until clearSDS(): as
    /// much memory as the stream is long, never more than the volume.
    ///
    /// A stream that could not be read to its end stays as it is, on purpose; clearSDS() before trying again.
    ///
    /// Not promised: that the result tells an absent discretionary list from a null one, which lets everyone in, or
    /// from an empty one, which lets nobody in. None of them gives an element.
    /// @param path  as in extents()
    /// @return at most two lists
    /// @throws std::runtime_error  "Failed to read ACLs for \"PATH\": " and the text of any std::exception (those of
    ///     memory and of the volume reader, too) thrown by
    ///     - getStandardInfo()
    ///     - btree_lookup(), where KEY is the security identifier
    ///     - getACLFromSDS(), among them "Security descriptor is cut off!", "ACL is cut off!", "ACE is cut off!", "SID
    ///       is cut off!", and the std::logic_error of a descriptor that is not self-relative
    /// @throws std::exception  without that, what read_upcase() and readSDS() throw before
    std::vector<NTFS_ACL> readACLFromFile(std::string const& path);

    /// Reads MFT records 0 and 1 again and forgets every path; needed after the volume changed. What stays: the
    /// geometry of the boot sector, the upcase table, and the $SDS stream, which clearSDS() forgets.
    /// @throws std::runtime_error  the texts of the constructor's last two items; ask nothing until this call succeeds
    void resetMftCache();

    /// Forgets the $SDS stream and frees its memory; the next ACL read loads it again.
    void clearSDS();

protected:
    /// One directory in the path cache.
    struct Element {
        std::string path;    ///< relative to the root, without leading or trailing separator
        unsigned long inode; ///< MFT record number

        /// By path alone, byte for byte.
        bool operator<(Element const& other) const { return path < other.path; }
    };

    /// What btree_lookup() looks for. Does not own what it points to.
    struct BTreeKey {
        void const* value; ///< type 1: a std::string, the name; type 16: an unsigned int, the security identifier
        unsigned int type; ///< the index's collation rule
    };

    /// How iterateDataRuns() places runs in its destination.
    enum class BufferType : int {
        Bytes = 0,   ///< bytes, one run right behind the other
        Units16 = 1, ///< an array of 16-bit units
    };

    /// Record number of the holder, and byte offset of the attribute in it.
    using AttributeHit = std::pair<unsigned long, long>;

    /// In the order in which the walk met them.
    using AttributeHits = std::vector<AttributeHit>;

    /// @name Construction, geometry, metadata (NTFSParser.cpp)
    /// @{

    /// Reads the boot sector, derives the geometry and calls initVolumeMetaData(). Throws what the constructor throws.
    void reinit();

    /// Reads record 0 from the first cluster of $MFT, checks it and keeps it; reads record 1 as a proof that the runs
    /// of $MFT lead to records.
    /// @throws std::runtime_error  what the checks of a record say, or "Could not read MFT record for inode number 1"
    void initVolumeMetaData();

    /// Reads $UpCase (record 10), once. Where it has no data, or its extension record cannot be read, nothing is loaded
    /// and nothing is said.
    /// @throws std::runtime_error
    ///     - "Unable to read INDEX ENTRY": a run cannot be read (the wording is the lookup's). The table stays with a
    ///       length of 0 then, on purpose: it is not read again, and names match by their exact case
    ///     - "Could not read MFT record for inode number 10", and the texts of checkFileRecordConsistency(),
    ///       get_attributes() and get_run_list(); the next call reads it again then
    void read_upcase();

    /// @}
    /// @name Record access and fixup (MftRecord.cpp)
    ///
    /// The codes of read_record() and read_mft_record(): 0 read, fixed up and checked; -638 the read failed; -642 it
    /// came short; -650 the magic is not "FILE", after `Debug` "MFT record N is invalid."; -654 the fixup failed; -661
    /// the record carries another number. The buffer holds what was read, whatever the code. Each begins with `Debug`
    /// "Reading $MFT for inode N at offset B", where B is the byte of the volume.
    /// @{

    /// Reads one record from its place on the volume.
    /// @param recordNumber  for the message and the check
    /// @param byteOffset    byte of the volume
    /// @param buffer        takes one record
    /// @return a code
    int read_record(unsigned long recordNumber, unsigned long byteOffset, void* buffer) const;

    /// Finds a record's place through the runs of $MFT, which are decoded afresh each time, and reads it. A number past
    /// the last run is looked for behind that run.
    /// @param recordNumber  the record
    /// @param buffer        takes one record
    /// @return a code
    /// @throws std::runtime_error  as get_mft_runlist()
    int read_mft_record(unsigned long recordNumber, void* buffer) const;

    /// The same with checkFileRecordConsistency().
    /// @param recordNumber  the record
    /// @param buffer        takes one record
    /// @param context       what the record is wanted for; may be empty
    /// @throws std::runtime_error  "Could not read MFT record N for CONTEXT", without a context "Could not read MFT
    ///     record for inode number N"; what the check says; or as get_mft_runlist()
    void read_mft_record_throw(unsigned long recordNumber, void* buffer, std::string const& context) const;

    /// Puts the last two bytes of each 512 back from the update sequence array. All are compared before one is changed;
    /// a record that is torn gets the magic "BAAD".
    /// @param record  changed in place
    /// @param size    bytes, a multiple of 512
    /// @return 0; -1 when the record is torn or its array does not fit
    int post_read_fixup(ntfs_record* record, unsigned int size) const;

    /// The same for record after record; the first that fails ends it. The buffer holds whole records, also when the
    /// last one begins less than a record before `total`.
    /// @param buffer      changed in place
    /// @param total       bytes in which records begin; 0 succeeds
    /// @param recordSize  bytes of a record
    /// @return 0 or -1
    int post_read_fixup(void* buffer, unsigned int total, unsigned int recordSize) const;

    /// The runs of $MFT, from record 0. When the first data attribute stands in another record, that record takes the
    /// place of record 0, on purpose.
    /// @return empty when there is no data attribute or its record cannot be read
    /// @throws std::runtime_error  record 0 is damaged; the texts are those of get_attributes() and get_run_list()
    std::vector<ntfs_runlist> get_mft_runlist() const;

    /// The run that holds a cluster of an attribute. Runs with markers below -1 are passed over.
    /// @param runs  in VCN order
    /// @param vcn   the cluster; set to the first one of the run that is returned
    /// @return the last run when none holds it; {0, 0}, and `vcn` as it was, when there are no runs
    ntfs_runlist runlist_from_vcn(std::vector<ntfs_runlist> const& runs, long& vcn) const;

    /// @}
    /// @name Consistency checks (Consistency.cpp)
    ///
    /// They log nothing and repair nothing. In the texts R is the record number, the low 48 bits of the reference, and
    /// T the attribute type, both in hexadecimal.
    /// @{

    /// Checks a record's header and each of its attributes.
    /// @param record     one record, fixed up
    /// @param reference  its MFT reference
    /// @throws std::runtime_error
    ///     - "Invalid record buffer.": null
    ///     - "MFT Record 0xR has invalid file magic"
    ///     - "Record 0xR has invalid size: 0x..."
    ///     - "Record 0xR has invalid BytesInUse: 0x..."
    ///     - "Incorrect attribute alignedment for record 0xR. Attribute offset: 0x..."
    ///     - "Record 0xR is corrupt."
    ///     - "Corrupt MFT record 0xR": an attribute's length
    ///     - "Bad end of record for 0xR": the end marker is missing, or types do not ascend
    ///     - what checkAttributeConsistency() says
    void checkFileRecordConsistency(void* record, unsigned long reference) const;

    /// Checks one attribute's header, and the value of those whose form is known.
    /// @param attribute  the attribute in its record
    /// @param reference  the record's MFT reference
    /// @throws std::runtime_error
    ///     - "Invalid attribute record buffer.": null
    ///     - "Corrupt non resident attributeT in MFT record 0xR", "Corrupt resident attribute 0xT in MFT record 0xR"
    ///     - "Attribute 0xT in MFT record 0xR should be resident"
    ///     - "Corrupt standard information in MFT record 0xR", and likewise "file name attribute", "object id", "volume
    ///       information", "index root"
    ///     - "Corrupt index allocation in MFT record R": it is resident
    void checkAttributeConsistency(void* attribute, unsigned long reference) const;

    /// @}
    /// @name Attributes and attribute lists (Attributes.cpp)
    ///
    /// Hits are numbers, never pointers: extension records are read into buffers that do not last. Who wants an
    /// attribute whose holder is another record reads that record again.
    /// @{

    /// Finds the attributes of a type in a record and, through its attribute list, in others.
    /// @param recordNumber  the record
    /// @param record        its bytes, fixed up
    /// @param type          0 gives only what a list in front of all else leads to
    /// @return the hits; what a list leads to stands where the list stands
    /// @throws std::runtime_error
    ///     - "Invalid buffer passed in to traverse attributes for inode: N"
    ///     - "Invalid buffer passed in to traverse attribute record for inode: N"
    ///     - what get_attribute_external() throws
    AttributeHits get_attributes(unsigned long recordNumber, ntfs_mft_record_t* record, NtfsAttrTypes type) const;

    /// The hits that an attribute list leads to. A list that is being walked already, or that is the 17th inside one
    /// another, gives none.
    /// @param baseRecord     the record that the list belongs to
    /// @param listAttribute  the list, in its record or outside
    /// @param type           wanted
    /// @return none of a list with holes, after `Debug` "No support for compressed files yet."
    /// @throws std::invalid_argument  "Attribute record is null."
    /// @throws std::runtime_error     "Found no run list for attribute.", "Could not read from device.", or what the
    ///     decoding of runs says
    /// @throws std::bad_alloc         a list of a negative size
    AttributeHits get_attribute_external(unsigned long baseRecord, ntfs_attribute_record* listAttribute,
                                         NtfsAttrTypes type) const;

    /// The hits that the entries of a list lead to. Each record is read once; one that cannot be read is passed over
    /// without an entry of its own, and one of another base record after `Debug` "External inode N doesn't refer to
    /// base inode M".
    /// @param baseRecord  the record that the list belongs to
    /// @param type        wanted
    /// @param listLength  bytes
    /// @param list        the entries
    /// @return the hits in the order of the entries
    AttributeHits traverse_attr_list(unsigned long baseRecord, NtfsAttrTypes type, unsigned long listLength,
                                     unsigned char* list) const;

    /// The first hit whose attribute has a name, with its case. Loads the upcase table.
    /// @param recordNumber  the record in `record`
    /// @param record        its bytes
    /// @param hits          where to look; unnamed attributes never match
    /// @param name          UTF-8
    /// @return the hit
    /// @throws std::runtime_error  "Could not find attribute with name NAME", or what reading a record throws
    AttributeHit findAttributeByName(unsigned long recordNumber, ntfs_mft_record_t* record, AttributeHits const& hits,
                                     std::string const& name);

    /// @}
    /// @name Runlists (Runlist.cpp)
    ///
    /// Given a pointer alone, an attribute's bytes end where its length says: what would lie on that border is cut off.
    /// @{

    /// Counts the mapping pairs of a non-resident attribute.
    /// @param attribute  with all its bytes
    /// @return pairs until the end marker or the attribute's end
    unsigned int get_no_runlist(ntfs_attribute_record const* attribute) const;

    /// Decodes the mapping pairs of a non-resident attribute. A pair without an offset takes the last byte of its
    /// length as one; a pair without a length becomes {-1, -1}. Both on purpose.
    /// @param attribute  with all its bytes
    /// @return the runs
    /// @throws std::runtime_error  "No run list can be found", "Invalid runlist", "Corrupt runlist"
    std::vector<ntfs_runlist> get_run_list(ntfs_attribute_record const* attribute) const;

    /// The same; none of a resident attribute, after `Debug` "Attribute is resident. Can't find data-runs.".
    /// @param attribute  with all its bytes
    /// @return the runs
    std::vector<ntfs_runlist> get_data_runs(ntfs_attribute_record const* attribute) const;

    /// The runs of all data attributes of a record, one after the other, and behind them those of an attribute list
    /// outside the record. What cannot be read ends them, after `Debug` "Unable to read inode N".
    /// @param recordNumber  the record
    /// @return the runs until then
    std::vector<ntfs_runlist> get_inode_runlist(unsigned long recordNumber) const;

    /// Copies runs, holes and markers included.
    /// @param runs  in clusters
    /// @return as many ranges, in clusters, in the same order
    std::vector<agent::BlockRange> runs_to_blockRange(std::vector<ntfs_runlist> const& runs) const;

    /// @}
    /// @name The used-cluster bitmap (Bitmap.cpp)
    /// @{

    /// The routine behind getChunk(), without the `Error` entry.
    /// @param length  bytes of the buffer
    /// @param lcn     number of the first cluster, a multiple of 8
    /// @param buffer  takes the bits
    /// @return clusters covered, 0 at the end, or a negative code
    long fs_get_blocks_bitmap_chunk(unsigned long length, unsigned long lcn, char* buffer) const;

    /// Reads whole runs, one after the other.
    /// @param destination  takes them; at least the runs' bytes, twice that for BufferType::Units16
    /// @param runs         in clusters
    /// @param type         with Units16 a run is placed at the 16-bit unit whose number is the bytes read so far, so
    ///     that a second run leaves a gap before it; on purpose
    /// @param errorText    of the exception
    /// @return bytes of the runs; what a short read did not deliver counts, too
    /// @throws std::runtime_error  `errorText`: a run cannot be read
    unsigned long iterateDataRuns(unsigned short* destination, std::vector<ntfs_runlist> const& runs, BufferType type,
                                  std::string const& errorText);

    /// @}
    /// @name Paths (PathResolution.cpp)
    /// @{

    /// Splits a path at the longest directory that the cache knows.
    /// @param path       as in extents()
    /// @param resolved   takes that directory, empty for the root
    /// @param remaining  takes the rest
    /// @param record     5 before; the directory's record afterwards
    void resolve_cached_portion(std::string path, std::string& resolved, std::string& remaining, unsigned long& record);

    /// Walks the rest of a path by lookups and puts the directories, not the last component, into the cache. What was
    /// put there before a failure stays.
    /// @param resolved   the directory to begin in, for the cache
    /// @param remaining  components
    /// @param record     the directory's record before, the last component's afterwards; never all ones: an entry
    ///     without a file is passed over as not found
    void resolve_uncached_portion(std::string resolved, std::string remaining, unsigned long& record);

    /// @}
    /// @name Security (Security.cpp)
    /// @{

    /// Reads the $SDS stream, unless it is there: all data attributes of record 9, whatever their names.
    /// @throws std::runtime_error  "Could not find AtData for file $Secure"; "Unable to read SDS entry"; "Could not
    ///     read MFT record N for $Secure"; the texts of checkFileRecordConsistency(), get_attributes() and
    ///     get_run_list()
    /// @throws std::bad_alloc, std::length_error  the stream claims a size that memory cannot hold
    void readSDS();

    /// The lists of a descriptor in the stream.
    /// @param offset  byte of the descriptor's entry
    /// @return as readACLFromFile()
    /// @throws std::runtime_error  "Given $SDS offset N exceeds length of $SDS data, which is M", "Given $SDS offset N
    ///     doesn't yield $SDS header with matching offset."; "SID is invalid! Cannot convert to string."; "Security
    ///     descriptor is cut off!", "ACL is cut off!", "ACE is cut off!", "SID is cut off!": the stream ends before
    /// @throws std::logic_error  as parseSecurityDescriptor()
    std::vector<NTFS_ACL> getACLFromSDS(unsigned long offset) const;

    /// @}
    /// @name Index lookup (Index.cpp, Collation.cpp)
    ///
    /// In the texts KEY is the name, or the security identifier in decimal.
    /// @{

    /// Finds an entry in a directory, or in the $SII index of record 9. Of a child's VCN only the lowest byte is read.
    /// @param parent  the MFT record that has the index
    /// @param key     what to look for
    /// @return the first 40 bytes of the entry
    /// @throws std::invalid_argument  "Upcase file is not read."
    /// @throws std::runtime_error
    ///     - "Could not find INDEX_ROOT for key KEY in parent inode N", and likewise "INDEX_ALLOCATION"
    ///     - "Invalid index block size": below 512, or no power of two
    ///     - "Entry not found - between root entries for key KEY", "Could not find entry for key KEY in parent inode N"
    ///     - "Unable to read INDEX ENTRY": a block cannot be read
    ///     - "Index entry with child node found in a leaf node containing key KEY"
    ///     - what the functions below and those of records and attributes throw
    ntfs_index_entry btree_lookup(unsigned long parent, BTreeKey const& key);

    /// Walks the entries of one node.
    /// @param entry       the entry to begin with; left at the match, or at the first entry behind the key
    /// @param end         where the node's entries end
    /// @param lowerBound  where the node's bytes begin
    /// @param key         what to look for
    /// @return whether the entry matches
    /// @throws std::runtime_error
    ///     - "Index entry out of bounds in inode for node with key KEY"
    ///     - "Key type not recognized, aborting operation."
    ///     - what check_index_entry_consistency() says
    bool traverse_index_entry(ntfs_index_entry** entry, unsigned char const* end, unsigned char const* lowerBound,
                              BTreeKey const& key) const;

    /// Compares a name with that of a directory entry, without case.
    /// @param entry  points to the entry
    /// @param name   UTF-8
    /// @return -1, 0, 1: the name sorts before, is, sorts behind the entry's
    int collate_index_names(ntfs_index_entry** entry, std::string const& name) const;

    /// Compares a security identifier with that of an $SII entry, unsigned.
    /// @param entry       points to the entry
    /// @param identifier  the key
    /// @return -1, 0, 1 as above
    int collate_index_security_IDs(ntfs_index_entry** entry, unsigned int const& identifier) const;

    /// Compares two names in the order of NTFS directories. Wide characters are cut to 16 bits; a unit at or past the
    /// table's length is its own upper case.
    /// @param name1         UTF-16 units, one to a wide character
    /// @param length1       units
    /// @param name2         UTF-16 units
    /// @param length2       units
    /// @param ignoreCase    false: names that differ by case alone differ, by their first such unit
    /// @param upcase        the table; null only where one of the names is empty
    /// @param upcaseLength  its length. The parser passes the table's length in bytes, on purpose.
    /// @return -1, 0, 1
    /// @throws std::invalid_argument  "Upcase file is not read.": the table is null
    int collate_unicode_names(wchar_t const* name1, unsigned int length1, unsigned short const* name2,
                              unsigned int length2, bool ignoreCase, unsigned short const* upcase,
                              unsigned int upcaseLength) const;

    /// Checks that key and data of an entry lie inside it.
    /// @param entry  with all its bytes
    /// @param key    tells the kind of index
    /// @throws std::runtime_error  "Overflow from index entry for key: KEY", and likewise "Filename overflow", "Data
    ///     overflow"; "Key type not recognized, aborting operation."
    void check_index_entry_consistency(ntfs_index_entry const* entry, BTreeKey const& key) const;

    /// Checks the header of an index block that was fixed up.
    /// @param block      the block
    /// @param blockSize  bytes, as the index root has it
    /// @param vcn        where it was read
    /// @param key        KEY
    /// @throws std::runtime_error
    ///     - "Corrupt index block signature for key: KEY"
    ///     - "Corrupt index block. VCN doesn't match. Expected: V, found: W for key: KEY"
    ///     - "Corrupt index block. Block size doesn't match. Expected: S, found: T for key: KEY"
    ///     - "Invalid index entry offset for key: KEY"
    ///     - "No space available in index entry for key: KEY"
    ///     - "Index entries overflow for key: KEY"
    void check_index_block_consistency(ntfs_index_allocation const* block, unsigned long blockSize, long vcn,
                                       std::string const& key) const;

    /// A key for messages.
    /// @param key  a name or a security identifier
    /// @return KEY
    /// @throws std::runtime_error  "Key type not recognized, aborting operation."
    std::string keyToString(BTreeKey const& key) const;

    /// @}

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
    std::vector<unsigned char, agent::CacheLineAllocator<unsigned char>> sds; // empty until an ACL is read
    std::unique_ptr<Walks> walks; // what is being worked out now, so that hostile volumes end
};

} // namespace agent::core::fs
