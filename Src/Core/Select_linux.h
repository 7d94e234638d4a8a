// What the two sides of the multiplexer over epoll share: arming and waiting.
#pragma once

#include <sys/epoll.h>

#include <array>
#include <atomic>
#include <cstdint>

#include "Core/OrphanWatch.h"
#include "Core/Select.h"
#include "Core/SpinBudget.h"
#include "Core/WakePipe.h"

namespace Veltro::Ravelo {

inline constexpr unsigned INTEREST = EventMask::Read | EventMask::Write | EventMask::Except;
// Bits of SEvent::armed beyond the interest that the kernel knows.
inline constexpr unsigned ARMED_ADDED = 0x100;    // the descriptor stands in the epoll set
inline constexpr unsigned ARMED_SILENT = 0x200;   // it stands there without reporting
inline constexpr unsigned ARMED_STALE = 0x400;    // the descriptor may name another file by now
inline constexpr unsigned ARMED_EDGE = 0x800;     // only what arrives from now on is reported
inline constexpr unsigned ARMED_MISSED = 0x1000;  // and more than a drained socket's next bytes has been

inline constexpr std::uint64_t WAKE_TAG = ~std::uint64_t{0};

// What the kernel keeps for a socket: its record's address and, in the bits that no address uses, the
// generation of its arming. A record's memory stays a record while there are pools, so a late event is safe
// to follow; one whose generation is not the record's any more is void.
inline constexpr unsigned ADDRESS_BITS = 48;

inline std::uint64_t tagOf(const SEvent& record) {
    const std::uint64_t generation = record.generation.load(std::memory_order_relaxed);
    return generation << ADDRESS_BITS | reinterpret_cast<std::uintptr_t>(&record);
}

/// The address of a tag's record; of WAKE_TAG none that is one.
inline std::uintptr_t addressOf(std::uint64_t tag) {
    return tag & ((std::uint64_t{1} << ADDRESS_BITS) - 1);
}

inline SEvent& recordOf(std::uint64_t tag) {
    return *reinterpret_cast<SEvent*>(addressOf(tag));
}

inline std::uint32_t epollEvents(unsigned interest) {
    std::uint32_t events = 0;
    if (interest & EventMask::Read) events |= EPOLLIN;
    if (interest & EventMask::Write) events |= EPOLLOUT;
    if (interest & EventMask::Except) events |= EPOLLPRI;
    return events;
}

struct CMultiplexer::SImpl {
    Plinth::CMutex set_mutex;  // guards the counts of armed sockets
    int epoll_fd = -1;
    CWakePipe wake_pipe;
    const unsigned pool_number;
    const unsigned capacity;
    unsigned read_count PLINTH_GUARDED_BY(set_mutex) = 0;
    unsigned write_count PLINTH_GUARDED_BY(set_mutex) = 0;
    unsigned except_count PLINTH_GUARDED_BY(set_mutex) = 0;
    // A record's way through the kernel orders nothing as far as the language goes; this does.
    std::atomic<unsigned> armings{0};

    /// Counts the calls of epoll_wait; written by the waiting thread only.
    std::atomic<std::uint32_t> wait_number{0};

    // The waiting thread's own.
    static constexpr int EVENTS_PER_WAIT = 256;
    std::array<epoll_event, EVENTS_PER_WAIT> events{};
    int reported = 0;  // events that the last wait gave
    int fired = 0;     // those of them that the passes since have gone through
    CSpinBudget spin;
    std::uint64_t last_poll_us = 0;
    COrphanWatch orphans;

    SImpl(unsigned number, unsigned room) : pool_number(number), capacity(room) {}

    unsigned take_room(unsigned interest) PLINTH_REQUIRES(set_mutex);
    void give_room(unsigned interest) PLINTH_REQUIRES(set_mutex);
    void arm(SEvent& record, unsigned trigger) PLINTH_EXCLUDES(set_mutex);
    void silence(SEvent& record) const;
    int poll(int timeout_ms);
    int poll_for_tick();
    int look_again(CEventQueue& queue);
    int sleep(CEventQueue& queue);
    int wait_for_events(CEventQueue& queue);
    bool has_events(CEventQueue& queue);
    SEvent* collect(const epoll_event& event);
    SQueueRecord* fire_next();
    void rebuild(CBTree& sockets);
};

}  // namespace Veltro::Ravelo
