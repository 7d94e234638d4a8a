// How long callbacks hold their threads, and what with.
#pragma once

#include <sys/resource.h>

#include <cstdint>
#include <mutex>

namespace Bench {

/// What has become of a thread's time so far, in nanoseconds.
struct SThreadTimes {
    std::int64_t clock_ns = 0;
    std::int64_t cpu_ns = 0;      ///< it ran
    std::int64_t waiting_ns = 0;  ///< it could have run, but others had the processors
    long page_faults = 0;

    static SThreadTimes now();

    /// It did neither: it waited for a lock or a disk.
    std::int64_t blocked_ns() const;
    /// For what itself is to blame.
    std::int64_t own_ns() const { return cpu_ns + blocked_ns(); }
    SThreadTimes since(const SThreadTimes& start) const;
};

/// What the machine's host took from its processors so far, in milliseconds: it counts as processor time of
/// whoever ran. 0 where the system does not know.
std::int64_t stolen_ms();

/// The longest callbacks. Any thread may add to it.
class CHold {
public:
    static constexpr std::int64_t LIMIT_NS = 1'000'000;  ///< what a reactor's callback should stay below

    /// Around one callback.
    class CScope {
    public:
        explicit CScope(CHold& hold) : m_hold(hold), m_start(SThreadTimes::now()) {}
        ~CScope() { m_hold.add(SThreadTimes::now().since(m_start)); }
        CScope(const CScope&) = delete;
        CScope& operator=(const CScope&) = delete;

    private:
        CHold& m_hold;
        const SThreadTimes m_start;
    };

    /// Prints them as members of a JSON object, in microseconds.
    void print() const;

private:
    void add(const SThreadTimes& callback);

    std::mutex m_mutex;
    SThreadTimes m_longest;  // each figure on its own
    SThreadTimes m_worst;    // the callback that was longest for its own sake
    std::int64_t m_longest_own_ns = 0;
    std::int64_t m_longest_blocked_ns = 0;
    std::int64_t m_callbacks = 0;
    std::int64_t m_above = 0;      // the limit, by the clock
    std::int64_t m_above_own = 0;  // without waiting for a processor
};

}  // namespace Bench
