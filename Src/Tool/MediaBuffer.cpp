#include <Ravelo/MediaBuffer.h>

#include <new>

#include "Log.h"
#include "R3/R3MediaTrace.h"
#include "Tool/MediaBufferRecord.h"

namespace Veltro::Ravelo {

CMediaPacket::~CMediaPacket() = default;

CLevel2Buffer_IF::~CLevel2Buffer_IF() = default;

CMediaBuffer::CMediaBuffer() : m_internal(new (std::nothrow) SMediaBufferRecord(*this)) {
    if (m_internal == nullptr) return;
    Plinth::CLockGuard guard(m_internal->mutex);
    m_internal->open_frame();
    m_internal->m_entry.enter(SMediaBufferRecord::living(), *m_internal);
}

CMediaBuffer::~CMediaBuffer() {
    Clear();
    DisableAutoSend();
    delete m_internal;
}

void CMediaBuffer::send_packet(SMediaBufferRecord& record) PLINTH_REQUIRES(record.mutex) {
    const std::uint64_t passed_by_all = record.send_to_all();
    while (record.m_frame_header != nullptr && record.m_frame_header->isComplete() &&
           record.m_frame_header->end() <= passed_by_all) {
        R3MediaTrace::frameSent(*this, *record.m_frame_header, record.m_frame_header->m_byte_len);
        record.delete_head();
    }
    if (record.m_frame_header != nullptr) return;
    const std::uint64_t discard_byte = record.m_byte_total - record.m_byte_discard;
    if (discard_byte == 0) return;
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING,
                    "CMediaBuffer::send_packet, unexcepted result, discard_byte =%ju \n",
                    static_cast<std::uintmax_t>(discard_byte));
    RAVELO_ASSERT(discard_byte == 0);
}

int CMediaBuffer::Put(CMediaPacket* packet, int len, int mark, int level) {
    return put(packet, len, mark, level, false);
}

void CMediaBuffer::do_send() {
    put(nullptr, 0, 1, 0, true);
}

int CMediaBuffer::put(CMediaPacket* packet, int len, int mark, int level, bool force) {
    if (m_internal == nullptr) {
        if (packet != nullptr) packet->Release();
        return -1;
    }
    SMediaBufferRecord& record = *m_internal;
    Plinth::CLockGuard guard(record.mutex);
    int result = 0;
    if (packet != nullptr) {
        record.m_send_pending = false;
        record.offer(packet, len, mark, level);
        result = record.store(packet, len, mark, level) ? 0 : -1;
    }
    if (!record.m_send_pending) return result;
    // Without memory for a frame, in an empty list, there is nothing to send or to age.
    if (record.m_frame_tail == nullptr && !record.open_frame()) return result;
    send_packet(record);
    // A frame may end with a packet of no bytes: it is newer than the others all the same.
    if (packet != nullptr || len != 0 || force) record.remark_all_frames();
    record.open_frame();
    record.check_valid_frames();
    record.rebuild_frame_list();
    return result;
}

int CMediaBuffer::PutFrameInfo(CMediaPacket* info, int value) {
    if (info == nullptr) return 0;
    if (m_internal != nullptr) {
        Plinth::CLockGuard guard(m_internal->mutex);
        if (m_internal->open_frame()) {
            m_internal->m_frame_tail->putInfo(info, value);
            return 0;
        }
    }
    info->Release();
    return -1;
}

void CMediaBuffer::AddSender(CMediaStreamSender* sender) {
    if (sender == nullptr || m_internal == nullptr) return;
    Plinth::CLockGuard guard(m_internal->mutex);
    m_internal->add_sender(*sender);
}

void CMediaBuffer::DelSender(CMediaStreamSender* sender) {
    if (sender == nullptr || m_internal == nullptr) return;
    Plinth::CLockGuard guard(m_internal->mutex);
    m_internal->del_sender(*sender);
}

void CMediaBuffer::AddLevel2Buffer(CLevel2Buffer_IF* buffer) {
    if (buffer == nullptr || m_internal == nullptr) return;
    Plinth::CLockGuard guard(m_internal->mutex);
    m_internal->add_level2(*buffer);
}

void CMediaBuffer::DelLevel2Buffer(CLevel2Buffer_IF* buffer) {
    if (buffer == nullptr || m_internal == nullptr) return;
    Plinth::CLockGuard guard(m_internal->mutex);
    m_internal->del_level2(*buffer);
}

void CMediaBuffer::Clear() {
    if (m_internal == nullptr) return;
    SMediaBufferRecord& record = *m_internal;
    static constexpr auto FILE_NAME = sourceName(__FILE__);
    static constexpr const char* FUNCTION_NAME = "Veltro::Ravelo::CMediaBuffer::Clear";
    Plinth::CLockGuard guard(record.mutex);
    if (record.m_sender_header != nullptr) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "%s:%d %s m_sender_header:%p not null\n",
                        FILE_NAME.text.data(), __LINE__, FUNCTION_NAME,
                        static_cast<const void*>(record.m_sender_header));
    }
    if (record.m_buffer_header != nullptr) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "%s:%d %s m_buffer_header:%p not null\n",
                        FILE_NAME.text.data(), __LINE__, FUNCTION_NAME,
                        static_cast<const void*>(record.m_buffer_header));
    }
    record.m_sender_header = nullptr;
    record.m_buffer_header = nullptr;
    record.m_has_sender = false;
    record.m_sender_num = 0;
    while (record.m_frame_header != nullptr) {
        // A line without the prefix that others have.
        constexpr int LINE = __LINE__;
        Plinth::logFilter(Plinth::LOG_LEVEL_WARNING, "Unknown", FILE_NAME.text.data(), "CMediaBuffer::Clear",
                          LINE, "Unknown", "%s:%d %s CMediaBuffer::Clear,m_frame_header:%p\n",
                          FILE_NAME.text.data(), LINE, FUNCTION_NAME,
                          static_cast<const void*>(record.m_frame_header));
        record.delete_head();
    }
    record.drop_complete_frames();
}

int CMediaBuffer::GetBufferNum() {
    return m_internal != nullptr ? static_cast<int>(m_internal->m_valid_frame_num.load()) : 0;
}

std::uint64_t CMediaBuffer::GetBufferSize() {
    if (m_internal == nullptr) return 0;
    Plinth::CLockGuard guard(m_internal->mutex);
    return m_internal->sum_bytes();
}

CMediaBuffer::SCounters CMediaBuffer::GetCounters() {
    if (m_internal == nullptr) return {};
    Plinth::CLockGuard guard(m_internal->mutex);
    return {m_internal->m_frame_num,     m_internal->m_valid_frame_num,  m_internal->sum_bytes(),
            m_internal->m_frames_put,    m_internal->m_frames_discarded, m_internal->m_bytes_discarded,
            m_internal->m_frames_dropped};
}

void CMediaBuffer::EnableAutoSend() {
    EnableAutoSend(100);
}

void CMediaBuffer::EnableAutoSend(std::uint64_t interval) {
    if (m_internal != nullptr) MediaAutoSend::enable(*m_internal, interval);
}

void CMediaBuffer::DisableAutoSend() {
    if (m_internal != nullptr) MediaAutoSend::disable(*m_internal);
}

}  // namespace Veltro::Ravelo
