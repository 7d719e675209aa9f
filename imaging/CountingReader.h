// A reader that counts what passes through it.
#pragma once

#include "agent/core/IVolumeReader.h"

#include <cstdint>
#include <string>

namespace imaging {

/// Counts seeks, reads and bytes.
class CountingReader : public agent::core::IVolumeReader {
public:
    /// @param inner  not owned; must outlive this reader
    explicit CountingReader(agent::core::IVolumeReader const& inner) : inner_(inner) {}

    long read(void* buffer, long length) const override {
        long const result = inner_.read(buffer, length);
        ++reads_;
        bytes_ += result > 0 ? static_cast<std::uint64_t>(result) : 0;
        return result;
    }

    long seek(long offset, int whence) const override {
        ++seeks_;
        return inner_.seek(offset, whence);
    }

    std::string getVolumePath() const override { return inner_.getVolumePath(); }

    std::uint64_t seeks() const { return seeks_; }
    std::uint64_t reads() const { return reads_; }
    std::uint64_t bytes() const { return bytes_; } ///< delivered

private:
    agent::core::IVolumeReader const& inner_;
    mutable std::uint64_t seeks_ = 0;
    mutable std::uint64_t reads_ = 0;
    mutable std::uint64_t bytes_ = 0;
};

} // namespace imaging
