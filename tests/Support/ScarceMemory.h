// Lets allocations fail on purpose: those of the nothrow forms of new, as the library uses them.
#pragma once

namespace Veltro::TestSupport {

/// While it lives, nothrow allocations of the whole program fail once a number of them has succeeded. One at
/// a time, on one thread.
class CScarceMemory {
public:
    explicit CScarceMemory(int allocations_left);
    ~CScarceMemory();
    CScarceMemory(const CScarceMemory&) = delete;
    CScarceMemory& operator=(const CScarceMemory&) = delete;
};

}  // namespace Veltro::TestSupport
