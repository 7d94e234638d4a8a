#include <Plinth/Log.h>
#include <Plinth/Mutex.h>
#include <Plinth/Thread.h>
#include <Plinth/ThreadManager.h>
#include <Plinth/Time.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <limits>
#include <new>
#include <string>
#include <utility>

#include "ThreadSystem.h"

namespace Veltro::Plinth {

namespace {
constexpr std::size_t MIN_STACK_BYTES = 64 * 1024;
constexpr std::int64_t NEVER_MS = std::numeric_limits<std::int64_t>::max();

std::int64_t steadyMilliSecond() {
    return static_cast<std::int64_t>(CTime::getCurrentMilliSecond());
}

std::size_t stackBytes(int param) {
    return param > 0 ? std::max(static_cast<std::size_t>(param), MIN_STACK_BYTES) : 0;
}
}  // namespace

struct CThread::SImpl {
    std::string name;
    int priority;
    int policy;
    std::size_t stack_bytes;
    /// Held while a thread is started or waited for, so that two callers neither start nor join it twice.
    CMutex control_mutex;
    ThreadSystem::SHandle* handle PLINTH_GUARDED_BY(control_mutex) =
        nullptr;  // null while there is nothing to join
    std::atomic<bool> cancelled{false};
    std::atomic<bool> over{true};
    std::atomic<unsigned long> thread_id{0};
    std::atomic<std::int64_t> watchdog_ms{NEVER_MS};  // expiry on the steady clock

    SImpl(const char* thread_name, int thread_priority, int thread_policy, int param)
        : name(thread_name != nullptr ? thread_name : ""),
          priority(thread_priority),
          policy(thread_policy),
          stack_bytes(stackBytes(param)) {}

    void join() PLINTH_REQUIRES(control_mutex) {
        if (handle != nullptr) ThreadSystem::join(std::exchange(handle, nullptr));
    }
};

/// Gives the platform's entry point access to CThread::run.
struct SThreadStart {
    static void entry(void* argument) { CThread::run(static_cast<CThread*>(argument)); }
};

CThread::CThread(const char* name, int priority, int policy, int param) {
    try {
        m_impl = std::make_unique<SImpl>(name, priority, policy, param);
    } catch (const std::bad_alloc&) {
        // createThread() tells.
    }
}

CThread::~CThread() {
    destroyThread();
}

bool CThread::createThread() {
    if (!m_impl) return false;
    SImpl& impl = *m_impl;
    if (impl.thread_id.load() == getCurrentThreadId()) return false;
    CLockGuard guard(impl.control_mutex);
    if (!impl.over.load()) return false;
    impl.join();
    impl.cancelled.store(false);
    impl.watchdog_ms.store(NEVER_MS);
    impl.over.store(false);
    impl.handle = ThreadSystem::start(&SThreadStart::entry, this, impl.stack_bytes);
    if (impl.handle == nullptr) impl.over.store(true);
    return impl.handle != nullptr;
}

void CThread::cancelThread() {
    if (m_impl) m_impl->cancelled.store(true);
}

void CThread::destroyThread() {
    cancelThread();
    if (!m_impl || m_impl->thread_id.load() == getCurrentThreadId()) return;
    CLockGuard guard(m_impl->control_mutex);
    m_impl->join();
}

bool CThread::isThreadOver() const {
    return !m_impl || m_impl->over.load();
}
bool CThread::looping() const {
    return m_impl && !m_impl->cancelled.load(std::memory_order_relaxed);
}
unsigned long CThread::getThreadId() const {
    return m_impl ? m_impl->thread_id.load() : 0;
}
const char* CThread::getName() const {
    return m_impl ? m_impl->name.c_str() : "";
}

void CThread::setWatchdog(std::int64_t timeout_ms) {
    if (!m_impl) return;
    const std::int64_t now = steadyMilliSecond();
    if (timeout_ms < 0) timeout_ms = 0;
    m_impl->watchdog_ms.store(timeout_ms < NEVER_MS - now ? now + timeout_ms : NEVER_MS);
}

bool CThread::isWatchdogExpired() const {
    return m_impl && steadyMilliSecond() >= m_impl->watchdog_ms.load();
}

void CThread::run(CThread* self) {
    SImpl& impl = *self->m_impl;
    const unsigned long thread_id = getCurrentThreadId();
    CThreadManager::addThread(thread_id, impl.name.c_str());
    impl.thread_id.store(thread_id);
    ThreadSystem::setCurrentName(impl.name.c_str());
    ThreadSystem::setCurrentPriority(impl.priority, impl.policy);
    self->runBody();
    impl.thread_id.store(0);
    CThreadManager::removeThread(thread_id);
    impl.over.store(true);
}

void CThread::runBody() {
    try {
        threadProc();
    } catch (const std::exception& error) {
        logFilter(LOG_LEVEL_FATAL, "Plinth", __FILE__, __func__, __LINE__, "Thread",
                  "thread %s ended by an exception: %s\n", getName(), error.what());
    } catch (...) {
        logFilter(LOG_LEVEL_FATAL, "Plinth", __FILE__, __func__, __LINE__, "Thread",
                  "thread %s ended by an exception\n", getName());
    }
}

CThreadLite::CThreadLite(ThreadBody body, const char* name, int priority, int policy, int param)
    : CThread(name, priority, policy, param), m_body(std::move(body)) {}

// The body belongs to this class, so the thread must have ended before its fields go.
CThreadLite::~CThreadLite() {
    destroyThread();
}

void CThreadLite::threadProc() {
    if (m_body) m_body(*this);
}

}  // namespace Veltro::Plinth
