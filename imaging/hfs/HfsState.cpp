// The header's flags and the journal's ends.
#include "imaging/hfs/HfsState.h"

namespace imaging::hfs {

namespace {

/// Flags in the volume header.
constexpr std::uint64_t kUnmounted = 0x00000100;
constexpr std::uint64_t kInconsistent = 0x00000800;
constexpr std::uint64_t kJournaled = 0x00002000;

/// The block that tells where the journal lies: flags, a device's signature, offset and size; big-endian.
constexpr std::uint64_t kInfoBytes = 52;
constexpr std::size_t kInfoFlags = 0;
constexpr std::size_t kInfoOffset = 36;
constexpr std::uint64_t kOnOtherDevice = 0x2;
constexpr std::uint64_t kNeedsInit = 0x4;

/// The journal's own header, in the order of bytes of the machine that wrote it.
constexpr std::uint64_t kJournalBytes = 24;
constexpr std::uint64_t kJournalMagic = 0x4A4E4C78; // "JNLx"
constexpr std::size_t kJournalStart = 8;
constexpr std::size_t kJournalEnd = 16;

using Reason = std::optional<std::string>;

Reason findOpenJournal(Header const& header, ReadBytes const& read) {
    std::vector<std::uint8_t> const info = read(header.journalInfoBlock * header.blockSize, kInfoBytes);
    if (info.size() != kInfoBytes) {
        return "its journal cannot be found";
    }
    std::uint64_t const flags = loadBig(info, kInfoFlags, 4);
    if ((flags & kOnOtherDevice) != 0) {
        return "its journal lies on another device: whether it holds changes that are not in place yet cannot be told";
    }
    if ((flags & kNeedsInit) != 0) {
        return std::nullopt; // never written
    }
    std::vector<std::uint8_t> const journal = read(loadBig(info, kInfoOffset, 8), kJournalBytes);
    if (journal.size() != kJournalBytes) {
        return "its journal cannot be found";
    }
    bool const isBig = loadBig(journal, 0, 4) == kJournalMagic;
    if (!isBig && load(journal, 0, 4) != kJournalMagic) {
        return "its journal cannot be found";
    }
    auto const field = [&](std::size_t offset) {
        return isBig ? loadBig(journal, offset, 8) : load(journal, offset, 8);
    };
    if (field(kJournalStart) != field(kJournalEnd)) {
        return "its journal holds changes that are not in place yet";
    }
    return std::nullopt;
}

} // namespace

bool wasUnmounted(Header const& header) {
    return (header.attributes & kInconsistent) == 0 && (header.attributes & kUnmounted) != 0;
}

std::optional<std::string> uncleanReason(Header const& header, ReadBytes const& read) {
    if ((header.attributes & kJournaled) != 0) {
        if (Reason reason = findOpenJournal(header, read)) {
            return reason;
        }
    }
    if ((header.attributes & kInconsistent) != 0) {
        return "its header says that it may be inconsistent";
    }
    if ((header.attributes & kUnmounted) == 0) {
        return "its header does not have the flag of a clean unmount";
    }
    return std::nullopt;
}

} // namespace imaging::hfs
