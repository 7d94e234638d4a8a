#include "fanout/Receivers.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/Clock.h"
#include "common/Net.h"
#include "common/Placement.h"

namespace Bench {

CReceivers::CReceivers() : m_epoll(epoll_create1(EPOLL_CLOEXEC)) {
    if (m_epoll < 0) die("epoll_create1");
}

CReceivers::~CReceivers() {
    for (const SConnection& connection : m_connections) close(connection.fd);
    close(m_epoll);
}

void CReceivers::Add(int fd) {
    m_connections.push_back(SConnection{fd});
}

void CReceivers::Start() {
    for (std::size_t i = 0; i < m_connections.size(); ++i) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = i;
        if (epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_connections[i].fd, &event) != 0) die("epoll_ctl");
    }
    if (pthread_create(&m_thread, nullptr, &CReceivers::run, this) != 0) die("pthread_create");
}

void CReceivers::Stop() {
    m_stop = true;
    pthread_join(m_thread, nullptr);
}

void* CReceivers::run(void* self) {
    pin_to(1);
    static_cast<CReceivers*>(self)->loop();
    return nullptr;
}

void CReceivers::loop() {
    std::array<epoll_event, 256> events;
    for (;;) {
        const int count = epoll_wait(m_epoll, events.data(), static_cast<int>(events.size()), 50);
        if (count < 0 && errno != EINTR) die("epoll_wait");
        if (count == 0 && m_stop) return;
        for (int i = 0; i < count; ++i) {
            if (!read(m_connections[events[static_cast<std::size_t>(i)].data.u64])) return;
        }
    }
}

bool CReceivers::read(SConnection& connection) {
    static thread_local std::array<char, 64 * 1024> buffer;
    const ssize_t received = recv(connection.fd, buffer.data(), buffer.size(), 0);
    if (received == 0) return false;
    if (received < 0) {
        if (errno != EAGAIN && errno != EINTR) die("recv");
        return true;
    }
    take(connection, buffer.data(), static_cast<std::size_t>(received), now_ns());
    return true;
}

void CReceivers::take(SConnection& connection, const char* data, std::size_t length, std::int64_t now) {
    while (length > 0) {
        const std::size_t part = std::min(length, PACKET_BYTES - connection.at);
        if (connection.at < sizeof(SHead)) {
            const std::size_t head = std::min(part, sizeof(SHead) - connection.at);
            std::memcpy(connection.head.data() + connection.at, data, head);
        }
        connection.at += part;
        data += part;
        length -= part;
        if (connection.at < PACKET_BYTES) return;
        connection.at = 0;
        SHead head;
        std::memcpy(&head, connection.head.data(), sizeof head);
        if (head.number != connection.next) die("a packet is missing");
        connection.next += 1;
        m_packets.fetch_add(1, std::memory_order_relaxed);
        if (m_measuring.load(std::memory_order_relaxed)) m_delays.Add(now - head.sent_ns);
    }
}

}  // namespace Bench
