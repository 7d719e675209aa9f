// Runs the NTFS parser on a volume in memory and keeps all that it does.
#pragma once

#include "support/NtfsAccess.h"
#include "support/NtfsBuilder.h"
#include "support/Readers.h"
#include "support/RecordingLogger.h"

#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace tests {

/// A parser on a volume in memory, with the calls and entries that it causes. Changes to `volume.bytes` reach the
/// parser's next call.
struct NtfsBench {
    explicit NtfsBench(NtfsBytes bytes, unsigned alignment = 512)
        : volume(std::move(bytes)), reader(volume), parser(logger, alignment, reader) {}
    explicit NtfsBench(NtfsBuilder const& builder, unsigned alignment = 512) : NtfsBench(builder.bytes, alignment) {}

    /// Forgets the calls and entries so far.
    void forget() {
        reader.calls.clear();
        logger.entries.clear();
    }

    MemoryReader volume;
    RecordingReader reader;
    RecordingLogger logger;
    NtfsAccess parser;
};

/// What became of a construction.
struct NtfsOpening {
    std::string refusal; ///< the exception's text; empty where the parser was made
    std::vector<LogEntry> entries;
    std::vector<ReaderCall> calls;

    bool operator==(NtfsOpening const&) const = default;
};

inline void PrintTo(NtfsOpening const& opening, std::ostream* out) {
    *out << '"' << opening.refusal << "\", entries:";
    for (LogEntry const& entry : opening.entries) {
        *out << ' ' << entry << ';';
    }
    *out << " calls:";
    for (ReaderCall const& call : opening.calls) {
        *out << ' ' << call << ';';
    }
}

/// Makes a parser and throws it away. Only the documented exception is caught.
inline NtfsOpening openNtfs(agent::core::IVolumeReader const& volume, unsigned alignment = 512) {
    RecordingReader reader(volume);
    RecordingLogger logger;
    NtfsOpening opening;
    try {
        NtfsAccess const parser(logger, alignment, reader);
    } catch (std::runtime_error const& refused) {
        opening.refusal = refused.what();
    }
    opening.entries = logger.entries;
    opening.calls = reader.calls;
    return opening;
}

inline NtfsOpening openNtfs(NtfsBuilder const& builder, unsigned alignment = 512) {
    return openNtfs(MemoryReader(builder.bytes), alignment);
}

/// The entry of a record's read.
inline LogEntry readingEntry(std::uint64_t number, std::uint64_t offset) {
    return debugEntry("Reading $MFT for inode " + std::to_string(number) + " at offset " + std::to_string(offset));
}

/// The entry of a search for data, as each record's read begins.
inline LogEntry searchingDataEntry() {
    return debugEntry("Searching for attribute 128");
}

/// The text of the exception that a call throws, or what it is not.
template <typename Exception = std::runtime_error, typename Call>
std::string textThrown(Call const& call) {
    try {
        call();
    } catch (Exception const& thrown) {
        return thrown.what();
    }
    return "nothing was thrown";
}

} // namespace tests
