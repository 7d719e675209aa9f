// Presenting stretches of the groups as volumes of their own.
#include "imaging/ext/GroupWindow.h"

#include "agent/core/fs/EXTParser.h"
#include "imaging/Detection.h"
#include "imaging/LoadInteger.h"
#include "imaging/ext/ExtFacts.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

namespace imaging::ext {

namespace {

/// The low half of the number of blocks, in the superblock.
constexpr std::size_t kBlocksCount = 0x04;

/// Bytes of descriptors asked for together, however small the groups and however long the descriptors are.
constexpr std::uint64_t kMostTableBytes = std::uint64_t{256} << 10;

/// A volume with other bytes in two places.
class OverlayReader : public agent::core::IVolumeReader {
public:
    struct Patch {
        std::uint64_t offset;
        std::span<std::uint8_t const> bytes;
    };

    OverlayReader(agent::core::IVolumeReader const& inner, Patch const& first, Patch const& second)
        : inner_(inner), patches_{first, second} {}

    long read(void* buffer, long length) const override {
        long const result = inner_.read(buffer, length);
        if (result > 0) {
            for (Patch const& patch : patches_) {
                apply(patch, static_cast<std::uint8_t*>(buffer), static_cast<std::uint64_t>(result));
            }
            position_ += static_cast<std::uint64_t>(result);
        }
        return result;
    }

    long seek(long offset, int whence) const override {
        long const result = inner_.seek(offset, whence);
        position_ = result < 0 ? position_ : static_cast<std::uint64_t>(result);
        return result;
    }

    std::string getVolumePath() const override { return inner_.getVolumePath(); }

private:
    /// Of the bytes from the position on, those that the patch has.
    void apply(Patch const& patch, std::uint8_t* bytes, std::uint64_t count) const {
        std::uint64_t const begin = std::max(patch.offset, position_);
        std::uint64_t const end = std::min(patch.offset + patch.bytes.size(), position_ + count);
        if (begin < end) {
            std::memcpy(bytes + (begin - position_), &patch.bytes[begin - patch.offset], end - begin);
        }
    }

    agent::core::IVolumeReader const& inner_;
    std::array<Patch, 2> patches_;
    mutable std::uint64_t position_ = 0;
};

} // namespace

GroupWindow::GroupWindow(Volume& volume, DescriptorTable const& table)
    : volume_(volume), table_(table), super_(volume.readBytes(kHeaderOffset, kSuperBlockBytes)) {}

/// What comes before the first group goes with it.
std::uint64_t GroupWindow::groupOf(std::uint64_t block) const {
    return block < table_.firstDataBlock ? 0 : (block - table_.firstDataBlock) / table_.groupBlocks;
}

long GroupWindow::getChunk(unsigned long offset, char* buffer, unsigned long length) const {
    if (offset >= table_.blocks || length == 0) {
        return 0;
    }
    std::uint64_t const lastBlock = std::min(offset + std::min(length, table_.blocks) * 8, table_.blocks) - 1;
    std::uint64_t const first = groupOf(offset);
    std::uint64_t const most = std::max<std::uint64_t>(kMostTableBytes / table_.descriptorSize, 1);
    // Blocks before the first group may be all that there is.
    std::uint64_t const count = std::min({groupOf(lastBlock) - first + 1, most, table_.groups - first});
    std::uint64_t const before = first * table_.groupBlocks; // blocks that the presented volume lacks
    std::uint64_t const end = std::min(table_.firstDataBlock + (first + count) * table_.groupBlocks, table_.blocks);

    std::vector<std::uint8_t> super = super_;
    store(super, kBlocksCount, end - before, 4);
    std::vector<std::uint8_t> const descriptors =
        volume_.readBytes(table_.offset + first * table_.descriptorSize, count * table_.descriptorSize);
    OverlayReader const reader(volume_.reader(), {kHeaderOffset, super}, {table_.offset, descriptors});
    auto const parser = makeParserOn<agent::core::fs::EXTParser>(volume_, reader, volume_.alignment());
    return parser->getChunk(offset - before, buffer, length);
}

} // namespace imaging::ext
