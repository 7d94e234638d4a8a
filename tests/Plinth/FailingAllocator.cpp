#include "FailingAllocator.h"

#include <Plinth/Thread.h>

#include <cstdlib>
#include <limits>
#include <memory>
#include <new>

namespace {

constexpr int PLENTY = std::numeric_limits<int>::max();

thread_local int t_left = PLENTY;
thread_local unsigned long t_count = 0;

void* allocate(std::size_t size) {
    ++t_count;
    if (t_left == 0) return nullptr;
    if (t_left != PLENTY) --t_left;
    return std::malloc(size > 0 ? size : 1);
}

/// Within a larger block, whose address stands in front of what is returned.
void* allocateAligned(std::size_t size, std::align_val_t alignment) {
    const auto step = static_cast<std::size_t>(alignment);
    void* const block = allocate(size + step + sizeof(void*));
    if (block == nullptr) return nullptr;
    void* memory = static_cast<void**>(block) + 1;
    std::size_t room = size + step;
    memory = std::align(step, size, memory, room);
    static_cast<void**>(memory)[-1] = block;
    return memory;
}

void freeAligned(void* memory) {
    if (memory != nullptr) std::free(static_cast<void**>(memory)[-1]);
}

}  // namespace

void* operator new(std::size_t size) {
    void* memory = allocate(size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}
void* operator new[](std::size_t size) {
    return ::operator new(size);
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
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return ::operator new(size, std::nothrow);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    void* memory = allocateAligned(size, alignment);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return allocateAligned(size, alignment);
}
void operator delete(void* memory, std::align_val_t) noexcept {
    freeAligned(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
    freeAligned(memory);
}
void operator delete(void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
    freeAligned(memory);
}

namespace Veltro::TestSupport {

CFailingAllocator::CFailingAllocator(int allocations_left) {
    t_left = allocations_left;
}
CFailingAllocator::~CFailingAllocator() {
    t_left = PLENTY;
}

unsigned long allocationCount() {
    return t_count;
}

bool libraryUsesThisAllocator() {
    const unsigned long before = allocationCount();
    Plinth::CThreadLite probe({}, "");
    if (allocationCount() != before) return true;
    std::cout << "not run: the library's allocations cannot be made to fail from outside on this platform\n";
    return false;
}

}  // namespace Veltro::TestSupport
