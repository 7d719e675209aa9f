// What every fuzz target needs: a volume over the fuzzer's bytes, and a logger that takes everything.
#pragma once

#include "agent/core/IVolumeReader.h"
#include "agent/info/Logger.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <span>

namespace fuzz {

/// A read-only volume of the given bytes, which it does not own.
class SpanReader : public agent::core::IVolumeReader {
public:
    explicit SpanReader(std::span<std::uint8_t const> bytes) : bytes_(bytes) {}

    long read(void* buffer, long length) const override {
        std::size_t const rest = position_ < bytes_.size() ? bytes_.size() - position_ : 0;
        std::size_t const count = std::min(rest, static_cast<std::size_t>(length));
        if (count != 0) {
            std::memcpy(buffer, bytes_.data() + position_, count);
        }
        position_ += count;
        return static_cast<long>(count);
    }

    long seek(long offset, int whence) const override {
        if (whence != SEEK_SET || offset < 0) {
            return -1;
        }
        position_ = static_cast<std::size_t>(offset);
        return offset;
    }

private:
    std::span<std::uint8_t const> bytes_;
    mutable std::size_t position_ = 0;
};

/// Wants every level, so that every message is formatted.
class SinkLogger : public agent::info::Logger {
public:
    void write(agent::info::Level, std::string const& text) override { bytes_ += text.size(); }

private:
    std::size_t bytes_ = 0;
};

} // namespace fuzz
