// A look into the socket registry, and a handler for the time of a scope.
#pragma once

#include <Plinth/Semaphore.h>

#include "Core/NetHandlerRecord.h"
#include "Core/PoolTable.h"
#include "Core/ThreadPool.h"
#include "Support/LogCapture.h"
#include "Support/Reactor.h"
#include "Support/SocketPair.h"

namespace Veltro::TestSupport {

/// What the registry knows of a descriptor.
struct SSockState {
    bool registered = false;
    unsigned mask = 0;
    unsigned revents = 0;
    std::int32_t set_time = 0;
    std::int64_t time_out = 0;
    bool in_list = false;
    std::int64_t owner_id = 0;
};

inline SSockState sockState(int fd, int pool_number = 0) PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    const Ravelo::CPoolPin pool(pool_number);
    Ravelo::SEvent* record = pool->sockets().findSock(fd);
    if (record == nullptr) return {};
    const SSockState state{true,
                           record->m_event_mask,
                           record->m_revents.load(),
                           record->timer.m_set_time,
                           record->timer.m_time_out,
                           record->timer.linked,
                           record->obj_id.load()};
    record->mutex.unlock();
    return state;
}

/// Whether a registered socket waits, its last dispatch over.
inline bool isIdle(int fd) {
    const SSockState state = sockState(fd);
    return state.registered && state.revents == 0;
}

/// How many sockets a handler counts as its own.
inline std::int64_t sockCount(const CTestHandler* handler) {
    return Ravelo::SNetHandlerRecord::of(*handler).sockets.load();
}

/// Waits for a post; false when patience runs out.
inline bool pend(Plinth::CSemaphore& semaphore) {
    // The thread sanitizer does not see what a timed wait for a semaphore orders.
    return waitUntil([&semaphore] { return semaphore.tryPend(); });
}

/// A handler for the time of a scope: declare it behind what its callbacks use. Remove its sockets first.
class CScopedHandler {
public:
    explicit CScopedHandler(int pool = 0) : m_handler(new CTestHandler(pool)) {}
    ~CScopedHandler() { close(); }
    CScopedHandler(const CScopedHandler&) = delete;
    CScopedHandler& operator=(const CScopedHandler&) = delete;

    /// Ends the handler early.
    void close() {
        if (m_handler != nullptr) closeAndWait(m_handler);
        m_handler = nullptr;
    }
    /// Leaves the handler to somebody else.
    void release() { m_handler = nullptr; }
    CTestHandler* get() const { return m_handler; }
    CTestHandler* operator->() const { return m_handler; }

private:
    CTestHandler* m_handler;
};

/// Sends one byte to a socket that is read from by somebody else.
inline void sendByte(Ravelo::CSockStream& from) {
    EXPECT_EQ(1, from.Send("x", 1));
}

/// How many error lines there are, not counting those of a process without an operator console.
inline int errorLines(const CLogCapture& log) {
    return log.count(Plinth::LOG_LEVEL_ERROR, "") - log.count(Plinth::LOG_LEVEL_ERROR, "InitConsoleDebug");
}

/// Sends a few bytes and waits until they have arrived; to a socket that nobody reads from yet.
inline void sendText(Ravelo::CSockStream& from, const Ravelo::CSockStream& to, const std::string& text) {
    EXPECT_EQ(static_cast<int>(text.size()), from.Send(text.data(), static_cast<unsigned>(text.size())));
    EXPECT_TRUE(waitReadable(to));
}

/// Sends one byte of urgent data and waits until it has arrived.
inline void sendUrgent(Ravelo::CSockStream& from, const Ravelo::CSockStream& to) {
    EXPECT_EQ(1, ::send(from.GetHandle(), "!", 1, MSG_OOB));
    EXPECT_TRUE(waitFor(to, Ravelo::SocketApi::WAIT_EXCEPT));
}

/// Takes what is there from a descriptor; the number of bytes, or below 0.
inline int drain(int fd) {
    char bytes[4096];
    return Ravelo::SocketApi::recv(fd, bytes, sizeof bytes);
}

}  // namespace Veltro::TestSupport
