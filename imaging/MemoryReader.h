// A volume in memory.
#pragma once

#include "agent/core/IVolumeReader.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

namespace imaging {

/// Bytes presented as a volume.
class MemoryReader : public agent::core::IVolumeReader {
public:
    explicit MemoryReader(std::vector<std::uint8_t> bytes) : bytes_(std::move(bytes)) {}

    long read(void* buffer, long length) const override {
        std::size_t const count = std::min(static_cast<std::size_t>(length), bytes_.size() - position_);
        std::memcpy(buffer, bytes_.data() + position_, count);
        position_ += count;
        return static_cast<long>(count);
    }

    /// Takes SEEK_SET only, to a place inside the volume or its end.
    long seek(long offset, int whence) const override {
        if (whence != SEEK_SET || offset < 0 || static_cast<std::size_t>(offset) > bytes_.size()) {
            return -1;
        }
        position_ = static_cast<std::size_t>(offset);
        return offset;
    }

private:
    std::vector<std::uint8_t> bytes_;
    mutable std::size_t position_ = 0;
};

} // namespace imaging
