#include <Plinth/Thread.h>
#include <Plinth/ThreadManager.h>
#include <Plinth/Time.h>

#include <atomic>
#include <string>
#include <utility>

#include "ThreadSystem.h"

namespace Veltro::Plinth {

struct CThread::SImpl {
    std::string name;
    int priority;
    int policy;
    std::size_t stack_bytes;
    ThreadSystem::SHandle* handle = nullptr;  ///< owned; null before the start and after the join
    bool started = false;
    std::atomic<bool> cancelled{false};
    std::atomic<bool> over{true};
    std::atomic<unsigned long> thread_id{0};
    std::atomic<std::int64_t> watchdog_ms{0};  ///< expiry on the steady clock; 0 while not armed
};

/// Gives the platform's entry point access to CThread::run.
struct SThreadStart {
    static void entry(void* argument) { CThread::run(static_cast<CThread*>(argument)); }
};

CThread::CThread(const char* name, int priority, int policy, int param) : m_impl(new SImpl) {
    m_impl->name = name != nullptr ? name : "";
    m_impl->priority = priority;
    m_impl->policy = policy;
    m_impl->stack_bytes = param > 0 ? static_cast<std::size_t>(param) : 0;
}

CThread::~CThread() {
    destroyThread();
}

bool CThread::createThread() {
    if (m_impl->started) return false;
    m_impl->over.store(false);
    m_impl->handle = ThreadSystem::start(&SThreadStart::entry, this, m_impl->stack_bytes);
    m_impl->started = m_impl->handle != nullptr;
    if (!m_impl->started) m_impl->over.store(true);
    return m_impl->started;
}

void CThread::cancelThread() {
    m_impl->cancelled.store(true);
}

void CThread::destroyThread() {
    cancelThread();
    if (m_impl->handle == nullptr) return;
    ThreadSystem::join(std::exchange(m_impl->handle, nullptr));
}

bool CThread::isThreadOver() const {
    return m_impl->over.load();
}
bool CThread::looping() const {
    return !m_impl->cancelled.load(std::memory_order_relaxed);
}
unsigned long CThread::getThreadId() const {
    return m_impl->thread_id.load();
}
const char* CThread::getName() const {
    return m_impl->name.c_str();
}

void CThread::setWatchdog(std::int64_t timeout_ms) {
    m_impl->watchdog_ms.store(static_cast<std::int64_t>(CTime::getCurrentMilliSecond()) + timeout_ms);
}

bool CThread::isWatchdogExpired() const {
    const std::int64_t expiry_ms = m_impl->watchdog_ms.load();
    return expiry_ms != 0 && static_cast<std::int64_t>(CTime::getCurrentMilliSecond()) >= expiry_ms;
}

void CThread::run(CThread* self) {
    SImpl& impl = *self->m_impl;
    const unsigned long thread_id = getCurrentThreadId();
    impl.thread_id.store(thread_id);
    CThreadManager::addThread(thread_id, impl.name.c_str());
    ThreadSystem::setCurrentName(impl.name.c_str());
    ThreadSystem::setCurrentPriority(impl.priority, impl.policy);
    self->threadProc();
    CThreadManager::removeThread(thread_id);
    impl.over.store(true);
}

CThreadLite::CThreadLite(ThreadBody body, const char* name, int priority, int policy, int param)
    : CThread(name, priority, policy, param), m_body(std::move(body)) {}

// The body belongs to this class, so the thread must have ended before its fields go.
CThreadLite::~CThreadLite() {
    destroyThread();
}

void CThreadLite::threadProc() {
    m_body(*this);
}

}  // namespace Veltro::Plinth
