#include <Plinth/Mutex.h>
#include <Plinth/Thread.h>

#include "CpuRelax.h"
#include "WaitOnWord.h"

namespace Veltro::Plinth {

void CMutex::lockContended() {
    // With one processor the holder cannot run while we spin.
    static const int spins = getProcessorCount() > 1 ? 60 : 0;
    for (int i = 0; i < spins; ++i) {
        cpuRelax();
        if (m_state.load(std::memory_order_relaxed) == FREE && take()) return;
    }
    // Taken as contended: whether others sleep, too, is not known, so unlocking will look.
    while (m_state.exchange(CONTENDED, std::memory_order_acquire) != FREE) waitOnWord(m_state, CONTENDED);
}

void CMutex::wakeOne() {
    wakeOnWord(m_state);
}

}  // namespace Veltro::Plinth
