#include <Ravelo/MediaStreamReceiver.h>

#include <algorithm>
#include <limits>
#include <new>

#include "Log.h"
#include "R3/R3Trace.h"
#include "Socket/SocketApi.h"
#include "Tool/MediaStreamReceiverRecord.h"
#include "Tool/RecvThreads.h"
#include "Tool/ToolClock.h"

namespace Veltro::Ravelo {

namespace {

/// A media time at a playback rate, whatever the rate is: what does not fit becomes the nearest that does.
std::int64_t scaled(std::int64_t media_us, float rate) {
    constexpr double LIMIT = 9.2e18;
    const double result = static_cast<double>(media_us) / static_cast<double>(rate);
    if (!(result < LIMIT)) return std::numeric_limits<std::int64_t>::max();
    return result > -LIMIT ? static_cast<std::int64_t>(result) : std::numeric_limits<std::int64_t>::min();
}

/// Wraps around where it must: times of an application may be anything.
std::int64_t difference(std::int64_t left, std::int64_t right) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(left) - static_cast<std::uint64_t>(right));
}

}  // namespace

void SMediaStreamReceiverRecord::restart(std::int64_t offset_us, float rate) {
    m_start_offset = rate == 1.0F ? offset_us : 0;
    m_rate = rate;
    m_media_base = UNKNOWN_US;
}

std::int32_t SMediaStreamReceiverRecord::pace(std::int64_t media_us, std::uint64_t now_us,
                                              std::int64_t pace_us) {
    const std::int64_t played_us = scaled(media_us, m_rate);
    if (m_media_base == UNKNOWN_US) {
        m_media_base = played_us;
        m_real_base = now_us;
    }
    const auto due_us =
        static_cast<std::int64_t>(now_us + static_cast<std::uint64_t>(m_start_offset) - m_real_base);
    const std::int64_t ahead_us = difference(difference(played_us, m_media_base), due_us);
    constexpr std::int64_t GREATEST = std::numeric_limits<std::int64_t>::max();
    const std::int64_t ticks = (pace_us + std::min(ahead_us, GREATEST - pace_us)) / pace_us;
    return static_cast<std::int32_t>(std::clamp<std::int64_t>(ticks, std::numeric_limits<std::int32_t>::min(),
                                                              std::numeric_limits<std::int32_t>::max()));
}

CMediaStreamReceiver::CMediaStreamReceiver() : m_internal(new (std::nothrow) SMediaStreamReceiverRecord) {}

CMediaStreamReceiver::~CMediaStreamReceiver() {
    delete m_internal;
}

int CMediaStreamReceiver::handle_stream_input() {
    return 0;
}
std::int64_t CMediaStreamReceiver::handle_passive_input() {
    return 0;
}
int CMediaStreamReceiver::handle_stream_write() {
    return 0;
}

void CMediaStreamReceiver::SetReceiveMode(receiver_mode mode) {
    if (m_internal != nullptr) m_internal->m_mode = mode;
}

void CMediaStreamReceiver::WaitException(long id) {
    if (m_internal != nullptr) m_internal->m_exception_id = id;
}

void CMediaStreamReceiver::SetFrameRate(unsigned int) {
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "this interface SetFrameRate is discarded!!%s\n",
                    "Veltro::Ravelo::CMediaStreamReceiver::SetFrameRate");
}

void CMediaStreamReceiver::StartReceive(std::int64_t offset, float rate) {
    static constexpr char NAME[] = "Veltro::Ravelo::CMediaStreamReceiver::StartReceive";
    std::uint32_t state = RECEIVER_CREATED;
    int result = -1;
    // Logged without the lock; and nothing is touched behind it, since the receiver may have ended itself.
    if (m_internal != nullptr) {
        Plinth::CLockGuard guard(m_internal->mutex);
        state = m_internal->m_state;
        if (state == RECEIVER_CREATED || state == RECEIVER_STOPPED) {
            m_internal->restart(offset, rate);
            // Before it joins, so that the first tick finds it running.
            m_internal->m_state = RECEIVER_RUNNING;
            result = state == RECEIVER_CREATED ? RecvThreads::join(*this) : 0;
            if (result != 0) m_internal->m_state = RECEIVER_CREATED;
        }
    }
    if (result == 0) return;
    if (state == RECEIVER_CREATED) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : Thread start failed. error:%d, %s\n", NAME, error,
                        SocketApi::errorText(error).data());
    } else {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : this receiver already started!\n", NAME);
    }
}

