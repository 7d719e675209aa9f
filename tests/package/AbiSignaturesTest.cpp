// What the exported functions take and return. A symbol's name tells what a function takes, never what it returns, and
// abidiff knows only those members of a class that are defined where its constructors are. Nothing runs here: what is
// not as it was cannot be compiled.
#include "agent/core/backup/VolumeReader.h"
#include "agent/core/fs/EXTParser.h"
#include "agent/core/fs/FATParser.h"
#include "agent/core/fs/FSUtil.h"
#include "agent/core/fs/FileSystemType.h"
#include "agent/core/fs/HFSParser.h"
#include "agent/core/fs/NTFSParser.h"
#include "agent/core/fs/UnrecognizedParser.h"
#include "agent/core/fs/XFSParser.h"
#include "support/NtfsAccess.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using namespace agent::core::fs;
using agent::core::IVolumeReader;
using agent::info::Logger;
using std::string;

using Key = tests::NtfsAccess::BTreeKey;
using Runs = std::vector<ntfs_runlist>;
using Ranges = std::vector<agent::BlockRange>;
using Hit = std::pair<unsigned long, long>;
using Hits = std::vector<Hit>;

template <typename Class, typename Function>
using In = Function Class::*;

template <typename Function>
using Ntfs = In<NTFSParser, Function>;

/// Holds where it can be compiled. An explicit instantiation may name protected members.
template <auto Function, typename Type>
struct Is {
    static_assert(std::is_same_v<std::remove_cv_t<decltype(Function)>, Type>);
};

// NTFS: what anybody may ask

template struct Is<&NTFSParser::isNTFileSystem, bool (*)(void*, Logger&)>;
template struct Is<&NTFSParser::getChunk, Ntfs<long(unsigned long, char*, unsigned long) const>>;
template struct Is<static_cast<Ntfs<Ranges(unsigned long)>>(&NTFSParser::extents), Ntfs<Ranges(unsigned long)>>;
template struct Is<static_cast<Ntfs<Ranges(string const&)>>(&NTFSParser::extents), Ntfs<Ranges(string const&)>>;
template struct Is<&NTFSParser::convert_to_inode, Ntfs<unsigned long(string const&)>>;
template struct Is<&NTFSParser::getStandardInfo, Ntfs<ntfs_standard_information(string const&)>>;
template struct Is<&NTFSParser::readACLFromFile, Ntfs<std::vector<NTFS_ACL>(string const&)>>;
template struct Is<&NTFSParser::resetMftCache, Ntfs<void()>>;
template struct Is<&NTFSParser::clearSDS, Ntfs<void()>>;

// NTFS: what a derived class may call

template struct Is<&NTFSParser::reinit, Ntfs<void()>>;
template struct Is<&NTFSParser::initVolumeMetaData, Ntfs<void()>>;
template struct Is<&NTFSParser::read_upcase, Ntfs<void()>>;
template struct Is<&NTFSParser::read_record, Ntfs<int(unsigned long, unsigned long, void*) const>>;
template struct Is<&NTFSParser::read_mft_record, Ntfs<int(unsigned long, void*) const>>;
template struct Is<&NTFSParser::read_mft_record_throw, Ntfs<void(unsigned long, void*, string const&) const>>;
using FixupOfOne = Ntfs<int(ntfs_record*, unsigned int) const>;
template struct Is<static_cast<FixupOfOne>(&NTFSParser::post_read_fixup), FixupOfOne>;
using FixupOfMany = Ntfs<int(void*, unsigned int, unsigned int) const>;
template struct Is<static_cast<FixupOfMany>(&NTFSParser::post_read_fixup), FixupOfMany>;
template struct Is<&NTFSParser::get_mft_runlist, Ntfs<Runs() const>>;
template struct Is<&NTFSParser::runlist_from_vcn, Ntfs<ntfs_runlist(Runs const&, long&) const>>;
template struct Is<&NTFSParser::checkFileRecordConsistency, Ntfs<void(void*, unsigned long) const>>;
template struct Is<&NTFSParser::checkAttributeConsistency, Ntfs<void(void*, unsigned long) const>>;
template struct Is<&NTFSParser::get_attributes, Ntfs<Hits(unsigned long, ntfs_mft_record_t*, NtfsAttrTypes) const>>;
template struct Is<&NTFSParser::get_attribute_external,
                   Ntfs<Hits(unsigned long, ntfs_attribute_record*, NtfsAttrTypes) const>>;
