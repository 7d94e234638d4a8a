// The dispatch side of the socket registry: what happens to a record that fired.

#include <Ravelo/NetHandler.h>

#include <algorithm>

#include "Core/CurrentObject.h"
#include "Core/NetHandlerRecord.h"
#include "Core/NetSock.h"
#include "Core/SockTimer.h"
#include "Core/SockTrace.h"
#include "Core/ThreadPool.h"
#include "Socket/ReadWatch.h"

namespace Veltro::Ravelo {

namespace {

constexpr auto relaxed = std::memory_order_relaxed;
constexpr unsigned TIMEOUTS = VL_POLLIN_TIMEOUT | VL_POLLOUT_TIMEOUT;

/// What arrived is read anew before each callback: the one before may have removed the socket.
bool has(const SEvent& record, unsigned event) {
    return (record.m_revents.load(relaxed) & event) != 0;
}

int handleNet(CNetHandler& owner, const SEvent& record) {
    const int fd = static_cast<int>(record.key);
    if (has(record, VL_POLLERR)) return owner.handle_exception(fd);
    int result = -1;
    if (has(record, VL_POLLIN)) result = owner.handle_input(fd);
    if (has(record, VL_POLLOUT)) result = owner.handle_output(fd);
    return result;
}

/// A time-out is one-shot whatever its callback returns: the owner must register again to get another.
int handleTimeout(CNetHandler& owner, const SEvent& record) {
    const int fd = static_cast<int>(record.key);
    if (has(record, VL_POLLIN_TIMEOUT)) {
        owner.handle_input_timeout(fd);
    } else if (has(record, VL_POLLOUT_TIMEOUT)) {
        owner.handle_output_timeout(fd);
    }
    return -1;
}

CNetHandler* takeOwner(SEvent& record) {
    Plinth::CLockGuard guard(record.mutex);
    return record.owner.takeHandler();
}

int callOwner(CCurrentObject& current, SEvent& record, SockTrace::EDispatch dispatch) {
    CNetHandler* owner = takeOwner(record);
    if (owner == nullptr) {
        SockTrace::ownerNotFound(record, dispatch);
        return -1;
    }
    SockTrace::dispatchBegin(record, *owner, dispatch);
    current.set(*owner, SNetHandlerRecord::of(*owner).id());
    const bool timed_out = dispatch == SockTrace::EDispatch::Timeout;
    const int result = timed_out ? handleTimeout(*owner, record) : handleNet(*owner, record);
    current.clear();
    owner->DecRef();
    return result;
}

/// The next time-out in ms after a callback returned result microseconds.
std::int64_t nextTimeout(const SEvent& record, int result) {
    if (result == 0) return std::max(record.timer.m_set_time, 0);
    return result > 0 ? result / 1000 : result;
}

}  // namespace

void CNetSock::handle_netevent(CThreadPool& pool, CCurrentObject& current, SEvent& record) {
    current.readWatch().begin(static_cast<int>(record.key));
    const auto dispatch = has(record, TIMEOUTS) ? SockTrace::EDispatch::Timeout : SockTrace::EDispatch::Net;
    const int result = callOwner(current, record, dispatch);
    SockTrace::dispatchEnd(record, dispatch, result);
    while (!rearm(pool, record, result, current.readWatch().left())) {
        if (freeCondemned(pool, record)) return;
    }
}

/// Makes a record idle again; false when it is condemned. Freeing needs the table, which is not worth taking
/// for every event.
///
/// Bytes that wait inside the socket object, decrypted but not read, make no event: the record stays in
/// flight and is dispatched again behind what is queued by then.
bool CNetSock::rearm(CThreadPool& pool, SEvent& record, int result, CReadWatch::ELeft left) {
    bool is_again = false;
    {
        Plinth::CLockGuard guard(record.mutex);
        if (record.m_event_mask & EventMask::Delete) return false;
        is_again = left == CReadWatch::ELeft::Inside && (record.m_event_mask & EventMask::Read);
        const bool taken_back = has(record, VL_POLLDEL);
        record.m_revents.store(is_again ? VL_POLLIN : VL_NOPOLL, relaxed);
        if (!is_again) pool.multiplexer().rearm(record, left == CReadWatch::ELeft::Nothing);
        const std::int64_t next_ms = nextTimeout(record, taken_back ? 0 : result);
        // Nothing to do for the many sockets that have no time-out, unless the trace wants to know.
        if (next_ms > 0 || CSockTimer::isInList(record) || SockTrace::isOn()) reset_timer(record, next_ms);
    }
    if (is_again) pool.post(&record);
    return true;
}

/// Frees a condemned record, unless it was registered anew meanwhile.
bool CNetSock::freeCondemned(CThreadPool& pool, SEvent& record) PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    CBTree& sockets = pool.sockets();
    sockets.enterWrite();
    record.mutex.lock();
    const bool condemned = (record.m_event_mask & EventMask::Delete) != 0;
    if (condemned) sockets.eraseLocked(record.key);
    sockets.leaveWrite();
    if (condemned) {
        freeErased(record);
    } else {
        record.mutex.unlock();
    }
    return condemned;
}

}  // namespace Veltro::Ravelo
