// A look at an ext volume's group descriptors before the parser's map is believed.
#pragma once

#include "imaging/Answerer.h"
#include "imaging/Volume.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace imaging::ext {

/// Where the descriptors stand and what they may name.
struct DescriptorTable {
    std::uint64_t offset;         ///< bytes from the volume's start
    std::uint64_t groups;         ///< descriptors in the table
    std::uint64_t descriptorSize; ///< bytes, at least 32
    std::uint64_t firstDataBlock;
    std::uint64_t blocks;
    std::uint64_t groupBlocks; ///< blocks in a group; the last may be short
    bool mayBeUninitialised;   ///< the volume has the feature under which a bitmap need not be initialised

    /// The block behind the table; before it, only superblock and table lie.
    std::uint64_t endBlock() const {
        std::uint64_t const blockSize = offset / (firstDataBlock + 1);
        return (offset + groups * descriptorSize + blockSize - 1) / blockSize;
    }
};

/// One group's descriptor; refers to bytes that live as long as the call that hands it out.
class Descriptor {
public:
    explicit Descriptor(std::span<std::uint8_t const> bytes) : bytes_(bytes) {}

    /// The group's block bitmap is made up by whoever needs it, and reported as free by the parser.
    bool isUninitialised() const;

    /// Blocks.
    std::uint64_t blockBitmap() const { return wide(0x00, 0x20, 4); }
    std::uint64_t inodeBitmap() const { return wide(0x04, 0x24, 4); }
    std::uint64_t inodeTable() const { return wide(0x08, 0x28, 4); }
    std::uint64_t freeBlocks() const { return wide(0x0C, 0x2C, 2); }

private:
    /// A number in two parts; small descriptors have the low one only.
    std::uint64_t wide(std::size_t low, std::size_t high, unsigned width) const;

    std::span<std::uint8_t const> bytes_;
};

/// Reads the descriptors in order, a piece at a time, until the visitor says no.
/// @throws VolumeError  the table cannot be read
void forEachDescriptor(Volume& volume, DescriptorTable const& table,
                       std::function<bool(std::uint64_t group, Descriptor const&)> const& visit);

struct GroupReport {
    /// Free blocks of each group as the parser must find them. Empty where a descriptor has no room for such a number.
    std::vector<FreeCount> freeBlocks;

    /// Groups whose block bitmap is not initialised, as numbers, and free blocks as they count them themselves. Empty
    /// where a descriptor has no room for such a number.
    std::vector<std::pair<std::uint64_t, std::uint64_t>> uninitialised;

    /// The first group whose block bitmap lies where no bitmap can be, or is marked as not initialised on a volume that
    /// has no such feature, as one clause. Bits read from a wrong place would free blocks that are in use.
    std::optional<std::string> notBelieved;
};

/// Looks at every group.
/// @throws VolumeError  the table cannot be read
GroupReport examineGroups(Volume& volume, DescriptorTable const& table);

} // namespace imaging::ext
