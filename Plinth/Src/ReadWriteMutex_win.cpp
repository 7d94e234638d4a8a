#include <Plinth/ReadWriteMutex.h>

#include <windows.h>

#include <new>

namespace Veltro::Plinth {

// std::shared_mutex allocates at its first use with mingw's run-time library and never frees that memory.

namespace {
SRWLOCK* lockOf(std::byte* storage) {
    return std::launder(reinterpret_cast<SRWLOCK*>(storage));
}
}  // namespace

CReadWriteMutex::CReadWriteMutex() {
    static_assert(sizeof(SRWLOCK) <= sizeof m_storage && alignof(SRWLOCK) <= 8);
    ::new (m_storage) SRWLOCK(SRWLOCK_INIT);
}
CReadWriteMutex::~CReadWriteMutex() = default;

void CReadWriteMutex::enterWrite() PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    AcquireSRWLockExclusive(lockOf(m_storage));
}
void CReadWriteMutex::leaveWrite() PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    ReleaseSRWLockExclusive(lockOf(m_storage));
}
void CReadWriteMutex::enterRead() PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    AcquireSRWLockShared(lockOf(m_storage));
}
void CReadWriteMutex::leaveRead() PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    ReleaseSRWLockShared(lockOf(m_storage));
}

}  // namespace Veltro::Plinth
