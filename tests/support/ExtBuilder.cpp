// The ext volumes that tests are built on: which byte goes where, and why.
#include "support/ExtBuilder.h"

#include <algorithm>
#include <cstring>
#include <random>
#include <utility>

namespace tests {

namespace {

constexpr std::uint64_t kSuperBlockBytes = 1024;
constexpr std::uint16_t kMagicValue = 0xEF53;

/// Where a synthetic volume has the bitmap of a group, in blocks from the group's start.
constexpr std::uint64_t kSyntheticBitmapBlock = 2000;

void store(std::uint8_t* place, std::uint64_t value, unsigned width) {
    for (unsigned i = 0; i < width; ++i) {
        place[i] = static_cast<std::uint8_t>(value >> (8 * i));
    }
}

/// The superblock of a geometry, with nothing but the fields that shape the map.
std::vector<std::uint8_t> makeSuperBlock(ExtGeometry const& geometry) {
    std::vector<std::uint8_t> super(kSuperBlockBytes);
    store(&super[ext_super::kBlocksCountLow], geometry.blocksCount, 4);
    store(&super[ext_super::kFirstDataBlock], geometry.firstDataBlock, 4);
    store(&super[ext_super::kLogBlockSize], geometry.logBlockSize, 4);
    store(&super[ext_super::kBlocksPerGroup], geometry.blocksPerGroup, 4);
    store(&super[ext_super::kMagic], kMagicValue, 2);
    store(&super[ext_super::kReadOnlyFeatures], ext_super::kChecksummedDescriptors, 4);
    store(&super[ext_super::kIncompatibleFeatures], geometry.is64Bit ? kExt64Bit : 0, 4);
    store(&super[ext_super::kDescriptorSize], geometry.descriptorSize, 2);
    return super;
}

/// A stretch of made-up bytes: copies what it shares with the wanted range.
struct Window {
    std::uint64_t offset;
    std::uint8_t* destination;
    std::uint64_t length;

    /// Puts one byte if it is wanted.
    void put(std::uint64_t where, std::uint8_t value) const {
        if (where >= offset && where - offset < length) {
            destination[where - offset] = value;
        }
    }

