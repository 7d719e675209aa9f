// A reader that reads further than it is asked to.
#pragma once

#include "agent/AlignedAllocator.h"
#include "agent/core/IVolumeReader.h"
#include "imaging/ByteRange.h"
#include "imaging/ReasonLogger.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace imaging {

/// Once reads follow one another, reads a long window at their place and answers the next ones from it. For volumes
/// read with direct I/O, where nobody else reads ahead: short reads stay in the processor's caches, long ones suit a
/// disk. A window that cannot be read is no failure as long as what was asked for can be. The volume must not change
/// meanwhile.
class ReadAheadReader : public agent::core::IVolumeReader {
public:
    /// Bytes of a window. A disk gives nearly all it can in reads of this length.
    static constexpr std::uint64_t kWindowBytes = std::uint64_t{1} << 20;

    /// @param logger  forgets the reason of a failed window when what was asked for could be read; outlives this reader
    /// @param inner   not owned; must outlive this reader; takes reads of any length anywhere
    ReadAheadReader(ReasonLogger& logger, agent::core::IVolumeReader const& inner);

    long read(void* buffer, long length) const override;
    /// Takes SEEK_SET only.
    long seek(long offset, int whence) const override;
    std::string getVolumePath() const override;

    /// Drops what is kept: whatever is asked for next is read anew.
    void forget() const;

private:
    /// Reads that follow one another.
    struct Stream {
        std::vector<char, agent::AlignedAllocator<char>> window; ///< empty until it is needed
        std::uint64_t start = 0;                                 ///< of the window
        std::uint64_t size = 0;                                  ///< bytes that the volume has there
        std::uint64_t expected = ~std::uint64_t{0};              ///< where the last read ended

        bool holds(std::uint64_t position, std::uint64_t length) const;
    };

    Stream& findStream(std::uint64_t length) const;
    void fillWindow(Stream& stream) const;
    long readAround(Stream& stream, void* buffer, long length) const;

    ReasonLogger& logger_;
    agent::core::IVolumeReader const& inner_;
    mutable ByteRange broken_{0, 0};        // the last window that could not be read; not tried again
    mutable std::array<Stream, 2> streams_; // two tables can be read side by side
    mutable std::size_t last_ = 0;          // the stream that was read from last
    mutable std::uint64_t position_ = 0;
};

} // namespace imaging
