#include "Core/NetSock.h"

#include <Ravelo/NetHandler.h>
#include <Ravelo/Sock.h>

#include <algorithm>

#include "Core/EventPool.h"
#include "Core/NetHandlerRecord.h"
#include "Core/PoolTable.h"
#include "Core/SockTimer.h"
#include "Core/SockTrace.h"
#include "Core/ThreadPool.h"
#include "Log.h"

namespace Veltro::Ravelo {

namespace {

constexpr auto relaxed = std::memory_order_relaxed;
/// The registry's own mask bit: an application that set it would end the record behind the registry's back.
constexpr unsigned RESERVED = EventMask::Delete;

CNetHandler* findOwner(std::int64_t owner_id) {
    const CPoolPin pool(poolOfId(owner_id));
    return pool ? pool->findHandler(owner_id) : nullptr;
}

/// Logs that a socket is protected by another handler. Without locks and pins: the owner's last reference may
/// be given back here.
/// @param operation, ending the two parts of the line that differ from operation to operation.
int refuse(const char* operation, const char* ending, int fd, std::int64_t owner_id,
           const CNetHandler& caller) {
    CNetHandler* owner = findOwner(owner_id);
    const std::string owner_type = owner != nullptr ? SNetHandlerRecord::className(owner) : "NULL";
    RAVELO_LOG(Plinth::LOG_LEVEL_ERROR,
               "%s failed, socket:%d, owner:%p, owner type:%s, new:%p, new type:%s%s\n", operation, fd,
               static_cast<const void*>(owner), owner_type.c_str(), static_cast<const void*>(&caller),
               SNetHandlerRecord::className(&caller).c_str(), ending);
    if (owner != nullptr) owner->DecRef();
    return -1;
}

/// Whether another handler than the caller owns the socket and keeps it to itself.
bool isProtectedFrom(const SEvent& record, std::int64_t caller_id) {
    return (record.m_event_mask & EventMask::Protect) && record.obj_id.load(relaxed) != caller_id;
}

bool isInFlight(const SEvent& record) {
    return record.m_revents.load(relaxed) != VL_NOPOLL;
}

void setOwner(SEvent& record, SNetHandlerRecord& owner) {
    record.obj_id.store(owner.id(), relaxed);
    record.owner = CHandlerShare(owner);
}

int logInvalidSock(const CNetHandler& handler, int fd, unsigned mask, int timeout_us) {
    RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "RegisterSock sock fd error, fd: %d\n", fd);
    RAVELO_LOG(Plinth::LOG_LEVEL_WARNING,
               "CNetSock Register an invalid sock, obj:%p, obj_id:%ld, obj_type:%s, socket:%d\n, mask:%d, "
               "time_out:%u\n",
               static_cast<const void*>(&handler), static_cast<long>(SNetHandlerRecord::of(handler).id()),
               SNetHandlerRecord::className(&handler).c_str(), fd, static_cast<int>(mask),
               static_cast<unsigned>(timeout_us));
    return -1;
}

/// The new record of a socket, locked and in the table; null when no memory is left.
SEvent* insertRecord(CBTree& sockets, SNetHandlerRecord& owner, int fd, unsigned mask)
    PLINTH_REQUIRES(sockets.lock()) PLINTH_NO_THREAD_SAFETY_ANALYSIS {  // hands the locked record over
    SEvent* record = CEventPool::get(fd);
    if (record == nullptr) return nullptr;
    record->mutex.lock();
    setOwner(*record, owner);
    record->m_event_mask = mask;
    if (sockets.insertLocked(record)) return record;
    record->mutex.unlock();
    CEventPool::put(record);
    return nullptr;
}

void register_new_event(CThreadPool& pool, const CNetHandler& handler, SEvent& record, int timeout_ms)
    PLINTH_REQUIRES(record.mutex) {
    if (timeout_ms > 0) CSockTimer::Add(record, timeout_ms);
    pool.multiplexer().add(record);
    record.owner.changeSockets(1);
    SockTrace::registerNew(handler, record, timeout_ms);
}

/// The record of a descriptor, locked, with the table held for writing; null when it is not registered.
SEvent* findRecord(CBTree& sockets, int fd) PLINTH_REQUIRES(sockets.lock()) {
    return fd < 0 ? nullptr : sockets.findSockLocked(fd);
}

/// The pool of a handler, unless it has gone and another has its number.
CThreadPool* poolOf(const CPoolPin& pin, const SNetHandlerRecord& handler) {
    return pin && pin->birth() == handler.pool_birth ? pin.get() : nullptr;
}

}  // namespace

