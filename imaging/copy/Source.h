// The volume as a copy reads it: large stretches, and holes without reading.
#pragma once

#include "imaging/ByteRange.h"
#include "imaging/copy/Descriptor.h"

#include <cstdint>
#include <span>
#include <string>

namespace imaging {

/// Where a copy's bytes come from.
class Source {
public:
    Source() = default;
    Source(Source const&) = delete;
    Source& operator=(Source const&) = delete;
    virtual ~Source() = default;

    /// Bytes; a power of two. Reads at multiples of it are what the device likes best.
    virtual std::uint64_t alignment() const = 0;

    /// Reads bytes. Offset, length and address are multiples of the alignment, but for a length that ends with the
    /// volume.
    /// @return how many bytes there were; fewer than wanted only at the end of the volume
    /// @throws std::system_error  they cannot be read
    virtual std::size_t read(std::uint64_t offset, std::span<std::uint8_t> buffer) const = 0;

    /// The stretch of one kind, data or hole, that begins at an offset; it may reach further.
    struct Stretch {
        std::uint64_t end;
        bool isHole;
    };
    virtual Stretch stretchAt(std::uint64_t offset) const = 0;
};

/// An image file or a block device, opened read-only: a device with direct I/O, so that what a mounted file system
/// wrote is seen, a file through the page cache.
class FileSource : public Source {
public:
    /// @param size   bytes of the volume
    /// @param start  byte of the file where the volume begins
    /// @throws VolumeError  it cannot be opened
    FileSource(std::string const& path, std::uint64_t size, std::uint64_t start = 0);

    std::uint64_t alignment() const override { return alignment_; }
    std::size_t read(std::uint64_t offset, std::span<std::uint8_t> buffer) const override;
    /// Asks the system once for each stretch. One thread at a time.
    Stretch stretchAt(std::uint64_t offset) const override;

private:
    Stretch findStretch(std::uint64_t offset) const;

    Descriptor file_;
    std::uint64_t size_;
    std::uint64_t start_;
    std::uint64_t alignment_ = 1;
    bool mayHaveHoles_ = false;
    mutable std::uint64_t lastBegin_ = 0; // the stretch that was found last
    mutable Stretch last_{0, false};
};

} // namespace imaging
