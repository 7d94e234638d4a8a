#pragma once

#include <Plinth/Mutex.h>

#include <atomic>

#include "Core/Select.h"
#include "Core/ThreadPool.h"

namespace Veltro::Ravelo {

/// The process-wide state behind CNetThread: which pools there are and who uses the public one.
struct SNetThreadState {
    Plinth::CMutex mutex;  ///< the creation mutex: creating and destroying take turns; guards all below
    int pool_count PLINTH_GUARDED_BY(mutex) = -1;  ///< live pools, public included; -1 before the first
    int sm_pub_pool_ref PLINTH_GUARDED_BY(mutex) = 0;
    unsigned processors PLINTH_GUARDED_BY(mutex) = 1;
    unsigned capacity PLINTH_GUARDED_BY(mutex) = CMultiplexer::DEFAULT_CAPACITY;
    bool file_threads PLINTH_GUARDED_BY(mutex) = false;
    SThreadSettings worker_settings PLINTH_GUARDED_BY(mutex);  ///< for the next pool only
    SThreadSettings recv_settings PLINTH_GUARDED_BY(mutex);
    /// The library is being ended, by a thread that holds the mutex and waits for callbacks.
    std::atomic<bool> ending{false};

    static SNetThreadState& get();
};

/// Holds the creation mutex. A worker whose pool is being destroyed does not get it, nor does a pacing or a
/// file thread at the library's end: the destroyer holds the mutex and waits for the thread.
class PLINTH_SCOPED_CAPABILITY CCreationGuard {
public:
    explicit CCreationGuard(SNetThreadState& state) PLINTH_ACQUIRE(state.mutex);
    ~CCreationGuard() PLINTH_RELEASE();
    CCreationGuard(const CCreationGuard&) = delete;
    CCreationGuard& operator=(const CCreationGuard&) = delete;
    /// Whether the mutex is held; without it nothing may be read or changed.
    explicit operator bool() const { return m_held; }

private:
    SNetThreadState& m_state;
    bool m_held;
};

}  // namespace Veltro::Ravelo
