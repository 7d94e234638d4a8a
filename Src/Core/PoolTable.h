#pragma once

#include <Ravelo/Defs.h>

#include <cstdint>

namespace Veltro::Ravelo {

class CThreadPool;

/// How many pools there can be: the public one, number 0, and the private ones.
inline constexpr int POOL_COUNT = 64;

/// The number of the pool that owns a handler or timer id.
inline int poolOfId(std::int64_t id) {
    return static_cast<int>((id >> 4) & (POOL_COUNT - 1));
}

/// The table of live pools. Entering and removing is CNetThread's business, under its creation mutex.
class CPoolTable {
public:
    static void enter(int number, CThreadPool* pool);
    /// Takes the pool out and waits until no pin of another thread holds it.
    static CThreadPool* remove(int number);
    /// The pool or null; only for callers that hold the creation mutex.
    static CThreadPool* peek(int number);

    /// The pool whose worker the calling thread is, or null.
    static CThreadPool* current();
    static void setCurrent(CThreadPool* pool);
};

/// Keeps a pool from being destroyed for as long as the pin lives; posting and registering go through one.
/// Never hold it across a callback: destruction waits for it.
class CPoolPin {
public:
    explicit CPoolPin(int number);
    ~CPoolPin();
    CPoolPin(const CPoolPin&) = delete;
    CPoolPin& operator=(const CPoolPin&) = delete;

    /// Ends the pin early; the pool must not be used afterwards.
    void release();

    /// The pool; null when there is none under the number.
    CThreadPool* get() const { return m_pool; }
    explicit operator bool() const { return m_pool != nullptr; }
    CThreadPool* operator->() const { return m_pool; }

private:
    CThreadPool* m_pool;
    int m_pinned = -1;  // the number whose pins are counted up; -1 on the pool's own workers
};

}  // namespace Veltro::Ravelo
