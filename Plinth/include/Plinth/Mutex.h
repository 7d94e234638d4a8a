#pragma once

#include <Plinth/Defs.h>
#include <Plinth/ThreadAnnotations.h>

#include <mutex>

namespace Veltro::Plinth {

/// A mutual-exclusion lock, not recursive.
///
/// Any thread may lock it; the thread that locked it unlocks it. It must be free when it is destroyed. A
/// contended lock() first spins for about a microsecond, because most critical sections here are shorter than
/// a system call.
class PLINTH_CAPABILITY("mutex") CMutex {
public:
    CMutex() = default;
    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    /// Waits until the lock is free, then takes it. May block.
    void lock() PLINTH_ACQUIRE() {
        if (!m_mutex.try_lock()) lockContended();
    }
    /// Gives the lock back.
    void unlock() PLINTH_RELEASE() { m_mutex.unlock(); }
    /// Takes the lock if it is free at this moment; returns whether it did. Never blocks.
    bool tryLock() PLINTH_TRY_ACQUIRE(true) { return m_mutex.try_lock(); }

private:
    PLINTH_API void lockContended();

    std::mutex m_mutex;
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
