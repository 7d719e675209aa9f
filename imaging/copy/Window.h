// One large read of a source.
#pragma once

#include "agent/AlignedAllocator.h"
#include "imaging/ByteRange.h"
#include "imaging/copy/Source.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace imaging {

/// Bytes read together: large, so that each read costs little beside its bytes.
inline constexpr std::uint64_t kWindowBytes = std::uint64_t{4} << 20;

/// A buffer that holds one stretch of a source.
class Window {
public:
    /// @param source  not owned
    explicit Window(Source const& source);

    /// Reads a stretch of at most kWindowBytes.
    /// @throws std::system_error  it cannot be read
    /// @throws VolumeError        the source ends inside it
    /// @param path  begins the sentence
    void read(ByteRange const& range, std::string const& path);

    /// Bytes of the stretch that was read last; `range` lies inside it.
    std::span<std::uint8_t const> bytes(ByteRange const& range) const;

private:
    Source const& source_;
    std::vector<std::uint8_t, agent::AlignedAllocator<std::uint8_t>> buffer_;
    std::uint64_t start_ = 0; ///< of the volume: byte 0 of the buffer
};

} // namespace imaging
