// Replaces operator new. The sanitizer, where there is one, still sees what malloc gives, and so every leak.
#include "FailingAllocation.h"

#include <cstdlib>
#include <new>

namespace {

enum class State { Idle, Counting, Fired };

thread_local State state = State::Idle;
thread_local std::size_t left = 0;

bool isTurn() {
    if (state != State::Counting || left-- != 0) {
        return false;
    }
    state = State::Fired;
    return true;
}

void* allocate(std::size_t size) noexcept {
    return isTurn() ? nullptr : std::malloc(size == 0 ? 1 : size);
}

void* allocate(std::size_t size, std::align_val_t alignment) noexcept {
    auto const unit = static_cast<std::size_t>(alignment);
    return isTurn() ? nullptr : std::aligned_alloc(unit, (size + unit - 1) / unit * unit + (size == 0 ? unit : 0));
}

void* orThrow(void* memory) {
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

} // namespace

namespace tests {

FailingAllocation::FailingAllocation(std::size_t n) {
    left = n;
    state = State::Counting;
}

FailingAllocation::~FailingAllocation() {
    state = State::Idle;
}

bool FailingAllocation::fired() const {
    return state == State::Fired;
}

} // namespace tests

void* operator new(std::size_t size) {
    return orThrow(allocate(size));
}
void* operator new[](std::size_t size) {
    return orThrow(allocate(size));
}
void* operator new(std::size_t size, std::nothrow_t const&) noexcept {
    return allocate(size);
}
void* operator new[](std::size_t size, std::nothrow_t const&) noexcept {
    return allocate(size);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return orThrow(allocate(size, alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return orThrow(allocate(size, alignment));
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept {
    std::free(memory);
}
