#pragma once

#include <Plinth/Mutex.h>
#include <Plinth/Thread.h>

#include <cstdint>
#include <memory>

#include "Core/ThreadPool.h"

namespace Veltro::Ravelo {

class CMediaStreamReceiver;

/// Where the ticks of a group lie: on whole periods from a whole tenth of a second, each group of a set a
/// share of the period behind the one before it.
struct SPacingGrid {
    static constexpr std::uint64_t ALIGNMENT_US = 100'000;
    /// A group that is off by more periods than this begins a new grid.
    static constexpr std::int64_t DRIFT_PERIODS = 20;

    std::uint64_t base_us = 0;
    std::uint64_t tick = 0;  ///< ticks since base_us
    std::int64_t period_us = 0;

    void begin(std::uint64_t now_us, unsigned index, unsigned count);
    /// How long until the next tick; negative when it is late.
    std::int64_t delay(std::uint64_t now_us) const;
    bool isOff(std::uint64_t now_us) const;
};

/// The receivers of one pacing thread, and the thread, which runs while there are any.
///
/// Receivers join under the process-wide mutex of RecvThreads, one at a time. Only the thread takes them off
/// the list again, so that it may call them without the group's mutex.
class CPacingGroup {
public:
    static constexpr std::int64_t FAST_PERIOD_US = 40'000;

    enum EMode : unsigned { Normal = 0, Fast = 2 };

    /// @param index of the group in its set. @param count of the groups in the set.
    CPacingGroup(unsigned index, EMode mode, unsigned count, const SThreadSettings& settings);
    /// Requires stop().
    ~CPacingGroup() = default;
    CPacingGroup(const CPacingGroup&) = delete;
    CPacingGroup& operator=(const CPacingGroup&) = delete;

    /// Takes a receiver in, and starts the thread if it does not run. One call at a time, and none after
    /// cancel().
    /// @param pace_us the period of the normal groups; a thread that runs already keeps to its own.
    /// @return 0, or -1 when the system has no thread or no memory to give.
    int join(CMediaStreamReceiver& receiver, std::int64_t pace_us);
    /// How many receivers there are.
    unsigned number();

    /// Asks the thread to end.
    void cancel();
    /// Waits for the thread and ends the receivers that are left; not from a pacing thread.
    /// @return whether the group ever had any.
    bool stop();

    /// Whether the calling thread is a pacing thread.
    static bool isCurrent();

private:
    void append(CMediaStreamReceiver& receiver) PLINTH_REQUIRES(m_mutex);
    bool start_thread(std::int64_t pace_us);
    void run(const Plinth::CThreadLite& self);
    void call_receivers(CMediaStreamReceiver* first, const CMediaStreamReceiver* last);
    bool round();
    void wait_for_tick();
    CMediaStreamReceiver* take(bool all);
    static void end_receivers(CMediaStreamReceiver* list);

    const unsigned m_index;
    const EMode m_mode;
    const unsigned m_count;
    const SThreadSettings m_settings;
    SPacingGrid m_grid;          // the thread's, and while none runs the joiner's; so is m_pace_us
    std::int64_t m_pace_us = 0;  // by which paced receivers count their ticks
    CMediaStreamReceiver* m_head PLINTH_GUARDED_BY(m_mutex) = nullptr;
    CMediaStreamReceiver* m_tail PLINTH_GUARDED_BY(m_mutex) = nullptr;
    Plinth::CMutex m_mutex;  // guards the list and whether the thread runs
    unsigned m_number PLINTH_GUARDED_BY(m_mutex) = 0;
    bool m_running PLINTH_GUARDED_BY(m_mutex) = false;  // the thread will look at the list again
    std::unique_ptr<Plinth::CThreadLite> m_thread;      // made once, by the first joiner
};

}  // namespace Veltro::Ravelo
