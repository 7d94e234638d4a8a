#include "echo/LoadLoop.h"

#include <sys/epoll.h>
#include <unistd.h>

#include "common/Clock.h"
#include "common/Net.h"

namespace Bench {
namespace {

constexpr int kEventsPerWait = 512;
constexpr int kWaitMs = 20;
constexpr std::int64_t kPatienceNs = 5'000'000'000;

}  // namespace

CLoadLoop::CLoadLoop(const SLoadOptions& options, CLoadWindow& window, const CPayload& payload)
    : m_options(options), m_window(window), m_epoll(epoll_create1(EPOLL_CLOEXEC)) {
    if (m_epoll < 0) die("epoll_create1");
    for (unsigned i = 0; i < options.connections; ++i) m_clients.emplace_back(payload);
}

CLoadLoop::~CLoadLoop() {
    ::close(m_epoll);
}

void CLoadLoop::Run() {
    m_alive = m_options.connections;
    for (CLoadClient& client : m_clients) {
        client.started_ns = now_ns();
        open(client) ? start(client) : fail(client);
    }
    epoll_event events[kEventsPerWait];
    while (m_window.Advance(now_ns())) {
        const int count = epoll_wait(m_epoll, events, kEventsPerWait, kWaitMs);
        for (int i = 0; i < count; ++i) serve(*static_cast<CLoadClient*>(events[i].data.ptr));
    }
    finish_all();
}

/// A connection of the ping-pong is known to be served before the run starts: a burst of connects may
/// overflow the listening queue, and the retry would take a second.
bool CLoadLoop::open(CLoadClient& client) {
    if (!client.Connect(m_options.port)) return false;
    if (m_options.churn) return true;
    return client.Request(++m_number) != CLoadClient::State::Failed &&
           client.Finish(now_ns() + kPatienceNs) == CLoadClient::State::Answered;
}

void CLoadLoop::start(CLoadClient& client) {
    if (client.Request(++m_number) == CLoadClient::State::Failed) return fail(client);
    watch(client, EPOLL_CTL_ADD);
}

void CLoadLoop::watch(CLoadClient& client, int operation) {
    if (operation == EPOLL_CTL_MOD && client.awaits_room == client.Sending()) return;
    client.awaits_room = client.Sending();
    epoll_event event{};
    event.events = client.Sending() ? EPOLLIN | EPOLLOUT : EPOLLIN;
    event.data.ptr = &client;
    if (epoll_ctl(m_epoll, operation, client.Fd(), &event) != 0) die("epoll_ctl");
}

void CLoadLoop::serve(CLoadClient& client) {
    switch (client.Continue()) {
        case CLoadClient::State::Waiting:
            watch(client, EPOLL_CTL_MOD);
            break;
        case CLoadClient::State::Answered:
            answered(client);
            break;
        case CLoadClient::State::Failed:
            fail(client);
            break;
    }
}

void CLoadLoop::answered(CLoadClient& client) {
    const std::int64_t now = now_ns();
    m_window.Answered(client.started_ns, now);
    client.started_ns = now;
    if (m_options.churn) {
        client.Close();
        open(client) ? start(client) : fail(client);
        return;
    }
    if (client.Request(++m_number) == CLoadClient::State::Failed) return fail(client);
    watch(client, EPOLL_CTL_MOD);
}

void CLoadLoop::fail(CLoadClient& client) {
    m_window.Failed();
    client.Close();
    m_alive--;
}

void CLoadLoop::finish_all() {
    const std::int64_t until_ns = now_ns() + kPatienceNs;
    for (CLoadClient& client : m_clients) {
        if (client.Fd() >= 0 && client.Finish(until_ns) != CLoadClient::State::Answered) m_window.Failed();
        client.Close();
    }
}

}  // namespace Bench
