// Fuzzes the checks of records alone: update sequences, MFT records and their attributes, index blocks and entries.
#include "GoodNtfs.h"

#include "BoundedRead.h"
#include "ntfs/NtfsLayout.h"

#include <stdexcept>
#include <string>

namespace {

using namespace agent::core::fs;

void checkAttributes(fuzz::Bytes& bytes) {
    tests::NtfsAccess& parser = fuzz::goodNtfs();
    auto* const record = reinterpret_cast<ntfs_mft_record_t*>(bytes.data());
    for (NtfsAttrTypes const type : {kNoAttribute, kStandardInformation, kData, kIndexRoot, kEndOfAttributes}) {
        fuzz::mayThrow<std::runtime_error, std::bad_alloc>([&] {
            auto const hits = parser.get_attributes(24, record, type);
            static_cast<void>(parser.findAttributeByName(24, record, hits, "$SII"));
        });
    }
}

/// The first bytes of the input, or as many zeros, in memory of exactly that size.
fuzz::Bytes exactly(fuzz::Bytes const& bytes, std::size_t size) {
    fuzz::Bytes result(size);
    std::copy_n(bytes.begin(), std::min(size, bytes.size()), result.begin());
    return result;
}

void checkRecord(fuzz::Bytes const& input) {
    fuzz::Bytes bytes = exactly(input, fuzz::kRecordBytes);
    tests::NtfsAccess& parser = fuzz::goodNtfs();
    fuzz::mayThrow<std::runtime_error>([&] { parser.checkFileRecordConsistency(bytes.data(), 24); });
    checkAttributes(bytes);
    parser.post_read_fixup(reinterpret_cast<ntfs_record*>(bytes.data()), fuzz::kRecordBytes);
    if (fuzz::mayThrow<std::runtime_error>([&] { parser.checkFileRecordConsistency(bytes.data(), 24); })) {
        checkAttributes(bytes);
    }
}

/// An attribute alone is as long as it says itself.
void checkAttribute(fuzz::Bytes const& input) {
    auto const header = readAt<ntfs_attribute_record>(input, 0);
    if (!header || header->length.value() > 65536) {
        return;
    }
    fuzz::Bytes bytes = exactly(input, std::max<std::size_t>(header->length.value(), sizeof *header));
    fuzz::mayThrow<std::runtime_error>([&] { fuzz::goodNtfs().checkAttributeConsistency(bytes.data(), 24); });
}

void checkBlock(fuzz::Bytes const& input, std::string const& key) {
    constexpr unsigned kBlock = 512;
    fuzz::Bytes bytes = exactly(input, (std::max<std::size_t>(input.size(), 1) + kBlock - 1) / kBlock * kBlock);
    tests::NtfsAccess& parser = fuzz::goodNtfs();
    parser.post_read_fixup(bytes.data(), static_cast<unsigned>(bytes.size()), kBlock);
    auto const* const block = reinterpret_cast<ntfs_index_allocation const*>(bytes.data());
    fuzz::mayThrow<std::runtime_error>([&] { parser.check_index_block_consistency(block, bytes.size(), 0, key); });
}

/// The entries of a node that is the input as a whole.
void checkEntries(fuzz::Bytes const& input, std::string const& key) {
    fuzz::Bytes bytes = exactly(input, std::max(input.size(), sizeof(ntfs_index_entry)));
    tests::NtfsAccess& parser = fuzz::goodNtfs();
    parser.read_upcase();
    unsigned const identifier = bytes[3];
    for (tests::NtfsAccess::BTreeKey const searched : {tests::NtfsAccess::BTreeKey{&key, 1}, {&identifier, 16}}) {
        auto* entry = reinterpret_cast<ntfs_index_entry*>(bytes.data());
        auto const* const end = bytes.data() + bytes.size();
        fuzz::mayThrow<std::runtime_error>([&] {
            parser.traverse_index_entry(&entry, end, bytes.data(), searched);
            auto const* const place = reinterpret_cast<std::uint8_t const*>(entry);
            fuzz::require(place >= bytes.data() && place < end);
        });
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::Bytes const bytes(data, data + size);
    std::string const key = size > 8 && data[8] % 2 == 0 ? "readme.txt" : "\xC3\xA4 name";
    checkRecord(bytes);
    checkAttribute(bytes);
    checkBlock(bytes, key);
    checkEntries(bytes, key);
    return 0;
}
