#include "Core/PoolTable.h"

#include <Plinth/Thread.h>

#include <atomic>

#include "Core/ThreadPool.h"

namespace Veltro::Ravelo {

namespace {

/// A line of its own in the processor's cache: all posts to a pool count here.
struct alignas(64) SSlot {
    std::atomic<CThreadPool*> pool{nullptr};
    std::atomic<int> pins{0};
};

SSlot s_slots[POOL_COUNT];
thread_local CThreadPool* t_current = nullptr;

}  // namespace

void CPoolTable::enter(int number, CThreadPool* pool) {
    s_slots[number].pool.store(pool);
}

CThreadPool* CPoolTable::remove(int number) {
    CThreadPool* pool = s_slots[number].pool.exchange(nullptr);
    // A pin counts up before it reads the pool, so one that still found the pool is seen here.
    while (s_slots[number].pins.load() > 0) Plinth::yieldThread();
    return pool;
}

CThreadPool* CPoolTable::peek(int number) {
    return s_slots[number].pool.load();
}

CThreadPool* CPoolTable::current() {
    return t_current;
}
void CPoolTable::setCurrent(CThreadPool* pool) {
    t_current = pool;
}

CPoolPin::CPoolPin(int number) : m_pool(nullptr) {
    if (number < 0 || number >= POOL_COUNT) return;
    // A pool outlives its own workers, so they need no pin.
    if (t_current != nullptr && t_current->number() == number) {
        m_pool = t_current;
        return;
    }
    m_pinned = number;
    s_slots[number].pins.fetch_add(1);
    m_pool = s_slots[number].pool.load();
}

CPoolPin::~CPoolPin() {
    release();
}

void CPoolPin::release() {
    m_pool = nullptr;
    if (m_pinned >= 0) s_slots[m_pinned].pins.fetch_sub(1);
    m_pinned = -1;
}

}  // namespace Veltro::Ravelo
