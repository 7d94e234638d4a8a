// The private state of a media stream sender.
//
// Invariants, whenever the buffer's lock is free:
// - m_frame, if not null, is the current frame: complete, alive because this sender holds it, and
// m_frame_left of
//   its bytes are unsent, from m_packet_offset of packet m_packet_index on. Both are 0 between two frames.
// - m_held is the frame whose reference this sender has to drop, once. It is m_frame, except after
// GetTailPacket()
//   has finished a frame: then that one is held still, and there is no current frame.
// - A started sender has passed all frames up to number m_passed: sent, or skipped. Without a current frame
// its
//   next one is the first with a higher number; the buffer looks it up, so that none is lost by waiting.
// - m_position is the start of the current frame plus what was sent of it, or the end of the last frame
// passed.
// - m_lost_mask has the channels of which a frame was passed but not sent, since their last key frame.
#pragma once

#include <Plinth/Mutex.h>
#include <Ravelo/MediaStreamSender.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>

#include "Core/HandlerShare.h"
#include "Tool/LiveList.h"
#include "Tool/MediaFrame.h"
#include "Tool/Tally.h"

namespace Veltro::Ravelo {

/// Guarded by the lock of the buffer that has the sender, but for atomics and what names another lock.
struct alignas(CACHE_LINE) SMediaStreamSenderRecord {
    static constexpr std::uint32_t NO_TIMEOUT = 0xFFFF'FFFF;
    static constexpr std::uint8_t ALL_CHANNELS = 0xFF;

    SMediaStreamSenderRecord() = default;
    SMediaStreamSenderRecord(const SMediaStreamSenderRecord&) = delete;
    SMediaStreamSenderRecord& operator=(const SMediaStreamSenderRecord&) = delete;
    ~SMediaStreamSenderRecord() { drop_frame(); }

    static SMediaStreamSenderRecord& of(const CMediaStreamSender& sender) { return *sender.m_internal; }

    std::uint64_t m_position = 0;                 ///< in the buffer's stream
    CMediaStreamSender* m_next_sender = nullptr;  ///< in the buffer's list
    CSock* m_stream = nullptr;                    ///< the application's
    std::atomic<std::int32_t> m_exception_id{0};  ///< who is told of a failure; 0 once it was
    CFrame* m_frame = nullptr;
    std::uint32_t m_packet_index = 0;
    std::uint32_t m_packet_offset = 0;
    std::int64_t m_frame_left = 0;
    Plinth::CMutex mutex;                       ///< guards the other data
    std::atomic<std::uint32_t> m_other_len{0};  ///< written under the mutex
    std::uint32_t m_zero_count = 0;             ///< writes in a row that took nothing
    /// Room for OTHER_DATA_BYTES; null while there are none.
    std::unique_ptr<char[]> m_other_data PLINTH_GUARDED_BY(mutex);
    CStallTime m_zero_since;  ///< the first of them, and the sum of all such runs
    std::atomic<std::uint32_t> m_send_timeout{NO_TIMEOUT};  ///< seconds
    std::atomic<std::uint8_t> m_channel_mask{ALL_CHANNELS};
    std::uint8_t m_lost_mask = 0;
    Plinth::TFunction3<void, CMediaPacket*, int, int> m_send_proc;

    /// A TLS stream has sealed the frame's first bytes though it has taken none: they come next, whatever
    /// else.
    bool m_is_sealed = false;
    bool m_started = false;  ///< has joined the stream of the buffer it is in
    CFrame* m_held = nullptr;
    CFrame* m_place = nullptr;   ///< where to go on without a current frame; good for one Send()
    std::uint64_t m_passed = 0;  ///< the last frame sent or skipped
    std::int64_t m_counted = 0;  ///< what this sender has added to m_sending_bytes of m_frame

    // Read also without the lock.
    CTally m_frames_sent;
    CTally m_bytes_sent;
    CTally m_skipped_late;
    CTally m_skipped_to_key;
    CTally m_skipped_channel;
    TTally<int> m_fd{-1};       ///< as Attach() found it, -1 without a socket
    TTally<std::int64_t> m_id;  ///< the sender's

    /// What an operator sees of one sender, or of all together.
    struct SFigures {
        std::int64_t id;
        int fd;
        CMediaStreamSender::SCounters counters;
        std::uint64_t stalled_now_us;  ///< since the first write in a row that took nothing
        void add(const SFigures& other);
    };
    /// Of this moment. Any thread, no lock.
    SFigures figures() const;
    /// All senders that live.
    static TLiveList<SMediaStreamSenderRecord>& living();

    bool isBetweenFrames() const { return m_packet_index == 0 && m_packet_offset == 0 && !m_is_sealed; }
    bool sends(std::uint32_t channel_bits) const { return (m_channel_mask.load() & channel_bits) != 0; }

    /// Has the processor fetch all of it: a sender's turn comes once in a pass, which has replaced it in the
    /// cache.
    void prefetch() const {
        const auto* const line = reinterpret_cast<const char*>(this);
        for (std::size_t i = 0; i < sizeof *this; i += CACHE_LINE) __builtin_prefetch(line + i, 1);
    }

    /// Is in no stream any more, or not yet: it keeps a frame only as long as it is in the middle of it, and
    /// joins a stream at a key frame.
    void leave_stream();
    /// Begins with a frame, which is a key frame of a channel that is sent.
    void start(CFrame& frame);

    /// Goes from a frame on to the first one that is to be sent, which becomes the current one; past those
    /// that are not. None if the list ends before.
    void go_to_frame(CFrame* frame);
    /// Learns what was removed between the last frame passed and this one.
    void arrive_at(const CFrame& frame);
    bool is_to_send(const CFrame& frame);
    void pass(const CFrame& frame);
    /// Makes a frame, or none, the current one.
    void take(CFrame* frame);
    void drop_frame() { take(nullptr); }

    /// One gathered write of what the current frame has left. @return as of the socket's call.
    int write();
    /// Counts bytes of the current frame as sent. @return whether it is finished.
    bool count_sent(std::int64_t bytes);
    /// Moves behind bytes that a write has taken.
    void advance(std::int64_t bytes);
    /// The current frame was sent whole. The caller goes on with another one, or with none.
    void finish_frame();
    /// Takes back what was counted for the current frame.
    void uncount();

    /// A write has taken something.
    void end_stall();

    TLiveList<SMediaStreamSenderRecord>::CEntry m_entry;
};

/// Lets all senders tell the time by another clock, in microseconds; null goes back to the steady one. Any
/// thread.
void setMediaClock(std::uint64_t (*clock)());
std::uint64_t mediaNowUs();

}  // namespace Veltro::Ravelo
