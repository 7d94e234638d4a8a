// What senders and media buffers tell an operator of themselves, without keeping anybody waiting.
#include <Plinth/Time.h>

#include "Tool/MediaBufferRecord.h"
#include "Tool/MediaStreamSenderRecord.h"
#include "Tool/StreamSenderRecord.h"

namespace Veltro::Ravelo {

namespace {

// Without destructors, since tools may go while the process's statics do.
constinit TLiveList<SStreamSenderRecord> s_stream_senders;
constinit TLiveList<SMediaStreamSenderRecord> s_media_senders;
constinit TLiveList<SMediaBufferRecord> s_media_buffers;

/// What is left of a number that grows of late; both may have moved on since the first one was read.
std::uint64_t rest(std::uint64_t all, std::uint64_t part) {
    return all > part ? all - part : 0;
}

}  // namespace

TLiveList<SStreamSenderRecord>& SStreamSenderRecord::living() {
    return s_stream_senders;
}

TLiveList<SMediaStreamSenderRecord>& SMediaStreamSenderRecord::living() {
    return s_media_senders;
}

TLiveList<SMediaBufferRecord>& SMediaBufferRecord::living() {
    return s_media_buffers;
}

SStreamSenderRecord::SFigures SStreamSenderRecord::figures() const PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    const std::uint64_t sent = m_bytes_sent;
    const std::uint64_t cleared = m_bytes_cleared;
    return {m_id,    m_fd,
            m_puts,  m_refused_puts,
            sent,    rest(m_bytes_taken, sent + cleared),
            cleared, m_stall.times(Plinth::CTime::getCurrentMicroSecond())};
}

void SStreamSenderRecord::SFigures::add(const SFigures& other) {
    puts += other.puts;
    refused_puts += other.refused_puts;
    bytes_sent += other.bytes_sent;
    bytes_cleared += other.bytes_cleared + other.bytes_queued;
    stall.all_us += other.stall.all_us;
}

SMediaStreamSenderRecord::SFigures SMediaStreamSenderRecord::figures() const {
    const CStallTime::STimes stall = m_zero_since.times(mediaNowUs());
    return {m_id,
            m_fd,
            {m_frames_sent, m_bytes_sent, m_skipped_late, m_skipped_to_key, m_skipped_channel, stall.all_us},
            stall.now_us};
}

void SMediaStreamSenderRecord::SFigures::add(const SFigures& other) {
    counters.frames_sent += other.counters.frames_sent;
    counters.bytes_sent += other.counters.bytes_sent;
    counters.skipped_late += other.counters.skipped_late;
    counters.skipped_to_key += other.counters.skipped_to_key;
    counters.skipped_channel += other.counters.skipped_channel;
    counters.stalled_us += other.counters.stalled_us;
}

SMediaBufferRecord::SFigures SMediaBufferRecord::figures() const PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    // When the stream begins anew, its end is set first: whoever has seen the old number of removed bytes
    // finds less than nothing, not the whole stream.
    const std::uint64_t removed = m_byte_discard;
    return {&m_owner,
            m_sender_num,
            {m_frame_num, m_valid_frame_num, rest(m_byte_total, removed), m_frames_put, m_frames_discarded,
             m_bytes_discarded, m_frames_dropped}};
}

void SMediaBufferRecord::SFigures::add(const SFigures& other) {
    counters.frames_put += other.counters.frames_put;
    counters.discarded += other.counters.discarded;
    counters.discarded_bytes += other.counters.discarded_bytes;
    counters.dropped += other.counters.dropped;
}

}  // namespace Veltro::Ravelo