/// Sets the next time-out of a record; t ms, 0 or less means none.
void CNetSock::reset_timer(SEvent& record, std::int64_t t) {
    SockTrace::resetTimer(record, t);
    const auto interval = static_cast<std::int32_t>(std::clamp<std::int64_t>(t, 0, INT32_MAX));
    if (CSockTimer::isInList(record)) {
        interval > 0 ? CSockTimer::Reset(record, interval) : CSockTimer::Delete(record);
    } else if (interval > 0) {
        CSockTimer::Add(record, interval);
    }
}

// The record's mutex is taken by the lookup or by insertRecord(), which the analysis cannot follow.
int CNetSock::RegisterSock(CNetHandler& handler, CSock& sock, unsigned mask,
                           int timeout_us) PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    const int fd = sock.GetHandle();
    if (fd < 0) return logInvalidSock(handler, fd, mask, timeout_us);
    if (fd <= 2) {
        RAVELO_LOG(Plinth::LOG_LEVEL_WARNING,
                   "RegisterSock sock fd specially with standard stream value: %d\n", fd);
    }
    SNetHandlerRecord& caller = SNetHandlerRecord::of(handler);
    CPoolPin pin(poolOfId(caller.id()));
    CThreadPool* pool = poolOf(pin, caller);
    if (pool == nullptr) return -1;
    const int timeout_ms = timeout_us / 1000;
    mask &= ~RESERVED;
    SockTrace::registerSock(handler, fd, mask, timeout_ms);

    CBTree& sockets = pool->sockets();
    sockets.enterWrite();
    SEvent* record = findRecord(sockets, fd);
    const bool exists = record != nullptr;
    if (!exists) record = insertRecord(sockets, caller, fd, mask);
    sockets.leaveWrite();
    if (record == nullptr) return -1;
    const std::int64_t owner_id = record->obj_id.load(relaxed);
    bool accepted = true;
    if (exists) {
        accepted = modify_exist_event(*pool, *record, handler, mask, timeout_ms);
    } else {
        register_new_event(*pool, handler, *record, timeout_ms);
    }
    record->mutex.unlock();
    if (accepted) return 0;
    pin.release();
    return refuse("modify a protected socket event", ",", fd, owner_id, handler);
}

/// Changes a registered socket, its record locked. Returns false when it is protected from the caller.
bool CNetSock::modify_exist_event(CThreadPool& pool, SEvent& record, CNetHandler& handler, unsigned mask,
                                  int timeout_ms) {
    SockTrace::modifyExisting(handler, record, mask, timeout_ms);
    SNetHandlerRecord& caller = SNetHandlerRecord::of(handler);
    const bool condemned = (record.m_event_mask & EventMask::Delete) != 0;
    if (isProtectedFrom(record, caller.id()) && !condemned) return false;
    const bool in_flight = isInFlight(record);
    setOwner(record, caller);
    if (record.timer.m_set_time != 0 || timeout_ms != 0) {
        if (in_flight) {
            record.timer.m_set_time = timeout_ms;  // takes effect when the dispatch arms the socket again
        } else {
            reset_timer(record, timeout_ms);
        }
    }
    record.m_event_mask |= mask;
    if (in_flight) {
        pool.multiplexer().markForRearm(record);
    } else {
        pool.multiplexer().modify(record);
    }
    if (condemned) {
        record.owner.changeSockets(1);
        record.m_event_mask &= ~unsigned{EventMask::Delete};
    }
    return true;
}

