#pragma once

#include <Plinth/ThreadAnnotations.h>

#include <shared_mutex>

namespace Veltro::Plinth {

/// A lock that many readers share or one writer holds alone; not recursive in either form.
class PLINTH_CAPABILITY("mutex") CReadWriteMutex {
public:
    CReadWriteMutex() = default;
    CReadWriteMutex(const CReadWriteMutex&) = delete;
    CReadWriteMutex& operator=(const CReadWriteMutex&) = delete;

    /// Waits until no reader and no writer is left, then holds the lock alone.
    void enterWrite() PLINTH_ACQUIRE() { m_mutex.lock(); }
    void leaveWrite() PLINTH_RELEASE() { m_mutex.unlock(); }
    /// Waits until no writer is left, then shares the lock with other readers.
    void enterRead() PLINTH_ACQUIRE_SHARED() { m_mutex.lock_shared(); }
    void leaveRead() PLINTH_RELEASE_SHARED() { m_mutex.unlock_shared(); }

private:
    std::shared_mutex m_mutex;
};

/// Holds a CReadWriteMutex for writing from construction to destruction.
class PLINTH_SCOPED_CAPABILITY CWriteGuard {
public:
    explicit CWriteGuard(CReadWriteMutex& mutex) PLINTH_ACQUIRE(mutex) : m_mutex(mutex) {
        m_mutex.enterWrite();
    }
    ~CWriteGuard() PLINTH_RELEASE() { m_mutex.leaveWrite(); }
    CWriteGuard(const CWriteGuard&) = delete;
    CWriteGuard& operator=(const CWriteGuard&) = delete;

private:
    CReadWriteMutex& m_mutex;
};

/// Holds a CReadWriteMutex for reading from construction to destruction.
class PLINTH_SCOPED_CAPABILITY CReadGuard {
public:
    explicit CReadGuard(CReadWriteMutex& mutex) PLINTH_ACQUIRE_SHARED(mutex) : m_mutex(mutex) {
        m_mutex.enterRead();
    }
    ~CReadGuard() PLINTH_RELEASE_GENERIC() { m_mutex.leaveRead(); }
    CReadGuard(const CReadGuard&) = delete;
    CReadGuard& operator=(const CReadGuard&) = delete;

private:
    CReadWriteMutex& m_mutex;
};

}  // namespace Veltro::Plinth