    bool meets(std::uint64_t from, std::uint64_t size) const { return from < offset + length && offset < from + size; }
};

} // namespace

ExtBuilder::ExtBuilder(ExtGeometry const& geometry) : geometry_(geometry) {
    bytes.resize(bitmapOffset(geometry.groups()));
    auto const super = makeSuperBlock(geometry);
    std::copy(super.begin(), super.end(), bytes.begin() + kExtSuperBlockOffset);
    for (std::uint64_t group = 0; group < geometry.groups(); ++group) {
        setBitmapLocation(group, bitmapBlock(group));
    }
    countFreeBlocks();
}

std::uint32_t ExtBuilder::bitmapBlock(std::uint64_t group) const {
    std::uint64_t const blockBytes = geometry_.blockBytes();
    std::uint64_t const tableBytes = geometry_.groups() * geometry_.descriptorBytes();
    std::uint64_t const tableEnd = (geometry_.tableOffset() + tableBytes + blockBytes - 1) / blockBytes;
    return static_cast<std::uint32_t>(tableEnd + group);
}

std::uint64_t ExtBuilder::bitmapOffset(std::uint64_t group) const {
    return bitmapBlock(group) * geometry_.blockBytes();
}

ExtBuilder& ExtBuilder::setUsed(std::uint64_t block, bool used) {
    addFreeBlocks(geometry_.groupOf(block), static_cast<int>(bitOf(block)) - static_cast<int>(used));
    std::uint64_t const bit = (block - geometry_.firstDataBlock) % geometry_.blocksPerGroup;
    std::uint8_t& byte = bytes.at(bitmapOffset(geometry_.groupOf(block)) + bit / 8);
    auto const mask = static_cast<std::uint8_t>(1U << (bit % 8));
    byte = static_cast<std::uint8_t>(used ? byte | mask : byte & ~mask);
    return *this;
}

ExtBuilder& ExtBuilder::setUsedFrom(std::uint64_t first, std::uint64_t count) {
    for (std::uint64_t block = first; block < first + count; ++block) {
        setUsed(block);
    }
    return *this;
}

ExtBuilder& ExtBuilder::fillBitmapsAtRandom(unsigned seed) {
    std::mt19937 generator(seed);
    for (std::uint64_t at = bitmapOffset(0); at < bitmapOffset(geometry_.groups()); ++at) {
        bytes.at(at) = static_cast<std::uint8_t>(generator());
    }
    countFreeBlocks();
    return *this;
}

ExtBuilder& ExtBuilder::markOwnBlocks() {
    return setUsedFrom(geometry_.firstDataBlock, bitmapBlock(geometry_.groups()) - geometry_.firstDataBlock);
}

void ExtBuilder::addFreeBlocks(std::uint64_t group, int count) {
    std::uint64_t const field = geometry_.descriptorOffset(group) + ext_group::kFreeBlocksLow;
    put(field, get(field, 2) + static_cast<std::uint64_t>(count), 2);
}

void ExtBuilder::countFreeBlocks() {
    for (std::uint64_t group = 0; group < geometry_.groups(); ++group) {
        put(geometry_.descriptorOffset(group) + ext_group::kFreeBlocksLow, 0, 2);
    }
    for (std::uint64_t block = geometry_.firstDataBlock; block < geometry_.blocksCount; ++block) {
        addFreeBlocks(geometry_.groupOf(block), bitOf(block) ? 0 : 1);
    }
}

ExtBuilder& ExtBuilder::setFlags(std::uint64_t group, std::uint8_t flags) {
    put(geometry_.descriptorOffset(group) + ext_group::kFlags, flags, 1);
    return *this;
}

ExtBuilder& ExtBuilder::setFreeBlocks(std::uint64_t group, std::uint16_t count) {
    put(geometry_.descriptorOffset(group) + ext_group::kFreeBlocksLow, count, 2);
    return *this;
}

ExtBuilder& ExtBuilder::setBitmapLocation(std::uint64_t group, std::uint32_t block) {
    put(geometry_.descriptorOffset(group) + ext_group::kBitmapLocationLow, block, 4);
    return *this;
}

ExtBuilder& ExtBuilder::setSuper16(std::uint64_t field, std::uint16_t value) {
    put(kExtSuperBlockOffset + field, value, 2);
    return *this;
}

ExtBuilder& ExtBuilder::setSuper32(std::uint64_t field, std::uint32_t value) {
    put(kExtSuperBlockOffset + field, value, 4);
    return *this;
}

std::uint16_t ExtBuilder::super16(std::uint64_t field) const {
    return static_cast<std::uint16_t>(get(kExtSuperBlockOffset + field, 2));
}

std::uint32_t ExtBuilder::super32(std::uint64_t field) const {
    return static_cast<std::uint32_t>(get(kExtSuperBlockOffset + field, 4));
}

bool ExtBuilder::isUsed(std::uint64_t block) const {
    if (block < geometry_.firstDataBlock) {
        return false;
    }
    std::uint64_t const group = geometry_.groupOf(block);
    if ((get(geometry_.descriptorOffset(group) + ext_group::kFlags, 1) & ext_group::kBlocksUninitialised) != 0) {
        return false;
    }
    return bitOf(block);
}

bool ExtBuilder::bitOf(std::uint64_t block) const {
    std::uint64_t const bit = (block - geometry_.firstDataBlock) % geometry_.blocksPerGroup;
    return ((bytes.at(bitmapOffset(geometry_.groupOf(block)) + bit / 8) >> (bit % 8)) & 1U) != 0;
}

std::vector<bool> ExtBuilder::map() const {
    std::vector<bool> used;
    for (std::uint64_t block = 0; block < geometry_.blocksCount; ++block) {
        used.push_back(isUsed(block));
    }
    return used;
}

ExtBuilder& ExtBuilder::resize(std::uint64_t size) {
    bytes.resize(size);
    return *this;
}

void ExtBuilder::put(std::uint64_t offset, std::uint64_t value, unsigned width) {
    for (unsigned i = 0; i < width; ++i) {
        bytes.at(offset + i) = static_cast<std::uint8_t>(value >> (8 * i));
    }
}

std::uint64_t ExtBuilder::get(std::uint64_t offset, unsigned width) const {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i) {
        value |= std::uint64_t{bytes.at(offset + i)} << (8 * i);
    }
    return value;
}

SyntheticReader makeSyntheticExtVolume(ExtGeometry const& geometry, std::function<std::uint8_t(std::uint64_t)> pattern,
                                       std::function<std::uint8_t(std::uint64_t)> flags) {
    auto content = [=, super = makeSuperBlock(geometry)](std::uint64_t offset, std::uint8_t* to, std::uint64_t length) {
        Window const window{offset, to, length};
        if (window.meets(kExtSuperBlockOffset, kSuperBlockBytes)) {
            for (std::uint64_t i = 0; i < kSuperBlockBytes; ++i) {
                window.put(kExtSuperBlockOffset + i, super[i]);
            }
        }
        std::uint64_t const blockBytes = geometry.blockBytes();
        std::uint64_t const step = geometry.descriptorBytes();
        for (std::uint64_t group = offset < geometry.tableOffset() ? 0 : (offset - geometry.tableOffset()) / step;
             group < geometry.groups() && window.meets(geometry.descriptorOffset(group), step); ++group) {
            std::uint64_t const at = geometry.descriptorOffset(group);
            std::uint64_t const location = group * geometry.blocksPerGroup + kSyntheticBitmapBlock;
            for (unsigned i = 0; i < 4; ++i) {
                window.put(at + i, static_cast<std::uint8_t>(location >> (8 * i)));
            }
            window.put(at + ext_group::kFlags, flags(group));
        }
        std::uint64_t const group = offset / blockBytes / geometry.blocksPerGroup;
        std::uint64_t const bitmap = (group * geometry.blocksPerGroup + kSyntheticBitmapBlock) * blockBytes;
        if (offset >= bitmap && offset - bitmap < blockBytes) {
            std::memset(to, pattern(group), std::min(length, bitmap + blockBytes - offset));
        }
    };
    return {std::uint64_t{geometry.blocksCount} * geometry.blockBytes(), std::move(content)};
}

} // namespace tests
