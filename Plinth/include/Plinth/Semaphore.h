#pragma once

#include <Plinth/Defs.h>

#include <cstddef>
#include <cstdint>

namespace Veltro::Plinth {

/// A counting semaphore. Any thread may call any operation.
///
/// Making one takes no memory and cannot fail. Nobody may wait on it when it is destroyed; a thread whose
/// wait was satisfied may destroy it at once. No operation changes the caller's last system error.
class PLINTH_API CSemaphore {
public:
    /// The highest count; posts beyond it are lost.
    static constexpr unsigned MAX_COUNT = 0x7FFFFFFF;

    /// @param initial_count how many waits pass before the first post; at most MAX_COUNT is taken.
    explicit CSemaphore(unsigned initial_count = 0);
    ~CSemaphore();
    CSemaphore(const CSemaphore&) = delete;
    CSemaphore& operator=(const CSemaphore&) = delete;

    /// Adds one to the count and wakes one waiter, if there is one. Never blocks.
    void post();
    /// Waits until the count is above 0 and takes one off.
    void pend();
    /// As pend(), for at most timeout_us microseconds of steady time; 0 or less does not wait. Never gives up
    /// early; on Windows it may give up a few milliseconds late.
    /// @return whether one was taken off.
    bool pend(std::int64_t timeout_us);
    /// Takes one off the count if it is above 0. Never blocks.
    /// @return whether one was taken off.
    bool tryPend();

private:
    alignas(8) std::byte m_storage[32];  // the platform's semaphore
};

}  // namespace Veltro::Plinth
