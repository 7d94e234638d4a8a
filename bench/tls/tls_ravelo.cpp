// TLS server on this library: the acceptor and every connection are handlers of one pool with one worker.
#include <Plinth/Log.h>
#include <Ravelo/NetHandler.h>
#include <Ravelo/NetThread.h>
#include <Ravelo/SockAddrIPv4.h>
#include <Ravelo/SslAcceptor.h>
#include <Ravelo/SslStream.h>
#include <Ravelo/SslX509.h>

#include <memory>
#include <string>
#include <vector>

#include "common/ServerMain.h"
#include "tls/TlsPeer.h"

namespace {

using namespace Veltro::Ravelo;

const std::vector<char> s_block(Bench::STREAM_BLOCK_BYTES);

/// Ends itself when its client has gone.
class CConnection : public CNetHandler {
public:
    explicit CConnection(CSslStream* stream) : m_stream(stream) {
        if (RegisterSock(*m_stream, EventMask::Read, 0) != 0) Close();
    }

    int handle_input(int) override {
        char wish = 0;
        int received = 0;
        while ((received = m_stream->Recv(&wish, 1)) == 1) {
            if (wish == Bench::PING && m_stream->Send(&wish, 1) < 0) return drop();
            if (wish == Bench::STREAM) RegisterSock(*m_stream, EventMask::Write, 0);
        }
        return received < 0 ? drop() : 0;
    }

    int handle_output(int) override {
        int sent = 0;
        while ((sent = m_stream->Send(s_block.data(), static_cast<unsigned>(s_block.size()))) > 0) {
        }
        return sent < 0 ? drop() : 0;
    }

    int handle_close(CNetHandler*) override {
        delete this;
        return 0;
    }

private:
    int drop() {
        RemoveSock(*m_stream);
        m_stream.reset();
        Close();
        return -1;
    }

    std::unique_ptr<CSslStream> m_stream;
};

class CAcceptor : public CNetHandler {
public:
    /// @return the port, or 0 on failure.
    unsigned short Open(unsigned short port) {
        const std::string folder = Bench::certificates();
        auto* certificate = new CSslX509;
        if (certificate->SetCert((folder + "/server.pem").c_str(), (folder + "/server_key.pem").c_str()) !=
                0 ||
            certificate->SetCA((folder + "/intermediate_1.pem").c_str()) != 0)
            Bench::die_of_tls("the server's certificate");
        m_acceptor.SetOption(SslOptCert, SslCertOwn, certificate);
        m_acceptor.SetOption(SslOptSession, SslSessionId | SslSessionTicket, nullptr);
        CSockAddrIPv4 local("127.0.0.1", port);
        if (m_acceptor.Open(local) != 0 || m_acceptor.GetLocalAddr(&local) != 0) return 0;
        return RegisterSock(m_acceptor, EventMask::Read, 0) == 0 ? local.GetPort() : 0;
    }

    void Stop() {
        RemoveSock(m_acceptor);
        Close();
    }

    int handle_input(int) override {
        if (CSslStream* stream = m_acceptor.Accept()) new CConnection(stream);
        return 0;
    }

    int handle_close(CNetHandler*) override {
        delete this;
        return 0;
    }

private:
    CSslAcceptor m_acceptor;
};

}  // namespace

int main(int argc, char** argv) {
    const Bench::SServerOptions options = Bench::prepare_server(argc, argv);
    Veltro::Plinth::setLogLevel(Veltro::Plinth::LOG_LEVEL_FATAL);
    if (CNetThread::CreateThreadPool(options.threads, false) != 0) return 1;
    auto* acceptor = new CAcceptor;
    const unsigned short port = acceptor->Open(options.port);
    if (port == 0) return 1;
    Bench::announce_port(port);
    Bench::wait_for_stop();
    acceptor->Stop();
    CNetThread::DestroyThreadPool();
    return 0;
}
