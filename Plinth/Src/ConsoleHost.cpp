#include <Plinth/Component.h>
#include <Plinth/Console.h>
#include <Plinth/Error.h>
#include <Plinth/Log.h>
#include <Plinth/Mutex.h>
#include <Plinth/Thread.h>
#include <Plinth/Time.h>

#include <exception>
#include <list>
#include <memory>
#include <vector>

#include "ConsoleCommands.h"
#include "ConsoleOperator.h"
#include "ConsoleTransport.h"
#include "Immortal.h"

namespace Veltro::Plinth {

namespace Transport = ConsoleTransport;

namespace {

/// How long the host leaves its listener alone when an operator could not be let in, so that it does not
/// spin.
constexpr int PAUSE_MS = 200;

/// The host's thread and what belongs to it.
class CHost {
public:
    CHost() : m_thread([this](CThreadLite& self) { serve(self); }, "Console") {}
    ~CHost() {
        m_thread.destroyThread();
        Transport::closeListener(m_listener);
        Transport::closeWaker(m_waker);
        if (m_started) Transport::cleanup();
    }
    CHost(const CHost&) = delete;
    CHost& operator=(const CHost&) = delete;

    bool start(const std::string& path) {
        m_started = Transport::startup();
        return m_started && Transport::openWaker(m_waker) && Transport::listen(path, m_listener) &&
               m_thread.createThread();
    }
    /// Ends the thread, and waits for it unless it is the caller.
    void stop() {
        m_thread.cancelThread();
        Transport::wake(m_waker);
        m_thread.destroyThread();
    }
    bool isOwnThread() const { return m_thread.getThreadId() == getCurrentThreadId(); }
    bool isOver() const { return m_thread.isThreadOver(); }
    const std::string& path() const { return m_listener.path; }

private:
    using Operators = std::list<CConsoleOperator>;

    void serve(CThreadLite& self);
    void pass();
    void letIn();
    void sendAwayOverdue();
    int timeout() const;

    Transport::SListener m_listener;
    Transport::SWaker m_waker;
    bool m_started = false;
    std::uint64_t m_listen_from_ms = 0;
    SConsoleBudget m_budget;
    Operators m_operators;
    std::vector<Transport::SWait> m_waits;
    CThreadLite m_thread;
};

void CHost::serve(CThreadLite& self) {
    while (self.looping()) {
        try {
            pass();
        } catch (const std::exception&) {
            // Short of memory. Whoever needed it is better without a console than the process without it.
            m_operators.clear();
        }
    }
    m_operators.clear();
}

/// How long to wait at most: while somebody is asked for the token or the listener rests, time matters.
int CHost::timeout() const {
    return m_listener.token.empty() && m_listen_from_ms == 0 ? -1 : PAUSE_MS;
}

void CHost::pass() {
    const std::uint64_t now_ms = CTime::getCurrentMilliSecond();
    if (now_ms >= m_listen_from_ms) m_listen_from_ms = 0;
    m_waits.clear();
    m_waits.push_back({m_waker.waiting_end, true, false, false, false});
    m_waits.push_back({m_listener.handle, m_listen_from_ms == 0, false, false, false});
    for (const CConsoleOperator& one : m_operators) m_waits.push_back(one.wish());
    Transport::wait(m_waits.data(), m_waits.size(), timeout());

    if (m_waits[0].can_read) Transport::drain(m_waker);
    std::size_t index = 2;
    for (auto one = m_operators.begin(); one != m_operators.end(); ++index) {
        const Transport::SWait& ready = m_waits[index];
        const bool stays = !(ready.can_read || ready.can_write) || one->serve(ready);
        one = stays ? std::next(one) : m_operators.erase(one);
    }
    sendAwayOverdue();
    if (m_waits[1].can_read) letIn();
}

void CHost::letIn() {
    const Transport::Handle handle = Transport::accept(m_listener);
    if (handle == Transport::NONE) {
        m_listen_from_ms = CTime::getCurrentMilliSecond() + PAUSE_MS;
        return;
    }
    m_operators.emplace_back(handle, m_listener.token, m_budget);
    if (m_operators.size() <= CConsoleHost::MAX_OPERATORS) return;
    m_operators.back().dismiss("too many operators\n");
    m_operators.pop_back();
}

void CHost::sendAwayOverdue() {
    const std::uint64_t now_ms = CTime::getCurrentMilliSecond();
    m_operators.remove_if([now_ms](const CConsoleOperator& one) { return one.isOverdue(now_ms); });
}

struct SState {
    CMutex mutex;
    std::unique_ptr<CHost> host PLINTH_GUARDED_BY(mutex);
};

/// Never destroyed: no thread is joined while the process's statics go.
SState& state() {
    static TImmortal<SState> instance;
    return instance.get();
}

bool refuse(const std::string& path, const char* reason) {
    logFilter(LOG_LEVEL_WARNING, "Unknown", "Console", "CConsoleHost::start", 0, "Unknown",
              "console not started at %s: %s %d\n", path.c_str(), reason, getLastError());
    return false;
}

bool isForeign(const std::shared_ptr<IConsole>& console) {
    return console && console != std::static_pointer_cast<IConsole>(CConsoleCommands::get());
}

/// The host that runs, out of the state; null when none does.
std::unique_ptr<CHost> takeHost() {
    CLockGuard guard(state().mutex);
    return std::move(state().host);
}

}  // namespace

std::string CConsoleHost::defaultFolder() {
    return Transport::defaultFolder();
}

std::string CConsoleHost::defaultPath(unsigned long process) {
    return defaultFolder() + "/" + std::to_string(process);
}

bool CConsoleHost::start(const char* path) {
    try {
        const std::string place = path != nullptr ? path : defaultPath(Transport::processId());
        // Outside of the lock: its thread may be on its way out.
        std::unique_ptr<CHost> former;
        CLockGuard guard(state().mutex);
        if (state().host && !state().host->isOver()) return refuse(place, "it runs already;");
        former = std::move(state().host);
        former.reset();
        if (isForeign(CComponentRegistry::getConsole(COMPONENT_SERVER_LOCAL))) {
            return refuse(place, "there is another console;");
        }
        if (path == nullptr && !Transport::makePrivateFolder(defaultFolder())) {
            return refuse(place, "no folder of one's own, error");
        }
        auto host = std::make_unique<CHost>();
        if (!host->start(place)) return refuse(place, "error");
        state().host = std::move(host);
        CComponentRegistry::setConsole(CConsoleCommands::get());
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

void CConsoleHost::stop() {
    auto host = takeHost();
    if (!host) return;
    CComponentRegistry::setConsole(nullptr);
    const bool is_own_thread = host->isOwnThread();
    host->stop();
    if (!is_own_thread) return;
    // A command ends the host that runs it: the next start() sees it out.
    CLockGuard guard(state().mutex);
    state().host = std::move(host);
}

std::string CConsoleHost::path() {
    CLockGuard guard(state().mutex);
    return state().host && !state().host->isOver() ? state().host->path() : std::string();
}

}  // namespace Veltro::Plinth
