// The counter behind allocationsSoFar(): hooks of the sanitizer where there is one, else a replaced operator new.
#include "AllocationCounter.h"

#include <cstdlib>
#include <new>

#if defined(__SANITIZE_ADDRESS__)
#define TESTS_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TESTS_SANITIZED 1
#endif
#endif

namespace {
thread_local std::size_t allocations = 0;
} // namespace

namespace tests {

std::size_t allocationsSoFar() {
    return allocations;
}

} // namespace tests

#ifdef TESTS_SANITIZED

// The sanitizer's own operator new stays in place, so that it still sees mismatched deletes.
#include <sanitizer/allocator_interface.h>

namespace {

void countAllocation(void const volatile*, std::size_t) {
    ++allocations;
}

void ignoreFree(void const volatile*) {}

[[maybe_unused]] int const installed = __sanitizer_install_malloc_and_free_hooks(countAllocation, ignoreFree);

} // namespace

#else

void* operator new(std::size_t size) {
    ++allocations;
    if (void* const memory = std::malloc(size == 0 ? 1 : size)) {
        return memory;
    }
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

#endif
