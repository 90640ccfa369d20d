#include "runtime/allocation_counter.h"

#include <cstdlib>
#include <new>

namespace {

thread_local int64_t allocations = 0;
thread_local bool nextFails = false;

void* allocate(std::size_t size) noexcept {
    ++allocations;
    if (nextFails) {
        nextFails = false;
        return nullptr;
    }
    return std::malloc(size ? size : 1);
}

void* allocateOrThrow(std::size_t size) {
    if (void* memory = allocate(size)) {
        return memory;
    }
    throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t size) {
    return allocateOrThrow(size);
}
void* operator new[](std::size_t size) {
    return allocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
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
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}

namespace kelp::test {

int64_t AllocationCounter::count() {
    return allocations;
}

void AllocationCounter::failNext() {
    nextFails = true;
}

}  // namespace kelp::test
