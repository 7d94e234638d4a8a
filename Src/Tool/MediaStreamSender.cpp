#include <Ravelo/MediaStreamSender.h>

#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "Log.h"
#include "R3/R3MediaTrace.h"
#include "Socket/SocketApi.h"
#include "Tool/MediaStreamSenderRecord.h"
#include "Tool/SockWrite.h"

namespace Veltro::Ravelo {

namespace {

constexpr std::uint64_t US_IN_A_SECOND = 1'000'000;
constexpr std::uint32_t WRITES_FOR_A_WARNING = 100;

}  // namespace

CMediaStreamSender* CMediaStreamSender::Create() {
    std::unique_ptr<SMediaStreamSenderRecord> record(new (std::nothrow) SMediaStreamSenderRecord);
    if (!record) return nullptr;
    CMediaStreamSender* sender = nullptr;
    try {
        sender = new (std::nothrow) CMediaStreamSender(record.get());
    } catch (...) {
        // Only lack of memory leads here. If it were named, a DLL would export the type of that exception.
        return nullptr;
    }
    if (sender == nullptr) return nullptr;
    record->m_id = sender->GetID();
    record->m_entry.enter(SMediaStreamSenderRecord::living(), *record);
    record.release();
    return sender;
}

CMediaStreamSender::CMediaStreamSender(SMediaStreamSenderRecord* record) : m_internal(record) {}

CMediaStreamSender::~CMediaStreamSender() {
    delete m_internal;
}

int CMediaStreamSender::handle_close(CNetHandler*) {
    delete this;
    return 0;
}

int CMediaStreamSender::Attach(CSock* stream) {
    m_internal->m_stream = stream;
    m_internal->m_fd = stream != nullptr ? stream->GetHandle() : -1;
    return 0;
}

CSock* CMediaStreamSender::Detach() {
    m_internal->m_fd = -1;
    return std::exchange(m_internal->m_stream, nullptr);
}

void CMediaStreamSender::WaitException(long id) {
    m_internal->m_exception_id = static_cast<std::int32_t>(id);
}

void CMediaStreamSender::SetSendTimeout(unsigned int seconds) {
    m_internal->m_send_timeout = seconds;
}

void CMediaStreamSender::SetSendChannel(int channel) {
    RAVELO_ASSERT(channel <= 7);
    std::atomic<std::uint8_t>& mask = m_internal->m_channel_mask;
    if (channel < 0) {
        mask = SMediaStreamSenderRecord::ALL_CHANNELS;
        return;
    }
    const auto bit = static_cast<std::uint8_t>(1U << channel);
    std::uint8_t old = mask.load();
    std::uint8_t wanted;
    do {
        wanted = old == SMediaStreamSenderRecord::ALL_CHANNELS ? bit : static_cast<std::uint8_t>(old | bit);
    } while (!mask.compare_exchange_weak(old, wanted));
}

void CMediaStreamSender::DisableSendChannel(int channel) {
    RAVELO_ASSERT(channel <= 7 && channel >= 0);
    m_internal->m_channel_mask &= static_cast<std::uint8_t>(~(1U << channel));
}

bool CMediaStreamSender::AttachSendProc(Plinth::TFunction3<void, CMediaPacket*, int, int> proc) {
    m_internal->m_send_proc = std::move(proc);
    return true;
}

bool CMediaStreamSender::DetachSendProc() {
    m_internal->m_send_proc = nullptr;
    return true;
}

std::int64_t CMediaStreamSender::Send(CFrame* frame, std::uint64_t) {
    SMediaStreamSenderRecord& record = *m_internal;
    CSock* const m_stream = record.m_stream;
    RAVELO_ASSERT(m_stream != NULL);
    R3MediaTrace::sendBegin(*this, frame);
    if (record.isBetweenFrames()) {
        // The frame is taken before the other data may let it wait: a sender's frame is not discarded.
        CFrame* const place = std::exchange(record.m_place, nullptr);
        record.go_to_frame(record.m_frame != nullptr ? record.m_frame : place != nullptr ? place : frame);
        const int other = check_other_data();
        if (other != 0) return other < 0 ? fail() : static_cast<std::int64_t>(record.m_position);
    }
    while (record.m_frame != nullptr) {
        const int sent = record.write();
        record.m_is_sealed = sent == 0 && SockWrite::unfinished(*m_stream) != 0;
        if (sent < 0) {
            if (record.m_exception_id != 0) {
                const int error = SocketApi::lastError();
                RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING,
                                "MediaStreamSender Send socket exception, error:%d, %s\n", error,
                                SocketApi::errorText(error).data());
                report_exception();
            }
            return fail();
        }
        if (sent == 0) {
            if (timed_out()) {
                RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING,
                                "MediaStreamSender Send socket exception for timeout!\n");
                report_exception();
            }
            warn_if_due();
            break;
        }
        record.end_stall();
        if (!record.count_sent(sent)) {
            record.advance(sent);
            break;
        }
        record.finish_frame();
        // A frame of an earlier time has no successor in this stream.
        record.go_to_frame(record.m_started ? record.m_frame->m_next : nullptr);
        const int other = check_other_data();
        if (other != 0) return other < 0 ? fail() : static_cast<std::int64_t>(record.m_position);
    }
    return static_cast<std::int64_t>(record.m_position);
}

