// A reader that shows part of a volume as a volume of its own.
#pragma once

#include "agent/core/IVolumeReader.h"

#include <cstdint>

namespace imaging {

/// Shows the bytes of another reader from a start on. What lies past the slice's end is not there.
class SliceReader : public agent::core::IVolumeReader {
public:
    /// @param inner  not owned; must outlive this reader
    /// @param start  byte of the inner reader that is byte 0 here
    /// @param size   bytes; start + size fits 63 bits
    SliceReader(agent::core::IVolumeReader const& inner, std::uint64_t start, std::uint64_t size);

    long read(void* buffer, long length) const override;
    /// Takes SEEK_SET only.
    long seek(long offset, int whence) const override;
    std::string getVolumePath() const override;
    long size() override;

private:
    agent::core::IVolumeReader const& inner_;
    std::uint64_t start_;
    std::uint64_t size_;
    mutable std::uint64_t position_ = 0;
};

} // namespace imaging
