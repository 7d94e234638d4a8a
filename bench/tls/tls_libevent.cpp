// TLS server on libevent's bufferevent_openssl: one loop.
#include <event2/buffer.h>
#include <event2/bufferevent_ssl.h>
#include <event2/event.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>
#include <unordered_set>
#include <vector>

#include "common/Net.h"
#include "common/ServerMain.h"
#include "tls/TlsPeer.h"

namespace {

using namespace Bench;

const std::vector<char> s_block(STREAM_BLOCK_BYTES);

class CTlsLoop {
public:
    CTlsLoop(int listener, int stop);
    ~CTlsLoop();
    CTlsLoop(const CTlsLoop&) = delete;
    CTlsLoop& operator=(const CTlsLoop&) = delete;
    void Run() { event_base_dispatch(m_base); }

private:
    static void on_stop(int, short, void* self);
    static void on_accept(int listener, short, void* self);
    static void on_input(bufferevent* connection, void*);
    static void on_room(bufferevent* connection, void*);
    static void on_event(bufferevent* connection, short what, void* self);

    TSslContext m_context = server_context();
    event_base* m_base = event_base_new();
    event* m_accept;
    event* m_stop;
    std::unordered_set<bufferevent*> m_connections;
};

CTlsLoop::CTlsLoop(int listener, int stop) {
    m_accept = event_new(m_base, listener, EV_READ | EV_PERSIST, on_accept, this);
    m_stop = event_new(m_base, stop, EV_READ | EV_PERSIST, on_stop, this);
    event_add(m_accept, nullptr);
    event_add(m_stop, nullptr);
}

CTlsLoop::~CTlsLoop() {
    for (bufferevent* connection : m_connections) bufferevent_free(connection);
    event_free(m_accept);
    event_free(m_stop);
    event_base_free(m_base);
}

void CTlsLoop::on_stop(int, short, void* self) {
    event_base_loopbreak(static_cast<CTlsLoop*>(self)->m_base);
}

void CTlsLoop::on_accept(int listener, short, void* self) {
    auto* loop = static_cast<CTlsLoop*>(self);
    const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;
    set_no_delay(fd);
    bufferevent* connection = bufferevent_openssl_socket_new(
        loop->m_base, fd, SSL_new(loop->m_context.get()), BUFFEREVENT_SSL_ACCEPTING, BEV_OPT_CLOSE_ON_FREE);
    loop->m_connections.insert(connection);
    bufferevent_setcb(connection, on_input, nullptr, on_event, loop);
    bufferevent_enable(connection, EV_READ | EV_WRITE);
}

void CTlsLoop::on_input(bufferevent* connection, void* self) {
    char wish = 0;
    while (bufferevent_read(connection, &wish, 1) == 1) {
        if (wish == PING) bufferevent_write(connection, &wish, 1);
        if (wish == STREAM) {
            bufferevent_setcb(connection, on_input, on_room, on_event, self);
            on_room(connection, nullptr);
        }
    }
}

void CTlsLoop::on_room(bufferevent* connection, void*) {
    evbuffer_add_reference(bufferevent_get_output(connection), s_block.data(), s_block.size(), nullptr,
                           nullptr);
}

void CTlsLoop::on_event(bufferevent* connection, short what, void* self) {
    if ((what & (BEV_EVENT_EOF | BEV_EVENT_ERROR)) == 0) return;
    SSL_shutdown(bufferevent_openssl_get_ssl(connection));
    static_cast<CTlsLoop*>(self)->m_connections.erase(connection);
    bufferevent_free(connection);
}

}  // namespace

int main(int argc, char** argv) {
    const SServerOptions options = prepare_server(argc, argv);
    const int listener = listen_on(options.port, false);
    CStopEvent stop;
    std::thread server([&] { CTlsLoop(listener, stop.Fd()).Run(); });
    announce_port(local_port(listener));
    wait_for_stop();
    stop.Raise();
    server.join();
    close(listener);
    return 0;
}
