// The multiplexer over epoll.
//
// Registrations are level-triggered and stay armed while a socket is dispatched: most dispatches end before
// the next pass, and then nothing has to be told to the kernel. A pass that meets a socket still in flight
// silences it; the end of the dispatch arms it again.
//
// A level-triggered socket is asked by the pass after its report whether it is ready still. The answer is
// known of one whose dispatches read until nothing is left: such a socket is edge-triggered until a dispatch
// leaves something. That saves one to two hundredths of a small request's time.

#include "Core/Select_linux.h"

#include <unistd.h>

#include <cerrno>

#include "Log.h"
#include "Socket/SocketApi.h"

namespace Veltro::Ravelo {

namespace {

/// After so many dispatches in a row that left nothing to read, the next ones are expected to do the same.
constexpr std::uint32_t EDGE_AFTER = 16;

/// Whether a short read means that nothing is left: other sockets may keep a record or a packet behind it.
bool isTcp(int fd) {
    int protocol = 0;
    return SocketApi::getOption(fd, SOL_SOCKET, SO_PROTOCOL, &protocol) == 0 && protocol == IPPROTO_TCP;
}

/// Whether a socket whose dispatch ends is to be edge-triggered.
bool usesEdges(SEvent& record, bool is_drained) {
    if (!is_drained || (record.m_event_mask & INTEREST) != EventMask::Read) {
        record.drained_in_a_row = 0;
        return false;
    }
    if (record.armed & ARMED_EDGE) return true;
    if (++record.drained_in_a_row < EDGE_AFTER) return false;
    record.drained_in_a_row = 0;
    return isTcp(static_cast<int>(record.key));
}

}  // namespace

unsigned CMultiplexer::maxCapacity() {
    return 1U << 24;
}

CMultiplexer::CMultiplexer(unsigned pool_number, unsigned capacity)
    : m_impl(std::make_unique<SImpl>(pool_number, capacity)) {}

CMultiplexer::~CMultiplexer() {
    if (m_impl->epoll_fd >= 0) ::close(m_impl->epoll_fd);
}

int CMultiplexer::Init() {
    m_impl->epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = WAKE_TAG;
    if (m_impl->epoll_fd < 0 || m_impl->wake_pipe.Create() != 0 ||
        epoll_ctl(m_impl->epoll_fd, EPOLL_CTL_ADD, m_impl->wake_pipe.readFd(), &event) != 0) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s :CreatePipe failed!\n", __func__);
        return -1;
    }
    return 0;
}

/// The part of an interest that there is room for, counted.
unsigned CMultiplexer::SImpl::take_room(unsigned interest) {
    unsigned taken = 0;
    const auto take = [this, interest, &taken](unsigned kind, unsigned& count) {
        if (!(interest & kind) || count >= capacity) return;
        ++count;
        taken |= kind;
    };
    take(EventMask::Read, read_count);
    take(EventMask::Write, write_count);
    take(EventMask::Except, except_count);
    return taken;
}

void CMultiplexer::SImpl::give_room(unsigned interest) {
    if (interest & EventMask::Read) --read_count;
    if (interest & EventMask::Write) --write_count;
    if (interest & EventMask::Except) --except_count;
}

/// Makes the kernel wait for the record's mask. Every arming gets a new tag, so that events received for an
/// earlier one, of another interest or of what the descriptor was before, are void. What is ready already is
/// reported whatever the trigger.
/// @param trigger ARMED_EDGE, or 0 for level-triggered.
void CMultiplexer::SImpl::arm(SEvent& record, unsigned trigger) {
    const int fd = static_cast<int>(record.key);
    Plinth::CLockGuard guard(set_mutex);
    give_room(record.armed & INTEREST);
    const unsigned interest = take_room(record.m_event_mask & INTEREST);
    const bool was_added = (record.armed & ARMED_ADDED) != 0;
    record.generation.fetch_add(1, std::memory_order_relaxed);
    record.armed = interest;
    if (interest == 0) {
        if (was_added) epoll_ctl(epoll_fd, EPOLL_CTL_DEL, fd, nullptr);
        return;
    }
    armings.fetch_add(1, std::memory_order_release);
    epoll_event event{};
    event.events = epollEvents(interest);
    // What else comes with the data would not be reported after it.
    if (trigger == ARMED_EDGE) event.events |= EPOLLET | EPOLLRDHUP | EPOLLPRI;
    event.data.u64 = tagOf(record);
    // The application may have closed the descriptor and got its number again, which only the kernel knows.
    const int first = was_added ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
    int result = epoll_ctl(epoll_fd, first, fd, &event);
    if (result != 0 && errno == ENOENT) result = epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &event);
    if (result != 0 && errno == EEXIST) result = epoll_ctl(epoll_fd, EPOLL_CTL_MOD, fd, &event);
    if (result == 0) {
        record.armed |= ARMED_ADDED | trigger;
    } else {
        give_room(interest);
        record.armed = 0;
    }
}

void CMultiplexer::add(SEvent& record) {
    record.armed_during = m_impl->wait_number.load();
    record.drained_in_a_row = 0;
    m_impl->arm(record, 0);
}

void CMultiplexer::rearm(SEvent& record, bool is_drained) {
    record.armed_during = m_impl->wait_number.load();
    const unsigned trigger = usesEdges(record, is_drained) ? ARMED_EDGE : 0;
    const unsigned wanted = (record.m_event_mask & INTEREST) | ARMED_ADDED | trigger;
    if (record.armed != wanted) m_impl->arm(record, trigger);
}

void CMultiplexer::modify(SEvent& record) {
    m_impl->arm(record, 0);
}

void CMultiplexer::markForRearm(SEvent& record) {
    record.armed = (record.armed & ~ARMED_EDGE) | ARMED_STALE;
    record.drained_in_a_row = 0;
}

void CMultiplexer::remove(SEvent& record) {
    if (record.armed & ARMED_ADDED) {
        epoll_ctl(m_impl->epoll_fd, EPOLL_CTL_DEL, static_cast<int>(record.key), nullptr);
    }
    Plinth::CLockGuard guard(m_impl->set_mutex);
    m_impl->give_room(record.armed & INTEREST);
    record.armed = 0;
    record.generation.fetch_add(1, std::memory_order_relaxed);
}

void CMultiplexer::wake() {
    m_impl->wake_pipe.wake();
}

/// A socket that is still being dispatched would be reported by every pass: the end of the dispatch arms it
/// again.
void CMultiplexer::SImpl::silence(SEvent& record) const {
    epoll_event event{};
    event.events = EPOLLONESHOT;  // errors and hang-ups, which cannot be masked, come once at most
    event.data.u64 = tagOf(record);
    epoll_ctl(epoll_fd, EPOLL_CTL_MOD, static_cast<int>(record.key), &event);
    record.armed |= ARMED_SILENT;
}

}  // namespace Veltro::Ravelo
