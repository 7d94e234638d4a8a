// Sleeping until a word changes; bodies in WaitOnWord_linux.cpp and WaitOnWord_win.cpp.
#pragma once

#include <atomic>
#include <cstdint>

namespace Veltro::Plinth {

/// Sleeps while the word has this value, until wakeOnWord(); may return early. Keeps the last system error.
void waitOnWord(std::atomic<std::uint32_t>& word, std::uint32_t value);
/// Wakes one thread that sleeps on the word. Only the address is used: the word may be gone by now.
void wakeOnWord(std::atomic<std::uint32_t>& word);

}  // namespace Veltro::Plinth
