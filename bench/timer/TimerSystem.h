// What the timer benchmark needs of a library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace Bench {

/// A library's timers, each known by its index. Used by one thread; no timer comes due while it measures.
class CTimerSystem {
public:
    virtual ~CTimerSystem() = default;
    virtual void Arm(std::size_t index, std::int64_t period_us) = 0;
    virtual void Cancel(std::size_t index) = 0;
    /// Does what the library has put off; part of what cancelling costs.
    virtual void Settle() {}
};

/// Defined by each library's file. @param count timers that will be armed at most.
std::unique_ptr<CTimerSystem> make_timer_system(std::size_t count);

/// The name that the results carry. Defined by each library's file.
const char* timer_system_name();

}  // namespace Bench
