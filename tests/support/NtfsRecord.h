// One MFT record as tests make it, before it stands on a volume.
#pragma once

#include "support/NtfsBytes.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tests {

/// Header fields and attributes; `bytes()` puts them together.
class NtfsRecord {
public:
    NtfsRecord(std::uint64_t number, std::uint32_t recordBytes, std::uint32_t clusterBytes);

    std::uint16_t usaOffset = 0x30;  ///< 0x30 carries the number, 0x28 is the older layout without it
    std::uint32_t storedNumber;      ///< at 0x2C, in the layout that has it
    std::uint16_t sequence;          ///< 1 and up
    std::uint16_t flags = 1;         ///< 1 in use, 2 directory
    std::uint64_t baseReference = 0; ///< of the base record, in an extension record
    std::vector<NtfsBytes> attributes;

    /// Adds an attribute in the place that its type has in the order, behind those of the same type.
    NtfsRecord& add(NtfsBytes attribute);

    /// Adds anything behind all others, whatever its type.
    NtfsRecord& append(NtfsBytes attribute);

    NtfsRecord& resident(std::uint32_t type, std::u16string const& name, NtfsBytes const& value);

    /// With the given runs from `lowestVcn` on; the data fill them unless a size is given.
    NtfsRecord& nonResident(std::uint32_t type, std::u16string const& name, std::vector<NtfsRun> const& runs,
                            std::optional<std::uint64_t> dataSize = {}, std::int64_t lowestVcn = 0);

    /// With mapping pairs as they are to be stored.
    NtfsRecord& nonResidentRaw(std::uint32_t type, std::u16string const& name, NtfsBytes const& pairs,
                               std::uint64_t dataSize = 0, std::int64_t lowestVcn = 0, std::int64_t highestVcn = 0);

    NtfsRecord& attributeList(std::vector<NtfsListEntry> const& entries);

    /// Takes all attributes of a type away.
    NtfsRecord& remove(std::uint32_t type);

    /// Takes all attributes away.
    NtfsRecord& clear();

    /// Byte offset of the first attribute in the record.
    std::uint64_t firstAttribute() const;

    /// Byte offset of the n-th attribute of a type in the record.
    /// @throws std::logic_error  there is none
    std::uint64_t offsetOf(std::uint32_t type, std::size_t n = 0) const;

    /// The record without protection.
    /// @throws std::logic_error  the attributes do not fit
    NtfsBytes bytes() const;

    std::uint64_t number() const { return number_; }

    /// Number and sequence number.
    std::uint64_t reference() const { return number_ | std::uint64_t{sequence} << 48; }

private:
    std::uint64_t number_;
    std::uint32_t recordBytes_;
    std::uint32_t clusterBytes_;
    std::uint16_t nextInstance_ = 0;
};

} // namespace tests
