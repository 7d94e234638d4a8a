#include <Plinth/Semaphore.h>

#include <semaphore.h>

#include <cerrno>
#include <ctime>

namespace Veltro::Plinth {

struct CSemaphore::SImpl {
    sem_t semaphore;
};

CSemaphore::CSemaphore(unsigned initial_count) : m_impl(std::make_unique<SImpl>()) {
    sem_init(&m_impl->semaphore, 0, initial_count);
}
CSemaphore::~CSemaphore() {
    sem_destroy(&m_impl->semaphore);
}

void CSemaphore::post() {
    sem_post(&m_impl->semaphore);
}

void CSemaphore::pend() {
    while (sem_wait(&m_impl->semaphore) != 0 && errno == EINTR) {
    }
}

bool CSemaphore::pend(std::int64_t timeout_us) {
    if (timeout_us <= 0) return tryPend();
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    const std::int64_t nanoseconds = deadline.tv_nsec + timeout_us % 1'000'000 * 1000;
    deadline.tv_sec += timeout_us / 1'000'000 + nanoseconds / 1'000'000'000;
    deadline.tv_nsec = nanoseconds % 1'000'000'000;
    for (;;) {
        if (sem_clockwait(&m_impl->semaphore, CLOCK_MONOTONIC, &deadline) == 0) return true;
        if (errno != EINTR) return false;
    }
}

bool CSemaphore::tryPend() {
    return sem_trywait(&m_impl->semaphore) == 0;
}

}  // namespace Veltro::Plinth
