// TLS server on Asio's ssl::stream: one io_context on one thread.
#include <asio.hpp>
#include <asio/ssl.hpp>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "common/Net.h"
#include "common/ServerMain.h"
#include "tls/TlsPeer.h"

namespace {

using asio::ip::tcp;
using TTlsStream = asio::ssl::stream<tcp::socket>;

const std::vector<char> s_block(Bench::STREAM_BLOCK_BYTES);

class CConnection : public std::enable_shared_from_this<CConnection> {
public:
    CConnection(tcp::socket socket, asio::ssl::context& context) : m_stream(std::move(socket), context) {
        asio::error_code ignored;
        m_stream.lowest_layer().set_option(tcp::no_delay(true), ignored);
    }

    void Start() {
        m_stream.async_handshake(TTlsStream::server,
                                 [self = shared_from_this()](const asio::error_code& error) {
                                     if (!error) self->read();
                                 });
    }

private:
    void read() {
        m_stream.async_read_some(asio::buffer(&m_wish, 1),
                                 [self = shared_from_this()](const asio::error_code& error, std::size_t) {
                                     if (error == asio::error::eof) return self->end();
                                     if (!error)
                                         self->m_wish == Bench::STREAM ? self->stream() : self->answer();
                                 });
    }

    void answer() {
        asio::async_write(m_stream, asio::buffer(&m_wish, 1),
                          [self = shared_from_this()](const asio::error_code& error, std::size_t) {
                              if (!error) self->read();
                          });
    }

    void stream() {
        asio::async_write(m_stream, asio::buffer(s_block),
                          [self = shared_from_this()](const asio::error_code& error, std::size_t) {
                              if (!error) self->stream();
                          });
    }

    void end() {
        m_stream.async_shutdown([self = shared_from_this()](const asio::error_code&) {});
    }

    TTlsStream m_stream;
    char m_wish = 0;
};

void accept_next(tcp::acceptor& acceptor, asio::ssl::context& context) {
    acceptor.async_accept([&acceptor, &context](const asio::error_code& error, tcp::socket socket) {
        if (error == asio::error::operation_aborted) return;
        if (!error) std::make_shared<CConnection>(std::move(socket), context)->Start();
        accept_next(acceptor, context);
    });
}

}  // namespace

int main(int argc, char** argv) {
    const Bench::SServerOptions options = Bench::prepare_server(argc, argv);
    asio::ssl::context tls(Bench::server_context().release());
    asio::io_context context(1);
    tcp::acceptor acceptor(context, tcp::v4(), Bench::listen_on(options.port, false));
    const std::uint16_t port = acceptor.local_endpoint().port();
    accept_next(acceptor, tls);
    std::thread server([&context] { context.run(); });
    Bench::announce_port(port);
    Bench::wait_for_stop();
    context.stop();
    server.join();
    return 0;
}
