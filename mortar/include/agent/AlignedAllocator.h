/// @file
/// Memory that starts at a multiple of a given power of two, as direct I/O wants it.
#pragma once

#include "agent/Export.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <new>
#include <type_traits>

namespace agent {

/// Blocks of at least this many bytes are mapped straight from the system, so that they come as fresh zero pages which
/// take no memory until they are written. 256 KiB is a choice, of the order at which the C library, too, begins to map
/// (128 KiB).
inline constexpr std::size_t kFreshPagesThreshold = std::size_t{256} * 1024;

/// Zeroed memory of `bytes` bytes that starts at a multiple of `alignment`. Any thread.
///
/// @code
/// void* const memory = agent::allocateAligned(1 << 20, 4096);
/// long const count = volume.read(memory, 1 << 20);
/// agent::deallocateAligned(memory, 1 << 20, 4096);
/// @endcode
/// @param bytes      may be 0: the result is memory that must not be used, and must be given back
/// @param alignment  bytes, a power of two
/// @return owned by the caller, until deallocateAligned()
/// @throws std::invalid_argument  "alignment is not a power of two"
/// @throws std::bad_alloc         the memory cannot be had; nothing is held then
AGENT_EXPORT void* allocateAligned(std::size_t bytes, std::size_t alignment);

/// Gives back what allocateAligned returned. Any thread, also another one than asked for it.
/// @param memory     null is ignored
/// @param bytes      as it was asked for
/// @param alignment  as it was asked for
AGENT_EXPORT void deallocateAligned(void* memory, std::size_t bytes, std::size_t alignment) noexcept;

/// A standard allocator whose memory starts at a multiple of the alignment it was constructed with.
///
/// Every block that allocate() returns is zero. A container's value-initialised elements of a trivial type are
/// therefore not cleared a second time: a vector of a gigabyte costs no memory before its pages are written. The
/// consequence to know: a vector that shrinks and grows again inside its capacity finds its old bytes there; one that
/// wants zeros uses `assign`. Elements of other types are constructed as always.
///
/// Two allocators are equal, and may free each other's memory, when their alignments are equal. They keep no state but
/// the alignment: any thread.
///
/// @code
/// std::vector<char, agent::AlignedAllocator<char>> buffer(agent::AlignedAllocator<char>(4096));
/// buffer.resize(1 << 20); // zero, and buffer.data() is a multiple of 4096
/// @endcode
template <typename T>
class AlignedAllocator {
public:
    /// What the memory is for.
    using value_type = T;

    /// An assigned or swapped container takes the other's allocator along, so that the alignment goes with the memory.
    using propagate_on_container_copy_assignment = std::true_type;
    using propagate_on_container_move_assignment = std::true_type; ///< likewise
    using propagate_on_container_swap = std::true_type;            ///< likewise
    using is_always_equal = std::false_type;                       ///< alignments may differ

    /// Takes any alignment; allocate() refuses those that cannot be.
    /// @param alignment  bytes, a power of two; anything from 1 to the alignment of T counts as that
    explicit AlignedAllocator(std::size_t alignment) noexcept : alignment_(alignment) {}

    /// One for other elements, with the same alignment.
    template <typename Other>
    AlignedAllocator(AlignedAllocator<Other> const& other) noexcept // NOLINT: allocators convert
        : alignment_(other.alignment()) {}

    /// Zeroed memory for `count` elements.
    /// @throws std::bad_alloc, std::bad_array_new_length  the memory cannot be had
    /// @throws std::invalid_argument                      the alignment is above that of T and not a power of two, or 0
    T* allocate(std::size_t count) {
        if (count > static_cast<std::size_t>(std::numeric_limits<std::ptrdiff_t>::max()) / sizeof(T)) {
            throw std::bad_array_new_length();
        }
        return static_cast<T*>(allocateAligned(count * sizeof(T), effectiveAlignment()));
    }

    /// Frees what allocate() returned for the same count.
    void deallocate(T* memory, std::size_t count) noexcept {
        deallocateAligned(memory, count * sizeof(T), effectiveAlignment());
    }

    /// Default-initialises one element: for a trivial type, the zeros of the fresh memory stay.
    template <typename U>
    void construct(U* place) noexcept(std::is_nothrow_default_constructible_v<U>) {
        ::new (static_cast<void*>(place)) U;
    }

    /// Constructs one element from arguments.
    template <typename U, typename First, typename... Rest>
    void construct(U* place, First&& first, Rest&&... rest) {
        ::new (static_cast<void*>(place)) U(static_cast<First&&>(first), static_cast<Rest&&>(rest)...);
    }

    /// The alignment given to the constructor, in bytes.
    std::size_t alignment() const noexcept { return alignment_; }

private:
    std::size_t effectiveAlignment() const noexcept {
        return alignment_ > alignof(T) ? alignment_ : naturalAlignment();
    }

    /// An alignment of 0 stays 0 and is refused: it is no power of two.
    std::size_t naturalAlignment() const noexcept { return alignment_ == 0 ? 0 : alignof(T); }

    std::size_t alignment_;
};

/// An AlignedAllocator whose alignment, a cache line, is part of its type: it keeps nothing, so that a container with
/// it is as wide as one with the standard allocator. Blocks are zero, and large ones take no memory before they are
/// written, as with AlignedAllocator. Any thread.
///
/// @code
/// std::vector<unsigned char, agent::CacheLineAllocator<unsigned char>> bytes;
/// bytes.resize(std::size_t{1} << 30); // zero; takes addresses, not memory
/// @endcode
template <typename T>
class CacheLineAllocator {
public:
    /// What the memory is for.
    using value_type = T;

    /// Bytes: the line of every x86-64 processor.
    static constexpr std::size_t kAlignment = 64;

    CacheLineAllocator() noexcept = default;

    /// One for other elements.
    template <typename Other>
    CacheLineAllocator(CacheLineAllocator<Other> const&) noexcept {} // NOLINT: allocators convert

    /// Zeroed memory for `count` elements.
    /// @throws std::bad_alloc, std::bad_array_new_length  the memory cannot be had
    T* allocate(std::size_t count) { return AlignedAllocator<T>(kAlignment).allocate(count); }

    /// Frees what allocate() returned for the same count.
    void deallocate(T* memory, std::size_t count) noexcept {
        AlignedAllocator<T>(kAlignment).deallocate(memory, count);
    }

    /// Default-initialises one element: for a trivial type, the zeros of the fresh memory stay.
    template <typename U>
    void construct(U* place) noexcept(std::is_nothrow_default_constructible_v<U>) {
        ::new (static_cast<void*>(place)) U;
    }

    /// Constructs one element from arguments.
    template <typename U, typename First, typename... Rest>
    void construct(U* place, First&& first, Rest&&... rest) {
        ::new (static_cast<void*>(place)) U(static_cast<First&&>(first), static_cast<Rest&&>(rest)...);
    }

    /// All are alike.
    template <typename Other>
    bool operator==(CacheLineAllocator<Other> const&) const noexcept {
        return true;
    }
};

/// Whether the alignments are equal.
template <typename T, typename U>
bool operator==(AlignedAllocator<T> const& left, AlignedAllocator<U> const& right) noexcept {
    return left.alignment() == right.alignment();
}

} // namespace agent
