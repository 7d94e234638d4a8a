// The frames that a media buffer keeps: how they age, and how they go.
#include <algorithm>

#include "R3/R3MediaTrace.h"
#include "Tool/MediaBufferRecord.h"

namespace Veltro::Ravelo {

namespace {

constexpr std::int32_t STEPS_FOR_EACH_LEVEL = 10;
constexpr std::int32_t INVALID_AGE = -100;

}  // namespace

void SMediaBufferRecord::remark_all_frames() {
    for (CFrame* frame = m_frame_header; frame != nullptr && frame->isComplete(); frame = frame->m_next) {
        if (frame->m_valid != 1) continue;
        frame->m_age += 1;
        const bool is_old = frame->level() > WORST_LEVEL - frame->m_age / STEPS_FOR_EACH_LEVEL;
        if (!is_old || frame->senders() != 0) continue;
        frame->m_valid = 0;
        frame->m_age = INVALID_AGE;
        m_frames_discarded += 1;
        m_bytes_discarded += static_cast<std::uint64_t>(frame->m_byte_len);
    }
}

void SMediaBufferRecord::check_valid_frames() {
    std::uint32_t valid = 0;
    for (CFrame* frame = m_frame_header; frame != nullptr && frame->isComplete(); frame = frame->m_next) {
        if (frame->m_valid == 1 || frame->m_sending_bytes > 0) ++valid;
    }
    m_valid_frame_num = valid;
    if (valid >= 2) R3MediaTrace::validFrames(m_owner, valid, m_frame_num - valid);
}

void SMediaBufferRecord::rebuild_frame_list() {
    SChannels<std::uint64_t> lost = {};
    CFrame** link = &m_frame_header;
    while (CFrame* frame = *link) {
        for (std::size_t i = 0; i < lost.size(); ++i) lost[i] = std::max(lost[i], frame->m_lost[i]);
        if (frame->m_valid != 0 || frame == m_frame_tail) {
            frame->m_lost = lost;
            link = &frame->m_next;
            continue;
        }
        lost[frame->channel()] = frame->m_sequence;
        m_byte_discard += static_cast<std::uint64_t>(frame->m_byte_len);
        m_frame_num -= 1;
        R3MediaTrace::frameInvalid(m_owner, *frame, frame->m_byte_len, m_byte_discard);
        *link = frame->m_next;
        frame->leaveList();
    }
}

std::int64_t SMediaBufferRecord::delete_head() {
    CFrame* frame = m_frame_header;
    const std::int64_t length_bytes = frame->m_byte_len;
    m_frame_header = frame->m_next;
    if (m_frame_header == nullptr) m_frame_tail = nullptr;
    m_frame_num -= 1;
    m_byte_discard += static_cast<std::uint64_t>(length_bytes);
    frame->leaveList();
    return length_bytes;
}

void SMediaBufferRecord::drop_complete_frames() {
    // A frame that is being filled stays, whatever its marks were: it would go on in its middle otherwise.
    while (m_frame_header != nullptr && m_frame_header->isComplete()) delete_head();
    m_byte_total = sum_bytes();
    m_byte_discard = 0;
    if (m_frame_header != nullptr) m_frame_header->m_start = 0;
    m_valid_frame_num = 0;
}

std::uint64_t SMediaBufferRecord::sum_bytes() {
    std::int64_t sum = 0;
    for (const CFrame* frame = m_frame_header; frame != nullptr; frame = frame->m_next)
        sum += frame->m_byte_len;
    return static_cast<std::uint64_t>(sum);
}

}  // namespace Veltro::Ravelo
