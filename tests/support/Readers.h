// Volume readers for tests: memory, synthetic content, recorded calls, and calls that fail.
#pragma once

#include "agent/core/IVolumeReader.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <ostream>
#include <vector>

namespace tests {

/// A volume of `size` bytes whose content a function makes up as it is asked for, so that nothing has to back it.
class SyntheticReader : public agent::core::IVolumeReader {
public:
    /// Fills `length` bytes of the (zeroed) destination with what stands at `offset`; never asked past the size.
    using Content = std::function<void(std::uint64_t offset, std::uint8_t* destination, std::uint64_t length)>;

    SyntheticReader(std::uint64_t size, Content content) : size_(size), content_(std::move(content)) {}

    long read(void* buffer, long length) const override {
        std::uint64_t const rest = position_ < size_ ? size_ - position_ : 0;
        std::uint64_t const count = std::min(rest, static_cast<std::uint64_t>(length));
        std::memset(buffer, 0, count);
        content_(position_, static_cast<std::uint8_t*>(buffer), count);
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

    long size() override { return static_cast<long>(size_); }

private:
    std::uint64_t size_;
    Content content_;
    mutable std::uint64_t position_ = 0;
};

/// A volume in memory. `bytes` may be changed between calls.
class MemoryReader : public agent::core::IVolumeReader {
public:
    explicit MemoryReader(std::vector<std::uint8_t> content) : bytes(std::move(content)) {}

    long read(void* buffer, long length) const override {
        std::uint64_t const rest = position_ < bytes.size() ? bytes.size() - position_ : 0;
        std::uint64_t const count = std::min(rest, static_cast<std::uint64_t>(length));
        if (count != 0) {
            std::memcpy(buffer, bytes.data() + position_, count);
        }
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

    long size() override { return static_cast<long>(bytes.size()); }

    std::vector<std::uint8_t> bytes;

private:
    mutable std::uint64_t position_ = 0;
};

/// One call that reached a reader.
struct ReaderCall {
    enum class Kind { Seek, Read } kind;
    long argument; ///< the offset of a seek, the length of a read

    bool operator==(ReaderCall const&) const = default;
};

inline ReaderCall seekCall(long offset) {
    return {ReaderCall::Kind::Seek, offset};
}

inline ReaderCall readCall(long length) {
    return {ReaderCall::Kind::Read, length};
}

inline std::ostream& operator<<(std::ostream& out, ReaderCall const& call) {
    return out << (call.kind == ReaderCall::Kind::Seek ? "seek " : "read ") << call.argument;
}

/// Passes every call on and keeps it.
class RecordingReader : public agent::core::IVolumeReader {
public:
    explicit RecordingReader(agent::core::IVolumeReader const& inner) : inner_(inner) {}

    long read(void* buffer, long length) const override {
        calls.push_back(readCall(length));
        return inner_.read(buffer, length);
    }

    long seek(long offset, int whence) const override {
        calls.push_back(seekCall(offset));
        return inner_.seek(offset, whence);
    }

    mutable std::vector<ReaderCall> calls;

private:
    agent::core::IVolumeReader const& inner_;
};

/// What goes wrong with a call.
enum class Fault {
    SeekFails, ///< the n-th seek returns -1
    ReadFails, ///< the n-th read returns -1
    ReadShort, ///< the n-th read delivers only its first half
    ReadEmpty, ///< the n-th read delivers nothing
};

/// Passes calls on, except that the n-th of one kind (counted from 0) goes wrong.
class FaultyReader : public agent::core::IVolumeReader {
public:
    FaultyReader(agent::core::IVolumeReader const& inner, Fault fault, unsigned n)
        : inner_(inner), fault_(fault), n_(n) {}

    long read(void* buffer, long length) const override {
        bool const now = fault_ != Fault::SeekFails && reads_++ == n_;
        fired = fired || now;
        if (now && fault_ == Fault::ReadFails) {
            return -1;
        }
        if (now && fault_ == Fault::ReadEmpty) {
            return 0;
        }
        return inner_.read(buffer, now ? length / 2 : length);
    }

    long seek(long offset, int whence) const override {
        bool const now = fault_ == Fault::SeekFails && seeks_++ == n_;
        fired = fired || now;
        return now ? -1 : inner_.seek(offset, whence);
    }

    mutable bool fired = false; ///< whether the fault happened: a loop over n ends when it did not

private:
    agent::core::IVolumeReader const& inner_;
    Fault fault_;
    unsigned n_;
    mutable unsigned reads_ = 0;
    mutable unsigned seeks_ = 0;
};

} // namespace tests