void CMediaStreamReceiver::StopReceive() {
    if (m_internal != nullptr) {
        Plinth::CLockGuard guard(m_internal->mutex);
        if (m_internal->m_state == RECEIVER_RUNNING) {
            m_internal->m_state = RECEIVER_STOPPED;
            return;
        }
    }
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : Can't stop a receiver not in running state!\n",
                    "Veltro::Ravelo::CMediaStreamReceiver::StopReceive");
}

void CMediaStreamReceiver::Close() {
    std::uint32_t state = RECEIVER_CREATED;
    if (m_internal != nullptr) {
        Plinth::CLockGuard guard(m_internal->mutex);
        state = m_internal->m_state;
        if (state == RECEIVER_CLOSING || state == RECEIVER_CLOSED) return;
        m_internal->m_state = RECEIVER_CLOSING;
    }
    if (state == RECEIVER_CREATED) {
        end();
    } else {
        // Not under the lock: the pacing thread may end the object as soon as it sees this.
        m_internal->m_state = RECEIVER_CLOSED;
    }
}

/// Ends a receiver that is in no group's list, or no more.
void CMediaStreamReceiver::end() {
    if (m_internal != nullptr) {
        {
            // The pacing thread calls a receiver without its lock, so StartReceive() may still be on its way
            // out when a first tick has led here already: it is waited for.
            Plinth::CLockGuard guard(m_internal->mutex);
            m_internal->m_state = RECEIVER_CLOSED;
        }
        const long exception_id = m_internal->m_exception_id;
        if (exception_id != 0) Notify(exception_id, NOTIFY_RECEIVER_CLOSED, 0);
    }
    CNetHandler::Close();
}

/// One tick. @param pace_us the period by which RECEIVE_MODE_PASSIVE counts its ticks.
void CMediaStreamReceiver::do_receive(std::int64_t pace_us) {
    R3Trace::receiverBegin(*this);
    std::int64_t result = 0;
    switch (m_internal->m_mode) {
        case RECEIVE_MODE_STREAM:
            result = handle_stream_input();
            break;
        case RECEIVE_MODE_PASSIVE:
            result = receive_passive(pace_us);
            break;
        case RECEIVE_MODE_WRITE:
            result = handle_stream_write();
            break;
        default:
            break;
    }
    const int error = result < 0 ? SocketApi::lastError() : 0;
    const long exception_id = m_internal->m_exception_id;
    if (result < 0 && exception_id != 0) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING,
                        "MediaStreamReceiver do_receive socket exception, error:%d, %s\n", error,
                        SocketApi::errorText(error).data());
        Notify(exception_id, NOTIFY_STREAM_EXCEPTION, 0);
    }
    R3Trace::receiverEnd(*this);
}

/// @return what the last call returned; 0 when it was not yet time for one.
std::int64_t CMediaStreamReceiver::receive_passive(std::int64_t pace_us) {
    SMediaStreamReceiverRecord& record = *m_internal;
    if (record.m_countdown > 0) record.m_countdown -= 1;
    std::int64_t media_us = 0;
    for (int calls = 0; calls < SMediaStreamReceiverRecord::MAX_CALLS && record.m_countdown <= 0; ++calls) {
        media_us = handle_passive_input();
        if (media_us < 1) break;
        Plinth::CLockGuard guard(record.mutex);
        if (record.m_state != RECEIVER_RUNNING) break;
        record.m_countdown = record.pace(media_us, toolNowUs(), pace_us);
    }
    return media_us;
}

}  // namespace Veltro::Ravelo
