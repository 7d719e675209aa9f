// The FAT parser: the boot sector once, then one stretch of the first table for each request.
#include "agent/core/fs/FATParser.h"

#include "AllocationLog.h"
#include "ZeroedBuffer.h"
#include "agent/core/fs/FSUtil.h"
#include "fat/FatLayout.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string_view>

namespace agent::core::fs {

using agent::info::Level;
using agent::info::Logger;

namespace {

constexpr int kFat12 = 0;
constexpr int kFat16 = 1;
constexpr int kFat32 = 2;
constexpr int kNotFat = 3;

constexpr int kReadFailed = -1;
constexpr int kShortBootSector = -5;
constexpr int kShortTable = -400;

/// The line that a failed allocation names; part of the message, so it does not move with the code.
constexpr int kAllocationLine = 200;

constexpr std::uint64_t kEntryBytes = 4;
constexpr std::uint32_t kEntryMask = 0x0FFFFFFF; // the top four bits are reserved
constexpr std::uint32_t kBadCluster = 0x0FFFFFF7;

/// A product of 32 signed bits that wraps, widened, on purpose.
std::int64_t product32(std::uint32_t a, std::uint32_t b) {
    return static_cast<std::int32_t>(a * b);
}

/// The entries of one stretch of the table.
class Entries {
public:
    Entries(Logger& logger, std::uint64_t count, unsigned long alignment) try
        : count_(count), bytes_(count * kEntryBytes, alignment) {
    } catch (std::exception const& error) {
        logFailedAllocation(logger, count * kEntryBytes, alignment, kAllocationLine, __FILE__, error);
        throw;
    }

    std::uint8_t* data() { return bytes_.data(); }
    std::uint64_t size() const { return bytes_.size(); }

    /// Whether the cluster of an entry is in use. An entry that was not read is fatal in every build, on purpose: no
    /// answer could be right.
    bool isUsed(std::uint64_t number) const {
        if (number >= count_) {
            std::abort();
        }
        std::uint32_t entry = 0;
        std::memcpy(&entry, bytes_.bytes().data() + number * kEntryBytes, sizeof entry);
        entry &= kEntryMask;
        return entry != 0 && entry != kBadCluster;
    }

private:
    std::uint64_t count_;
    ZeroedBuffer bytes_;
};

/// The table entries of a request's units in turn: as number i * clusterBytes - dataStart is divided, truncating toward
/// zero, plus 2. From the data start on each unit takes the next entry, and nothing need be divided.
class EntryNumbers {
public:
    EntryNumbers(std::int64_t dataStart, std::int64_t clusterBytes)
        : position_(-static_cast<std::uint64_t>(dataStart)), clusterBytes_(clusterBytes) {
        divide();
    }

    std::uint32_t current() const { return number_; }

    void advance() {
        position_ += static_cast<std::uint64_t>(clusterBytes_);
        ++number_;
        if (position() < clusterBytes_) {
            divide();
        }
    }

private:
    std::int64_t position() const { return static_cast<std::int64_t>(position_); }
    void divide() { number_ = static_cast<std::uint32_t>(position() / clusterBytes_) + 2; }

    std::uint64_t position_; // unsigned, so that absurd places wrap
    std::int64_t clusterBytes_;
    std::uint32_t number_ = 0;
};

} // namespace

/// What is asked of the table; places and sizes in bytes.
struct FATParser::Request {
    std::int64_t tableOffset;
    std::int64_t dataStart;
    std::int64_t clusterBytes;
    std::int64_t start;
    std::uint32_t count;

    bool isAligned() const { return dataStart % clusterBytes == 0; }

    /// The first unit that lies wholly in the data area.
    std::int64_t dataUnit() const { return dataStart / clusterBytes + (isAligned() ? 0 : 1); }

