// Volumes for tests whose $Secure holds chosen descriptors, or chosen bytes.
#pragma once

#include "support/NtfsBuilder.h"
#include "support/SecurityDescriptors.h"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace tests {

/// The file whose access is asked for, \readme.txt.
inline constexpr std::uint64_t kSecuredFile = 24;

/// Gives \readme.txt this identifier.
inline void setSecurityId(NtfsBuilder& builder, std::uint32_t identifier) {
    builder.record(kSecuredFile)
        .remove(ntfs_type::kStandardInformation)
        .resident(ntfs_type::kStandardInformation, u"", ntfsStandardInformation(identifier));
}

/// Replaces $SII.
inline void setSecurityIndex(NtfsBuilder& builder, std::vector<NtfsSdsPlace> const& places, unsigned levels = 1) {
    NtfsRecord& secure = builder.record(ntfs_record_number::kSecure);
    secure.remove(ntfs_type::kIndexRoot).remove(ntfs_type::kIndexAllocation).remove(ntfs_type::kBitmap);
    NtfsIndexShape shape = builder.directoryShape();
    shape.type = 0;
    shape.collation = 18;
    builder.index(secure, u"$SDH", shape, {}); // the first index of the record is not the one that is searched
    shape.collation = 16;
    shape.levels = levels;
    builder.index(secure, u"$SII", shape, ntfsIdentifierEntries(places));
}

/// Replaces the stream by these bytes; returns its runs.
inline std::vector<NtfsRun> setSecurityStream(NtfsBuilder& builder, NtfsBytes const& stream, unsigned pieces = 1) {
    NtfsRecord& secure = builder.record(ntfs_record_number::kSecure).remove(ntfs_type::kData);
    return builder.store(secure, ntfs_type::kData, u"$SDS", stream, pieces);
}

/// A sealed volume whose \readme.txt has this descriptor, which ends where the stream ends.
inline NtfsBuilder makeVolumeWithLastDescriptor(NtfsBytes const& descriptor) {
    constexpr std::uint64_t kStreamBytes = 4096; // one cluster: what is read is whole clusters
    std::uint64_t const offset = kStreamBytes - 20 - descriptor.size();
    NtfsBytes stream(kStreamBytes);
    putNumber(stream, offset + 0x08, offset, 8);
    std::copy(descriptor.begin(), descriptor.end(), stream.begin() + static_cast<std::ptrdiff_t>(offset + 20));
    NtfsBuilder builder = NtfsBuilder::standard();
    setSecurityStream(builder, stream);
    setSecurityIndex(builder, {{0x100, 0, offset, static_cast<std::uint32_t>(20 + descriptor.size())}});
    builder.seal();
    return builder;
}

} // namespace tests
