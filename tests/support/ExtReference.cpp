// The slow way to an ext map: every read by hand, every bit alone.
#include "support/ExtReference.h"

#include "support/ExtBuilder.h"

#include <algorithm>

namespace tests {

namespace {

constexpr std::uint64_t kPiece = 4194304;

/// Zeroed memory of any size that stores only as many bytes as the volume could ever put into it.
class SparseBytes {
public:
    SparseBytes(std::uint64_t length, std::uint64_t most) : size(length), stored(std::min(length, most)) {}

    std::uint8_t at(std::uint64_t index) const { return index < stored.size() ? stored[index] : std::uint8_t{0}; }

    std::uint64_t size;
    std::vector<std::uint8_t> stored;
};

class Reference {
public:
    Reference(std::span<std::uint8_t const> image, ExtRequest const& request, std::uint64_t mostGroups)
        : image_(image), request_(request), mostGroups_(mostGroups) {
        outcome.buffer.assign(request.length, std::uint8_t{0xAA});
        blocksCount_ = super(ext_super::kBlocksCountLow, 4);
        firstDataBlock_ = super(ext_super::kFirstDataBlock, 4);
        blocksPerGroup_ = super(ext_super::kBlocksPerGroup, 4);
        // Shifts count modulo 32, and the product is a signed 32-bit number.
        std::uint32_t const size = 1024U << (super(ext_super::kLogBlockSize, 4) % 32);
        blockSize_ = static_cast<std::uint64_t>(std::int64_t{static_cast<std::int32_t>(size)});
        bool const is64Bit = (super(ext_super::kIncompatibleFeatures, 4) & kExt64Bit) != 0;
        descriptorSize_ = is64Bit ? super(ext_super::kDescriptorSize, 2) : 32;
    }

    void run() {
        outcome.result = chunk();
        if (outcome.result < 0) {
            outcome.entries.push_back(
                errorEntry("A logical error occurred while attempting to parse the EXT bitmap, err: -1"));
        }
    }

    ExtOutcome outcome;
    bool tooLong = false;

private:
    std::uint32_t super(std::uint64_t field, unsigned width) const {
        std::uint32_t value = 0;
        for (unsigned i = 0; i < width; ++i) {
            value |= std::uint32_t{image_[kExtSuperBlockOffset + field + i]} << (8 * i);
        }
        return value;
    }

    long fail(char const* cause) {
        outcome.entries.push_back(errorEntry(cause));
        return -1;
    }

    bool read(std::uint64_t offset, SparseBytes& destination) {
        std::uint64_t const from = offset / request_.alignment * request_.alignment;
        std::uint64_t const lead = offset % request_.alignment;
        std::uint64_t const size = ((lead + destination.size - 1) / request_.alignment + 1) * request_.alignment;
        outcome.calls.push_back(seekCall(static_cast<long>(from)));
        if (static_cast<long>(from) < 0) {
            return false;
        }
        for (std::uint64_t done = 0; done < size; done += kPiece) {
            outcome.calls.push_back(readCall(static_cast<long>(std::min(kPiece, size - done))));
        }
        std::uint64_t const delivered = from < image_.size() ? std::min(size, image_.size() - from) : 0;
        // Counted from the aligned start: that many bytes are replaced, the undelivered ones of them by zeros.
        for (std::uint64_t i = 0; i < std::min(delivered, destination.size); ++i) {
            destination.stored.at(i) = lead + i < delivered ? image_[from + lead + i] : std::uint8_t{0};
        }
        return true;
    }

    bool readBitmap(SparseBytes const& table, std::uint64_t group, SparseBytes& bitmap) {
        std::uint64_t const at = group * descriptorSize_;
        if ((table.at(at + ext_group::kFlags) & ext_group::kBlocksUninitialised) != 0) {
            bitmap.stored.assign(bitmap.stored.size(), 0);
            return true;
        }
        std::uint64_t location = 0;
        for (unsigned i = 0; i < 4; ++i) {
            location |= std::uint64_t{table.at(at + ext_group::kBitmapLocationLow + i)} << (8 * i);
        }
        return read(blockSize_ * location, bitmap);
    }

    long chunk() {
        std::uint64_t const start = request_.start;
        if (blocksCount_ < start) {
            return fail("Invalid start block");
        }
        SparseBytes bitmap((((blocksPerGroup_ - 1) >> 3) + 1) & 0x1FFFFFFF, image_.size());
        outcome.buffer.assign(outcome.buffer.size(), 0);
        std::uint32_t const span = blocksCount_ - firstDataBlock_;
        if (blocksPerGroup_ == 0 && (start != 0 || span != 0)) {
            return fail("Can't read bgd table");
        }
        std::uint32_t group = 0;
        std::uint32_t bit = 0;
        if (start != 0) {
            group = static_cast<std::uint32_t>((start - firstDataBlock_) / blocksPerGroup_);
            bit = static_cast<std::uint32_t>(start - firstDataBlock_ - std::uint64_t{group} * blocksPerGroup_);
        }
        std::uint32_t const groups = span == 0 ? 0 : (span - 1) / blocksPerGroup_ + 1;
        SparseBytes table(static_cast<std::uint32_t>(descriptorSize_ * groups), image_.size());
        if (!read(blockSize_ * (std::uint64_t{firstDataBlock_} + 1), table)) {
            return fail("Can't read bgd table");
        }
        return mergeGroups(table, bitmap, group, bit, groups);
    }

    long mergeGroups(SparseBytes const& table, SparseBytes& bitmap, std::uint32_t group, std::uint32_t bit,
                     std::uint32_t groups) {
        std::uint64_t const limit = request_.length * 8;
        std::uint64_t produced = 0;
        for (std::uint64_t walked = 0; group < groups; ++group, bit = 0, ++walked) {
            if (walked == mostGroups_) {
                tooLong = true;
                return 0;
            }
            if (std::uint64_t{group} * descriptorSize_ + ext_group::kFlags >= table.size) {
                return fail("Can't read bgd table");
            }
            if (!readBitmap(table, group, bitmap)) {
                return fail("Can't read bitmap");
            }
            std::uint32_t const firstBlock = blocksPerGroup_ * group + firstDataBlock_;
            for (; bit < blocksPerGroup_; ++bit) {
                std::uint32_t const block = firstBlock + bit;
                if (block >= blocksCount_) {
                    break;
                }
                std::uint64_t const index = block - request_.start;
                if (index >= limit) {
                    return static_cast<long>(produced);
                }
                if (bit / 8 >= bitmap.size) {
                    return fail("Can't read bitmap");
                }
                if (((bitmap.at(bit / 8) >> (bit % 8)) & 1) != 0) {
                    std::uint8_t& byte = outcome.buffer.at(index / 8);
                    byte = static_cast<std::uint8_t>(byte | (1 << (index % 8)));
                }
                produced = index + 1;
            }
        }
        return static_cast<long>(produced);
    }

    std::span<std::uint8_t const> image_;
    ExtRequest request_;
    std::uint64_t mostGroups_;
    std::uint32_t blocksCount_;
    std::uint32_t firstDataBlock_;
    std::uint32_t blocksPerGroup_;
    std::uint64_t blockSize_;
    std::uint64_t descriptorSize_;
};

} // namespace

std::optional<ExtOutcome> referenceExtChunk(std::span<std::uint8_t const> image, ExtRequest const& request,
                                            std::uint64_t mostGroups) {
    Reference reference(image, request, mostGroups);
    reference.run();
    if (reference.tooLong) {
        return std::nullopt;
    }
    return reference.outcome;
}

} // namespace tests
