#include <Plinth/Time.h>
#include <Ravelo/Sock.h>
#include <Ravelo/StreamSender.h>

#include <algorithm>
#include <memory>
#include <new>

#include "Core/HandlerHold.h"
#include "Log.h"
#include "R3/R3Trace.h"
#include "Tool/SockWrite.h"
#include "Tool/StreamSenderRecord.h"

namespace Veltro::Ravelo {

namespace {

std::uint64_t nowUs() {
    return Plinth::CTime::getCurrentMicroSecond();
}

}  // namespace

CStreamSender* CStreamSender::Create() {
    std::unique_ptr<SStreamSenderRecord> record(new (std::nothrow) SStreamSenderRecord);
    if (!record) return nullptr;
    {
        Plinth::CLockGuard guard(record->mutex);
        if (!record->m_buffer.grow(CSendBuffer::DEFAULT_BLOCKS)) return nullptr;
    }
    CStreamSender* sender = nullptr;
    try {
        sender = new (std::nothrow) CStreamSender(record.get());
    } catch (...) {
        // Only lack of memory leads here. If it were named, a DLL would export the type of that exception.
        return nullptr;
    }
    if (sender == nullptr) return nullptr;
    record->m_id = sender->GetID();
    record->m_entry.enter(SStreamSenderRecord::living(), *record);
    record.release();
    return sender;
}

CStreamSender::CStreamSender(SStreamSenderRecord* record) : m_internal(record) {}

CStreamSender::~CStreamSender() {
    delete m_internal;
}

// These are called with the record locked, which their declarations cannot say: a public header does not know
// the record. They stand before their callers.

void CStreamSender::check_buffer_free() PLINTH_REQUIRES(m_internal->mutex) {
    const auto free = static_cast<std::int32_t>(m_internal->m_buffer.free());
    for (auto& [id, wanted] : m_internal->m_wait_buffer) {
        if (wanted <= 0 || wanted > free) continue;
        Notify(id, NOTIFY_BUFFER_FREE, free);
        wanted = SStreamSenderRecord::ANSWERED;
    }
    if (m_internal->m_buffer.length() != 0) return;
    for (const std::int32_t id : m_internal->m_wait_finish) Notify(id, NOTIFY_SEND_FINISH, 0);
    m_internal->m_wait_finish.clear();
}

void CStreamSender::report_exception() PLINTH_REQUIRES(m_internal->mutex) {
    if (m_internal->m_exception_id == 0) return;
    static constexpr int LEVEL = Plinth::LOG_LEVEL_ERROR;
    static constexpr char NAME[] = "Veltro::Ravelo::CStreamSender::report_exception";
    const int fd = m_internal->m_stream->GetHandle();
    // One source line, so that both line numbers of the text are the same.
    RAVELO_LOG_THIS(LEVEL, "%s on line:%d CStreamSender socket exception! fd: %d\n", NAME, __LINE__, fd);
    Notify(m_internal->m_exception_id, NOTIFY_STREAM_EXCEPTION, 0);
}

/// Keeps a block but for what was sent of it. @return 0; -1 without memory, and nothing was kept.
int CStreamSender::put_buffer(const char* buf, unsigned int len, int already_sent)
    PLINTH_REQUIRES(m_internal->mutex) {
    RAVELO_ASSERT(len > (uint32_t)already_sent);
    const std::uint32_t rest = len - static_cast<std::uint32_t>(already_sent);
    const bool was_empty = m_internal->m_buffer.length() == 0;
    if (!m_internal->m_buffer.put(buf + already_sent, rest)) return -1;
    m_internal->m_bytes_taken += rest;
    if (was_empty) m_internal->m_stall.begin(nowUs());
    return 0;
}

/// Sends a block while nothing is queued. @return bytes sent; -1 failed, and reported.
int CStreamSender::send_first(const char* buf, unsigned int len) PLINTH_REQUIRES(m_internal->mutex) {
    RAVELO_ASSERT(SockWrite::isStream(m_internal->m_stream_type));
    const int sent = SockWrite::send(*m_internal->m_stream, buf, len);
    if (sent < 0) {
        report_exception();
        return -1;
    }
    m_internal->m_bytes_taken += static_cast<std::uint32_t>(sent);
    m_internal->m_bytes_sent += static_cast<std::uint32_t>(sent);
    return sent;
}

/// Keeps the rest of a block and waits for room. Without either the stream cannot go on: to the application
/// that is a failed socket.
int CStreamSender::keep_rest(const char* buf, unsigned int len, int sent) PLINTH_REQUIRES(m_internal->mutex) {
    if (put_buffer(buf, len, sent) != 0) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : no memory for the rest of a block, len:%u, sent:%d\n",
                        "Veltro::Ravelo::CStreamSender::Put", len, sent);
    } else if (m_internal->m_owner->RegisterSock(*m_internal->m_stream, EventMask::Write, 0) == 0) {
        return 0;
    }
    report_exception();
    return -1;
}

