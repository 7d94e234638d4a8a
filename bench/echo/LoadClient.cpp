#include "echo/LoadClient.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/Clock.h"
#include "common/Net.h"

namespace Bench {
namespace {

constexpr std::size_t kChunk = 65536;

bool try_again() {
    return errno == EAGAIN || errno == EINTR || errno == ENOTCONN;
}

}  // namespace

bool CLoadClient::Connect(std::uint16_t port) {
    m_fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (m_fd < 0) return false;
    set_no_delay(m_fd);
    const linger reset{1, 0};
    setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(port);
    server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return connect(m_fd, reinterpret_cast<sockaddr*>(&server), sizeof server) == 0 || errno == EINPROGRESS;
}

CLoadClient::State CLoadClient::Request(std::uint64_t number) {
    m_request = m_payload.Stretch(number);
    m_wanted = m_payload.Size();
    m_sent = 0;
    m_received = 0;
    return send_some() ? State::Waiting : State::Failed;
}

CLoadClient::State CLoadClient::Continue() {
    if (Sending() && !send_some()) return State::Failed;
    if (!receive_some()) return State::Failed;
    return m_received == m_wanted ? State::Answered : State::Waiting;
}

CLoadClient::State CLoadClient::Finish(std::int64_t until_ns) {
    State state = State::Waiting;
    while (state == State::Waiting && m_received < m_wanted) {
        pollfd wait{m_fd, static_cast<short>(Sending() ? POLLIN | POLLOUT : POLLIN), 0};
        const std::int64_t wait_ms = std::max<std::int64_t>((until_ns - now_ns()) / 1'000'000, 0);
        if (poll(&wait, 1, static_cast<int>(wait_ms)) <= 0) return State::Failed;
        state = Continue();
    }
    return state;
}

bool CLoadClient::send_some() {
    const ssize_t sent = send(m_fd, m_request + m_sent, m_wanted - m_sent, MSG_NOSIGNAL);
    if (sent < 0) return try_again();
    m_sent += static_cast<std::size_t>(sent);
    return true;
}

bool CLoadClient::receive_some() {
    static char chunk[kChunk];
    const ssize_t received = recv(m_fd, chunk, kChunk, 0);
    if (received <= 0) return received < 0 && try_again();
    const auto length = static_cast<std::size_t>(received);
    if (length > m_sent - m_received) return false;
    const char* expected = m_request + m_received;
    m_received += length;
    return std::memcmp(chunk, expected, length) == 0;
}

void CLoadClient::Close() {
    if (m_fd >= 0) close(m_fd);
    m_fd = -1;
}

}  // namespace Bench
