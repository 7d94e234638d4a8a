// A remote operator's terminal: a server, a session, and what came out of it.
#pragma once

#include <Plinth/Mutex.h>
#include <Plinth/Semaphore.h>

#include <memory>
#include <string>
#include <vector>

#include "R3/R3Daemon.h"

namespace Veltro::TestSupport {

/// The process's server from construction to destruction. Any thread may ask.
class CTerminal {
public:
    CTerminal() {
        session->setSender([this](const char* bytes, unsigned length) {
            Plinth::CLockGuard guard(m_mutex);
            m_chunks.emplace_back(bytes, length);
            m_arrived.post();
            return static_cast<int>(length);
        });
        const auto daemon = std::make_shared<Ravelo::CR3Daemon>();
        daemon->setSession(session);
        Ravelo::R3Server::setDaemon(daemon);
    }
    ~CTerminal() {
        Ravelo::R3Server::setDaemon(nullptr);
        session->setSender({});
    }
    CTerminal(const CTerminal&) = delete;
    CTerminal& operator=(const CTerminal&) = delete;

    std::vector<std::string> chunks() const {
        Plinth::CLockGuard guard(m_mutex);
        return m_chunks;
    }
    /// Waits until so many chunks have come; false when patience runs out.
    bool waitFor(std::size_t count) {
        while (chunks().size() < count) {
            if (!m_arrived.pend(20'000'000)) return false;
        }
        return true;
    }

    const std::shared_ptr<Ravelo::CR3Session> session = std::make_shared<Ravelo::CR3Session>();

private:
    mutable Plinth::CMutex m_mutex;
    std::vector<std::string> m_chunks PLINTH_GUARDED_BY(m_mutex);
    Plinth::CSemaphore m_arrived;
};

}  // namespace Veltro::TestSupport