void CStreamSender::send_queued() PLINTH_REQUIRES(m_internal->mutex) {
    RAVELO_ASSERT(SockWrite::isStream(m_internal->m_stream_type));
    int count = 0;
    const iovec* elements = m_internal->m_buffer.gather(&count);
    const int sent = SockWrite::writeV(*m_internal->m_stream, elements, count);
    if (sent < 0) {
        m_internal->m_owner->RemoveSock(*m_internal->m_stream);
        report_exception();
        return;
    }
    if (sent == 0) return;
    m_internal->m_buffer.del_buffer_header(static_cast<std::uint32_t>(sent));
    m_internal->m_bytes_sent += static_cast<std::uint32_t>(sent);
    if (m_internal->m_buffer.length() == 0) m_internal->m_stall.end(nowUs());
    check_buffer_free();
}

int CStreamSender::Attach(CNetHandler* owner, CSock* stream) {
    if (owner == nullptr || stream == nullptr) return -1;
    Plinth::CLockGuard guard(m_internal->mutex);
    m_internal->m_owner = owner;
    m_internal->m_stream = stream;
    m_internal->m_stream_type = stream->GetType();
    m_internal->m_fd = stream->GetHandle();
    return 0;
}

CSock* CStreamSender::Detach() {
    // The owner's last reference may go while the registry is called, and its handle_close() may want the
    // sender.
    CHandlerHold hold;
    Plinth::CLockGuard guard(m_internal->mutex);
    if (m_internal->m_stream == nullptr) return nullptr;
    m_internal->m_fd = -1;
    hold.take(m_internal->m_owner);
    m_internal->m_owner->CheckSock(*m_internal->m_stream);
    return m_internal->m_stream;
}

int CStreamSender::Put(const char* buf, unsigned int len) {
    CHandlerHold hold;
    Plinth::CLockGuard guard(m_internal->mutex);
    const std::uint32_t BUF_SIZE = m_internal->m_buffer.capacity();
    CSock* const m_stream = m_internal->m_stream;
    RAVELO_ASSERT(buf != NULL && len <= BUF_SIZE);
    RAVELO_ASSERT(m_stream != NULL);
    R3Trace::senderPut(*this, len, *m_stream);
    if (len == 0) return 0;

    if (m_internal->m_buffer.length() == 0) {
        const int sent = send_first(buf, len);
        if (sent < 0) return -1;
        if (static_cast<std::uint32_t>(sent) < len) {
            hold.take(m_internal->m_owner);
            if (keep_rest(buf, len, sent) != 0) return -1;
        }
    } else if (m_internal->m_buffer.free() < len || put_buffer(buf, len, 0) != 0) {
        m_internal->m_refused_puts += 1;
        return -1;
    }
    m_internal->m_puts += 1;
    return 0;
}

