// Where a copy goes.
#pragma once

#include "imaging/OutputFile.h"
#include "imaging/copy/Descriptor.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

namespace imaging {

/// Takes a copy's bytes, in order of their offsets. Used from one thread at a time.
class Destination {
public:
    Destination() = default;
    Destination(Destination const&) = delete;
    Destination& operator=(Destination const&) = delete;
    virtual ~Destination() = default;

    /// @throws VolumeError  the bytes cannot be written
    virtual void write(std::uint64_t offset, std::span<std::uint8_t const> bytes) = 0;

    /// Makes sure that a stretch reads as zeros.
    /// @throws VolumeError  as write
    virtual void zero(std::uint64_t offset, std::uint64_t length) = 0;

    /// Called from another thread: a write that waits, or takes long, gives up soon and throws.
    virtual void cancel() {}

    /// Makes the copy durable and gives it its name. Without it, a file never appears.
    /// @throws VolumeError  that failed
    virtual void finish() = 0;
};

/// A sparse file of the volume's size, under a temporary name until it is whole.
class FileDestination : public Destination {
public:
    /// @param source    path of the volume: a destination that is the same file is refused
    /// @param size      bytes of the volume
    /// @param existing  what to do with a file that stands under the name; it is replaced when the copy is whole
    /// @throws VolumeError  the file cannot be created or be that long
    FileDestination(std::string const& path, std::string const& source, std::uint64_t size,
                    OutputFile::Existing existing);

    void write(std::uint64_t offset, std::span<std::uint8_t const> bytes) override;
    void zero(std::uint64_t offset, std::uint64_t length) override; // a new file is zero
    void finish() override;

private:
    OutputFile file_;
};

/// A block device. What lies past the volume's size on it is left alone.
class DeviceDestination : public Destination {
public:
    /// @param start  byte of the source where the volume begins
    /// @throws VolumeError  it is no block device, is in use, is too small, or shares bytes with the volume itself
    DeviceDestination(std::string const& path, std::string const& source, std::uint64_t size, std::uint64_t start = 0);

    void write(std::uint64_t offset, std::span<std::uint8_t const> bytes) override;
    void zero(std::uint64_t offset, std::uint64_t length) override;
    void cancel() override { isCancelled_ = true; }
    void finish() override;

private:
    std::string path_;
    Descriptor device_;
    std::atomic<bool> isCancelled_{false};
};

/// A plain stream: free space arrives as zeros.
class StreamDestination : public Destination {
public:
    /// @param descriptor  not owned
    /// @param size        bytes of the volume
    /// @param pause       called now and then while zeros are written, from any thread; what it throws ends the copy
    StreamDestination(int descriptor, std::string name, std::uint64_t size, std::function<void()> pause = {});
    ~StreamDestination() override;

    void cancel() override { isCancelled_ = true; }

    void write(std::uint64_t offset, std::span<std::uint8_t const> bytes) override;
    void zero(std::uint64_t offset, std::uint64_t length) override;
    void finish() override;

private:
    void put(std::span<std::uint8_t const> bytes);
    void waitUntilWritable() const;
    void fillTo(std::uint64_t offset);

    int descriptor_;
    std::string name_;
    std::uint64_t size_;
    std::function<void()> pause_;
    std::uint64_t done_ = 0;
    int flags_; ///< of the descriptor, before it was told not to wait; -1 when it was left alone
    std::atomic<bool> isCancelled_{false};
};

} // namespace imaging