template struct Is<&NTFSParser::traverse_attr_list,
                   Ntfs<Hits(unsigned long, NtfsAttrTypes, unsigned long, unsigned char*) const>>;
template struct Is<&NTFSParser::findAttributeByName,
                   Ntfs<Hit(unsigned long, ntfs_mft_record_t*, Hits const&, string const&)>>;
template struct Is<&NTFSParser::get_no_runlist, Ntfs<unsigned int(ntfs_attribute_record const*) const>>;
template struct Is<&NTFSParser::get_run_list, Ntfs<Runs(ntfs_attribute_record const*) const>>;
template struct Is<&NTFSParser::get_data_runs, Ntfs<Runs(ntfs_attribute_record const*) const>>;
template struct Is<&NTFSParser::get_inode_runlist, Ntfs<Runs(unsigned long) const>>;
template struct Is<&NTFSParser::runs_to_blockRange, Ntfs<Ranges(Runs const&) const>>;
template struct Is<&NTFSParser::fs_get_blocks_bitmap_chunk, Ntfs<long(unsigned long, unsigned long, char*) const>>;
template struct Is<&NTFSParser::iterateDataRuns,
                   Ntfs<unsigned long(unsigned short*, Runs const&, tests::NtfsAccess::BufferType, string const&)>>;
template struct Is<&NTFSParser::resolve_cached_portion, Ntfs<void(string, string&, string&, unsigned long&)>>;
template struct Is<&NTFSParser::resolve_uncached_portion, Ntfs<void(string, string, unsigned long&)>>;
template struct Is<&NTFSParser::readSDS, Ntfs<void()>>;
template struct Is<&NTFSParser::getACLFromSDS, Ntfs<std::vector<NTFS_ACL>(unsigned long) const>>;
template struct Is<&NTFSParser::btree_lookup, Ntfs<ntfs_index_entry(unsigned long, Key const&)>>;
template struct Is<&NTFSParser::traverse_index_entry,
                   Ntfs<bool(ntfs_index_entry**, unsigned char const*, unsigned char const*, Key const&) const>>;
template struct Is<&NTFSParser::collate_index_names, Ntfs<int(ntfs_index_entry**, string const&) const>>;
template struct Is<&NTFSParser::collate_index_security_IDs, Ntfs<int(ntfs_index_entry**, unsigned int const&) const>>;
template struct Is<&NTFSParser::collate_unicode_names,
                   Ntfs<int(wchar_t const*, unsigned int, unsigned short const*, unsigned int, bool,
                            unsigned short const*, unsigned int) const>>;
template struct Is<&NTFSParser::check_index_entry_consistency, Ntfs<void(ntfs_index_entry const*, Key const&) const>>;
template struct Is<&NTFSParser::check_index_block_consistency,
                   Ntfs<void(ntfs_index_allocation const*, unsigned long, long, string const&) const>>;
template struct Is<&NTFSParser::keyToString, Ntfs<string(Key const&) const>>;

// Security descriptors

template struct Is<&parseSecurityDescriptor, std::vector<NTFS_ACL> (*)(security_descriptor const*)>;
template struct Is<&parseACEs, std::vector<NTFS_ACE> (*)(security_acl const*)>;
template struct Is<&sidToString, string (*)(_SID const&)>;
template struct Is<&typeToAccessMode, std::uint8_t (*)(AceTypes, AceFlags)>;
template struct Is<&isObjectACE, bool (*)(AceTypes)>;
template struct Is<&isSIDValid, bool (*)(_SID const&)>;
template struct Is<&first16, std::uint16_t (*)(_SID_IDENTIFIER_AUTHORITY)>;

// ext and FAT

template struct Is<&EXTParser::isEXTFileSystem, bool (*)(void*)>;
template struct Is<&EXTParser::getChunk, In<EXTParser, long(unsigned long, char*, unsigned long) const>>;
template struct Is<&EXTParser::fs_get_blocks_bitmap_chunk,
                   In<EXTParser, long(unsigned long, unsigned long, char*) const>>;
template struct Is<&EXTParser::fs_get_block_bitmap, In<EXTParser, bool(void*, int, long, void*) const>>;
template struct Is<&FATParser::fat_get_type, int (*)(fat_boot_sector*)>;
template struct Is<&FATParser::isFATFileSystem, bool (*)(void*)>;
template struct Is<&FATParser::getChunk, In<FATParser, long(unsigned long, char*, unsigned long) const>>;
template struct Is<&FATParser::fat_read_bootsector, In<FATParser, int(fat_boot_sector&) const>>;
template struct Is<&FATParser::fs_get_blocks_bitmap_chunk,
                   In<FATParser, long(unsigned long, unsigned long, char*) const>>;