int CStreamSender::Clear() {
    Plinth::CLockGuard guard(m_internal->mutex);
    CSendBuffer& buffer = m_internal->m_buffer;
    const std::uint32_t queued = buffer.length();
    buffer.clear(m_internal->m_stream != nullptr ? SockWrite::unfinished(*m_internal->m_stream) : 0);
    m_internal->m_bytes_cleared += queued - buffer.length();
    if (queued != 0 && buffer.length() == 0) m_internal->m_stall.end(nowUs());
    check_buffer_free();
    return 0;
}

int CStreamSender::SetBufferSize(unsigned int blocks) {
    Plinth::CLockGuard guard(m_internal->mutex);
    CSendBuffer& buffer = m_internal->m_buffer;
    if (blocks > buffer.blocks()) {
        if (blocks > CSendBuffer::MAX_BLOCKS || !buffer.grow(blocks)) return -1;
        check_buffer_free();
    } else if (blocks << SSendBuf::SHIFT < buffer.length()) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s buf size:%d smaller than data len:%d!\n",
                        "Veltro::Ravelo::CStreamSender::SetBufferSize",
                        static_cast<int>(blocks << SSendBuf::SHIFT), static_cast<int>(buffer.length()));
        RAVELO_ASSERT(0);
    }
    return 0;
}

unsigned int CStreamSender::GetBufferSize() {
    Plinth::CLockGuard guard(m_internal->mutex);
    return m_internal->m_buffer.blocks();
}

CStreamSender::SCounters CStreamSender::GetCounters() {
    Plinth::CLockGuard guard(m_internal->mutex);
    return {m_internal->m_puts,
            m_internal->m_refused_puts,
            m_internal->m_bytes_taken,
            m_internal->m_bytes_sent,
            m_internal->m_bytes_cleared,
            m_internal->m_stall.times(nowUs()).all_us,
            m_internal->m_buffer.length(),
            m_internal->m_buffer.free()};
}

void CStreamSender::WaitBufferSize(long id, unsigned int size) {
    Plinth::CLockGuard guard(m_internal->mutex);
    try {
        m_internal->m_wait_buffer[static_cast<std::int32_t>(id)] = static_cast<std::int32_t>(size);
    } catch (...) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : no memory for the wait of %ld\n",
                        "Veltro::Ravelo::CStreamSender::WaitBufferSize", id);
        return;
    }
    check_buffer_free();
}

void CStreamSender::WaitSendFinish(long id) {
    Plinth::CLockGuard guard(m_internal->mutex);
    auto& waiting = m_internal->m_wait_finish;
    const auto short_id = static_cast<std::int32_t>(id);
    try {
        if (std::find(waiting.begin(), waiting.end(), short_id) == waiting.end()) waiting.push_back(short_id);
    } catch (...) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : no memory for the wait of %ld\n",
                        "Veltro::Ravelo::CStreamSender::WaitSendFinish", id);
        return;
    }
    check_buffer_free();
}

void CStreamSender::WaitException(long id) {
    Plinth::CLockGuard guard(m_internal->mutex);
    m_internal->m_exception_id = static_cast<std::int32_t>(id);
}

int CStreamSender::handle_output(int handle) {
    Plinth::CLockGuard guard(m_internal->mutex);
    CSock* const m_stream = m_internal->m_stream;
    if (m_stream == nullptr) return -1;
    RAVELO_ASSERT(handle == m_stream->GetHandle());
    R3Trace::senderOutput(*this, *m_stream);
    if (m_internal->m_buffer.length() > 0) send_queued();
    if (m_internal->m_buffer.length() == 0) m_internal->m_owner->UnregisterSock(*m_stream, EventMask::Write);
    return 0;
}

int CStreamSender::handle_close(CNetHandler*) {
    {
        // A Put() or a handle_output() may still be on its way out.
        Plinth::CLockGuard guard(m_internal->mutex);
        m_internal->m_buffer.release();
        m_internal->m_stream = nullptr;
        m_internal->m_stream_type = SOCK_TYPE_UNKNOWN;
        m_internal->m_owner = nullptr;
    }
    delete this;
    return 0;
}

}  // namespace Veltro::Ravelo
