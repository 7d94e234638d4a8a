// A point that threads wait at until it opens.
#pragma once

#include <Plinth/Semaphore.h>

#include "Support/Reactor.h"

namespace Veltro::TestSupport {

/// Closed at first; open() lets everybody through, from then on. Any thread may call.
class CGate {
public:
    void open() {
        m_open.store(true);
        m_semaphore.post();
    }
    /// Waits until the gate is open; false when patience runs out.
    bool pass() {
        if (m_open.load()) return true;
        const bool opened = m_semaphore.pend(PATIENCE_MS * 1000);
        if (opened) m_semaphore.post();  // the next in line
        // Read after the wait, too: the thread sanitizer does not know the timed wait.
        return opened && m_open.load();
    }
    bool isOpen() const { return m_open.load(); }

private:
    std::atomic<bool> m_open{false};
    Plinth::CSemaphore m_semaphore;
};

/// Runs a body on a thread of its own; the destructor waits for it.
class CRunner {
public:
    explicit CRunner(std::function<void()> body)
        : m_thread([body = std::move(body)](Plinth::CThreadLite&) { body(); }, "runner") {
        EXPECT_TRUE(m_thread.createThread());
    }
    ~CRunner() { join(); }
    void join() { m_thread.destroyThread(); }
    bool isOver() const { return m_thread.isThreadOver(); }

private:
    Plinth::CThreadLite m_thread;
};

}  // namespace Veltro::TestSupport
