// Echo server on standalone Asio: one io_context, run by all threads. An answer is written at once in the
// read's handler, and by an asynchronous write only if the socket has no room.
#include <asio.hpp>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "common/Net.h"
#include "common/ServerMain.h"

namespace {

using asio::ip::tcp;
using Executor = asio::io_context::executor_type;
using Acceptor = asio::basic_socket_acceptor<tcp, Executor>;
using Stream = asio::basic_stream_socket<tcp, Executor>;

class CConnection : public std::enable_shared_from_this<CConnection> {
public:
    CConnection(Stream stream, std::size_t buffer_bytes)
        : m_stream(std::move(stream)), m_buffer(new char[buffer_bytes]), m_size(buffer_bytes) {
        asio::error_code ignored;
        m_stream.non_blocking(true, ignored);
        m_stream.set_option(tcp::no_delay(true), ignored);
    }

    void Read() {
        m_stream.async_read_some(
            asio::buffer(m_buffer.get(), m_size),
            [self = shared_from_this()](const asio::error_code& error, std::size_t received) {
                if (!error) self->answer(received);
            });
    }

private:
    void answer(std::size_t length) {
        asio::error_code error;
        const std::size_t sent = m_stream.write_some(asio::buffer(m_buffer.get(), length), error);
        if (error && error != asio::error::would_block) return;
        if (sent == length) return Read();
        asio::async_write(m_stream, asio::buffer(m_buffer.get() + sent, length - sent),
                          [self = shared_from_this()](const asio::error_code& failed, std::size_t) {
                              if (!failed) self->Read();
                          });
    }

    Stream m_stream;
    std::unique_ptr<char[]> m_buffer;
    std::size_t m_size;
};

void accept_next(Acceptor& acceptor, std::size_t buffer_bytes) {
    acceptor.async_accept([&acceptor, buffer_bytes](const asio::error_code& error, Stream stream) {
        if (error == asio::error::operation_aborted) return;
        if (!error) std::make_shared<CConnection>(std::move(stream), buffer_bytes)->Read();
        accept_next(acceptor, buffer_bytes);
    });
}

}  // namespace

int main(int argc, char** argv) {
    const Bench::SServerOptions options = Bench::prepare_server(argc, argv);
    asio::io_context context(static_cast<int>(options.threads));
    Acceptor acceptor(context, tcp::v4(), Bench::listen_on(options.port, false));
    const std::uint16_t port = acceptor.local_endpoint().port();
    accept_next(acceptor, options.buffer_bytes);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < options.threads; ++i) threads.emplace_back([&context] { context.run(); });
    Bench::announce_port(port);
    Bench::wait_for_stop();
    context.stop();
    for (std::thread& thread : threads) thread.join();
    return 0;
}
