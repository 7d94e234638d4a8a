#include "WaitOnWord.h"

#include <windows.h>

#include "LastErrorKeeper.h"

namespace Veltro::Plinth {

void waitOnWord(std::atomic<std::uint32_t>& word, std::uint32_t value) {
    const CLastErrorKeeper keeper;
    WaitOnAddress(&word, &value, sizeof word, INFINITE);
}

void wakeOnWord(std::atomic<std::uint32_t>& word) {
    WakeByAddressSingle(&word);
}

}  // namespace Veltro::Plinth
