// Filling bytes from runs.
#include "imaging/BitmapWriter.h"

#include <algorithm>

namespace imaging {

namespace {

/// Enough that handing bytes over costs nothing beside making them.
constexpr std::size_t kBufferBytes = std::size_t{256} * 1024;

} // namespace

BitmapWriter::BitmapWriter(ByteSink sink) : sink_(std::move(sink)) {
    buffer_.reserve(kBufferBytes);
}

void BitmapWriter::addRun(std::uint64_t count, bool used) {
    if (partialBits_ != 0) {
        std::uint64_t const head = std::min<std::uint64_t>(count, 8 - partialBits_);
        addPartOfByte(head, used);
        count -= head;
    }
    for (std::uint64_t bytes = count / 8; bytes != 0;) {
        auto const piece = std::min<std::uint64_t>(bytes, kBufferBytes - buffer_.size());
        buffer_.insert(buffer_.end(), piece, used ? std::uint8_t{0xFF} : std::uint8_t{0});
        bytes -= piece;
        if (buffer_.size() == kBufferBytes) {
            flush();
        }
    }
    addPartOfByte(count % 8, used);
}

void BitmapWriter::addPartOfByte(std::uint64_t count, bool used) {
    if (used) {
        unsigned const bits = ((1U << count) - 1) << partialBits_;
        partial_ = static_cast<std::uint8_t>(partial_ | bits);
    }
    partialBits_ += static_cast<unsigned>(count);
    if (partialBits_ == 8) {
        pushByte(partial_);
        partial_ = 0;
        partialBits_ = 0;
    }
}

void BitmapWriter::pushByte(std::uint8_t byte) {
    buffer_.push_back(byte);
    if (buffer_.size() == kBufferBytes) {
        flush();
    }
}

void BitmapWriter::flush() {
    sink_(buffer_);
    written_ += buffer_.size();
    buffer_.clear();
}

void BitmapWriter::finish() {
    if (partialBits_ != 0) {
        pushByte(partial_);
        partial_ = 0;
        partialBits_ = 0;
    }
    if (!buffer_.empty()) {
        flush();
    }
}

} // namespace imaging
