// Which frames a media stream sender sends, and how far it has come with them.
#include <Plinth/Time.h>

#include <algorithm>

#include "Socket/SocketApi.h"
#include "Tool/MediaStreamSenderRecord.h"
#include "Tool/SockWrite.h"

namespace Veltro::Ravelo {

namespace {

std::atomic<std::uint64_t (*)()> s_clock{&Plinth::CTime::getCurrentMicroSecond};

}  // namespace

void setMediaClock(std::uint64_t (*clock)()) {
    s_clock = clock != nullptr ? clock : &Plinth::CTime::getCurrentMicroSecond;
}

std::uint64_t mediaNowUs() {
    return s_clock.load(std::memory_order_relaxed)();
}

void SMediaStreamSenderRecord::leave_stream() {
    m_started = false;
    m_place = nullptr;
    end_stall();
    if (isBetweenFrames()) drop_frame();
}

void SMediaStreamSenderRecord::start(CFrame& frame) {
    m_started = true;
    m_passed = frame.m_sequence - 1;
    m_lost_mask = 0;
    m_position = frame.m_start;
    take(&frame);
}

void SMediaStreamSenderRecord::go_to_frame(CFrame* frame) {
    while (frame != nullptr) {
        arrive_at(*frame);
        if (!frame->isComplete() || frame->m_sequence <= m_passed) break;
        if (is_to_send(*frame)) {
            take(frame);
            return;
        }
        pass(*frame);
        frame = frame->m_next;
    }
    take(nullptr);
}

void SMediaStreamSenderRecord::arrive_at(const CFrame& frame) {
    // Removed frames leave a gap in the stream, which is as good as passed.
    m_position = std::max(m_position, frame.m_start);
    // The frame being filled may get more marks.
    if (!frame.isComplete() || frame.m_sequence <= m_passed + 1) return;
    m_skipped_late += frame.m_sequence - m_passed - 1;
    for (std::size_t channel = 0; channel < frame.m_lost.size(); ++channel) {
        if (frame.m_lost[channel] > m_passed) m_lost_mask |= static_cast<std::uint8_t>(1U << channel);
    }
    m_passed = frame.m_sequence - 1;
}

bool SMediaStreamSenderRecord::is_to_send(const CFrame& frame) {
    const auto bit = static_cast<std::uint8_t>(frame.bit());
    const bool is_lost = (m_lost_mask & bit) != 0;
    if (frame.m_valid == 1 && sends(bit) && (!is_lost || (frame.m_key_mask & bit) != 0)) {
        m_lost_mask &= static_cast<std::uint8_t>(~bit);
        return true;
    }
    (frame.m_valid != 1 ? m_skipped_late : !sends(bit) ? m_skipped_channel : m_skipped_to_key) += 1;
    m_lost_mask |= bit;
    return false;
}

void SMediaStreamSenderRecord::pass(const CFrame& frame) {
    m_position = frame.end();
    m_passed = frame.m_sequence;
}

void SMediaStreamSenderRecord::take(CFrame* frame) {
    CFrame* const old = m_held;
    if (frame != old) {
        uncount();
        if (frame != nullptr) frame->addSender();
        m_held = frame;
    }
    m_frame = frame;
    m_packet_index = 0;
    m_packet_offset = 0;
    m_frame_left = frame != nullptr ? frame->m_byte_len : 0;
    if (frame != old && old != nullptr) old->dropSender();
}

int SMediaStreamSenderRecord::write() {
    const iovec* const packets = m_frame->m_packet_info.get() + m_packet_index;
    const std::uint32_t packet_count = m_frame->m_packet_num - m_packet_index;
    if (m_packet_offset == 0) return SockWrite::writeV(*m_stream, packets, static_cast<int>(packet_count));
    // In a copy, since other senders read the frame's own list. Left unset on purpose: only what is used is
    // touched.
    std::array<iovec, SocketApi::MAX_ELEMENTS> rest;
    const auto rest_count = std::min<std::size_t>(packet_count, rest.size());
    std::copy_n(packets, rest_count, rest.begin());
    rest[0].iov_base += m_packet_offset;
    rest[0].iov_len -= m_packet_offset;
    return SockWrite::writeV(*m_stream, rest.data(), static_cast<int>(rest_count));
}

bool SMediaStreamSenderRecord::count_sent(std::int64_t bytes) {
    m_position += static_cast<std::uint64_t>(bytes);
    m_frame_left -= bytes;
    m_bytes_sent += static_cast<std::uint64_t>(bytes);
    if (m_frame_left <= 0) return true;
    m_frame->m_sending_bytes.fetch_add(bytes, std::memory_order_relaxed);
    m_counted += bytes;
    return false;
}

void SMediaStreamSenderRecord::advance(std::int64_t bytes) {
    bytes += m_packet_offset;
    while (m_packet_index < m_frame->m_packet_num &&
           bytes >= m_frame->m_packet_info[m_packet_index].iov_len) {
        bytes -= m_frame->m_packet_info[m_packet_index].iov_len;
        m_packet_index += 1;
    }
    m_packet_offset = static_cast<std::uint32_t>(bytes);
}

void SMediaStreamSenderRecord::finish_frame() {
    uncount();
    m_passed = std::max(m_passed, m_frame->m_sequence);
    m_frames_sent += 1;
    if (m_send_proc) {
        m_send_proc(m_frame->m_frame_info, m_frame->m_frame_info_value,
                    static_cast<int>(m_frame->m_byte_len));
    }
}

void SMediaStreamSenderRecord::uncount() {
    if (m_counted == 0) return;
    m_frame->m_sending_bytes.fetch_sub(m_counted, std::memory_order_relaxed);
    m_counted = 0;
}

void SMediaStreamSenderRecord::end_stall() {
    m_zero_count = 0;
    if (m_zero_since.isStalled()) m_zero_since.end(mediaNowUs());
}

}  // namespace Veltro::Ravelo
