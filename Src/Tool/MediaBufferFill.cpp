// How a media buffer takes packets and makes frames of them.
#include <algorithm>

#include "Log.h"
#include "R3/R3MediaTrace.h"
#include "Tool/MediaBufferRecord.h"

namespace Veltro::Ravelo {

namespace {

/// The level argument's low 24 bits as a number from 1 to 10; they are a signed one.
std::int32_t levelOf(int level) {
    const auto shifted = static_cast<std::int32_t>(static_cast<std::uint32_t>(level) << 8);
    return std::clamp<std::int32_t>(shifted >> 8, 1, WORST_LEVEL);
}

std::uint32_t levelWord(int level) {
    return static_cast<std::uint32_t>(levelOf(level)) | (static_cast<std::uint32_t>(level) & 0xFF00'0000U);
}

bool fits(const CFrame& frame, std::uint32_t length_bytes) {
    return frame.m_packet_num < CMediaBuffer::MAX_FRAME_PACKETS &&
           frame.m_byte_len + length_bytes <= CMediaBuffer::MAX_FRAME_BYTES;
}

}  // namespace

void SMediaBufferRecord::offer(CMediaPacket* packet, int len, int mark, int level) {
    CLevel2Buffer_IF** link = &m_buffer_header;
    while (CLevel2Buffer_IF* buffer = *link) {
        // One that refuses may be gone when the call returns.
        CLevel2Buffer_IF* const next = buffer->next;
        if (buffer->PutPacket(packet, len, mark, level) < 0) {
            *link = next;
        } else {
            link = &buffer->next;
        }
    }
}

bool SMediaBufferRecord::store(CMediaPacket* packet, int len, int mark, int level) {
    const auto length_bytes = static_cast<std::uint32_t>(std::max(len, 0));
    const bool is_open = open_frame();
    R3MediaTrace::bufferPut(m_owner, packet, len, mark, level);
    if (!m_dropping && is_open && fits(*m_frame_tail, length_bytes) &&
        m_frame_tail->Put(packet, length_bytes, mark, levelWord(level))) {
        m_byte_total += length_bytes;
        if (mark == 1) end_frame(level);
        return true;
    }
    packet->Release();
    if (!m_dropping) drop_tail();
    if (mark == 1) end_frame(level);
    return false;
}

/// What is left of a frame that lacks a packet is of no use.
void SMediaBufferRecord::drop_tail() {
    m_dropping = true;
    if (m_frame_tail == nullptr || m_frame_tail->isComplete()) return;
    m_byte_total -= static_cast<std::uint64_t>(m_frame_tail->m_byte_len);
    m_frame_tail->reset();
}

void SMediaBufferRecord::end_frame(int level) {
    const int channel = static_cast<signed char>(level >> 24);
    RAVELO_ASSERT(channel <= 7 && channel >= 0);
    if (m_dropping) {
        drop_tail();  // an information that has come meanwhile
        m_dropping = false;
        m_frames_dropped += 1;
        m_dropped[static_cast<std::size_t>(channel)] = ++m_sequence;
    } else if (m_frame_tail->m_byte_len == 0) {
        m_frame_tail->reset();  // nothing to send
    } else {
        complete_tail(channel);
    }
    m_send_pending = m_has_sender;
    if (!m_has_sender) drop_complete_frames();
}

void SMediaBufferRecord::complete_tail(int channel) {
    CFrame& frame = *m_frame_tail;
    std::int32_t& best = m_min_level[static_cast<std::size_t>(channel)];
    best = std::min(best, frame.level());
    if (best == frame.level()) frame.m_key_mask = frame.bit();
    frame.m_sequence = ++m_sequence;
    for (std::size_t i = 0; i < frame.m_lost.size(); ++i) {
        frame.m_lost[i] = std::max(frame.m_lost[i], m_dropped[i]);
    }
    m_frames_put += 1;
}

bool SMediaBufferRecord::open_frame() {
    if (m_frame_tail != nullptr && !m_frame_tail->isComplete()) return true;
    CFrame* frame = CFrame::create(m_byte_total);
    if (frame == nullptr) return false;
    (m_frame_tail == nullptr ? m_frame_header : m_frame_tail->m_next) = frame;
    m_frame_tail = frame;
    m_frame_num += 1;
    return true;
}

}  // namespace Veltro::Ravelo
