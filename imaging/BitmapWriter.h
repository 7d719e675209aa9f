// A raw bitmap, made from runs.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace imaging {

/// Turns runs into a bitmap, one bit a unit, least significant bit first, set where the unit is used. Bits past the
/// last unit are clear. Holds a fixed buffer, whatever the bitmap's size.
class BitmapWriter {
public:
    /// Takes the next bytes of the bitmap.
    using ByteSink = std::function<void(std::span<std::uint8_t const>)>;

    explicit BitmapWriter(ByteSink sink);

    /// Adds `count` units in one state.
    void addRun(std::uint64_t count, bool used);

    /// Hands over what is left, the last byte filled up with clear bits.
    void finish();

    /// Bytes handed over so far.
    std::uint64_t bytesWritten() const { return written_; }

private:
    void addPartOfByte(std::uint64_t count, bool used);
    void pushByte(std::uint8_t byte);
    void flush();

    ByteSink sink_;
    std::vector<std::uint8_t> buffer_;
    std::uint8_t partial_ = 0; // the byte that is being filled
    unsigned partialBits_ = 0; // bits of it that are decided
    std::uint64_t written_ = 0;
};

} // namespace imaging
