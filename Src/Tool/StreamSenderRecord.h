// The private state of a stream sender.
#pragma once

#include <Plinth/Mutex.h>
#include <Ravelo/StreamSender.h>

#include <cstdint>
#include <map>
#include <vector>

#include "Tool/LiveList.h"
#include "Tool/SendBuffer.h"
#include "Tool/Tally.h"

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

    // Changed under the lock, read also without it. What is taken is counted before what is sent.
    CTally m_puts PLINTH_GUARDED_BY(mutex);
    CTally m_refused_puts PLINTH_GUARDED_BY(mutex);
    CTally m_bytes_taken PLINTH_GUARDED_BY(mutex);
    CTally m_bytes_sent PLINTH_GUARDED_BY(mutex);
    CTally m_bytes_cleared PLINTH_GUARDED_BY(mutex);
    CStallTime m_stall PLINTH_GUARDED_BY(mutex);    ///< while bytes are queued
    TTally<int> m_fd PLINTH_GUARDED_BY(mutex){-1};  ///< as Attach() found it, -1 without a socket
    TTally<std::int64_t> m_id;                      ///< the sender's

    /// What an operator sees of one sender, or of all together.
    struct SFigures {
        std::int64_t id;
        int fd;
        std::uint64_t puts;
        std::uint64_t refused_puts;
        std::uint64_t bytes_sent;
        std::uint64_t bytes_queued;
        std::uint64_t bytes_cleared;
        CStallTime::STimes stall;
        /// Adds those of one that goes: what it had queued counts as dropped.
        void add(const SFigures& other);
    };
    /// Of this moment. Any thread, no lock.
    SFigures figures() const;

    /// A sender's record.
    static SStreamSenderRecord& of(const CStreamSender& sender) { return *sender.m_internal; }
    /// All senders that live.
    static TLiveList<SStreamSenderRecord>& living();

    TLiveList<SStreamSenderRecord>::CEntry m_entry;
};

}  // namespace Veltro::Ravelo
