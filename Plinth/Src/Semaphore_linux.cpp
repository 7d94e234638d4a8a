#include <Plinth/Semaphore.h>

#include <semaphore.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <new>

#include "LastErrorKeeper.h"

// The thread sanitizer knows every wait of a semaphore but sem_clockwait.
#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#define PLINTH_TSAN_ACQUIRE(address) __tsan_acquire(address)
#else
#define PLINTH_TSAN_ACQUIRE(address) static_cast<void>(address)
#endif

namespace Veltro::Plinth {

namespace {
sem_t* semaphoreOf(std::byte* storage) {
    return std::launder(reinterpret_cast<sem_t*>(storage));
}

timespec deadlineIn(std::int64_t timeout_us) {
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    const std::int64_t nanoseconds = deadline.tv_nsec + timeout_us % 1'000'000 * 1000;
    deadline.tv_sec += timeout_us / 1'000'000 + nanoseconds / 1'000'000'000;
    deadline.tv_nsec = nanoseconds % 1'000'000'000;
    return deadline;
}
}  // namespace

CSemaphore::CSemaphore(unsigned initial_count) {
    static_assert(sizeof(sem_t) <= sizeof m_storage && alignof(sem_t) <= 8);
    sem_init(::new (m_storage) sem_t, 0, std::min(initial_count, MAX_COUNT));
}
CSemaphore::~CSemaphore() {
    sem_destroy(semaphoreOf(m_storage));
}

void CSemaphore::post() {
    const CLastErrorKeeper keeper;
    sem_post(semaphoreOf(m_storage));
}

void CSemaphore::pend() {
    const CLastErrorKeeper keeper;
    // A signal handler ends a wait early.
    while (sem_wait(semaphoreOf(m_storage)) != 0 && errno == EINTR) {
    }
}

bool CSemaphore::pend(std::int64_t timeout_us) {
    if (tryPend()) return true;
    if (timeout_us <= 0) return false;
    const CLastErrorKeeper keeper;
    const timespec deadline = deadlineIn(timeout_us);
    while (sem_clockwait(semaphoreOf(m_storage), CLOCK_MONOTONIC, &deadline) != 0) {
        if (errno != EINTR) return false;
    }
    PLINTH_TSAN_ACQUIRE(m_storage);
    return true;
}

bool CSemaphore::tryPend() {
    const CLastErrorKeeper keeper;
    return sem_trywait(semaphoreOf(m_storage)) == 0;
}

}  // namespace Veltro::Plinth
