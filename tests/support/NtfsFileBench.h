// Runs the NTFS parser's index, path and security operations on a volume in memory and keeps all that it does.
#pragma once

#include "support/NtfsAccess.h"
#include "support/NtfsBuilder.h"
#include "support/Readers.h"
#include "support/RecordingLogger.h"

#include <exception>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace tests {

/// What an action throws, as text.
template <typename Action>
std::string failureOf(Action&& action) {
    try {
        std::forward<Action>(action)();
    } catch (std::exception const& error) {
        return error.what();
    }
    return "nothing was thrown";
}

/// Byte offset and length of one read.
struct VolumeRead {
    long offset;
    long length;

    bool operator==(VolumeRead const&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, VolumeRead const& read) {
    return out << "read of " << read.length << " at " << read.offset;
}

/// A parser on a volume in memory. Changes to `volume.bytes` reach the parser's next call.
struct NtfsFileBench {
    explicit NtfsFileBench(NtfsBuilder const& builder = NtfsBuilder::standard(), unsigned alignment = 512)
        : volume(builder.bytes), reader(volume), parser(logger, alignment, reader) {
        forget();
    }

    NtfsFileBench(NtfsBuilder const& builder, agent::IConfig const& config)
        : volume(builder.bytes), reader(volume), parser(logger, 512, reader, config) {
        forget();
    }

    /// Drops what was recorded so far.
    void forget() {
        reader.calls.clear();
        logger.entries.clear();
    }

    /// The reads since the last forget(), each with the seek before it.
    std::vector<VolumeRead> reads() const {
        std::vector<VolumeRead> result;
        for (std::size_t i = 0; i + 1 < reader.calls.size(); i += 2) {
            result.push_back({reader.calls[i].argument, reader.calls[i + 1].argument});
        }
        return result;
    }

    agent::core::fs::ntfs_index_entry lookupName(unsigned long parent, std::string const& name) {
        return parser.btree_lookup(parent, {&name, 1});
    }

    /// The reference that a directory's entry holds.
    unsigned long referenceOf(unsigned long parent, std::string const& name) {
        return lookupName(parent, name).file_reference.value();
    }

    agent::core::fs::ntfs_index_entry lookupIdentifier(unsigned identifier) {
        return parser.btree_lookup(ntfs_record_number::kSecure, {&identifier, 16});
    }

    MemoryReader volume;
    RecordingReader reader;
    RecordingLogger logger;
    NtfsAccess parser;
};

/// Passes reads on until so many have been made; from then on they fail. Ends what would never end by itself.
class BudgetReader : public agent::core::IVolumeReader {
public:
    BudgetReader(agent::core::IVolumeReader const& inner, unsigned budget) : inner_(inner), left(budget) {}

    long read(void* buffer, long length) const override {
        if (left == 0) {
            return -1;
        }
        --left;
        return inner_.read(buffer, length);
    }

    long seek(long offset, int whence) const override { return inner_.seek(offset, whence); }

private:
    agent::core::IVolumeReader const& inner_;

public:
    mutable unsigned left; ///< reads that will still be passed on
};

} // namespace tests
