// The private state of a paced receiver.
#pragma once

#include <Plinth/Mutex.h>
#include <Ravelo/MediaStreamReceiver.h>

#include <atomic>
#include <cstdint>

namespace Veltro::Ravelo {

enum : std::uint32_t {
    RECEIVER_CLOSED = 0,  ///< its pacing thread takes it off the list and closes it
    RECEIVER_CREATED = 1,
    RECEIVER_RUNNING = 2,
    RECEIVER_STOPPED = 3,
    RECEIVER_CLOSING = 4  ///< somebody is inside Close(); the pacing thread must not end it yet
};

struct SMediaStreamReceiverRecord {
    /// A receiver that lags behind is called so often in one tick.
    static constexpr int MAX_CALLS = 8;
    static constexpr std::int64_t UNKNOWN_US = -1;

    std::atomic<long> m_exception_id{0};  ///< 0: nobody is told
    std::atomic<std::uint32_t> m_mode{CMediaStreamReceiver::RECEIVE_MODE_STREAM};
    std::int64_t m_media_base PLINTH_GUARDED_BY(mutex) = UNKNOWN_US;  ///< media time of the first frame
    std::uint64_t m_real_base PLINTH_GUARDED_BY(mutex) = 0;           ///< when that one came, microseconds
    std::int64_t m_start_offset PLINTH_GUARDED_BY(mutex) = 0;         ///< microseconds
    std::int32_t m_countdown = 1;  ///< ticks to skip; the pacing thread's own
    float m_rate PLINTH_GUARDED_BY(mutex) = 1.0F;
    /// Guards the times above, and is held by those who change m_state. Never taken inside a group's mutex.
    Plinth::CMutex mutex;
    CMediaStreamReceiver* m_next = nullptr;  ///< in its group's list, and guarded by the group's mutex
    /// The pacing thread reads it without the lock.
    std::atomic<std::uint32_t> m_state{RECEIVER_CREATED};

    /// Lets the media time begin anew.
    void restart(std::int64_t offset_us, float rate) PLINTH_REQUIRES(mutex);
    /// How many ticks to wait after media time `media_us` was delivered; 0 or less when it lags behind.
    std::int32_t pace(std::int64_t media_us, std::uint64_t now_us, std::int64_t pace_us)
        PLINTH_REQUIRES(mutex);

    /// A receiver's record; only of one whose record could be allocated.
    static SMediaStreamReceiverRecord& of(const CMediaStreamReceiver& receiver) {
        return *receiver.m_internal;
    }
};

}  // namespace Veltro::Ravelo
