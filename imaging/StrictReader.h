// A reader for which bytes that are not there are an error, never zeros.
#pragma once

#include "agent/core/IVolumeReader.h"
#include "agent/info/Logger.h"

#include <cstdint>

namespace imaging {

/// Wraps a reader and turns a short read into a failure.
///
/// The library's aligned read takes what a short read did not deliver as zeros, and a zero bit means free: a bitmap
/// that lies past the end of a truncated volume would free everything. The one short read that is right is that of the
/// volume's last alignment unit, when the volume ends inside it.
class StrictReader : public agent::core::IVolumeReader {
public:
    /// @param logger  takes one `Error` entry for each refused read; not owned
    /// @param inner   not owned; must outlive this reader
    /// @param size    bytes of the volume
    /// @param tail    how many bytes a read may reach past the end, exclusive: the alignment of the reads, or 0 for
    /// none
    StrictReader(agent::info::Logger& logger, agent::core::IVolumeReader const& inner, std::uint64_t size,
                 std::uint64_t tail);

    long read(void* buffer, long length) const override;
    long seek(long offset, int whence) const override;
    std::string getVolumePath() const override;
    long size() override;

    /// From now on, reads may reach less than `bytes` past the end: the granularity of whoever reads.
    void setTail(std::uint64_t bytes) { tail_ = bytes; }

    /// Refuses every short read from now on, also that of the last unit.
    void forbidTail() { setTail(0); }

private:
    bool isTail(std::uint64_t end, std::uint64_t wantedEnd) const;

    agent::info::Logger& logger_;
    agent::core::IVolumeReader const& inner_;
    std::uint64_t size_;
    std::uint64_t tail_;
    mutable std::uint64_t position_ = 0;
};

} // namespace imaging
