// How long callbacks run, by class of handler. Off until an operator switches it on; then each callback costs
// two looks at the clock and a lock, else one relaxed load before it and one after.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <typeinfo>
#include <vector>

namespace Veltro::Ravelo::CallbackTimes {

extern std::atomic<bool> sm_on;

inline bool isOn() {
    return sm_on.load(std::memory_order_relaxed);
}

/// Starts anew, with nothing noted, or stops; what was noted stays to be looked at. Any thread may call.
void switchOn(bool on);

/// The clock's microseconds, never 0.
std::uint64_t now();
/// Notes a callback that has just ended. Any thread may call.
void note(const std::type_info& type, std::uint64_t began_us);

/// What was noted of a class.
struct STimes {
    std::string type;
    std::uint64_t callbacks;
    std::uint64_t longest_us;
    std::uint64_t p99_us;  ///< 99 of 100 took at most this; up to an eighth too much
};

/// Every class that was noted, by name. May throw std::bad_alloc.
std::vector<STimes> list();

}  // namespace Veltro::Ravelo::CallbackTimes
