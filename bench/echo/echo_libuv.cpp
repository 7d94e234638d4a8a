// Echo server on libuv: one loop and one listening socket of a shared port per thread. What uv_try_write
// cannot send is kept and written by the loop.
#include <uv.h>

#include <thread>
#include <vector>

#include "common/Net.h"
#include "common/ServerMain.h"
#include "echo/Rest.h"

namespace {

using namespace Bench;

struct SConnection {
    uv_tcp_t stream;
    uv_write_t write;
    CRest rest;
    std::vector<char>* buffer;
};

uv_stream_t* as_stream(uv_tcp_t* tcp) {
    return reinterpret_cast<uv_stream_t*>(tcp);
}
uv_handle_t* as_handle(uv_tcp_t* tcp) {
    return reinterpret_cast<uv_handle_t*>(tcp);
}

class CUvLoop {
public:
    CUvLoop(int listener, int stop, std::size_t buffer_bytes);
    CUvLoop(const CUvLoop&) = delete;
    CUvLoop& operator=(const CUvLoop&) = delete;
    ~CUvLoop() { uv_loop_close(&m_loop); }
    void Run() { uv_run(&m_loop, UV_RUN_DEFAULT); }

private:
    static void on_stop(uv_poll_t* poll, int status, int events);
    static void on_connection(uv_stream_t* listener, int status);
    static void on_buffer(uv_handle_t* handle, std::size_t suggested, uv_buf_t* buffer);
    static void on_read(uv_stream_t* stream, ssize_t count, const uv_buf_t* buffer);
    static void on_rest_written(uv_write_t* write, int status);
    static void write_rest(SConnection* connection, const char* bytes, std::size_t length);
    static void drop(SConnection* connection);
    static void close_handle(uv_handle_t* handle, void* self);

    uv_loop_t m_loop{};
    uv_tcp_t m_listener{};
    uv_poll_t m_stop{};
    std::vector<char> m_buffer;
};

CUvLoop::CUvLoop(int listener, int stop, std::size_t buffer_bytes) : m_buffer(buffer_bytes) {
    uv_loop_init(&m_loop);
    uv_tcp_init(&m_loop, &m_listener);
    m_listener.data = this;
    if (uv_tcp_open(&m_listener, listener) != 0) die("uv_tcp_open");
    if (uv_listen(as_stream(&m_listener), 1024, on_connection) != 0) die("uv_listen");
    uv_poll_init(&m_loop, &m_stop, stop);
    m_stop.data = this;
    uv_poll_start(&m_stop, UV_READABLE, on_stop);
}

void CUvLoop::on_stop(uv_poll_t* poll, int, int) {
    auto* self = static_cast<CUvLoop*>(poll->data);
    uv_walk(&self->m_loop, close_handle, self);
}

void CUvLoop::close_handle(uv_handle_t* handle, void* data) {
    auto* self = static_cast<CUvLoop*>(data);
    const bool own = handle == as_handle(&self->m_listener) || handle->type == UV_POLL;
    if (uv_is_closing(handle) != 0) return;
    if (own)
        uv_close(handle, nullptr);
    else
        drop(reinterpret_cast<SConnection*>(handle));
}

void CUvLoop::on_connection(uv_stream_t* listener, int status) {
    if (status < 0) return;
    auto* self = static_cast<CUvLoop*>(listener->data);
    auto* connection = new SConnection{};
    connection->buffer = &self->m_buffer;
    uv_tcp_init(&self->m_loop, &connection->stream);
    if (uv_accept(listener, as_stream(&connection->stream)) != 0) return drop(connection);
    uv_tcp_nodelay(&connection->stream, 1);
    uv_read_start(as_stream(&connection->stream), on_buffer, on_read);
}

void CUvLoop::on_buffer(uv_handle_t* handle, std::size_t, uv_buf_t* buffer) {
    std::vector<char>& shared = *reinterpret_cast<SConnection*>(handle)->buffer;
    *buffer = uv_buf_init(shared.data(), static_cast<unsigned>(shared.size()));
}

void CUvLoop::on_read(uv_stream_t* stream, ssize_t count, const uv_buf_t* buffer) {
    auto* connection = reinterpret_cast<SConnection*>(stream);
    if (count == 0) return;
    if (count < 0) return drop(connection);
    const uv_buf_t out = uv_buf_init(buffer->base, static_cast<unsigned>(count));
    int sent = uv_try_write(stream, &out, 1);
    if (sent == count) return;
    if (sent < 0 && sent != UV_EAGAIN) return drop(connection);
    if (sent < 0) sent = 0;
    write_rest(connection, buffer->base + sent, static_cast<std::size_t>(count - sent));
}

void CUvLoop::write_rest(SConnection* connection, const char* bytes, std::size_t length) {
    connection->rest.Keep(bytes, length);
    uv_read_stop(as_stream(&connection->stream));
    const uv_buf_t out =
        uv_buf_init(const_cast<char*>(connection->rest.Data()), static_cast<unsigned>(length));
    connection->write.data = connection;
    uv_write(&connection->write, as_stream(&connection->stream), &out, 1, on_rest_written);
}

void CUvLoop::on_rest_written(uv_write_t* write, int status) {
    auto* connection = static_cast<SConnection*>(write->data);
    if (status == UV_ECANCELED) return;
    if (status < 0) return drop(connection);
    connection->rest.Drop(connection->rest.Size());
    uv_read_start(as_stream(&connection->stream), on_buffer, on_read);
}

void CUvLoop::drop(SConnection* connection) {
    uv_close(as_handle(&connection->stream),
             [](uv_handle_t* handle) { delete reinterpret_cast<SConnection*>(handle); });
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
            [&stop, &options, listener] { CUvLoop(listener, stop.Fd(), options.buffer_bytes).Run(); });
    announce_port(port);
    wait_for_stop();
    stop.Raise();
    for (std::thread& thread : threads) thread.join();
    return 0;
}
