#pragma once

#include <algorithm>
#include <cstdint>

namespace Veltro::Ravelo {

/// How long a waiter looks again before it sleeps: long enough to catch the answer of a peer that is being
/// served, nothing when sleeps turn out long. One thread at a time.
class CSpinBudget {
public:
    /// Looking longer costs more than the wake it saves, in microseconds.
    static constexpr std::uint64_t MAX_US = 50;

    std::uint64_t budgetUs() const { return m_budget_us; }
    /// The look found something.
    void found() { m_budget_us = MAX_US; }
    /// The look was in vain.
    void missed() { m_budget_us = m_budget_us > MIN_US ? m_budget_us / 2 : 0; }
    /// A sleep ended after so many microseconds: one that a look would have caught makes looking worth while.
    void slept(std::uint64_t duration_us) {
        if (duration_us <= MAX_US) m_budget_us = MAX_US;
    }

private:
    static constexpr std::uint64_t MIN_US = 5;

    std::uint64_t m_budget_us = 0;
};

}  // namespace Veltro::Ravelo
