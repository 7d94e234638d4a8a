#include "Core/NetThreadState.h"

#include "Core/PoolTable.h"
#include "Tool/FileThreads.h"
#include "Tool/RecvThreads.h"

namespace Veltro::Ravelo {

SNetThreadState& SNetThreadState::get() {
    static auto* state = new SNetThreadState;  // never destroyed: threads may call while the statics go
    return *state;
}

// Conditionally held, which the analysis cannot express.
CCreationGuard::CCreationGuard(SNetThreadState& state) PLINTH_NO_THREAD_SAFETY_ANALYSIS : m_state(state),
                                                                                          m_held(true) {
    const CThreadPool* own = CPoolTable::current();
    if (own == nullptr && !RecvThreads::isCurrent() && !FileThreads::isOwnThread()) {
        m_state.mutex.lock();
        return;
    }
    while (!m_state.mutex.tryLock()) {
        if (m_state.ending.load() || (own != nullptr && own->isStopping()) ||
            FileThreads::isOwnThreadStopping()) {
            m_held = false;
            return;
        }
        Plinth::sleepMilliSecond(1);
    }
}

CCreationGuard::~CCreationGuard() PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    if (m_held) m_state.mutex.unlock();
}

}  // namespace Veltro::Ravelo
