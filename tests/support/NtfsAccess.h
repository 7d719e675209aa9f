// Opens the NTFS parser's protected operations to tests.
#pragma once

#include "agent/core/fs/NTFSParser.h"

namespace tests {

/// The parser with every operation and type in reach.
struct NtfsAccess : agent::core::fs::NTFSParser {
    using NTFSParser::NTFSParser;

    using NTFSParser::AttributeHit;
    using NTFSParser::AttributeHits;
    using NTFSParser::BTreeKey;
    using NTFSParser::BufferType;
    using NTFSParser::Element;

    using NTFSParser::btree_lookup;
    using NTFSParser::check_index_block_consistency;
    using NTFSParser::check_index_entry_consistency;
    using NTFSParser::checkAttributeConsistency;
    using NTFSParser::checkFileRecordConsistency;
    using NTFSParser::collate_index_names;
    using NTFSParser::collate_index_security_IDs;
    using NTFSParser::collate_unicode_names;
    using NTFSParser::findAttributeByName;
    using NTFSParser::fs_get_blocks_bitmap_chunk;
    using NTFSParser::get_attribute_external;
    using NTFSParser::get_attributes;
    using NTFSParser::get_data_runs;
    using NTFSParser::get_inode_runlist;
    using NTFSParser::get_mft_runlist;
    using NTFSParser::get_no_runlist;
    using NTFSParser::get_run_list;
    using NTFSParser::getACLFromSDS;
    using NTFSParser::initVolumeMetaData;
    using NTFSParser::iterateDataRuns;
    using NTFSParser::keyToString;
    using NTFSParser::post_read_fixup;
    using NTFSParser::read_mft_record;
    using NTFSParser::read_mft_record_throw;
    using NTFSParser::read_record;
    using NTFSParser::read_upcase;
    using NTFSParser::readSDS;
    using NTFSParser::reinit;
    using NTFSParser::resolve_cached_portion;
    using NTFSParser::resolve_uncached_portion;
    using NTFSParser::runlist_from_vcn;
    using NTFSParser::runs_to_blockRange;
    using NTFSParser::traverse_attr_list;
    using NTFSParser::traverse_index_entry;
};

} // namespace tests
