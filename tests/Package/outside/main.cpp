// A program that knows nothing but the installed package: one echo over loopback TCP, through a handler.
#include <Plinth/Plinth.h>
#include <Ravelo/Ravelo.h>

#include <cstdio>
#include <cstring>

using namespace Veltro::Ravelo;

namespace {

/// Listens, serves one connection and ends with it.
class CEchoOnce : public CNetHandler {
public:
    explicit CEchoOnce(Veltro::Plinth::CSemaphore& gone) : m_gone(gone) {}

    int Open(CSockAddrIPv4& where) {
        if (m_acceptor.Open(CSockAddrIPv4("127.0.0.1", 0)) != 0) return -1;
        if (m_acceptor.GetLocalAddr(&where) != 0) return -1;
        return RegisterSock(m_acceptor, EventMask::Read, 0);
    }

private:
    int handle_input(int fd) override {
        if (fd == m_acceptor.GetHandle()) {
            if (m_acceptor.Accept(m_stream) == 0) RegisterSock(m_stream, EventMask::Read, 0);
            return 0;
        }
        char text[64];
        const int length = m_stream.Recv(text, sizeof text);
        if (length > 0) m_stream.Send(text, static_cast<unsigned>(length));
        if (length < 0) hang_up();
        return 0;
    }

    int handle_close(CNetHandler*) override {
        Veltro::Plinth::CSemaphore& gone = m_gone;
        delete this;
        gone.post();
        return 0;
    }

    void hang_up() {
        RemoveSock(m_stream);
        m_stream.Close();
        RemoveSock(m_acceptor);
        m_acceptor.Close();
        Close();
    }

    CSockAcceptor m_acceptor;
    CSockStream m_stream;
    Veltro::Plinth::CSemaphore& m_gone;
};

/// Sends a text on a blocking socket and compares what comes back.
bool talk(const CSockAddrIPv4& server) {
    constexpr int wait_us = 10'000'000;
    const char sent[] = "hello from outside";
    char received[sizeof sent] = {};
    CSockStream client;
    client.SetBlockOpt(true);
    if (client.Connect(server) != 0 || client.Send_n(sent, sizeof sent, wait_us) != sizeof sent) return false;
    unsigned have = 0;
    while (have < sizeof sent) {
        const int got = client.Recv_n(received + have, static_cast<unsigned>(sizeof sent) - have, wait_us);
        if (got <= 0) return false;
        have += static_cast<unsigned>(got);
    }
    std::printf("received: %s\n", received);
    return std::memcmp(sent, received, sizeof sent) == 0;
}

}  // namespace

int main() {
    Veltro::Plinth::CSemaphore gone;
    if (CNetThread::CreateThreadPool(1, false) != 0) return 1;
    CSockAddrIPv4 where;
    auto* server = new CEchoOnce(gone);
    if (server->Open(where) != 0) return 2;
    if (!talk(where)) return 3;
    if (!gone.pend(10'000'000)) return 4;
    return CNetThread::DestroyThreadPool() == 0 ? 0 : 5;
}
