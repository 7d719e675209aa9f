// Finding the head of the journal and what stands before it.
#include "imaging/xfs/XfsLog.h"

#include "imaging/LoadInteger.h"

#include <algorithm>

namespace imaging::xfs {

namespace {

/// The journal is a ring of basic blocks, written in turn; each begins with the number of its turn, or with the magic
/// number of a record's header and then that number.
constexpr std::uint64_t kBasicBlock = 512;
constexpr std::uint64_t kHeaderMagic = 0xFEEDBABE;

/// A record's header: big-endian fields.
constexpr std::size_t kCycle = 4;
constexpr std::size_t kVersion = 8;
constexpr std::size_t kDataLength = 12;
constexpr std::size_t kOperations = 40;
constexpr std::size_t kRecordSize = 320;

/// Headers of records of more than 32 KiB take one more block for each further 32 KiB.
constexpr std::uint64_t kDataOfHeader = 32768;
constexpr std::uint64_t kLargestRecord = 262144;
constexpr std::uint64_t kMostBack = 2 * (kLargestRecord / kBasicBlock + kLargestRecord / kDataOfHeader);

/// The flags of an operation, in its header, and the one of the last operation before an unmount.
constexpr std::size_t kOperationFlags = 9;
constexpr std::uint8_t kUnmount = 0x20;

using Bytes = std::vector<std::uint8_t>;

bool isHeader(Bytes const& block) {
    return loadBig(block, 0, 4) == kHeaderMagic;
}

class Log {
public:
    Log(std::uint64_t bytes, ReadLog const& read) : blocks_(bytes / kBasicBlock), read_(read) {}

    std::optional<std::string> findOpen() const {
        if (blocks_ < 2) {
            return "its journal of " + std::to_string(blocks_ * kBasicBlock) + " bytes holds no record";
        }
        std::uint64_t const first = cycle(0);
        if (first == 0) {
            return std::nullopt; // never written
        }
        std::uint64_t const last = cycle(blocks_ - 1);
        if (last != first && last + 1 != first && last != 0) {
            return "its journal begins in turn " + std::to_string(first) + " and ends in turn " + std::to_string(last) +
                   ", which cannot be";
        }
        // Where both are the same, the ring was just filled.
        return checkBefore(last == first ? blocks_ : findTurn(last));
    }

private:
    Bytes block(std::uint64_t number) const { return read_(number * kBasicBlock, kBasicBlock); }

    std::uint64_t cycle(std::uint64_t number) const {
        Bytes const bytes = block(number);
        return loadBig(bytes, isHeader(bytes) ? kCycle : 0, 4);
    }

    /// The first block of an older turn: those before it have a higher number.
    std::uint64_t findTurn(std::uint64_t older) const {
        std::uint64_t newer = 0;
        std::uint64_t end = blocks_ - 1;
        while (newer + 1 < end) {
            std::uint64_t const middle = newer + (end - newer) / 2;
            (cycle(middle) == older ? end : newer) = middle;
        }
        return end;
    }

    /// Whether the record that ends at the head says that the volume was unmounted.
    std::optional<std::string> checkBefore(std::uint64_t head) const {
        for (std::uint64_t back = 1; back <= std::min(kMostBack, blocks_); ++back) {
            std::uint64_t const number = (head + blocks_ - back) % blocks_; // round the ring
            Bytes const header = block(number);
            if (isHeader(header)) {
                return isUnmount(number, header, head)
                           ? std::nullopt
                           : std::optional<std::string>("its journal holds changes that are not in place yet");
            }
        }
        return "its journal has no record before block " + std::to_string(head) + " of it";
    }

    bool isUnmount(std::uint64_t number, Bytes const& header, std::uint64_t head) const {
        std::uint64_t const size = std::clamp(loadBig(header, kRecordSize, 4), kDataOfHeader, kLargestRecord);
        std::uint64_t const headers = loadBig(header, kVersion, 4) > 1 ? (size + kDataOfHeader - 1) / kDataOfHeader : 1;
        std::uint64_t const data = (loadBig(header, kDataLength, 4) + kBasicBlock - 1) / kBasicBlock;
        bool const endsAtHead = (number + headers + data) % blocks_ == head % blocks_;
        if (loadBig(header, kOperations, 4) != 1 || !endsAtHead || data == 0) {
            return false;
        }
        return (block((number + headers) % blocks_)[kOperationFlags] & kUnmount) != 0;
    }

    std::uint64_t blocks_;
    ReadLog const& read_;
};

} // namespace

std::optional<std::string> findOpenLog(std::uint64_t bytes, ReadLog const& read) {
    return Log(bytes, read).findOpen();
}

} // namespace imaging::xfs
