#pragma once

#include <Plinth/Defs.h>
#include <Plinth/ThreadAnnotations.h>

#include <cstddef>

namespace Veltro::Plinth {

/// A lock that many readers share or one writer holds alone.
///
/// Any thread may take it; the thread that took it gives it back. Not recursive in either form: readers that
/// come after a waiting writer wait behind it, so a thread that reads twice may wait for itself. Making one
/// takes no memory and cannot fail. It must be free when it is destroyed.
class PLINTH_API PLINTH_CAPABILITY("mutex") CReadWriteMutex {
public:
    CReadWriteMutex();
    ~CReadWriteMutex();
    CReadWriteMutex(const CReadWriteMutex&) = delete;
    CReadWriteMutex& operator=(const CReadWriteMutex&) = delete;

    /// Waits until no reader and no writer is left, then holds the lock alone.
    void enterWrite() PLINTH_ACQUIRE();
    /// Gives back what enterWrite() took.
    void leaveWrite() PLINTH_RELEASE();
    /// Waits until no writer holds the lock or waits for it, then shares it with other readers.
    void enterRead() PLINTH_ACQUIRE_SHARED();
    /// Gives back what enterRead() took.
    void leaveRead() PLINTH_RELEASE_SHARED();

private:
    alignas(8) std::byte m_storage[56];  // the platform's lock
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
