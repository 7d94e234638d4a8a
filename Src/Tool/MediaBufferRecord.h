// The private state of a media buffer.
//
// Invariants, whenever the lock is free:
// - The list holds complete frames in the order of their sequence numbers, and then at most one frame that is
//   being filled, which is the tail. (Without memory for that one the tail is complete.)
// - m_byte_total - m_byte_discard is the sum of the listed frames' bytes. Each frame begins where all frames
//   that were ever put before it end, so a position in the stream stays true when frames are removed.
// - A frame that is removed before all senders have passed it leaves its sequence number in m_lost of the
// frame
//   that follows, under its channel. A sender compares it with the last frame that it has passed and so
//   learns of every loss, and of none that is not its own.
// - A frame with senders is never made invalid. A started sender's position is not before the head's start,
// and
//   its current frame is in the list.
// - m_has_sender is set exactly while the list of senders is not empty.
#pragma once

#include <Plinth/Mutex.h>
#include <Ravelo/MediaBuffer.h>

#include <atomic>
#include <cstdint>

#include "Tool/LiveList.h"
#include "Tool/MediaFrame.h"
#include "Tool/Tally.h"

namespace Veltro::Ravelo {

struct SMediaStreamSenderRecord;

struct SMediaBufferRecord {
    /// What send_to() returns in place of a position.
    static constexpr std::int64_t FAILED = -1;
    static constexpr std::int64_t NOT_STARTED = -2;

    /// A buffer's record; only of one whose record could be allocated.
    static SMediaBufferRecord& of(const CMediaBuffer& buffer) { return *buffer.m_internal; }

    explicit SMediaBufferRecord(CMediaBuffer& owner) : m_owner(owner) { m_min_level.fill(WORST_LEVEL); }

    CFrame* m_frame_header PLINTH_GUARDED_BY(mutex) = nullptr;
    CFrame* m_frame_tail PLINTH_GUARDED_BY(mutex) = nullptr;
    CMediaStreamSender* m_sender_header PLINTH_GUARDED_BY(mutex) = nullptr;
    CLevel2Buffer_IF* m_buffer_header PLINTH_GUARDED_BY(mutex) = nullptr;
    Plinth::CMutex mutex;  ///< guards the record; taken after the auto-send registry's
    // The tallies are changed under the lock and read also without it.
    CTally m_byte_total PLINTH_GUARDED_BY(mutex);         ///< the stream's end
    CTally m_byte_discard PLINTH_GUARDED_BY(mutex);       ///< bytes removed, wherever they stood
    bool m_auto_send = false;                             ///< guarded by the registry's mutex
    bool m_send_pending PLINTH_GUARDED_BY(mutex) = true;  ///< a frame was completed, none begun since
    bool m_has_sender PLINTH_GUARDED_BY(mutex) = false;
    SChannels<std::int32_t> m_min_level PLINTH_GUARDED_BY(mutex);  ///< the best level of each channel
    TTally<std::uint32_t> m_frame_num PLINTH_GUARDED_BY(mutex);
    TTally<std::uint32_t> m_sender_num PLINTH_GUARDED_BY(mutex);
    std::atomic<std::uint32_t> m_valid_frame_num{0};  ///< the last count

    CMediaBuffer& m_owner;                                  ///< for traces, and for the auto-send timer
    SMediaBufferRecord* m_auto_next = nullptr;              ///< guarded by the registry's mutex
    std::uint64_t m_sequence PLINTH_GUARDED_BY(mutex) = 0;  ///< of the last frame that ended
    /// Whether packets are dropped up to the end of the frame, because one of them could not be stored.
    bool m_dropping PLINTH_GUARDED_BY(mutex) = false;
    /// The last frame of each channel that was dropped while it was filled.
    SChannels<std::uint64_t> m_dropped PLINTH_GUARDED_BY(mutex) = {};
    CTally m_frames_put PLINTH_GUARDED_BY(mutex);
    CTally m_frames_discarded PLINTH_GUARDED_BY(mutex);
    CTally m_bytes_discarded PLINTH_GUARDED_BY(mutex);
    CTally m_frames_dropped PLINTH_GUARDED_BY(mutex);

    /// What an operator sees of one buffer, or of all together.
    struct SFigures {
        const void* buffer;
        std::uint64_t senders;
        CMediaBuffer::SCounters counters;
        /// Adds those of one that goes: what it did, not what it had.
        void add(const SFigures& other);
    };
    /// Of this moment. Any thread, no lock.
    SFigures figures() const;
    /// All buffers that live.
    static TLiveList<SMediaBufferRecord>& living();

    // Filling: MediaBufferFill.cpp.

    /// Offers a packet to the second-level buffers.
    void offer(CMediaPacket* packet, int len, int mark, int level) PLINTH_REQUIRES(mutex);
    /// Takes a packet. @return whether it was stored.
    bool store(CMediaPacket* packet, int len, int mark, int level) PLINTH_REQUIRES(mutex);
    void end_frame(int level) PLINTH_REQUIRES(mutex);
    void complete_tail(int channel) PLINTH_REQUIRES(mutex);
    void drop_tail() PLINTH_REQUIRES(mutex);
    /// Sees to it that the tail is there and being filled. @return false without memory.
    bool open_frame() PLINTH_REQUIRES(mutex);

    // The history: MediaBufferHistory.cpp.

    /// One step of aging.
    void remark_all_frames() PLINTH_REQUIRES(mutex);
    void check_valid_frames() PLINTH_REQUIRES(mutex);
    /// Removes the invalid frames.
    void rebuild_frame_list() PLINTH_REQUIRES(mutex);
    /// Removes the head. @return its bytes.
    std::int64_t delete_head() PLINTH_REQUIRES(mutex);
    /// Without senders: removes all complete frames; the stream begins anew with what is left.
    void drop_complete_frames() PLINTH_REQUIRES(mutex);
    std::uint64_t sum_bytes() PLINTH_REQUIRES(mutex);

    // Senders: MediaBufferSend.cpp.

    bool add_sender(CMediaStreamSender& sender) PLINTH_REQUIRES(mutex);
    /// Unlinks a sender, if it is there; with the last one go the complete frames.
    void del_sender(CMediaStreamSender& sender) PLINTH_REQUIRES(mutex);
    /// Lets all senders send. @return the position that all have passed; 0 if nobody has one.
    std::uint64_t send_to_all() PLINTH_REQUIRES(mutex);
    /// Lets a sender send. @return its position, FAILED, or NOT_STARTED.
    std::int64_t send_to(CMediaStreamSender& sender) PLINTH_REQUIRES(mutex);
    std::int64_t call_send(CMediaStreamSender& sender) PLINTH_REQUIRES(mutex);
    /// The first frame that a sender has not passed.
    CFrame* place_of(const SMediaStreamSenderRecord& sender) PLINTH_REQUIRES(mutex);

    void add_level2(CLevel2Buffer_IF& buffer) PLINTH_REQUIRES(mutex);
    void del_level2(CLevel2Buffer_IF& buffer) PLINTH_REQUIRES(mutex);

    TLiveList<SMediaBufferRecord>::CEntry m_entry;
};

/// The process's timer that calls do_send() of all buffers that ask for it.
namespace MediaAutoSend {

void enable(SMediaBufferRecord& record, std::uint64_t interval_ms);
void disable(SMediaBufferRecord& record);
/// Whether the timer runs, for tests.
bool isRunning();

}  // namespace MediaAutoSend

}  // namespace Veltro::Ravelo