int CMediaStreamSender::check_other_data() {
    SMediaStreamSenderRecord& record = *m_internal;
    if (record.m_other_len.load(std::memory_order_relaxed) == 0) return 0;
    Plinth::CLockGuard guard(record.mutex);
    const int sent = SockWrite::send(*record.m_stream, record.m_other_data.get(), record.m_other_len);
    if (sent < 0) {
        if (record.m_exception_id != 0) {
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING,
                            "MediaStreamSender check_other_data socket exception!\n");
            report_exception();
        }
        return sent;
    }
    if (sent > 0) {
        record.end_stall();
        record.m_other_len -= static_cast<std::uint32_t>(sent);
        std::memmove(record.m_other_data.get(), record.m_other_data.get() + sent, record.m_other_len);
        if (record.m_other_len == 0) record.m_other_data.reset();
        return static_cast<int>(record.m_other_len);
    }
    if (timed_out()) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING,
                        "MediaStreamSender check_other_data socket exception for timeout!\n");
        report_exception();
    }
    warn_if_due();
    return static_cast<int>(record.m_other_len);
}

/// Counts a write that took nothing. @return whether somebody is to be told that there were too many.
bool CMediaStreamSender::timed_out() {
    SMediaStreamSenderRecord& record = *m_internal;
    const std::uint64_t now_us = mediaNowUs();
    record.m_zero_count += 1;
    if (!record.m_zero_since.isStalled()) record.m_zero_since.begin(now_us);
    const std::uint32_t seconds = record.m_send_timeout;
    return seconds != SMediaStreamSenderRecord::NO_TIMEOUT && record.m_exception_id != 0 &&
           now_us - record.m_zero_since.since() >= seconds * US_IN_A_SECOND;
}

void CMediaStreamSender::warn_if_due() {
    const std::uint32_t zero_count = m_internal->m_zero_count;
    if (zero_count % WRITES_FOR_A_WARNING != 0) return;
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "MediaStreamSender net warnning %d!\n",
                    static_cast<int>(zero_count));
}

/// The socket sends no more: leaves the current frame to others.
std::int64_t CMediaStreamSender::fail() {
    m_internal->drop_frame();
    return -1;
}

void CMediaStreamSender::report_exception() {
    const std::int32_t id = m_internal->m_exception_id.exchange(0);
    if (id != 0) Notify(id, NOTIFY_STREAM_EXCEPTION, 0);
}

void CMediaStreamSender::SendOtherData(const char* data, int len) {
    if (data == nullptr || len < 1) return;
    SMediaStreamSenderRecord& record = *m_internal;
    Plinth::CLockGuard guard(record.mutex);
    if (static_cast<std::uint32_t>(len) > OTHER_DATA_BYTES - record.m_other_len) return;
    if (!record.m_other_data) record.m_other_data.reset(new (std::nothrow) char[OTHER_DATA_BYTES]);
    if (!record.m_other_data) return;
    std::memcpy(record.m_other_data.get() + record.m_other_len, data, static_cast<std::size_t>(len));
    record.m_other_len += static_cast<std::uint32_t>(len);
}

int CMediaStreamSender::GetTailPacket(char* buf, int len) {
    SMediaStreamSenderRecord& record = *m_internal;
    if (record.m_frame == nullptr || record.m_packet_offset == 0) return 0;
    const iovec& packet = record.m_frame->m_packet_info[record.m_packet_index];
    const auto tail = static_cast<int>(packet.iov_len - record.m_packet_offset);
    if (tail > len) return -1;
    std::memcpy(buf, packet.iov_base + record.m_packet_offset, static_cast<std::size_t>(tail));
    record.m_packet_index += 1;
    record.m_packet_offset = 0;
    if (!record.count_sent(tail)) return tail;
    record.finish_frame();
    // The frame's reference stays until the next one is taken, and none is taken here: the list may be
    // changing.
    record.m_frame = nullptr;
    record.m_packet_index = 0;
    return tail;
}

CMediaStreamSender::SCounters CMediaStreamSender::GetCounters() {
    return m_internal->figures().counters;
}

}  // namespace Veltro::Ravelo