    /// Where in the table the entry of the start unit lies; the table's beginning for a start before the data area.
    std::uint64_t entryOffset() const {
        if (dataUnit() > start) {
            return 0;
        }
        // In unsigned arithmetic, which wraps where a start has no place on any volume.
        std::uint64_t const distance = static_cast<std::uint64_t>(clusterBytes) * static_cast<std::uint64_t>(start) -
                                       static_cast<std::uint64_t>(dataStart);
        return static_cast<std::uint64_t>(static_cast<std::int64_t>(distance) / clusterBytes) * kEntryBytes +
               2 * kEntryBytes;
    }
};

FATParser::FATParser(Logger& logger, unsigned int alignment, agent::core::IVolumeReader const& volume)
    : logger_(&logger), volume_(&volume), alignment_(alignment), type_(kNotFat) {
    fat_boot_sector boot{};
    if (fat_read_bootsector(boot) != 0) {
        throw std::runtime_error("Can't read fat boot sector");
    }
    type_ = fat_get_type(&boot);
    switch (type_) {
    case kFat32:
        break;
    case kFat12:
        throw std::runtime_error("FAT12 is not supported");
    case kFat16:
        throw std::runtime_error("FAT16 is not supported");
    default:
        throw std::runtime_error("Not a FAT filesystem");
    }
    numberOfFats_ = boot.number_of_fats;
    sectorsPerCluster_ = boot.sectors_per_cluster;
    totalSectors16_ = boot.total_sectors_16.value();
    totalSectors32_ = boot.total_sectors_32.value();
    reservedSectors_ = boot.reserved_sectors.value();
    bytesPerSector_ = boot.bytes_per_sector.value();
    sectorsPerFat_ = static_cast<std::uint16_t>(boot.sectors_per_fat_32.value()); // only the low half, on purpose
}

FATParser::~FATParser() = default;

int FATParser::fat_get_type(fat_boot_sector* bootSector) {
    std::string_view const old(bootSector->label_area.data(), 5);
    if (old == "FAT12") {
        return kFat12;
    }
    if (old == "FAT16") {
        return kFat16;
    }
    return std::string_view(bootSector->fat32_label.data(), 5) == "FAT32" ? kFat32 : kNotFat;
}

bool FATParser::isFATFileSystem(void* buffer) {
    return buffer != nullptr && fat_get_type(static_cast<fat_boot_sector*>(buffer)) == kFat32;
}

int FATParser::fat_read_bootsector(fat_boot_sector& bootSector) const {
    unsigned long bytesRead = 0;
    if (fs_seek_read_aligned(*logger_, *volume_, alignment_, 0, &bootSector, sizeof bootSector, &bytesRead) != 0) {
        return kReadFailed;
    }
    return bytesRead < sizeof bootSector ? kShortBootSector : 0;
}

long FATParser::getChunk(unsigned long offset, char* buffer, unsigned long length) const {
    long const result = fs_get_blocks_bitmap_chunk(length, offset, buffer);
    if (result < 0) {
        Logger::Entry(*logger_, Level::Error)
            << "A logical error occurred while attempting to parse the FAT bitmap, err: " << result;
    }
    return result;
}

std::uint64_t FATParser::totalSectors() const {
    return totalSectors16_ != 0 ? totalSectors16_ : totalSectors32_;
}

long FATParser::fs_get_blocks_bitmap_chunk(unsigned long length, unsigned long start, char* buffer) const {
    auto const fail = [this](long code) {
        Logger::Entry(*logger_, Level::Debug) << "returning[2] " << code;
        return code;
    };
    Request request{};
    request.tableOffset = product32(reservedSectors_, bytesPerSector_);
    request.dataStart = request.tableOffset + product32(sectorsPerFat_, bytesPerSector_) * numberOfFats_;
    request.clusterBytes = product32(sectorsPerCluster_, bytesPerSector_);
    request.start = static_cast<std::int64_t>(start);
    std::fill_n(buffer, length, '\0');
    if (request.clusterBytes == 0) {
        return fail(kReadFailed); // no unit has a size, so none has an entry
    }
    auto const clusterBytes = static_cast<std::uint64_t>(request.clusterBytes);
    std::uint64_t const units = (bytesPerSector_ * totalSectors() + clusterBytes - 1) / clusterBytes;
    // Both as 32-bit values, on purpose: a start beyond the last unit wraps and is not rejected.
    request.count = std::min(static_cast<std::uint32_t>(units - start), static_cast<std::uint32_t>(length * 8));
    if (request.count != 0) {
        auto const setBit = [buffer](std::uint32_t unit) {
            buffer[unit >> 3] = static_cast<char>(buffer[unit >> 3] | (1 << (unit & 7)));
        };
        if (int const code = findUsed(request, setBit); code != 0) {
            return fail(code);
        }
    }
    Logger::Entry(*logger_, Level::Debug) << "returning[3] " << request.count;
    return request.count;
}

int FATParser::fat_blocks_in_use(long tableOffset, long dataStart, long clusterBytes, long start, int* flags,
                                 unsigned int count) const {
    if (flags == nullptr || count == 0) {
        return 0;
    }
    std::fill_n(flags, count, 0);
    if (clusterBytes < 1) {
        return kReadFailed;
    }
    return findUsed({tableOffset, dataStart, clusterBytes, start, count},
                    [flags](std::uint32_t unit) { flags[unit] = 1; });
}

template <typename Sink>
int FATParser::findUsed(Request const& request, Sink const& setUsed) const {
    auto const clusterBytes = static_cast<unsigned long>(request.clusterBytes);
    Entries entries(*logger_, std::uint64_t{request.count} + 1, clusterBytes);
    unsigned long bytesRead = 0;
    // In whole clusters, not in the parser's alignment, on purpose.
    if (fs_seek_read_aligned(*logger_, *volume_, clusterBytes,
                             static_cast<std::uint64_t>(request.tableOffset) + request.entryOffset(), entries.data(),
                             entries.size(), &bytesRead) < 0) {
        return kReadFailed;
    }
    if (bytesRead != entries.size()) {
        return kShortTable;
    }
    bool const isAligned = request.isAligned();
    std::int64_t const dataUnit = request.dataUnit();
    // Numbered by the position in the request, on purpose, although the stretch begins at the start unit's entry: the
    // two agree for a request from unit 0.
    EntryNumbers numbers(request.dataStart, request.clusterBytes);
    for (std::uint32_t i = 0; i < request.count; ++i, numbers.advance()) {
        auto const unit = static_cast<std::int64_t>(static_cast<std::uint64_t>(request.start) + i);
        bool const isUsed = unit < dataUnit || entries.isUsed(numbers.current()) ||
                            (!isAligned && entries.isUsed(std::uint64_t{numbers.current()} + 1));
        if (isUsed) {
            setUsed(i);
        }
    }
    return 0;
}

} // namespace agent::core::fs
