// Zeroed working memory whose large sizes cost nothing until they are written.
#pragma once

#include "agent/AlignedAllocator.h"

#include <cstdint>
#include <span>

namespace agent::core::fs {

/// A block of zeroed bytes. A size that the disk claims and the volume cannot fill takes addresses, not memory.
class ZeroedBuffer {
public:
    /// @throws std::bad_alloc  the addresses cannot be had
    explicit ZeroedBuffer(std::size_t size)
        : memory_(static_cast<std::uint8_t*>(agent::allocateAligned(size, kAlignment))), size_(size) {}
    ZeroedBuffer(ZeroedBuffer const&) = delete;
    ZeroedBuffer& operator=(ZeroedBuffer const&) = delete;
    ~ZeroedBuffer() { agent::deallocateAligned(memory_, size_, kAlignment); }

    std::uint8_t* data() { return memory_; }
    std::size_t size() const { return size_; }
    std::span<std::uint8_t const> bytes() const { return {memory_, size_}; }

private:
    static constexpr std::size_t kAlignment = 64; // a cache line

    std::uint8_t* memory_;
    std::size_t size_;
};

} // namespace agent::core::fs
