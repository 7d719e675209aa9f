// An HFS+ volume the way its parser wants to see it.
#pragma once

#include "agent/core/IVolumeReader.h"

#include <array>
#include <cstdint>

namespace imaging::hfs {

inline constexpr std::size_t kHeaderBytes = 512;

/// Shows the volume header in place of the volume's first 512 bytes, which hold nothing of the file system; everything
/// else, and so every allocation block, stays at its own place.
class HeaderFirstReader : public agent::core::IVolumeReader {
public:
    /// @param inner   begins with byte 0 of the HFS+ volume; not owned; must outlive this reader
    /// @param header  what stands at its byte 1024
    HeaderFirstReader(agent::core::IVolumeReader const& inner, std::array<std::uint8_t, kHeaderBytes> const& header);

    long read(void* buffer, long length) const override;
    long seek(long offset, int whence) const override;
    std::string getVolumePath() const override;

private:
    agent::core::IVolumeReader const& inner_;
    std::array<std::uint8_t, kHeaderBytes> header_;
    mutable std::uint64_t position_ = 0;
};

} // namespace imaging::hfs
