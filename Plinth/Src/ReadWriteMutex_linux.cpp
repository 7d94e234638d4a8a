#include <Plinth/ReadWriteMutex.h>

#include <pthread.h>

#include <new>

namespace Veltro::Plinth {

namespace {
pthread_rwlock_t* lockOf(std::byte* storage) {
    return std::launder(reinterpret_cast<pthread_rwlock_t*>(storage));
}
}  // namespace

// The default kind lets readers that keep coming hold up a writer for ever.
CReadWriteMutex::CReadWriteMutex() {
    static_assert(sizeof(pthread_rwlock_t) <= sizeof m_storage && alignof(pthread_rwlock_t) <= 8);
    ::new (m_storage) pthread_rwlock_t(PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP);
}
CReadWriteMutex::~CReadWriteMutex() {
    pthread_rwlock_destroy(lockOf(m_storage));
}

void CReadWriteMutex::enterWrite() PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    pthread_rwlock_wrlock(lockOf(m_storage));
}
void CReadWriteMutex::leaveWrite() PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    pthread_rwlock_unlock(lockOf(m_storage));
}
void CReadWriteMutex::enterRead() PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    pthread_rwlock_rdlock(lockOf(m_storage));
}
void CReadWriteMutex::leaveRead() PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    pthread_rwlock_unlock(lockOf(m_storage));
}

}  // namespace Veltro::Plinth
