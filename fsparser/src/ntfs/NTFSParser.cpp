// Construction of the NTFS parser: geometry, metadata, and the upcase table.
#include "agent/core/fs/NTFSParser.h"

#include "BoundedRead.h"
#include "ZeroedBuffer.h"
#include "agent/core/fs/FSUtil.h"
#include "ntfs/NtfsLayout.h"
#include "ntfs/Shifts.h"
#include "ntfs/Walks.h"

#include <algorithm>
#include <locale>
#include <sstream>
#include <stdexcept>

namespace agent::core::fs {

using agent::info::Level;
using agent::info::Logger;

std::string const SEPARATOR = "\\";

namespace {

constexpr unsigned long kDefaultCacheCapacity = 1000;
constexpr unsigned long kUpcaseRecord = 10;
constexpr unsigned long kMftMirrorRecord = 1;

/// Bytes of a complete upcase table: 65536 characters of 16 bits. No index leads beyond them.
constexpr std::uint64_t kLargestTable = 131072;

unsigned long configuredCapacity(Logger& logger, agent::IConfig const& config) {
    unsigned long capacity = kDefaultCacheCapacity;
    config.get("ntfsparser.cache.capacity", capacity);
    if (capacity != kDefaultCacheCapacity) {
        Logger::Entry(logger, Level::Debug) << "NTFSParser LRU cache size re-configured to " << capacity;
    }
    return capacity;
}

/// Logs a geometry that is refused, and throws the same text.
[[noreturn]] void refuse(Logger& logger, std::string const& text) {
    Logger::Entry(logger, Level::Error) << text;
    throw std::runtime_error(text);
}

/// "0x" is part of the text; the value follows in hexadecimal.
std::string withHexadecimal(char const* text, std::uint64_t value) {
    std::ostringstream stream;
    stream.imbue(std::locale::classic());
    stream << text << std::hex << value;
    return stream.str();
}

/// The byte of sectors per cluster: a count, or above 0x80 a negative exponent whose result is kept in 8 bits.
std::uint8_t decodeSectorsPerCluster(std::uint8_t stored) {
    return stored <= 0x80 ? stored : static_cast<std::uint8_t>(1U << ((256U - stored) & 31U));
}

} // namespace

NTFSParser::NTFSParser(Logger& log, unsigned int alignment, agent::core::IVolumeReader const& reader)
    : logger(log), volume(reader), blockSize(alignment),
      cache(std::make_unique<agent::LruCache<Element>>(kDefaultCacheCapacity)), walks(std::make_unique<Walks>()) {
    reinit();
}

NTFSParser::NTFSParser(Logger& log, unsigned int alignment, agent::core::IVolumeReader const& reader,
                       agent::IConfig const& config)
    : logger(log), volume(reader), blockSize(alignment),
      cache(std::make_unique<agent::LruCache<Element>>(configuredCapacity(log, config))),
      walks(std::make_unique<Walks>()) {
    reinit();
}

NTFSParser::~NTFSParser() = default;

std::uint32_t NTFSParser::clusterSize() const {
    return std::uint32_t{sectorsPerCluster} * bytesPerSector;
}

std::uint16_t NTFSParser::clusterSize16() const {
    return static_cast<std::uint16_t>(clusterSize()); // 64 KiB clusters count as 0, on purpose
}

std::uint64_t NTFSParser::volumeBytes() const {
    return static_cast<std::uint64_t>(totalSectors) * bytesPerSector;
}

NTFSParser::Bytes NTFSParser::recordBytes(void const* record) const {
    return {static_cast<std::uint8_t const*>(record), mftRecordSize};
}

void NTFSParser::reinit() {
    ntfs_boot_sector boot{};
    unsigned long count = 0;
    if (fs_seek_read_aligned(logger, volume, blockSize, 0, &boot, sizeof boot, &count) == -1) {
        throw std::runtime_error("Can't read ntfs boot sector");
    }
    if (!isNTFileSystem(&boot, logger)) {
        throw std::runtime_error("Not an NTFS filesystem");
    }
    deriveGeometry(&boot);
    initVolumeMetaData();
}

void NTFSParser::deriveGeometry(void const* bootSector) {
    auto const& boot = *static_cast<ntfs_boot_sector const*>(bootSector);
    clustersPerMftRecord = static_cast<std::int8_t>(boot.clusters_per_mft_record);
    // 256 sectors and more become 0, on purpose: the location of $MFT is refused below then.
    sectorsPerCluster = decodeSectorsPerCluster(boot.sectors_per_cluster);
    if (!isPowerOfTwoOrZero(sectorsPerCluster)) {
        refuse(logger, std::string("Sector per cluster isn't power of two. SectorPerCluster: 0x") +
                           static_cast<char>(sectorsPerCluster)); // as one raw character, on purpose
    }
    bytesPerSector = boot.bytes_per_sector.value();
    totalSectors = static_cast<std::int64_t>(boot.number_of_sectors.value());
    if (totalSectors == 0) {
        throw std::runtime_error("volume size is set to zero.");
    }
    std::int64_t const clusters = shiftRight(totalSectors, log2Of(sectorsPerCluster));
    auto const mft = static_cast<std::int64_t>(boot.mft_lcn.value());
    if (mft > clusters || mft < 0) {
        Logger::Entry(logger, Level::Error) << "$MFT LCN: 0x" << std::hex << mft
                                            << " is greater than the number of clusters: 0x" << clusters << std::dec;
        throw std::runtime_error("Invalid $MFT offset.");
    }
    auto const mirror = static_cast<std::int64_t>(boot.mftmirr_lcn.value());
    if (mirror > clusters || mirror < 0) {
        // The count has no "0x" here, on purpose.
        Logger::Entry(logger, Level::Error) << "$MFTMirr LCN: 0x" << std::hex << mirror
                                            << " is greater than the number of clusters: " << clusters << std::dec;
        throw std::runtime_error("Invalid $MFTMirr offset.");
    }
    if (!isPowerOfTwoOrZero(clusterSize())) {
        refuse(logger, withHexadecimal("Cluster size isn't power of two. ClusterSize: 0x", clusterSize()));
    }
    mftLcn = mft;
    std::uint32_t const exponent = clustersPerMftRecord >= 0 ? log2Of(clusterSize()) & 31U
                                                             : static_cast<std::uint32_t>(-clustersPerMftRecord) & 31U;
    std::uint32_t const base = clustersPerMftRecord >= 0 ? static_cast<std::uint32_t>(clustersPerMftRecord) : 1;
    mftRecordSize = base << exponent;
    if (!isPowerOfTwoOrZero(mftRecordSize)) {
        refuse(logger,
               withHexadecimal("$MFT bytes per record isn't power of two. MFTBytesPerRecord: 0x", mftRecordSize));
    }
}

void NTFSParser::initVolumeMetaData() {
    mftRecord = std::make_unique<ZeroedBuffer>(mftRecordSize);
    // Straight from the start of $MFT. A failure shows in the check of what was read.
    read_record(0, clusterSize() * static_cast<std::uint64_t>(mftLcn), mftRecord->data());
    checkFileRecordConsistency(mftRecord->data(), 0);
    ZeroedBuffer proof(mftRecordSize);
    read_mft_record_throw(kMftMirrorRecord, proof.data(), "");
}

void NTFSParser::read_upcase() {
    if (upcase != nullptr) {
        return;
    }
    ZeroedBuffer record(mftRecordSize);
    read_mft_record_throw(kUpcaseRecord, record.data(), "");
    AttributeHits const hits =
        get_attributes(kUpcaseRecord, reinterpret_cast<ntfs_mft_record_t*>(record.data()), kData);
    if (hits.empty()) {
        return; // silently, as for a record that cannot be read; on purpose
    }
    auto const [holder, offset] = hits.front();
    if (holder != kUpcaseRecord && read_mft_record(holder, record.data()) != 0) {
        return;
    }
    std::vector<ntfs_runlist> const runs = dataRuns(from(record.bytes(), static_cast<std::uint64_t>(offset)));
    std::uint64_t total = 0;
    for (ntfs_runlist const& run : runs) {
        total += static_cast<std::uint64_t>(run.length) * clusterSize();
    }
    // Twice the bytes, on purpose: a second run is placed at twice its byte position. What no character can index is
    // read and dropped. Two bytes more keep the table there when it is empty.
    std::uint64_t const size = std::min(total, kLargestTable) * 2;
    upcase = std::make_unique<ZeroedBuffer>(size + 2); // stays, with a length of 0, when a read fails; on purpose
    upcaseLength = static_cast<std::uint32_t>(
        readRuns({upcase->data(), size}, runs, BufferType::Units16, "Unable to read INDEX ENTRY"));
}

unsigned short const* NTFSParser::upcaseTable() const {
    return upcase == nullptr ? nullptr : reinterpret_cast<unsigned short const*>(upcase->bytes().data());
}

} // namespace agent::core::fs
