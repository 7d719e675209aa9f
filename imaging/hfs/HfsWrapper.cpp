// Reading the outer volume's header.
#include "imaging/hfs/HfsWrapper.h"

#include "imaging/LoadInteger.h"

namespace imaging::hfs {

namespace {

/// Signatures, as big-endian numbers.
constexpr std::uint64_t kWrapperSignature = 0x4244; // "BD"
constexpr std::uint64_t kHfsPlusSignature = 0x482B; // "H+"
constexpr std::uint64_t kHfsxSignature = 0x4858;    // "HX"

/// Fields of the outer volume's header.
constexpr std::size_t kAllocationBlockSize = 0x14;  // 4 bytes: bytes
constexpr std::size_t kFirstAllocationBlock = 0x1C; // 2 bytes: sectors
constexpr std::size_t kEmbeddedSignature = 0x7C;    // 2 bytes
constexpr std::size_t kEmbeddedStart = 0x7E;        // 2 bytes: allocation block
constexpr std::size_t kEmbeddedCount = 0x80;        // 2 bytes: allocation blocks
constexpr std::size_t kFieldsEnd = 0x82;

constexpr std::uint64_t kSector = 512;

} // namespace

std::optional<Embedded> findEmbedded(std::span<std::uint8_t const> header) {
    if (header.size() < kFieldsEnd || loadBig(header, 0, 2) != kWrapperSignature) {
        return std::nullopt;
    }
    std::uint64_t const signature = loadBig(header, kEmbeddedSignature, 2);
    if (signature != kHfsPlusSignature && signature != kHfsxSignature) {
        return std::nullopt;
    }
    std::uint64_t const blockSize = loadBig(header, kAllocationBlockSize, 4);
    return Embedded{loadBig(header, kFirstAllocationBlock, 2) * kSector +
                        loadBig(header, kEmbeddedStart, 2) * blockSize,
                    loadBig(header, kEmbeddedCount, 2) * blockSize};
}

} // namespace imaging::hfs
