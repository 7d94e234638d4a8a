#include "WaitOnWord.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "LastErrorKeeper.h"

namespace Veltro::Plinth {

void waitOnWord(std::atomic<std::uint32_t>& word, std::uint32_t value) {
    const CLastErrorKeeper keeper;
    syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, value, nullptr, nullptr, 0);
}

void wakeOnWord(std::atomic<std::uint32_t>& word) {
    const CLastErrorKeeper keeper;
    syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

}  // namespace Veltro::Plinth
