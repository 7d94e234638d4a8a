// Echo server on this library: one handler per connection, as an application would write it.
#include <Plinth/Log.h>
#include <Ravelo/NetHandler.h>
#include <Ravelo/NetThread.h>
#include <Ravelo/SockAcceptor.h>
#include <Ravelo/SockAddrIPv4.h>
#include <Ravelo/SockStream.h>

#include <cstddef>
#include <vector>

#include "common/ServerMain.h"
#include "echo/Rest.h"

namespace {

using namespace Veltro::Ravelo;

constexpr unsigned kSocketsPerKind = 65536;
std::size_t s_buffer_bytes = 0;

/// Ends itself when its client has gone.
class CEchoConnection : public CNetHandler {
public:
    CSockStream& Stream() { return m_stream; }

    void Start() {
        m_stream.SetSockNoDelay(true);
        // Another thread may end this handler as soon as it is registered: nothing may follow.
        if (RegisterSock(m_stream, EventMask::Read, 0) != 0) Close();
    }

    int handle_input(int) override {
        // Shared by all connections of a thread: an idle connection holds no buffer.
        thread_local std::vector<char> buffer(s_buffer_bytes);
        const int received = m_stream.Recv(buffer.data(), static_cast<unsigned>(buffer.size()));
        if (received == 0) return 0;
        if (received < 0) return drop();
        const int sent = m_stream.Send(buffer.data(), static_cast<unsigned>(received));
        if (sent == received) return 0;
        if (sent < 0) return drop();
        m_rest.Keep(buffer.data() + sent, static_cast<std::size_t>(received - sent));
        RegisterSock(m_stream, EventMask::Write, 0);
        UnregisterSock(m_stream, EventMask::Read);
        return 0;
    }

    int handle_output(int) override {
        // The event may have been on its way when the rest had gone already.
        if (m_rest.Empty()) return 0;
        const int sent = m_stream.Send(m_rest.Data(), static_cast<unsigned>(m_rest.Size()));
        if (sent < 0) return drop();
        m_rest.Drop(static_cast<std::size_t>(sent));
        if (!m_rest.Empty()) return 0;
        RegisterSock(m_stream, EventMask::Read, 0);
        UnregisterSock(m_stream, EventMask::Write);
        return 0;
    }

    int handle_close(CNetHandler*) override {
        delete this;
        return 0;
    }

private:
    int drop() {
        RemoveSock(m_stream);
        m_stream.Close();
        Close();
        return -1;
    }

    CSockStream m_stream;
    Bench::CRest m_rest;
};

class CEchoAcceptor : public CNetHandler {
public:
    /// @return the port, or 0 on failure.
    unsigned short Open(unsigned short port) {
        CSockAddrIPv4 local("127.0.0.1", port);
        if (m_acceptor.Open(local) != 0 || m_acceptor.GetLocalAddr(&local) != 0) return 0;
        return RegisterSock(m_acceptor, EventMask::Read, 0) == 0 ? local.GetPort() : 0;
    }

    void Stop() {
        RemoveSock(m_acceptor);
        Close();
    }

    int handle_input(int) override {
        auto* connection = new CEchoConnection;
        if (m_acceptor.Accept(connection->Stream()) == 0)
            connection->Start();
        else
            connection->Close();
        return 0;
    }

    int handle_close(CNetHandler*) override {
        delete this;
        return 0;
    }

private:
    CSockAcceptor m_acceptor;
};

}  // namespace

int main(int argc, char** argv) {
    const Bench::SServerOptions options = Bench::prepare_server(argc, argv);
    s_buffer_bytes = options.buffer_bytes;
    Veltro::Plinth::setLogLevel(Veltro::Plinth::LOG_LEVEL_FATAL);
    CNetThread::SetSocketCapacity(kSocketsPerKind);
    if (CNetThread::CreateThreadPool(options.threads, false) != 0) return 1;
    auto* acceptor = new CEchoAcceptor;
    const unsigned short port = acceptor->Open(options.port);
    if (port == 0) return 1;
    Bench::announce_port(port);
    Bench::wait_for_stop();
    acceptor->Stop();
    CNetThread::DestroyThreadPool();
    return 0;
}
