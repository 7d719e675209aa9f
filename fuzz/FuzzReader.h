// What every fuzz target needs: a volume over the fuzzer's bytes, a logger that takes everything, and checks.
#pragma once

#include "Image.h"
#include "agent/core/IVolumeReader.h"
#include "agent/info/Logger.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <type_traits>

namespace fuzz {

/// A read-only volume. Some structures may lead in a circle for ever: it fails once so much was read.
class ImageReader : public agent::core::IVolumeReader {
public:
    explicit ImageReader(Image const& image) : image_(image) {}

    long read(void* buffer, long length) const override {
        std::uint64_t const rest = image_.size() - std::min(position_, image_.size());
        std::uint64_t const count = std::min(rest, static_cast<std::uint64_t>(std::max(length, 0L)));
        if (readsLeft_ == 0 || count > bytesLeft_) {
            return -1;
        }
        --readsLeft_;
        bytesLeft_ -= count;
        image_.read(position_, {static_cast<std::uint8_t*>(buffer), count});
        position_ += count;
        return static_cast<long>(count);
    }

    long seek(long offset, int whence) const override {
        if (whence != SEEK_SET || offset < 0) {
            return -1;
        }
        position_ = static_cast<std::uint64_t>(offset);
        return offset;
    }

    /// As much may be read again.
    void renew() const {
        readsLeft_ = kMostReads;
        bytesLeft_ = kMostBytes;
    }

private:
    static constexpr unsigned kMostReads = 4000;
    static constexpr std::uint64_t kMostBytes = std::uint64_t{8} << 20;

    Image const& image_;
    mutable std::uint64_t position_ = 0;
    mutable unsigned readsLeft_ = kMostReads;
    mutable std::uint64_t bytesLeft_ = kMostBytes;
};

/// Wants every level, so that every message is formatted; or all but the trace.
class SinkLogger : public agent::info::Logger {
public:
    explicit SinkLogger(bool wantsTrace = true) : wantsTrace_(wantsTrace) {}

    bool isEnabled(agent::info::Level level) const override {
        return wantsTrace_ || level != agent::info::Level::Debug;
    }
    void write(agent::info::Level, std::string const& text) override { bytes_ += text.size(); }

private:
    bool wantsTrace_;
    std::size_t bytes_ = 0;
};

/// What the target asks of the parser: bytes of the input that no parser reads.
class Request {
public:
    Request(Image const& image, std::uint64_t offset) : image_(image), position_(offset) {}

    std::uint64_t number(unsigned width) {
        position_ += width;
        return image_.little(position_ - width, width);
    }

    /// 512 mostly, and once in a while something else, a refused one among them.
    unsigned alignment() {
        static constexpr std::array<unsigned, 16> choices{512, 512, 512, 512, 512, 512,  512,  4096,
                                                          512, 1,   2,   512, 0,   1024, 4096, 513};
        return choices[number(1) % choices.size()];
    }

    std::string text(std::size_t most) {
        std::string result(number(1) % (most + 1), '\0');
        image_.read(position_, {reinterpret_cast<std::uint8_t*>(result.data()), result.size()});
        position_ += result.size();
        return result;
    }

private:
    Image const& image_;
    std::uint64_t position_;
};

inline void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

/// Runs something that may throw these and nothing else. Whether it did not throw.
template <typename First, typename... Others, typename Action>
bool mayThrow(Action const& action) {
    try {
        if constexpr (sizeof...(Others) == 0) {
            action();
            return true;
        } else {
            return mayThrow<Others...>(action);
        }
    } catch (First const&) {
        return false;
    }
}

} // namespace fuzz
