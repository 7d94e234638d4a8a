#include "ScarceMemory.h"

#include <atomic>
#include <cstddef>
#include <limits>
#include <new>

namespace {

constexpr int PLENTY = std::numeric_limits<int>::max();

std::atomic<int> s_allocations_left{PLENTY};

bool mayAllocate() {
    if (s_allocations_left.load() == PLENTY) return true;
    return s_allocations_left.fetch_sub(1) > 0;
}

}  // namespace

namespace Veltro::TestSupport {

CScarceMemory::CScarceMemory(int allocations_left) {
    s_allocations_left = allocations_left;
}

CScarceMemory::~CScarceMemory() {
    s_allocations_left = PLENTY;
}

}  // namespace Veltro::TestSupport

// The program's own nothrow forms, on top of the ordinary ones so that the ordinary delete fits.

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return mayAllocate() ? ::operator new(size) : nullptr;
}

void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return mayAllocate() ? ::operator new(size, alignment) : nullptr;
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return mayAllocate() ? ::operator new[](size) : nullptr;
}
