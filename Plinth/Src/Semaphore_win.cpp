#include <Plinth/Semaphore.h>

#include <windows.h>

#include <algorithm>
#include <climits>

namespace Veltro::Plinth {

struct CSemaphore::SImpl {
    HANDLE semaphore;
};

CSemaphore::CSemaphore(unsigned initial_count) : m_impl(std::make_unique<SImpl>()) {
    m_impl->semaphore = CreateSemaphoreW(nullptr, static_cast<LONG>(initial_count), LONG_MAX, nullptr);
}
CSemaphore::~CSemaphore() {
    CloseHandle(m_impl->semaphore);
}

void CSemaphore::post() {
    ReleaseSemaphore(m_impl->semaphore, 1, nullptr);
}

void CSemaphore::pend() {
    WaitForSingleObject(m_impl->semaphore, INFINITE);
}

bool CSemaphore::pend(std::int64_t timeout_us) {
    const std::int64_t timeout_ms = timeout_us <= 0 ? 0 : (timeout_us - 1) / 1000 + 1;
    const auto wait_ms = static_cast<DWORD>(std::min<std::int64_t>(timeout_ms, INFINITE - 1));
    return WaitForSingleObject(m_impl->semaphore, wait_ms) == WAIT_OBJECT_0;
}

bool CSemaphore::tryPend() {
    return WaitForSingleObject(m_impl->semaphore, 0) == WAIT_OBJECT_0;
}

}  // namespace Veltro::Plinth
