// Figures that one thread at a time changes and any thread reads without waiting.
#pragma once

#include <atomic>
#include <cstdint>

namespace Veltro::Ravelo {

/// A number that is changed by one thread at a time, under whatever lock there is, and read by any thread
/// without one: changing it costs what it would cost a plain number. Who sees a change sees what was changed
/// before it.
template <typename T>
class TTally {
public:
    constexpr explicit TTally(T value = 0) : m_value(value) {}
    TTally(const TTally&) = delete;
    TTally& operator=(const TTally&) = delete;

    operator T() const { return m_value.load(std::memory_order_acquire); }
    void operator=(T value) { m_value.store(value, std::memory_order_release); }
    void operator+=(T by) { *this = static_cast<T>(*this + by); }
    void operator-=(T by) { *this = static_cast<T>(*this - by); }

private:
    std::atomic<T> m_value;
};

using CTally = TTally<std::uint64_t>;

/// For how long something has stalled: in total, and at the moment. Changed by one thread at a time, read by
/// any without waiting; times in microseconds.
class CStallTime {
public:
    struct STimes {
        std::uint64_t all_us;  ///< the present stall included
        std::uint64_t now_us;  ///< of the present stall; 0 if there is none
    };

    bool isStalled() const { return isStalled(m_sum); }
    /// When the last stall began.
    std::uint64_t since() const { return m_since; }
    void begin(std::uint64_t now_us) {
        m_since = now_us;
        m_sum = (m_sum & ~STALLED) - 2 * static_cast<std::int64_t>(now_us) + STALLED;
    }
    void end(std::uint64_t now_us) {
        // A clock that another thread has read may stand a little behind.
        const std::uint64_t end_us = now_us > m_since ? now_us : m_since;
        m_sum = (m_sum & ~STALLED) + 2 * static_cast<std::int64_t>(end_us);
    }
    STimes times(std::uint64_t now_us) const {
        const std::int64_t sum = m_sum;
        const std::int64_t ended_us = sum >> 1;
        if (!isStalled(sum)) return {static_cast<std::uint64_t>(ended_us), 0};
        const std::uint64_t since_us = m_since;
        const std::int64_t all_us =
            ended_us + static_cast<std::int64_t>(now_us > since_us ? now_us : since_us);
        return {static_cast<std::uint64_t>(all_us > 0 ? all_us : 0),
                now_us > since_us ? now_us - since_us : 0};
    }

private:
    static constexpr std::int64_t STALLED = 1;
    static bool isStalled(std::int64_t sum) { return (sum & STALLED) != 0; }

    /// Twice the sum of the ends of all stalls less their beginnings, and whether an end is still to come: in
    /// one number, so that whoever reads finds each stall once.
    TTally<std::int64_t> m_sum;
    TTally<std::uint64_t> m_since;
};

}  // namespace Veltro::Ravelo
