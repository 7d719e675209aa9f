// A reader that lets its callers read in any granularity.
#pragma once

#include "agent/AlignedAllocator.h"
#include "agent/core/IVolumeReader.h"

#include <cstdint>
#include <vector>

namespace imaging {

/// Wraps a reader whose offsets, lengths and addresses must be multiples of an alignment, as direct I/O wants it. What
/// is aligned already passes straight through; anything else is read through a buffer of its own. Parsers that read in
/// clusters or blocks need it where these are smaller than a device's sectors.
class AligningReader : public agent::core::IVolumeReader {
public:
    /// @param inner      not owned; must outlive this reader
    /// @param alignment  bytes, a power of two
    AligningReader(agent::core::IVolumeReader const& inner, std::uint64_t alignment);

    /// As many bytes as the volume has there, up to `length`; -1 when the inner reader fails.
    long read(void* buffer, long length) const override;
    /// Takes SEEK_SET only.
    long seek(long offset, int whence) const override;
    std::string getVolumePath() const override;

private:
    /// No position that a reader can have: the inner reader is sought before it is read.
    static constexpr std::uint64_t kUnknown = ~std::uint64_t{0};

    bool isAligned(void const* buffer, std::uint64_t length) const;
    long readPiece(char* buffer, std::uint64_t length) const;

    agent::core::IVolumeReader const& inner_;
    std::uint64_t alignment_;
    mutable std::vector<char, agent::AlignedAllocator<char>> buffer_; // empty until it is needed
    mutable std::uint64_t position_ = 0;
    mutable std::uint64_t innerPosition_ = kUnknown;
};

} // namespace imaging
