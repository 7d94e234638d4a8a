// The private state of a stream sender.
#pragma once

#include <Plinth/Mutex.h>
#include <Ravelo/StreamSender.h>

#include <cstdint>
#include <map>
#include <vector>

#include "Tool/SendBuffer.h"

namespace Veltro::Ravelo {

struct SStreamSenderRecord {
    /// In place of a wanted size: the wait has been answered.
    static constexpr std::int32_t ANSWERED = -1;

    Plinth::CMutex
        mutex;  ///< guards everything here; held while the registry is called and messages are sent
    CSendBuffer m_buffer PLINTH_GUARDED_BY(mutex);
    CSock* m_stream PLINTH_GUARDED_BY(mutex) = nullptr;
    std::uint32_t m_stream_type PLINTH_GUARDED_BY(mutex) = SOCK_TYPE_UNKNOWN;
    CNetHandler* m_owner PLINTH_GUARDED_BY(mutex) = nullptr;
    std::map<std::int32_t, std::int32_t> m_wait_buffer PLINTH_GUARDED_BY(mutex);  ///< wanted bytes by handler
    std::vector<std::int32_t> m_wait_finish PLINTH_GUARDED_BY(mutex);
    std::int32_t m_exception_id PLINTH_GUARDED_BY(mutex) = 0;
    /// Those of the past; what is queued, and the time since it is, are added when they are asked for.
    CStreamSender::SCounters m_counters PLINTH_GUARDED_BY(mutex){};
    std::uint64_t m_stalled_since_us PLINTH_GUARDED_BY(mutex) = 0;  ///< while bytes are queued

    /// A sender's record.
    static SStreamSenderRecord& of(const CStreamSender& sender) { return *sender.m_internal; }

    /// Keeps the time for which bytes are queued. Call it when the first one has been, and the last one gone.
    void beginStall() PLINTH_REQUIRES(mutex);
    void endStall() PLINTH_REQUIRES(mutex);
};

}  // namespace Veltro::Ravelo
