#pragma once

#include <memory>

#include "Core/BTree.h"
#include "Core/Event.h"
#include "Core/EventQueue.h"

namespace Veltro::Ravelo {

/// Waits for a pool's sockets; bodies in Select_linux.cpp (epoll) and Select_win.cpp (select).
///
/// A socket that fires is not reported again until add() arms it anew after its dispatch. Any thread may add,
/// modify, remove and wake; one thread at a time, the holder of the reactor token, waits. Lock order: socket
/// record, set mutex, wake mutex; on Windows a pass holds the socket table for reading outside all of them.
class CMultiplexer {
public:
    /// Sockets per kind of interest; see CNetThread::SetSocketCapacity.
    static constexpr unsigned DEFAULT_CAPACITY = 4096;
    /// The most that setCapacity() takes on this platform.
    static unsigned maxCapacity();

    /// @param capacity how many sockets each kind of interest has room for; one more is ignored.
    CMultiplexer(unsigned pool_number, unsigned capacity);
    ~CMultiplexer();
    CMultiplexer(const CMultiplexer&) = delete;
    CMultiplexer& operator=(const CMultiplexer&) = delete;

    /// Makes the wake pipe and what the platform waits with; 0, or -1 after a log line.
    int Init();

    /// @name With the record's mutex held.
    /// @{
    /// Arms a new socket with the record's mask.
    void add(SEvent& record);
    /// Arms the socket again at the end of its dispatch.
    /// @param is_drained whether the dispatch has read until nothing was left.
    void rearm(SEvent& record, bool is_drained);
    /// Arms the socket afresh, whatever the descriptor meant before.
    void modify(SEvent& record);
    /// Arms the socket afresh when its dispatch ends: its descriptor may mean another socket by then.
    void markForRearm(SEvent& record);
    /// Disarms the socket.
    void remove(SEvent& record);
    /// @}

    /// Ends the current wait, or the next; any number of wakes count as one.
    void wake();

    /// One pass: waits until sockets are ready, the queue wants to be served or wake() is called.
    /// @return the records that fired, received events set, linked by next; null when none did.
    SQueueRecord* Wait(CBTree& sockets, CEventQueue& queue);

private:
    struct SImpl;
    std::unique_ptr<SImpl> m_impl;
};

}  // namespace Veltro::Ravelo
