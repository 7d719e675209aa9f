// Zeroed working memory whose large sizes cost nothing until they are written.
#pragma once

#include "agent/AlignedAllocator.h"

#include <algorithm>
#include <cstdint>
#include <span>
#include <utility>

namespace agent::core::fs {

/// A block of zeroed bytes. A size that the disk claims and the volume cannot fill takes addresses, not memory.
class ZeroedBuffer {
public:
    /// @param alignment  bytes, a power of two
    /// @throws std::bad_alloc         the addresses cannot be had
    /// @throws std::invalid_argument  the alignment is no power of two and the size is not 0
    explicit ZeroedBuffer(std::size_t size, std::size_t alignment = kNatural)
        : memory_(size == 0 ? nullptr : static_cast<std::uint8_t*>(agent::allocateAligned(size, alignment))),
          size_(size), alignment_(alignment) {}
    ZeroedBuffer(ZeroedBuffer const&) = delete;
    ZeroedBuffer& operator=(ZeroedBuffer const&) = delete;
    ~ZeroedBuffer() { agent::deallocateAligned(memory_, size_, alignment_); }

    /// Makes every byte zero again; large blocks give their memory back.
    void clear() {
        if (size_ < agent::kFreshPagesThreshold) {
            std::fill_n(memory_, size_, std::uint8_t{0});
            return;
        }
        void* const fresh = agent::allocateAligned(size_, alignment_);
        agent::deallocateAligned(std::exchange(memory_, static_cast<std::uint8_t*>(fresh)), size_, alignment_);
    }

    std::uint8_t* data() { return memory_; }
    std::size_t size() const { return size_; }
    std::span<std::uint8_t const> bytes() const { return {memory_, size_}; }

private:
    static constexpr std::size_t kNatural = __STDCPP_DEFAULT_NEW_ALIGNMENT__; // what the heap gives without effort

    std::uint8_t* memory_; // null when the size is 0
    std::size_t size_;
    std::size_t alignment_;
};

} // namespace agent::core::fs
