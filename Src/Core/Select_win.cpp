// The multiplexer over select().
//
// The master sets hold what is to be waited for; a pass waits on a copy. A socket that fires leaves the
// master sets until its dispatch ends, and every change of the sets wakes the wait, which cannot see it
// otherwise.

#include <cstring>

#include "Core/Select.h"
#include "Core/WakePipe.h"
#include "Log.h"
#include "Socket/SocketApi.h"

namespace Veltro::Ravelo {

namespace {

/// Read, write and exception set, in this order.
struct SSetBlock {
    fd_set sets[3];
};

constexpr unsigned KINDS[3] = {EventMask::Read, EventMask::Write, EventMask::Except};

bool contains(const fd_set& set, SOCKET fd) {
    for (u_int i = 0; i < set.fd_count; ++i) {
        if (set.fd_array[i] == fd) return true;
    }
    return false;
}

void insertInto(fd_set& set, SOCKET fd, unsigned capacity) {
    if (set.fd_count < capacity && !contains(set, fd)) set.fd_array[set.fd_count++] = fd;
}

void removeFrom(fd_set& set, SOCKET fd) {
    for (u_int i = 0; i < set.fd_count; ++i) {
        if (set.fd_array[i] != fd) continue;
        --set.fd_count;
        std::memmove(&set.fd_array[i], &set.fd_array[i + 1], (set.fd_count - i) * sizeof set.fd_array[0]);
        return;
    }
}

void copySet(fd_set& to, const fd_set& from) {
    to.fd_count = from.fd_count;
    std::memcpy(to.fd_array, from.fd_array, from.fd_count * sizeof from.fd_array[0]);
}

/// Whether the system still knows the descriptor as a socket.
bool isSocket(SOCKET fd) {
    int type = 0;
    int length = sizeof type;
    return ::getsockopt(fd, SOL_SOCKET, SO_TYPE, reinterpret_cast<char*>(&type), &length) == 0;
}

}  // namespace

struct CMultiplexer::SImpl {
    Plinth::CMutex set_mutex;  // guards the master sets
    SSetBlock working;         // the waiting thread's own
    SSetBlock master PLINTH_GUARDED_BY(set_mutex);
    bool waiting PLINTH_GUARDED_BY(set_mutex) = false;  // a wait runs on an older copy of the master sets
    CWakePipe wake_pipe;
    const unsigned pool_number;
    const unsigned capacity;
    std::uint32_t last_generation PLINTH_GUARDED_BY(set_mutex) = 0;
    std::uint32_t wait_generation =
        0;  // the last generation that the running wait knows; the waiting thread's own

    SImpl(unsigned number, unsigned room) : pool_number(number), capacity(room) {
        for (int i = 0; i < 3; ++i) {
            working.sets[i].fd_count = 0;
            master.sets[i].fd_count = 0;
        }
    }

    void insert(SEvent& record) PLINTH_REQUIRES(set_mutex);
    void erase(SOCKET fd) PLINTH_REQUIRES(set_mutex);
    void copy_master();
    int select_once(timeval* limit);
    int sleep(CEventQueue& queue);
    unsigned received_events(SOCKET fd) const;
    bool fire(SEvent& record);
    void drop_bad_sockets();
};

unsigned CMultiplexer::maxCapacity() {
    return FD_SETSIZE;
}

CMultiplexer::CMultiplexer(unsigned pool_number, unsigned capacity)
    : m_impl(std::make_unique<SImpl>(pool_number, capacity)) {}

CMultiplexer::~CMultiplexer() = default;

int CMultiplexer::Init() {
    if (m_impl->wake_pipe.Create() != 0) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s :CreatePipe failed!\n", __func__);
        return -1;
    }
    Plinth::CLockGuard guard(m_impl->set_mutex);
    insertInto(m_impl->master.sets[0], static_cast<SOCKET>(m_impl->wake_pipe.readFd()), m_impl->capacity);
    return 0;
}

void CMultiplexer::SImpl::insert(SEvent& record) {
    // A wait that began before this arming may hold readiness of an earlier socket of the same number.
    record.generation.store(++last_generation, std::memory_order_relaxed);
    for (int i = 0; i < 3; ++i) {
        if (record.m_event_mask & KINDS[i]) {
            insertInto(master.sets[i], static_cast<SOCKET>(record.key), capacity);
        }
    }
}

void CMultiplexer::SImpl::erase(SOCKET fd) {
    for (fd_set& set : master.sets) removeFrom(set, fd);
}

void CMultiplexer::add(SEvent& record) {
    bool waiting;
    {
        Plinth::CLockGuard guard(m_impl->set_mutex);
        m_impl->insert(record);
        waiting = m_impl->waiting;
    }
    if (waiting) wake();
}

void CMultiplexer::rearm(SEvent& record, bool) {
    add(record);
}