int CNetSock::UnregisterSock(CNetHandler& handler, CSock& sock,
                             unsigned mask) PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    const int fd = sock.GetHandle();
    const SNetHandlerRecord& caller = SNetHandlerRecord::of(handler);
    CPoolPin pin(poolOfId(caller.id()));
    CThreadPool* pool = poolOf(pin, caller);
    if (pool == nullptr) return -1;
    mask &= ~RESERVED;
    SockTrace::unregisterSock(handler, fd, mask);
    SEvent* record = fd < 0 ? nullptr : pool->sockets().findSock(fd);
    if (record == nullptr) return 0;
    const std::int64_t owner_id = record->obj_id.load(relaxed);
    const bool refused = isProtectedFrom(*record, caller.id());
    mask &= ~unsigned{EventMask::Delete};
    if (!refused && (record->m_event_mask & mask)) {
        record->m_event_mask &= ~mask;
        const bool idle_interest = !(record->m_event_mask & (EventMask::Read | EventMask::Write));
        if (idle_interest && CSockTimer::isInList(*record)) CSockTimer::Delete(*record);
        if (!isInFlight(*record)) pool->multiplexer().modify(*record);
    }
    record->mutex.unlock();
    if (!refused) return 0;
    pin.release();
    return refuse("unregister a protected socket event", "", fd, owner_id, handler);
}

int CNetSock::RemoveSock(CNetHandler& handler, CSock& sock) PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    const int fd = sock.GetHandle();
    const SNetHandlerRecord& caller = SNetHandlerRecord::of(handler);
    CPoolPin pin(poolOfId(caller.id()));
    CThreadPool* pool = poolOf(pin, caller);
    if (pool == nullptr) return -1;

    CBTree& sockets = pool->sockets();
    sockets.enterWrite();
    SEvent* record = findRecord(sockets, fd);
    if (record == nullptr) {
        sockets.leaveWrite();
        return 0;
    }
    if (isProtectedFrom(*record, caller.id())) {
        const std::int64_t owner_id = record->obj_id.load(relaxed);
        record->mutex.unlock();
        sockets.leaveWrite();
        pin.release();
        return refuse("remove a protected socket", "", fd, owner_id, handler);
    }
    if (isInFlight(*record)) {
        sockets.leaveWrite();
        const SockTrace::ERemoval removal = condemn(*pool, *record);
        record->mutex.unlock();
        SockTrace::removeSock(handler, fd, removal);
        return 0;
    }
    record->owner.changeSockets(-1);
    pool->multiplexer().remove(*record);
    sockets.eraseLocked(record->key);
    sockets.leaveWrite();
    SockTrace::removeSock(handler, fd, SockTrace::ERemoval::AtOnce);
    freeErased(*record);
    return 0;
}

/// Leaves the freeing of a record in flight to the worker that holds it. The socket is disarmed at once: the
/// application may close it before the dispatch ends.
SockTrace::ERemoval CNetSock::condemn(CThreadPool& pool, SEvent& record) {
    const bool condemned = (record.m_event_mask & EventMask::Delete) != 0;
    if (!condemned) record.owner.changeSockets(-1);
    record.m_revents.store(VL_POLLDEL, relaxed);
    record.m_event_mask = EventMask::Delete;
    pool.multiplexer().remove(record);
    return condemned ? SockTrace::ERemoval::DeferredBefore : SockTrace::ERemoval::Deferred;
}

/// Frees a record that is out of the table and locked.
void CNetSock::freeErased(SEvent& record) PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    SockTrace::freeSock(record);
    if (CSockTimer::isInList(record)) CSockTimer::Delete(record);
    record.mutex.unlock();
    CEventPool::put(&record);
}

int CNetSock::CheckSock(CNetHandler& handler, CSock& sock) PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    const int fd = sock.GetHandle();
    const SNetHandlerRecord& caller = SNetHandlerRecord::of(handler);
    unsigned mask;
    {
        const CPoolPin pin(poolOfId(caller.id()));
        CThreadPool* pool = poolOf(pin, caller);
        SEvent* record = pool != nullptr && fd >= 0 ? pool->sockets().findSock(fd) : nullptr;
        if (record == nullptr) return 0;
        mask = record->m_event_mask;
        record->mutex.unlock();
    }
    if (mask & EventMask::Read) {
        UnregisterSock(handler, sock, EventMask::Write);
    } else {
        RemoveSock(handler, sock);
    }
    return 0;
}

void CNetSock::freeRecord(SKeyedEntry* entry) {
    auto* record = static_cast<SEvent*>(entry);
    {
        Plinth::CLockGuard guard(record->mutex);
        if (CSockTimer::isInList(*record)) CSockTimer::Delete(*record);
        // A condemned record was taken off its owner's count when it was removed.
        if (!(record->m_event_mask & EventMask::Delete)) record->owner.changeSockets(-1);
    }
    CEventPool::put(record);
}

}  // namespace Veltro::Ravelo
