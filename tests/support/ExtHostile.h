// An ext volume with every structure that imaging looks at, to be changed field by field.
#pragma once

#include "support/ExtBuilder.h"
#include "support/HostileVolume.h"

namespace tests {

/// Fields of the superblock that no parser looks at.
inline constexpr std::uint64_t kExtFreeBlocks = 0x0C;
inline constexpr std::uint64_t kExtLogClusterSize = 0x1C;
inline constexpr std::uint64_t kExtInodesPerGroup = 0x28;
inline constexpr std::uint64_t kExtState = 0x3A;
inline constexpr std::uint64_t kExtRevision = 0x4C;
inline constexpr std::uint64_t kExtInodeSize = 0x58;
inline constexpr std::uint64_t kExtCompatible = 0x5C;
inline constexpr std::uint64_t kExtReservedTableBlocks = 0xCE;
inline constexpr std::uint64_t kExtFirstMetaGroup = 0x104;
inline constexpr std::uint64_t kExtLogGroupsPerFlex = 0x174;
inline constexpr std::uint64_t kExtChecksumType = 0x175;
inline constexpr std::uint64_t kExtChecksum = 0x3FC;

/// Writes a little-endian number.
inline void putLittle(std::vector<std::uint8_t>& bytes, std::uint64_t offset, std::uint64_t value, unsigned width) {
    for (unsigned i = 0; i < width; ++i) {
        bytes.at(offset + i) = static_cast<std::uint8_t>(value >> (8 * i));
    }
}

inline std::uint64_t getLittle(std::vector<std::uint8_t> const& bytes, std::uint64_t offset, unsigned width) {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i) {
        value |= std::uint64_t{bytes.at(offset + i)} << (8 * i);
    }
    return value;
}

/// The blocks of the inode bitmap and of the inode table of a group of makeHostileExt(); a table has 32 blocks.
inline constexpr std::uint32_t kHostileInodeBitmaps = 6;
inline constexpr std::uint32_t kHostileInodeTables = 10;
inline constexpr std::uint32_t kHostileInodeTableBlocks = 32;

/// Four groups of 4 KiB blocks, 100000 in all, unmounted cleanly: superblock in block 0, descriptors in block 1,
/// bitmaps from 2 on, inode bitmaps from 6 on, inode tables from 10 on; copies of the superblock in groups 1 and 3. Of
/// the other blocks half are used.
inline ExtBuilder makeHostileExt(bool is64Bit = false) {
    ExtGeometry geometry = ExtGeometry::with4KiBBlocks(100000);
    geometry.is64Bit = is64Bit;
    geometry.descriptorSize = is64Bit ? 64 : 0;
    ExtBuilder builder = makeSoundExtVolume(geometry);
    builder.setSuper16(kExtState, 1).setSuper32(kExtRevision, 1).setSuper16(kExtInodeSize, 256);
    builder.setSuper32(kExtInodesPerGroup, kHostileInodeTableBlocks * 4096 / 256);
    builder.setSuper32(kExtLogClusterSize, 2);
    builder.setSuper32(ext_super::kReadOnlyFeatures, 0x1); // sparse superblocks
    builder.fillBitmapsAtRandom(5).setUsedFrom(0, kHostileInodeTables + 4 * kHostileInodeTableBlocks);
    builder.setUsedFrom(32768, 2).setUsedFrom(98304, 2);
    for (std::uint32_t group = 0; group < 4; ++group) {
        std::uint64_t const descriptor = geometry.descriptorOffset(group);
        putLittle(builder.bytes, descriptor + 0x04, kHostileInodeBitmaps + group, 4);
        putLittle(builder.bytes, descriptor + 0x08, kHostileInodeTables + group * kHostileInodeTableBlocks, 4);
    }
    return builder;
}

inline HostileAnswer askForExtMap(ExtBuilder const& builder) {
    return askForMap(builder.bytes, std::uint64_t{builder.geometry().blocksCount} * builder.geometry().blockBytes());
}

/// Changes a field and expects its end.
inline void expectExtEnd(ExtBuilder builder, HostileField const& field) {
    std::vector<bool> const truth = builder.map();
    ASSERT_NE(getLittle(builder.bytes, field.offset, field.width), field.value) << "nothing is changed";
    putLittle(builder.bytes, field.offset, field.value, field.width);
    expectEnd(askForExtMap(builder), field.end, field.text, truth, 4096);
}

} // namespace tests