template struct Is<&FATParser::fat_blocks_in_use, In<FATParser, int(long, long, long, long, int*, unsigned int) const>>;

// HFS+ and XFS

template struct Is<&HFSParser::isHFSFileSystem, bool (*)(void*)>;
template struct Is<&HFSParser::getChunk, In<HFSParser, long(unsigned long, char*, unsigned long) const>>;
template struct Is<&HFSParser::isMostSignificantBitFirst, In<HFSParser, bool() const>>;
template struct Is<&HFSParser::fs_get_num_blocks, In<HFSParser, unsigned long(HFSPlusForkData const&) const>>;
template struct Is<&HFSParser::fs_get_blocks_bitmap_chunk,
                   In<HFSParser, long(unsigned long, char*, unsigned long) const>>;
template struct Is<&HFSParser::fs_search_overflow, In<HFSParser, bool(HFSPlusVolumeHeader const&, unsigned int,
                                                                      std::vector<HFSPlusExtentDescriptor>&) const>>;
template struct Is<&HFSParser::fs_traverse_index_node,
                   In<HFSParser, void(std::deque<unsigned int>&, std::unique_ptr<unsigned char[]>&, unsigned long,
                                      unsigned long) const>>;
template struct Is<&XFSParser::isXFSFileSystem, bool (*)(void*)>;
template struct Is<&XFSParser::getChunk, In<XFSParser, long(unsigned long, char*, unsigned long) const>>;
template struct Is<&XFSParser::getXFSJournalBlocks, In<XFSParser, unsigned long() const>>;
template struct Is<&XFSParser::xfs_sb_version_hascrc, In<XFSParser, bool(unsigned short) const>>;
template struct Is<&XFSParser::fs_get_blocks_bitmap_chunk,
                   In<XFSParser, long(unsigned long, unsigned long, char*) const>>;
template struct Is<&XFSParser::read_fsi,
                   In<XFSParser, unsigned int(unsigned int, unsigned int, unsigned int, xfs_free_space_info*) const>>;
template struct Is<&XFSParser::read_agfl, In<XFSParser, unsigned int(unsigned short, unsigned int, unsigned int,
                                                                     unsigned int, unsigned int*) const>>;
template struct Is<&XFSParser::fs_bitmap_mark, In<XFSParser, void(char*, unsigned long, unsigned long, unsigned int,
                                                                  unsigned int, unsigned int, unsigned long*) const>>;
template struct Is<&XFSParser::bitmap_mark_range,
                   In<XFSParser, void(char*, unsigned long, unsigned long, unsigned int, unsigned int, unsigned int,
                                      unsigned int, unsigned long*) const>>;

// The framework

template struct Is<&IBlockBitmapChunkProvider::getChunk,
                   In<IBlockBitmapChunkProvider, long(unsigned long, char*, unsigned long) const>>;
template struct Is<&IBlockBitmapChunkProvider::isMostSignificantBitFirst, In<IBlockBitmapChunkProvider, bool() const>>;
template struct Is<&UnrecognizedParser::getChunk,
                   In<UnrecognizedParser, long(unsigned long, char*, unsigned long) const>>;
template struct Is<&FileSystemType::getFileSystemType, In<FileSystemType, int(void*) const>>;
template struct Is<&IVolumeReader::getVolumePath, In<IVolumeReader, string() const>>;
template struct Is<&IVolumeReader::read, In<IVolumeReader, long(void*, long) const>>;
template struct Is<&IVolumeReader::seek, In<IVolumeReader, long(long, int) const>>;
template struct Is<&IVolumeReader::getHandle, In<IVolumeReader, int() const>>;
template struct Is<&IVolumeReader::getLastError, In<IVolumeReader, int() const>>;
template struct Is<&IVolumeReader::open, In<IVolumeReader, bool()>>;
template struct Is<&IVolumeReader::size, In<IVolumeReader, long()>>;
template struct Is<&fs_seek_read_aligned, long (*)(Logger&, IVolumeReader const&, unsigned long, unsigned long, void*,
                                                   unsigned long, unsigned long*)>;
template struct Is<&fs_chunk_read, long (*)(IVolumeReader const&, void*, long, long*)>;
static_assert(std::is_same_v<decltype(SEPARATOR), string const>);

} // namespace
