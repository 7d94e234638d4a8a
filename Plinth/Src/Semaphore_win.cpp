#include <Plinth/Semaphore.h>
#include <Plinth/Time.h>

#include <windows.h>

#include <algorithm>
#include <new>

#include "LastErrorKeeper.h"

namespace Veltro::Plinth {

namespace {
/// A count under a lock instead of a kernel semaphore: posts and waits that need not sleep stay out of the
/// kernel, and no handle is needed that the system could refuse.
struct SCount {
    SRWLOCK lock = SRWLOCK_INIT;
    CONDITION_VARIABLE above_zero = CONDITION_VARIABLE_INIT;
    unsigned count = 0;  // guarded by lock
};

SCount& countOf(std::byte* storage) {
    return *std::launder(reinterpret_cast<SCount*>(storage));
}

/// Takes one off, sleeping once for at most timeout_ms while there is none; may return false early.
bool takeOnce(SCount& self, DWORD timeout_ms) {
    AcquireSRWLockExclusive(&self.lock);
    if (self.count == 0 && timeout_ms != 0) {
        SleepConditionVariableSRW(&self.above_zero, &self.lock, timeout_ms, 0);
    }
    const bool taken = self.count > 0;
    if (taken) --self.count;
    ReleaseSRWLockExclusive(&self.lock);
    return taken;
}
}  // namespace

CSemaphore::CSemaphore(unsigned initial_count) {
    static_assert(sizeof(SCount) <= sizeof m_storage && alignof(SCount) <= 8);
    ::new (m_storage) SCount;
    countOf(m_storage).count = std::min(initial_count, MAX_COUNT);
}
CSemaphore::~CSemaphore() = default;

void CSemaphore::post() {
    const CLastErrorKeeper keeper;
    SCount& self = countOf(m_storage);
    AcquireSRWLockExclusive(&self.lock);
    if (self.count < MAX_COUNT) ++self.count;
    // Woken under the lock: a waiter that has taken the count may destroy the semaphore.
    WakeConditionVariable(&self.above_zero);
    ReleaseSRWLockExclusive(&self.lock);
}

void CSemaphore::pend() {
    const CLastErrorKeeper keeper;
    while (!takeOnce(countOf(m_storage), INFINITE)) {
    }
}

bool CSemaphore::pend(std::int64_t timeout_us) {
    if (tryPend()) return true;
    if (timeout_us <= 0) return false;
    const CLastErrorKeeper keeper;
    const std::uint64_t start_us = CTime::getCurrentMicroSecond();
    const auto wanted_us = static_cast<std::uint64_t>(timeout_us);
    // The system's waits end on its own coarse tick, which may lie before the deadline.
    for (std::uint64_t gone_us = 0; gone_us < wanted_us;
         gone_us = CTime::getCurrentMicroSecond() - start_us) {
        const std::uint64_t left_ms = (wanted_us - gone_us - 1) / 1000 + 1;
        const auto wait_ms = static_cast<DWORD>(std::min<std::uint64_t>(left_ms, INFINITE - 1));
        if (takeOnce(countOf(m_storage), wait_ms)) return true;
    }
    return false;
}

bool CSemaphore::tryPend() {
    const CLastErrorKeeper keeper;
    return takeOnce(countOf(m_storage), 0);
}

}  // namespace Veltro::Plinth
