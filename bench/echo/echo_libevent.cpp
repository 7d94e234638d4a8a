// Echo server on libevent: plain events (not buffered ones, which copy), one base and one listening socket of
// a shared port per thread.
#include <event2/event.h>
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

class CEventLoop;

struct SConnection {
    CEventLoop* loop;
    int fd;
    event* readable;
    event* writable;  ///< made when first needed
    CRest rest;
};

bool try_again() {
    return errno == EAGAIN || errno == EINTR;
}

class CEventLoop {
public:
    CEventLoop(int listener, int stop, std::size_t buffer_bytes);
    ~CEventLoop();
    CEventLoop(const CEventLoop&) = delete;
    CEventLoop& operator=(const CEventLoop&) = delete;
    void Run() { event_base_dispatch(m_base); }

private:
    static void on_stop(int, short, void* self);
    static void on_accept(int listener, short, void* self);
    static void on_readable(int fd, short, void* connection);
    static void on_writable(int fd, short, void* connection);
    bool echo(SConnection* connection);
    void wait_for_room(SConnection* connection);
    void drop(SConnection* connection);
    static void free_connection(SConnection* connection);

    event_base* m_base;
    event* m_accept;
    event* m_stop;
    std::vector<char> m_buffer;
    std::unordered_set<SConnection*> m_connections;
};

CEventLoop::CEventLoop(int listener, int stop, std::size_t buffer_bytes)
    : m_base(event_base_new()), m_buffer(buffer_bytes) {
    m_accept = event_new(m_base, listener, EV_READ | EV_PERSIST, on_accept, this);
    m_stop = event_new(m_base, stop, EV_READ | EV_PERSIST, on_stop, this);
    event_add(m_accept, nullptr);
    event_add(m_stop, nullptr);
}

CEventLoop::~CEventLoop() {
    for (SConnection* connection : m_connections) free_connection(connection);
    event_free(m_accept);
    event_free(m_stop);
    event_base_free(m_base);
}

void CEventLoop::on_stop(int, short, void* self) {
    event_base_loopbreak(static_cast<CEventLoop*>(self)->m_base);
}

void CEventLoop::on_accept(int listener, short, void* self) {
    auto* loop = static_cast<CEventLoop*>(self);
    const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;
    set_no_delay(fd);
    auto* connection = new SConnection{loop, fd, nullptr, nullptr, {}};
    connection->readable = event_new(loop->m_base, fd, EV_READ | EV_PERSIST, on_readable, connection);
    event_add(connection->readable, nullptr);
    loop->m_connections.insert(connection);
}

void CEventLoop::on_readable(int, short, void* data) {
    auto* connection = static_cast<SConnection*>(data);
    if (!connection->loop->echo(connection)) connection->loop->drop(connection);
}

bool CEventLoop::echo(SConnection* connection) {
    const ssize_t received = recv(connection->fd, m_buffer.data(), m_buffer.size(), 0);
    if (received <= 0) return received < 0 && try_again();
    ssize_t sent = send(connection->fd, m_buffer.data(), static_cast<std::size_t>(received), MSG_NOSIGNAL);
    if (sent == received) return true;
    if (sent < 0 && !try_again()) return false;
    if (sent < 0) sent = 0;
    connection->rest.Keep(m_buffer.data() + sent, static_cast<std::size_t>(received - sent));
    wait_for_room(connection);
    return true;
}

void CEventLoop::wait_for_room(SConnection* connection) {
    if (connection->writable == nullptr)
        connection->writable =
            event_new(m_base, connection->fd, EV_WRITE | EV_PERSIST, on_writable, connection);
    event_del(connection->readable);
    event_add(connection->writable, nullptr);
}

void CEventLoop::on_writable(int fd, short, void* data) {
    auto* connection = static_cast<SConnection*>(data);
    CRest& rest = connection->rest;
    const ssize_t sent = send(fd, rest.Data(), rest.Size(), MSG_NOSIGNAL);
    if (sent < 0 && !try_again()) return connection->loop->drop(connection);
    if (sent > 0) rest.Drop(static_cast<std::size_t>(sent));
    if (!rest.Empty()) return;
    event_del(connection->writable);
    event_add(connection->readable, nullptr);
}

void CEventLoop::drop(SConnection* connection) {
    m_connections.erase(connection);
    free_connection(connection);
}

void CEventLoop::free_connection(SConnection* connection) {
    event_free(connection->readable);
    if (connection->writable != nullptr) event_free(connection->writable);
    close(connection->fd);
    delete connection;
}

}  // namespace

int main(int argc, char** argv) {
    const SServerOptions options = prepare_server(argc, argv);
    std::vector<int> listeners{listen_on(options.port, true)};
    const std::uint16_t port = local_port(listeners[0]);
    while (listeners.size() < options.threads) listeners.push_back(listen_on(port, true));
    CStopEvent stop;
    std::vector<std::thread> threads;
    for (const int listener : listeners)
        threads.emplace_back(
            [&stop, &options, listener] { CEventLoop(listener, stop.Fd(), options.buffer_bytes).Run(); });
    announce_port(port);
    wait_for_stop();
    stop.Raise();
    for (std::thread& thread : threads) thread.join();
    for (const int listener : listeners) close(listener);
    return 0;
}