void CMultiplexer::modify(SEvent& record) {
    bool waiting;
    {
        Plinth::CLockGuard guard(m_impl->set_mutex);
        m_impl->erase(static_cast<SOCKET>(record.key));
        m_impl->insert(record);
        waiting = m_impl->waiting;
    }
    if (waiting) wake();
}

// A socket in flight stands in no set, so its dispatch always ends with a fresh arming.
void CMultiplexer::markForRearm(SEvent&) {}

void CMultiplexer::remove(SEvent& record) {
    bool waiting;
    {
        Plinth::CLockGuard guard(m_impl->set_mutex);
        m_impl->erase(static_cast<SOCKET>(record.key));
        waiting = m_impl->waiting;
    }
    if (waiting) wake();
}

void CMultiplexer::wake() {
    m_impl->wake_pipe.wake();
}

void CMultiplexer::SImpl::copy_master() {
    Plinth::CLockGuard guard(set_mutex);
    for (int i = 0; i < 3; ++i) copySet(working.sets[i], master.sets[i]);
    wait_generation = last_generation;
    waiting = true;
}

int CMultiplexer::SImpl::select_once(timeval* limit) {
    copy_master();
    const int count = ::select(0, &working.sets[0], &working.sets[1], &working.sets[2], limit);
    const int error = SocketApi::lastError();
    {
        Plinth::CLockGuard guard(set_mutex);
        waiting = false;
    }
    SocketApi::setLastError(error);
    return count;
}

int CMultiplexer::SImpl::sleep(CEventQueue& queue) {
    CEventQueue::EWait wait = queue.beginWait();
    int count = 0;
    do {
        timeval limit{
            0, wait == CEventQueue::EWait::Serve ? 0 : static_cast<long>(CEventQueue::STANDBY_TICK_US)};
        count = select_once(wait == CEventQueue::EWait::Unlimited ? nullptr : &limit);
        if (count == 0 && wait == CEventQueue::EWait::Tick) {
            wait = queue.waitTick();
        } else {
            wait = CEventQueue::EWait::Serve;
        }
    } while (count == 0 && wait != CEventQueue::EWait::Serve);
    const int error = SocketApi::lastError();
    queue.endWait();
    SocketApi::setLastError(error);
    return count;
}

unsigned CMultiplexer::SImpl::received_events(SOCKET fd) const {
    if (contains(working.sets[2], fd)) return VL_POLLERR;
    unsigned received = VL_NOPOLL;
    if (contains(working.sets[0], fd)) received |= VL_POLLIN;
    if (contains(working.sets[1], fd)) received |= VL_POLLOUT;
    return received;
}

/// Sets the record's received events, if there are any; the record's mutex is held.
bool CMultiplexer::SImpl::fire(SEvent& record) {
    const bool known =
        static_cast<std::int32_t>(record.generation.load(std::memory_order_relaxed) - wait_generation) <= 0;
    if (!known || record.m_revents.load(std::memory_order_relaxed) != VL_NOPOLL) return false;
    const auto fd = static_cast<SOCKET>(record.key);
    const unsigned received = received_events(fd);
    if (received == VL_NOPOLL) return false;
    record.m_revents.store(received, std::memory_order_relaxed);
    record.timer.m_time_out = 0;
    Plinth::CLockGuard guard(set_mutex);
    erase(fd);
    return true;
}

/// After a failed wait: takes out what the system no longer knows as a socket, lest the pool wait no more.
void CMultiplexer::SImpl::drop_bad_sockets() {
    Plinth::CLockGuard guard(set_mutex);
    for (fd_set& set : master.sets) {
        for (u_int i = set.fd_count; i-- > 0;) {
            const SOCKET fd = set.fd_array[i];
            if (!isSocket(fd)) removeFrom(set, fd);
        }
    }
}

SQueueRecord* CMultiplexer::Wait(CBTree& sockets, CEventQueue& queue) {
    int ready = m_impl->sleep(queue);
    if (ready < 0) {
        const int error = SocketApi::lastError();
        if (SocketApi::isInterrupted(error)) return nullptr;
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "select failed!%d,%s\n", error,
                        SocketApi::errorText(error).data());
        m_impl->drop_bad_sockets();
        return nullptr;
    }
    if (ready > 0 && contains(m_impl->working.sets[0], static_cast<SOCKET>(m_impl->wake_pipe.readFd()))) {
        m_impl->wake_pipe.drain();
        --ready;
    }
    SQueueRecord* head = nullptr;
    if (ready <= 0) return head;
    SQueueRecord** tail = &head;
    Plinth::CReadGuard guard(sockets.lock());
    sockets.visit([&](SKeyedEntry* entry) {
        auto& record = *static_cast<SEvent*>(entry);
        Plinth::CLockGuard record_guard(record.mutex);
        if (m_impl->fire(record)) {
            record.next = nullptr;
            *tail = &record;
            tail = &record.next;
            --ready;
        }
        return ready > 0;
    });
    return head;
}

}  // namespace Veltro::Ravelo
