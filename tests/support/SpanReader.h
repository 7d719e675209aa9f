// A volume in bytes that somebody else holds: any stretch of them, without a copy.
#pragma once

#include "agent/core/IVolumeReader.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <span>

namespace tests {

/// Reads bytes that it does not own.
class SpanReader : public agent::core::IVolumeReader {
public:
    explicit SpanReader(std::span<std::uint8_t const> content) : bytes(content) {}

    long read(void* buffer, long length) const override {
        std::uint64_t const rest = position_ < bytes.size() ? bytes.size() - position_ : 0;
        std::uint64_t const count = std::min(rest, static_cast<std::uint64_t>(length));
        if (count != 0) {
            std::memcpy(buffer, bytes.data() + position_, count);
        }
        position_ += count;
        ++reads;
        furthest = std::max(furthest, position_);
        return static_cast<long>(count);
    }

    long seek(long offset, int whence) const override {
        if (whence != SEEK_SET || offset < 0) {
            return -1;
        }
        position_ = static_cast<std::uint64_t>(offset);
        return offset;
    }

    long size() override { return static_cast<long>(bytes.size()); }

    std::span<std::uint8_t const> bytes;
    mutable std::uint64_t reads = 0;    ///< so far
    mutable std::uint64_t furthest = 0; ///< the end of the furthest read

private:
    mutable std::uint64_t position_ = 0;
};

} // namespace tests
