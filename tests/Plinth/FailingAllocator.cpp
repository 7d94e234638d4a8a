#include "FailingAllocator.h"

#include <Plinth/Thread.h>

#include <cstdlib>
#include <new>

namespace {
thread_local bool t_failing = false;
thread_local unsigned long t_count = 0;
}  // namespace

void* operator new(std::size_t size) {
    ++t_count;
    void* memory = t_failing ? nullptr : std::malloc(size > 0 ? size : 1);
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
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    ++t_count;
    return t_failing ? nullptr : std::malloc(size > 0 ? size : 1);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return ::operator new(size, std::nothrow);
}

namespace Veltro::TestSupport {

CFailingAllocator::CFailingAllocator() {
    t_failing = true;
}
CFailingAllocator::~CFailingAllocator() {
    t_failing = false;
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
