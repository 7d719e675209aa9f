// The FAT map step by step, with the widths and the entry numbers as the parser's users know them.
#include "support/FatReference.h"

#include "support/FatBuilder.h"

#include <algorithm>
#include <bit>
#include <string>

namespace tests {

namespace {

constexpr std::int64_t kPiece = 4194304;

std::uint64_t load(std::span<std::uint8_t const> bytes, std::uint64_t offset, unsigned width) {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i) {
        value |= std::uint64_t{bytes[offset + i]} << (8 * i);
    }
    return value;
}

/// As signed 32-bit machines multiply, widened afterwards.
std::int64_t product32(std::uint64_t a, std::uint64_t b) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a * b));
}

class Reference {
public:
    Reference(std::span<std::uint8_t const> image, FatRequest const& request) : image_(image), request_(request) {
        std::uint64_t const bytesPerSector = load(image, fat_boot::kBytesPerSector, 2);
        std::uint64_t const fats = load(image, fat_boot::kNumberOfFats, 1);
        std::uint64_t const few = load(image, fat_boot::kTotalSectors16, 2);
        std::uint64_t const total = few != 0 ? few : load(image, fat_boot::kTotalSectors32, 4);
        reserved_ = product32(load(image, fat_boot::kReservedSectors, 2), bytesPerSector);
        dataStart_ = reserved_ + product32(load(image, fat_boot::kSectorsPerFat32, 4) & 0xFFFF, bytesPerSector) *
                                     static_cast<std::int64_t>(fats);
        cluster_ = product32(load(image, fat_boot::kSectorsPerCluster, 1), bytesPerSector);
        if (cluster_ != 0) {
            auto const cluster = static_cast<std::uint64_t>(cluster_);
            units_ = bytesPerSector * total / cluster + (bytesPerSector * total % cluster != 0 ? 1 : 0);
        }
        outcome.buffer.assign(request.length, 0); // cleared whatever happens
    }

    void run() {
        if (cluster_ == 0) {
            fail(-1);
            return;
        }
        auto const rest = static_cast<std::uint32_t>(units_ - request_.start);
        auto const room = static_cast<std::uint32_t>(request_.length * 8);
        std::uint32_t const count = std::min(rest, room);
        if (count == 0) {
            succeed(0);
            return;
        }
        if (!std::has_single_bit(static_cast<std::uint64_t>(cluster_))) {
            outcome.end = FatEnd::Throws;
            return;
        }
        std::vector<std::uint32_t> flags(count);
        if (long const code = findUsed(flags); code != 0) {
            fail(code);
            return;
        }
        for (std::uint32_t i = 0; i < count && outcome.end == FatEnd::Answers; ++i) {
            if (flags[i] != 0) {
                std::uint8_t& byte = outcome.buffer.at(i / 8);
                byte = static_cast<std::uint8_t>(byte | (1U << (i % 8)));
            }
        }
        succeed(count);
    }

    FatOutcome outcome;

private:
    void succeed(std::uint32_t count) {
        outcome.result = count;
        outcome.entries.push_back(debugEntry("returning[3] " + std::to_string(count)));
    }

    void fail(long code) {
        outcome.result = code;
        outcome.entries.push_back(debugEntry("returning[2] " + std::to_string(code)));
        outcome.entries.push_back(errorEntry(
            "A logical error occurred while attempting to parse the FAT bitmap, err: " + std::to_string(code)));
    }

    long findUsed(std::vector<std::uint32_t>& flags) {
        auto const count = static_cast<std::int64_t>(flags.size());
        auto const start = static_cast<std::int64_t>(request_.start);
        bool const isUnaligned = dataStart_ % cluster_ != 0;
        std::int64_t const dataUnit = dataStart_ / cluster_ + (isUnaligned ? 1 : 0);
        std::int64_t offset = reserved_;
        if (dataUnit <= start) {
            // A start that no volume has makes the product wrap.
            auto const distance = static_cast<std::int64_t>(static_cast<std::uint64_t>(cluster_) * request_.start -
                                                            static_cast<std::uint64_t>(dataStart_));
            offset += (distance / cluster_) * 4 + 8;
        }
        std::vector<std::uint8_t> stretch(static_cast<std::uint64_t>(count + 1) * 4);
        if (long const code = read(offset, stretch); code != 0) {
            return code;
        }
        for (std::int64_t i = 0; i < count; ++i) {
            std::int64_t const v = i * cluster_ - dataStart_;
            if (start + i < dataUnit) {
                flags[static_cast<std::size_t>(i)] = 1;
                continue;
            }
            auto const number = static_cast<std::uint32_t>(v / cluster_ + 2);
            bool isUsed = isUsedEntry(stretch, number);
            if (isUnaligned && !isUsed) {
                isUsed = isUsedEntry(stretch, std::uint64_t{number} + 1);
            }
            flags[static_cast<std::size_t>(i)] = isUsed ? 1 : 0;
        }
        return 0;
    }

    bool isUsedEntry(std::vector<std::uint8_t> const& stretch, std::uint64_t number) {
        if (number >= stretch.size() / 4) {
            outcome.end = FatEnd::Aborts;
            return true;
        }
        auto const low = static_cast<std::uint32_t>(load(stretch, number * 4, 4)) & 0x0FFFFFFF;
        return low != 0 && low != 0x0FFFFFF7;
    }

    long read(std::int64_t offset, std::vector<std::uint8_t>& destination) {
        auto const length = static_cast<std::int64_t>(destination.size());
        std::int64_t const from = offset - offset % cluster_;
        std::int64_t const lead = offset % cluster_;
        std::int64_t const size = ((lead + length - 1) / cluster_ + 1) * cluster_;
        outcome.calls.push_back(seekCall(from));
        for (std::int64_t done = 0; done < size; done += kPiece) {
            outcome.calls.push_back(readCall(std::min(kPiece, size - done)));
        }
        auto const end = static_cast<std::int64_t>(image_.size());
        std::int64_t const delivered = from < end ? std::min(size, end - from) : 0;
        if (delivered < length) {
            return -400;
        }
        // Counted from the aligned start: what is missing at the end may go unnoticed, and stays zero.
        for (std::int64_t i = 0; i < length && lead + i < delivered; ++i) {
            destination[static_cast<std::size_t>(i)] = image_[static_cast<std::size_t>(offset + i)];
        }
        return 0;
    }

    std::span<std::uint8_t const> image_;
    FatRequest request_;
    std::int64_t reserved_;
    std::int64_t dataStart_;
    std::int64_t cluster_;
    std::uint64_t units_ = 0;
};

} // namespace

FatOutcome referenceFatChunk(std::span<std::uint8_t const> image, FatRequest const& request) {
    Reference reference(image, request);
    reference.run();
    return reference.outcome;
}

} // namespace tests
