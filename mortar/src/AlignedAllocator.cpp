// Aligned zeroed memory: small blocks from the heap, large ones as fresh pages of the system.
#include "agent/AlignedAllocator.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>
#include <sys/mman.h>

namespace agent {

namespace {

/// x86-64 has no other base page size.
constexpr std::size_t kPageSize = 4096;

/// More than this cannot be addressed in one block.
constexpr std::size_t kMaximum = static_cast<std::size_t>(std::numeric_limits<std::ptrdiff_t>::max());

/// The C library is asked for small blocks only: a large one must come as fresh pages, and an alignment beyond a page
/// would make it take that much memory.
bool isMapped(std::size_t bytes, std::size_t alignment) {
    return bytes >= kFreshPagesThreshold || alignment > kPageSize;
}

/// Requires bytes <= kMaximum.
std::size_t wholePages(std::size_t bytes) {
    return bytes == 0 ? kPageSize : (bytes + kPageSize - 1) / kPageSize * kPageSize;
}

void* mapOrThrow(std::size_t bytes, int protection) {
    void* memory = ::mmap(nullptr, bytes, protection, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::bad_alloc();
    }
    return memory;
}

/// Reserves addresses for the block and for its alignment, keeps the aligned part, and only then asks for memory.
void* mapAligned(std::size_t bytes, std::size_t alignment) {
    if (alignment > kMaximum - bytes) {
        throw std::bad_alloc();
    }
    std::size_t const reserved = bytes + alignment;
    char* const start = static_cast<char*>(mapOrThrow(reserved, PROT_NONE));
    auto const misplaced = reinterpret_cast<std::uintptr_t>(start) & (alignment - 1);
    std::size_t const head = misplaced == 0 ? 0 : alignment - misplaced;
    char* const block = start + head;
    if (head != 0) {
        ::munmap(start, head);
    }
    if (std::size_t const tail = reserved - head - bytes; tail != 0) {
        ::munmap(block + bytes, tail);
    }
    if (::mprotect(block, bytes, PROT_READ | PROT_WRITE) != 0) {
        ::munmap(block, bytes);
        throw std::bad_alloc();
    }
    return block;
}

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define AGENT_EXACT_BLOCKS
#endif
#elif defined(__SANITIZE_ADDRESS__)
#define AGENT_EXACT_BLOCKS
#endif

#ifdef AGENT_EXACT_BLOCKS // the address sanitizer sees a write behind a block that is its own

void* allocateSmall(std::size_t bytes, std::size_t alignment) {
    return ::operator new (bytes, std::align_val_t{alignment});
}

void freeSmall(void* place, std::size_t alignment) {
    ::operator delete (place, std::align_val_t{alignment});
}

#else

/// A stretch of an ordinary block, whose address stands before it: the C library cuts aligned blocks out of larger
/// ones, which costs several times as much. What it aligns every block to anyway is taken as it comes.
void* allocateSmall(std::size_t bytes, std::size_t alignment) {
    if (alignment <= __STDCPP_DEFAULT_NEW_ALIGNMENT__) {
        return ::operator new(std::max(bytes, alignment)); // a block is aligned for what can lie in it
    }
    void* const block = ::operator new(bytes + sizeof(void*) + alignment);
    auto const first = reinterpret_cast<std::uintptr_t>(block) + sizeof block;
    std::size_t const misplaced = first & (alignment - 1);
    char* const place = static_cast<char*>(block) + sizeof block + (misplaced == 0 ? 0 : alignment - misplaced);
    std::memcpy(place - sizeof block, &block, sizeof block);
    return place;
}

void freeSmall(void* place, std::size_t alignment) {
    void* block = place;
    if (alignment > __STDCPP_DEFAULT_NEW_ALIGNMENT__) {
        std::memcpy(&block, static_cast<char*>(place) - sizeof block, sizeof block);
    }
    ::operator delete(block);
}

#endif

/// Keeps the caller's errno: a guest in someone's process leaves it alone when it succeeds or throws.
struct KeepErrno {
    int saved = errno;
    KeepErrno() = default;
    KeepErrno(KeepErrno const&) = delete;
    KeepErrno& operator=(KeepErrno const&) = delete;
    ~KeepErrno() { errno = saved; }
};

} // namespace

void* allocateAligned(std::size_t bytes, std::size_t alignment) {
    if (!std::has_single_bit(alignment)) {
        throw std::invalid_argument("alignment is not a power of two");
    }
    if (bytes > kMaximum - kPageSize) {
        throw std::bad_alloc();
    }
    KeepErrno const keep;
    if (alignment > kPageSize) {
        return mapAligned(wholePages(bytes), alignment);
    }
    if (isMapped(bytes, alignment)) {
        return mapOrThrow(wholePages(bytes), PROT_READ | PROT_WRITE);
    }
    void* const memory = allocateSmall(bytes, alignment);
    std::memset(memory, 0, bytes);
    return memory;
}

void deallocateAligned(void* memory, std::size_t bytes, std::size_t alignment) noexcept {
    if (memory == nullptr) {
        return;
    }
    if (isMapped(bytes, alignment)) {
        KeepErrno const keep;
        ::munmap(memory, wholePages(bytes));
        return;
    }
    freeSmall(memory, alignment);
}

} // namespace agent
