#pragma once

#include <Plinth/Defs.h>

#include <cstdint>
#include <memory>

namespace Veltro::Plinth {

/// A counting semaphore. Any thread may call any operation.
class PLINTH_API CSemaphore {
public:
    /// @param initial_count how many waits pass before the first post.
    explicit CSemaphore(unsigned initial_count = 0);
    ~CSemaphore();
    CSemaphore(const CSemaphore&) = delete;
    CSemaphore& operator=(const CSemaphore&) = delete;

    /// Adds one to the count and wakes one waiter, if there is one.
    void post();
    /// Waits until the count is above 0 and takes one off.
    void pend();
    /// As pend(), for at most timeout_us microseconds; returns whether the count was taken. A time-out of 0
    /// or less does not wait. Uses the steady clock on Linux; on Windows it is rounded up to whole
    /// milliseconds.
    bool pend(std::int64_t timeout_us);
    /// Takes one off the count if it is above 0; returns whether it did. Never blocks.
    bool tryPend();

private:
    struct SImpl;
    std::unique_ptr<SImpl> m_impl;
};

}  // namespace Veltro::Plinth
