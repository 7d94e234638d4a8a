// How a media buffer drives its senders, and who else is linked to it.
#include <algorithm>

#include "R3/R3MediaTrace.h"
#include "Tool/MediaBufferRecord.h"
#include "Tool/MediaStreamSenderRecord.h"

namespace Veltro::Ravelo {

namespace {

CMediaStreamSender*& nextOf(const CMediaStreamSender& sender) {
    return SMediaStreamSenderRecord::of(sender).m_next_sender;
}

/// While one sender sends, the processor fetches what the two behind it will need: with thousands of them
/// nothing of theirs is left in its cache since the last pass.
/// @param next the sender after the one that sends; its record was fetched before. @return the one after it.
const CMediaStreamSender* lookAhead(const CMediaStreamSender& next) {
    __builtin_prefetch(SMediaStreamSenderRecord::of(next).m_stream);
    const CMediaStreamSender* const after_next = nextOf(next);
    __builtin_prefetch(after_next);
    return after_next;
}

}  // namespace

bool SMediaBufferRecord::add_sender(CMediaStreamSender& sender) {
    for (const CMediaStreamSender* old = m_sender_header; old != nullptr; old = nextOf(*old)) {
        if (old == &sender) return false;
    }
    SMediaStreamSenderRecord::of(sender).leave_stream();
    nextOf(sender) = m_sender_header;
    m_sender_header = &sender;
    m_has_sender = true;
    m_sender_num += 1;
    return true;
}

void SMediaBufferRecord::del_sender(CMediaStreamSender& sender) {
    CMediaStreamSender** link = &m_sender_header;
    while (*link != nullptr && *link != &sender) link = &nextOf(**link);
    if (*link != nullptr) {
        *link = nextOf(sender);
        nextOf(sender) = nullptr;
        m_sender_num -= 1;
        SMediaStreamSenderRecord::of(sender).leave_stream();
    }
    if (m_sender_header != nullptr || !m_has_sender) return;
    m_has_sender = false;
    drop_complete_frames();
}

CFrame* SMediaBufferRecord::place_of(const SMediaStreamSenderRecord& sender) {
    // A sender that keeps up has passed all but the tail.
    CFrame* const tail = m_frame_tail;
    const std::uint64_t before_tail = tail->isComplete() ? tail->m_sequence - 1 : m_sequence;
    if (sender.m_passed == before_tail) return tail;
    CFrame* frame = m_frame_header;
    while (frame->isComplete() && frame->m_sequence <= sender.m_passed && frame != tail)
        frame = frame->m_next;
    return frame;
}

std::uint64_t SMediaBufferRecord::send_to_all() {
    std::uint64_t should_discard = m_byte_discard;
    std::uint64_t min_pos = m_byte_total;
    bool has_position = false;
    R3MediaTrace::sendBegins(m_owner, should_discard, min_pos);
    for (CMediaStreamSender* sender = m_sender_header; sender != nullptr;) {
        CMediaStreamSender* const next = nextOf(*sender);
        const CMediaStreamSender* const after_next = next != nullptr ? lookAhead(*next) : nullptr;
        const std::int64_t position = send_to(*sender);
        if (position >= 0) {
            has_position = true;
            min_pos = std::min(min_pos, static_cast<std::uint64_t>(position));
            should_discard = min_pos;
        } else if (position == FAILED) {
            R3MediaTrace::senderDeleted(m_owner, *sender);
            del_sender(*sender);
            if (!m_has_sender) return 0;
        }
        if (after_next != nullptr) SMediaStreamSenderRecord::of(*after_next).prefetch();
        sender = next;
    }
    R3MediaTrace::sendEnds(m_owner, should_discard, m_byte_discard);
    // What was removed from the middle counts as discarded, so the number of bytes does not say which frames
    // all have passed: their ends do.
    return has_position ? min_pos : 0;
}

std::int64_t SMediaBufferRecord::send_to(CMediaStreamSender& sender) {
    SMediaStreamSenderRecord& record = SMediaStreamSenderRecord::of(sender);
    if (!record.m_started) {
        // The rest of a frame of an earlier time comes first, whatever its positions were.
        if (record.m_frame != nullptr && call_send(sender) < 0) return FAILED;
        const CFrame& tail = *m_frame_tail;
        const bool joins = tail.isComplete() && tail.m_valid == 1 && record.sends(tail.m_key_mask);
        if (record.m_frame != nullptr || !joins) return NOT_STARTED;
        record.start(*m_frame_tail);
    }
    if (record.m_frame == nullptr) record.m_place = place_of(record);
    return call_send(sender);
}

std::int64_t SMediaBufferRecord::call_send(CMediaStreamSender& sender) {
    R3MediaTrace::senderSends(m_owner, sender, m_frame_tail);
    const std::int64_t position = sender.Send(m_frame_tail, m_byte_total);
    R3MediaTrace::senderHasSent(m_owner, sender, position);
    return position;
}

void SMediaBufferRecord::add_level2(CLevel2Buffer_IF& buffer) {
    for (const CLevel2Buffer_IF* old = m_buffer_header; old != nullptr; old = old->next) {
        if (old == &buffer) return;
    }
    buffer.next = m_buffer_header;
    m_buffer_header = &buffer;
}

void SMediaBufferRecord::del_level2(CLevel2Buffer_IF& buffer) {
    CLevel2Buffer_IF** link = &m_buffer_header;
    while (*link != nullptr && *link != &buffer) link = &(*link)->next;
    if (*link != nullptr) *link = buffer.next;
}

}  // namespace Veltro::Ravelo
