#include "Core/SockTrace.h"

#include <Plinth/Time.h>

#include <cstdio>

#include "Core/NetHandlerRecord.h"
#include "Log.h"

// One line of the trace; an owner whose id is positive would be an error.
#define RAVELO_TRACE(owner_id, format, ...) \
    RAVELO_LOG_BARE((owner_id) > 0 ? ERROR : TRACE, "<Ravelo Debug>" format, __VA_ARGS__)

namespace Veltro::Ravelo::SockTrace::Line {

namespace {

constexpr int ERROR = Plinth::LOG_LEVEL_ERROR;
constexpr int TRACE = Plinth::LOG_LEVEL_TRACE;
constexpr unsigned LESS = CDebugControl::LEVEL_LESS;
constexpr unsigned MID = CDebugControl::LEVEL_MID;
constexpr unsigned MORE = CDebugControl::LEVEL_MORE;

bool isWanted(int fd, unsigned level) {
    return CDebugControl::SockDumpEnabled(fd, level);
}

int fdOf(const SEvent& record) {
    return static_cast<int>(record.key);
}

std::intmax_t ownerOf(const SEvent& record) {
    return record.obj_id.load(std::memory_order_relaxed);
}

int reventsOf(const SEvent& record) {
    return static_cast<int>(record.m_revents.load(std::memory_order_relaxed));
}

long idOf(const CNetHandler& handler) {
    return static_cast<long>(SNetHandlerRecord::of(handler).id());
}

const void* addressOf(const CNetHandler& handler) {
    return static_cast<const void*>(&handler);
}

}  // namespace

void registerSock(const CNetHandler& handler, int fd, unsigned mask, int timeout_ms) {
    if (!isWanted(fd, MID)) return;
    RAVELO_TRACE(idOf(handler),
                 "CNetSock::RegisterSock obj:%p, obj_id:%ld, obj_type:%s, socket:%d, mask:%d, time_out:%d\n",
                 addressOf(handler), idOf(handler), SNetHandlerRecord::className(&handler).c_str(), fd,
                 static_cast<int>(mask), timeout_ms);
}

void registerNew(const CNetHandler& handler, const SEvent& record, int timeout_ms) {
    if (!isWanted(fdOf(record), MID)) return;
    RAVELO_TRACE(
        idOf(handler),
        "CNetSock::register_new_event obj:%p, obj_id:%ld, obj_type:%s, socket:%d, mask:%u, time_out:%d\n",
        addressOf(handler), idOf(handler), SNetHandlerRecord::className(&handler).c_str(), fdOf(record),
        record.m_event_mask, timeout_ms);
}

void modifyExisting(const CNetHandler& handler, const SEvent& record, unsigned mask, int timeout_ms) {
    if (!isWanted(fdOf(record), LESS)) return;
    RAVELO_TRACE(idOf(handler),
                 "CNetSock::modify_exist_event obj:%p, obj_id:%ld, obj_type:%s, socket:%d, mask:%u, "
                 "time_out:%d, m_set_time:%d, m_revents:%d.\n",
                 addressOf(handler), idOf(handler), SNetHandlerRecord::className(&handler).c_str(),
                 fdOf(record), mask, timeout_ms, record.timer.m_set_time, reventsOf(record));
}

void unregisterSock(const CNetHandler& handler, int fd, unsigned mask) {
    if (!isWanted(fd, MID)) return;
    RAVELO_TRACE(idOf(handler),
                 "CNetSock::UnregisterSock obj:%p, obj_id:%ld, obj_type:%s, socket:%d, mask:%d.\n",
                 addressOf(handler), idOf(handler), SNetHandlerRecord::className(&handler).c_str(), fd,
                 static_cast<int>(mask));
}

void removeSock(const CNetHandler& handler, int fd, ERemoval removal) {
    if (!isWanted(fd, LESS)) return;
    const char* const variants[] = {"", " &1", " &2"};
    RAVELO_TRACE(idOf(handler), "CNetSock::RemoveSock%s obj:%p, obj_id:%ld, obj_type:%s, socket:%d.\n",
                 variants[static_cast<int>(removal)], addressOf(handler), idOf(handler),
                 SNetHandlerRecord::className(&handler).c_str(), fd);
}

void freeSock(const SEvent& record) {
    if (!isWanted(fdOf(record), LESS)) return;
    RAVELO_TRACE(ownerOf(record), "Enter CNetSock::remove_sock obj_id:%jd, socket:%jd.\n", ownerOf(record),
                 static_cast<std::intmax_t>(record.key));
}

void resetTimer(const SEvent& record, std::int64_t timeout_ms) {
    if (!isWanted(fdOf(record), MORE)) return;
    RAVELO_TRACE(ownerOf(record), "CNetSock::reset_timer obj_id:%jd, timt_out:%d, socket:%jd.\n",
                 ownerOf(record), static_cast<int>(timeout_ms), static_cast<std::intmax_t>(record.key));
}

void dispatchBegin(const SEvent& record, const CNetHandler& handler, EDispatch dispatch) {
    if (!isWanted(fdOf(record), MID)) return;
    const bool timed_out = dispatch == EDispatch::Timeout;
    RAVELO_TRACE(ownerOf(record),
                 "CNetSock::%s obj:%p, obj_id:%jd, obj_type:%s handle sock %s begin at %ju us, fd:%jd, "
                 "revents:%d.\n",
                 timed_out ? "handle_timeout" : "handle_net", addressOf(handler), ownerOf(record),
                 SNetHandlerRecord::className(&handler).c_str(), timed_out ? "timeout" : "event",
                 static_cast<std::uintmax_t>(Plinth::CTime::getCurrentMicroSecond()),
                 static_cast<std::intmax_t>(record.key), reventsOf(record));
}

void ownerNotFound(const SEvent& record, EDispatch dispatch) {
    if (!isWanted(fdOf(record), MID)) return;
    const bool timed_out = dispatch == EDispatch::Timeout;
    RAVELO_TRACE(ownerOf(record), "CNetSock::%s obj_id:%jd, handle sock %s: not found obj.\n",
                 timed_out ? "handle_timeout" : "handle_net", ownerOf(record),
                 timed_out ? "timeout" : "net event");
}

void dispatchEnd(SEvent& record, EDispatch dispatch, int result) {
    if (!isWanted(fdOf(record), LESS)) return;
    int mask;
    int set_time_ms;
    {
        Plinth::CLockGuard guard(record.mutex);
        mask = static_cast<int>(record.m_event_mask);
        set_time_ms = record.timer.m_set_time;
    }
    RAVELO_TRACE(ownerOf(record),
                 "%sCNetSock::handle_netevent %s end obj_id:%jd socket:%jd, m_revents:%d, m_event_mask:%d "
                 "ret:%jd, m_set_time:%d.\n",
                 dispatch == EDispatch::Timeout ? "" : "Enter ",
                 dispatch == EDispatch::Timeout ? "handle_timeout" : "handle_net", ownerOf(record),
                 static_cast<std::intmax_t>(record.key), reventsOf(record), mask,
                 static_cast<std::intmax_t>(result), set_time_ms);
}

void timer(const char* operation, const SEvent& record, const void* container) {
    if (!isWanted(fdOf(record), LESS)) return;
    RAVELO_TRACE(ownerOf(record),
                 "CSockTimer::%s SEvent: obj-id:%jd, event_mask:%u, revents:%u, set_time:%d, time_out:%jd, "
                 "container:%p\n",
                 operation, ownerOf(record), record.m_event_mask, static_cast<unsigned>(reventsOf(record)),
                 record.timer.m_set_time, static_cast<std::intmax_t>(record.timer.m_time_out), container);
}

}  // namespace Veltro::Ravelo::SockTrace::Line
