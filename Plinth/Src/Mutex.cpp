#include <Plinth/Mutex.h>
#include <Plinth/Thread.h>

#include "CpuRelax.h"

namespace Veltro::Plinth {

void CMutex::lockContended() PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    // With one processor the holder cannot run while we spin.
    static const int spins = getProcessorCount() > 1 ? 60 : 0;
    for (int i = 0; i < spins; ++i) {
        cpuRelax();
        if (m_mutex.try_lock()) return;
    }
    m_mutex.lock();
}

}  // namespace Veltro::Plinth
