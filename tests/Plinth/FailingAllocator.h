#pragma once

#include <iostream>

namespace Veltro::TestSupport {

/// While it lives, every `new` of the calling thread in this program fails, once a number of them has
/// succeeded.
class CFailingAllocator {
public:
    explicit CFailingAllocator(int allocations_left = 0);
    ~CFailingAllocator();
    CFailingAllocator(const CFailingAllocator&) = delete;
    CFailingAllocator& operator=(const CFailingAllocator&) = delete;
};

/// How many times the calling thread has used the program's `new`.
unsigned long allocationCount();

/// Whether the library's allocations reach the program's `new`, as they do not where a library is linked to a
/// run-time library of its own; prints so if not.
bool libraryUsesThisAllocator();

}  // namespace Veltro::TestSupport
