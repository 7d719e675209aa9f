// Fuzzes mapping pairs alone: the input is a non-resident attribute.
#include "GoodNtfs.h"

#include "BoundedRead.h"
#include "ntfs/NtfsLayout.h"
#include "ntfs/Runlist.h"

#include <stdexcept>
#include <vector>

namespace {

using agent::core::fs::ntfs_runlist;

constexpr std::size_t kLongestAttribute = 65536;

bool same(std::vector<ntfs_runlist> const& left, std::vector<ntfs_runlist> const& right) {
    return std::equal(
        left.begin(), left.end(), right.begin(), right.end(),
        [](ntfs_runlist const& a, ntfs_runlist const& b) { return a.lcn == b.lcn && a.length == b.length; });
}

void useRuns(std::vector<ntfs_runlist> const& runs, long vcn) {
    fuzz::require(fuzz::goodNtfs().runs_to_blockRange(runs).size() == runs.size());
    for (long wanted : {0L, 1L, vcn}) {
        static_cast<void>(fuzz::goodNtfs().runlist_from_vcn(runs, wanted));
    }
}

/// An attribute alone is as long as it says itself.
void decodeAlone(fuzz::Bytes const& input, std::vector<ntfs_runlist> const* whole) {
    auto const header = agent::core::fs::readAt<agent::core::fs::ntfs_attribute_record>(input, 0);
    std::size_t const length = header ? header->length.value() : 0;
    if (!header || length > kLongestAttribute) {
        return;
    }
    bool const isCutOff = length > input.size();
    fuzz::Bytes bytes(std::max(length, sizeof *header)); // of exactly this length
    std::copy_n(input.begin(), std::min(bytes.size(), input.size()), bytes.begin());
    auto const* const attribute = reinterpret_cast<agent::core::fs::ntfs_attribute_record const*>(bytes.data());
    std::vector<ntfs_runlist> runs;
    bool const isDecoded = fuzz::mayThrow<std::runtime_error>([&] { runs = fuzz::goodNtfs().get_run_list(attribute); });
    fuzz::require(!isDecoded || fuzz::goodNtfs().get_no_runlist(attribute) == runs.size());
    fuzz::require(!isDecoded || isCutOff || (whole != nullptr && same(runs, *whole)));
    fuzz::mayThrow<std::runtime_error>([&] { static_cast<void>(fuzz::goodNtfs().get_data_runs(attribute)); });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::Bytes const bytes(data, data + size);
    std::vector<ntfs_runlist> runs;
    bool const isDecoded =
        fuzz::mayThrow<std::runtime_error>([&] { runs = agent::core::fs::decodeMappingPairs(bytes); });
    if (isDecoded) {
        useRuns(runs, size >= 24 ? bytes[16] | bytes[17] << 8 : 0);
    }
    decodeAlone(bytes, isDecoded ? &runs : nullptr);
    return 0;
}
