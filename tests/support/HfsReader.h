// Presents an HFS+ volume as its parser wants it: the volume header at byte 0, everything else where it lies.
#pragma once

#include "agent/core/IVolumeReader.h"
#include "support/HfsBuilder.h"
#include "support/Readers.h"

#include <array>
#include <cstdint>

namespace tests {

/// Passes calls on, except that the first 512 bytes of the volume are those of its header at byte 1024.
class HfsFrontReader : public agent::core::IVolumeReader {
public:
    explicit HfsFrontReader(agent::core::IVolumeReader const& inner) : inner_(inner) {
        alignas(4096) std::array<std::uint8_t, 4096> start{}; // as direct I/O wants it
        inner.seek(0, SEEK_SET);
        inner.read(start.data(), static_cast<long>(start.size()));
        std::copy_n(start.begin() + kHfsHeaderOffset, header_.size(), header_.begin());
    }

    long read(void* buffer, long length) const override {
        long const result = inner_.read(buffer, length);
        if (result > 0 && position_ < static_cast<long>(header_.size())) {
            auto const from = static_cast<std::size_t>(position_);
            std::memcpy(buffer, header_.data() + from,
                        std::min(header_.size() - from, static_cast<std::size_t>(result)));
        }
        position_ += std::max(result, 0L);
        return result;
    }

    long seek(long offset, int whence) const override {
        long const result = inner_.seek(offset, whence);
        if (result >= 0) {
            position_ = result;
        }
        return result;
    }

private:
    agent::core::IVolumeReader const& inner_;
    std::array<std::uint8_t, kHfsHeaderBytes> header_{};
    mutable long position_ = 0;
};

} // namespace tests
