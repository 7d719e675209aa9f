// Bytes of NTFS structures for tests.
#include "support/NtfsBytes.h"

#include <algorithm>

namespace tests {

namespace {

constexpr std::size_t kStride = 512;

/// 2021-01-01 00:00 UTC in units of 100 ns since 1601: a fixed time, so that volumes are alike.
constexpr std::uint64_t kTime = 132539328000000000;

/// Bytes that hold a signed number.
std::size_t widthOf(std::int64_t value) {
    std::size_t width = 1;
    while (width < 8 && (value >> (8 * width - 1)) != 0 && (value >> (8 * width - 1)) != -1) {
        ++width;
    }
    return width;
}

void append(NtfsBytes& bytes, std::uint64_t value, std::size_t width) {
    bytes.resize(bytes.size() + width);
    putNumber(bytes, bytes.size() - width, value, width);
}

void putBytes(NtfsBytes& bytes, std::uint64_t offset, NtfsBytes const& part) {
    std::copy(part.begin(), part.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
}

/// The header that both forms share, in an attribute of `size` bytes.
NtfsBytes attributeHeader(std::uint32_t type, std::u16string const& name, std::uint64_t nameOffset,
                          std::uint64_t size) {
    NtfsBytes bytes(alignTo8(size));
    putNumber(bytes, 0x00, type, 4);
    putNumber(bytes, 0x04, bytes.size(), 4);
    putNumber(bytes, 0x09, name.size(), 1);
    putNumber(bytes, 0x0A, nameOffset, 2);
    putBytes(bytes, nameOffset, ntfsText(name));
    return bytes;
}

} // namespace

void putNumber(std::span<std::uint8_t> bytes, std::uint64_t offset, std::uint64_t value, std::size_t width) {
    auto const place = bytes.subspan(offset, width);
    for (std::size_t i = 0; i < width; ++i) {
        place[i] = static_cast<std::uint8_t>(value >> (8 * i));
    }
}

std::uint64_t getNumber(std::span<std::uint8_t const> bytes, std::uint64_t offset, std::size_t width) {
    auto const place = bytes.subspan(offset, width);
    std::uint64_t value = 0;
    for (std::size_t i = width; i-- > 0;) {
        value = value << 8 | place[i];
    }
    return value;
}

void ntfsProtect(std::span<std::uint8_t> record, std::uint16_t sequence) {
    std::uint64_t const array = getNumber(record, 0x04, 2);
    putNumber(record, array, sequence, 2);
    for (std::size_t i = 0; i < record.size() / kStride; ++i) {
        std::size_t const tail = kStride * (i + 1) - 2;
        putNumber(record, array + 2 * (i + 1), getNumber(record, tail, 2), 2);
        putNumber(record, tail, sequence, 2);
    }
}

void ntfsUnprotect(std::span<std::uint8_t> record) {
    std::uint64_t const array = getNumber(record, 0x04, 2);
    for (std::size_t i = 0; i < record.size() / kStride; ++i) {
        putNumber(record, kStride * (i + 1) - 2, getNumber(record, array + 2 * (i + 1), 2), 2);
    }
}

NtfsBytes ntfsMappingPairs(std::vector<NtfsRun> const& runs) {
    NtfsBytes pairs;
    std::int64_t previous = 0;
    for (NtfsRun const& run : runs) {
        bool const isHole = run.lcn < 0;
        std::int64_t const delta = run.lcn - previous;
        std::size_t const lengthWidth = widthOf(run.length);
        std::size_t const offsetWidth = isHole ? 0 : widthOf(delta);
        append(pairs, lengthWidth | offsetWidth << 4, 1);
        append(pairs, static_cast<std::uint64_t>(run.length), lengthWidth);
        if (!isHole) {
            append(pairs, static_cast<std::uint64_t>(delta), offsetWidth);
            previous = run.lcn;
        }
    }
    pairs.push_back(0);
    return pairs;
}

NtfsBytes ntfsResident(std::uint32_t type, std::u16string const& name, NtfsBytes const& value) {
    std::uint64_t const valueOffset = alignTo8(0x18 + 2 * name.size());
    NtfsBytes bytes = attributeHeader(type, name, 0x18, valueOffset + value.size());
    putNumber(bytes, 0x10, value.size(), 4);
    putNumber(bytes, 0x14, valueOffset, 2);
    putBytes(bytes, valueOffset, value);
    return bytes;
}

NtfsBytes ntfsNonResident(std::uint32_t type, std::u16string const& name, NtfsNonResident const& content) {
    std::uint64_t const pairsOffset = alignTo8(0x40 + 2 * name.size());
    NtfsBytes bytes = attributeHeader(type, name, 0x40, pairsOffset + content.pairs.size());
    putNumber(bytes, 0x08, 1, 1);
    putNumber(bytes, 0x10, static_cast<std::uint64_t>(content.lowestVcn), 8);
    putNumber(bytes, 0x18, static_cast<std::uint64_t>(content.highestVcn), 8);
    putNumber(bytes, 0x20, pairsOffset, 2);
    putNumber(bytes, 0x28, content.allocated, 8);
    putNumber(bytes, 0x30, content.dataSize, 8);
    putNumber(bytes, 0x38, content.initialized, 8);
    putBytes(bytes, pairsOffset, content.pairs);
    return bytes;
}

NtfsBytes ntfsAttributeList(std::vector<NtfsListEntry> const& entries) {
    NtfsBytes list;
    for (NtfsListEntry const& entry : entries) {
        NtfsBytes bytes(alignTo8(0x1A + 2 * entry.name.size()));
        putNumber(bytes, 0x00, entry.type, 4);
        putNumber(bytes, 0x04, bytes.size(), 2);
        putNumber(bytes, 0x06, entry.name.size(), 1);
        putNumber(bytes, 0x07, 0x1A, 1); // the name follows the fixed part
        putNumber(bytes, 0x08, entry.lowestVcn, 8);
        putNumber(bytes, 0x10, entry.reference, 8);
        putBytes(bytes, 0x1A, ntfsText(entry.name));
        list.insert(list.end(), bytes.begin(), bytes.end());
    }
    return list;
}

NtfsBytes ntfsStandardInformation(std::uint32_t securityId, std::uint32_t fileAttributes) {
    NtfsBytes value(72);
    for (std::uint64_t offset = 0; offset < 0x20; offset += 8) {
        putNumber(value, offset, kTime, 8);
    }
    putNumber(value, 0x20, fileAttributes, 4);
    putNumber(value, 0x34, securityId, 4);
    return value;
}

NtfsBytes ntfsFileName(std::uint64_t parentReference, std::u16string const& name, std::uint8_t nameSpace) {
    NtfsBytes value(0x42 + 2 * name.size());
    putNumber(value, 0x00, parentReference, 8);
    for (std::uint64_t offset = 0x08; offset < 0x28; offset += 8) {
        putNumber(value, offset, kTime, 8);
    }
    putNumber(value, 0x40, name.size(), 1);
    putNumber(value, 0x41, nameSpace, 1);
    putBytes(value, 0x42, ntfsText(name));
    return value;
}

NtfsBytes ntfsText(std::u16string const& text) {
    NtfsBytes bytes;
    for (char16_t const character : text) {
        append(bytes, character, 2);
    }
    return bytes;
}

} // namespace tests
