#pragma once

#include <Plinth/Defs.h>
#include <Plinth/ThreadAnnotations.h>

#include <atomic>
#include <cstdint>

// The thread sanitizer knows the locks of the standard library only; it is told of this one.
#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#define PLINTH_TSAN_MUTEX(call) __tsan_mutex_##call
#else
#define PLINTH_TSAN_MUTEX(call) static_cast<void>(0)
#endif

namespace Veltro::Plinth {

/// A mutual-exclusion lock, not recursive.
///
/// Any thread may lock it; the thread that locked it unlocks it. It must be free when it is destroyed. A
/// contended lock() first spins for about a microsecond, because most critical sections here are shorter than
/// a system call, and then sleeps in the kernel.
///
/// One word, locked and unlocked by one atomic operation each: a reactor takes several locks per message, and
/// the standard mutex spent a third of a message's time on its checks.
class PLINTH_CAPABILITY("mutex") CMutex {
public:
    CMutex() = default;
    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    /// Waits until the lock is free, then takes it. May block.
    void lock() PLINTH_ACQUIRE() {
        PLINTH_TSAN_MUTEX(pre_lock(this, 0));
        if (!take()) lockContended();
        PLINTH_TSAN_MUTEX(post_lock(this, 0, 0));
    }
    /// Gives the lock back.
    void unlock() PLINTH_RELEASE() {
        PLINTH_TSAN_MUTEX(pre_unlock(this, 0));
        if (m_state.exchange(FREE, std::memory_order_release) == CONTENDED) wakeOne();
        PLINTH_TSAN_MUTEX(post_unlock(this, 0));
    }
    /// Takes the lock if it is free at this moment; returns whether it did. Never blocks.
    bool tryLock() PLINTH_TRY_ACQUIRE(true) {
        PLINTH_TSAN_MUTEX(pre_lock(this, __tsan_mutex_try_lock));
        const bool taken = take();
        PLINTH_TSAN_MUTEX(post_lock(
            this, taken ? __tsan_mutex_try_lock : __tsan_mutex_try_lock | __tsan_mutex_try_lock_failed, 0));
        return taken;
    }

private:
    enum : std::uint32_t { FREE, LOCKED, CONTENDED };

    bool take() {
        std::uint32_t expected = FREE;
        return m_state.compare_exchange_strong(expected, LOCKED, std::memory_order_acquire,
                                               std::memory_order_relaxed);
    }
    PLINTH_API void lockContended();
    PLINTH_API void wakeOne();

    std::atomic<std::uint32_t> m_state{FREE};
};

/// Holds a CMutex from construction to destruction.
class PLINTH_SCOPED_CAPABILITY CLockGuard {
public:
    explicit CLockGuard(CMutex& mutex) PLINTH_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~CLockGuard() PLINTH_RELEASE() { m_mutex.unlock(); }
    CLockGuard(const CLockGuard&) = delete;
    CLockGuard& operator=(const CLockGuard&) = delete;

private:
    CMutex& m_mutex;
};

}  // namespace Veltro::Plinth
