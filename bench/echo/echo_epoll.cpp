// Echo server on raw epoll: what the system itself costs.
//
// Level-triggered; per event one recv and one send, or one accept. Each thread has its own epoll; they share
// the listening socket, which wakes one of them per connection.
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <thread>
#include <unordered_set>
#include <vector>

#include "common/Net.h"
#include "common/ServerMain.h"
#include "echo/Rest.h"

namespace {

using namespace Bench;

struct SConnection {
    int fd;
    CRest rest;
};

bool try_again() {
    return errno == EAGAIN || errno == EINTR;
}

class CEpollLoop {
public:
    CEpollLoop(int listener, int stop, std::size_t buffer_bytes);
    ~CEpollLoop();
    CEpollLoop(const CEpollLoop&) = delete;
    CEpollLoop& operator=(const CEpollLoop&) = delete;
    void Run();

private:
    void watch(int operation, int fd, std::uint32_t events, void* data);
    void accept_one();
    void serve(SConnection* connection, std::uint32_t events);
    bool echo(SConnection* connection);
    bool send_rest(SConnection* connection);
    void drop(SConnection* connection);

    int m_listener;
    int m_stop;
    int m_epoll;
    std::vector<char> m_buffer;
    std::unordered_set<SConnection*> m_connections;
};

CEpollLoop::CEpollLoop(int listener, int stop, std::size_t buffer_bytes)
    : m_listener(listener), m_stop(stop), m_epoll(epoll_create1(EPOLL_CLOEXEC)), m_buffer(buffer_bytes) {
    if (m_epoll < 0) die("epoll_create1");
    watch(EPOLL_CTL_ADD, m_listener, EPOLLIN | EPOLLEXCLUSIVE, &m_listener);
    watch(EPOLL_CTL_ADD, m_stop, EPOLLIN, &m_stop);
}

CEpollLoop::~CEpollLoop() {
    for (SConnection* connection : m_connections) {
        close(connection->fd);
        delete connection;
    }
    close(m_epoll);
}

void CEpollLoop::watch(int operation, int fd, std::uint32_t events, void* data) {
    epoll_event event{};
    event.events = events;
    event.data.ptr = data;
    if (epoll_ctl(m_epoll, operation, fd, &event) != 0) die("epoll_ctl");
}

void CEpollLoop::Run() {
    epoll_event events[512];
    for (;;) {
        const int count = epoll_wait(m_epoll, events, 512, -1);
        for (int i = 0; i < count; ++i) {
            void* data = events[i].data.ptr;
            if (data == &m_stop) return;
            if (data == &m_listener)
                accept_one();
            else
                serve(static_cast<SConnection*>(data), events[i].events);
        }
    }
}

void CEpollLoop::accept_one() {
    const int fd = accept4(m_listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;
    set_no_delay(fd);
    auto* connection = new SConnection{fd, {}};
    m_connections.insert(connection);
    watch(EPOLL_CTL_ADD, fd, EPOLLIN, connection);
}

void CEpollLoop::serve(SConnection* connection, std::uint32_t events) {
    const bool alive = (events & EPOLLOUT) != 0 ? send_rest(connection) : echo(connection);
    if (!alive) drop(connection);
}

bool CEpollLoop::echo(SConnection* connection) {
    const ssize_t received = recv(connection->fd, m_buffer.data(), m_buffer.size(), 0);
    if (received <= 0) return received < 0 && try_again();
    ssize_t sent = send(connection->fd, m_buffer.data(), static_cast<std::size_t>(received), MSG_NOSIGNAL);
    if (sent == received) return true;
    if (sent < 0 && !try_again()) return false;
    if (sent < 0) sent = 0;
    connection->rest.Keep(m_buffer.data() + sent, static_cast<std::size_t>(received - sent));
    watch(EPOLL_CTL_MOD, connection->fd, EPOLLOUT, connection);
    return true;
}

bool CEpollLoop::send_rest(SConnection* connection) {
    CRest& rest = connection->rest;
    const ssize_t sent = send(connection->fd, rest.Data(), rest.Size(), MSG_NOSIGNAL);
    if (sent < 0) return try_again();
    rest.Drop(static_cast<std::size_t>(sent));
    if (rest.Empty()) watch(EPOLL_CTL_MOD, connection->fd, EPOLLIN, connection);
    return true;
}

void CEpollLoop::drop(SConnection* connection) {
    close(connection->fd);
    m_connections.erase(connection);
    delete connection;
}

}  // namespace

int main(int argc, char** argv) {
    const SServerOptions options = prepare_server(argc, argv);
    const int listener = listen_on(options.port, false);
    CStopEvent stop;
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < options.threads; ++i)
        threads.emplace_back([&] { CEpollLoop(listener, stop.Fd(), options.buffer_bytes).Run(); });
    announce_port(local_port(listener));
    wait_for_stop();
    stop.Raise();
    for (std::thread& thread : threads) thread.join();
    close(listener);
    return 0;
}
