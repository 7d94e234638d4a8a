// Sends lines to an echo server and prints what comes back.
//
//   echo_client port [line]
//
// Without a line it sends those of standard input, each when the one before has come back. The result is 0
// only if every byte came back as it was sent.
#include <Plinth/Plinth.h>
#include <Ravelo/Ravelo.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

using namespace Veltro;
using namespace Veltro::Ravelo;

namespace {

/// One connection to the server. The program's thread talks to it through the public operations, the pool's
/// threads through the callbacks. Whoever keeps a pointer to it keeps a reference: AddRef().
class CEchoClient : public CNetHandler {
public:
    /// @param gone posted when the object no longer exists.
    explicit CEchoClient(Plinth::CSemaphore& gone) : m_gone(gone) {}

    /// Begins to connect. handle_output() tells when it has succeeded.
    bool Start(unsigned short port) {
        Plinth::CLockGuard guard(m_mutex);
        return m_stream.Connect(CSockAddrIPv4("127.0.0.1", port)) == 0 &&
               RegisterSock(m_stream, EventMask::Read | EventMask::Write | EventMask::Except, ANSWER_US) == 0;
    }
    /// Sends a line and waits until all of it has come back. @return whether it has.
    bool Exchange(const std::string& line) {
        {
            Plinth::CLockGuard guard(m_mutex);
            if (m_failed) return false;
            m_line = line;
            m_sent = m_echoed = 0;
            if (RegisterSock(m_stream, EventMask::Write, ANSWER_US) != 0) return false;
        }
        m_answered.pend();
        Plinth::CLockGuard guard(m_mutex);
        return !m_failed;
    }
    void Stop() {
        Plinth::CLockGuard guard(m_mutex);
        hang_up();
    }

private:
    static constexpr int ANSWER_US = 10'000'000;

    int handle_output(int) override {
        Plinth::CLockGuard guard(m_mutex);
        if (!m_stream.IsValid()) return -1;
        if (!m_connected && m_stream.GetConnectStatus() != 0) return fail("cannot connect");
        m_connected = true;
        if (m_sent < m_line.size()) {
            const auto rest = static_cast<unsigned>(m_line.size() - m_sent);
            const int sent = m_stream.Send(m_line.data() + m_sent, rest);
            if (sent < 0) return fail("cannot send");
            m_sent += static_cast<unsigned>(sent);
        }
        if (m_sent == m_line.size()) UnregisterSock(m_stream, EventMask::Write);
        return 0;
    }
    int handle_input(int) override {
        char buffer[4096];
        Plinth::CLockGuard guard(m_mutex);
        if (!m_stream.IsValid()) return -1;
        const int received = m_stream.Recv(buffer, sizeof buffer);
        if (received < 0) return fail("the server has gone");
        const auto length = static_cast<unsigned>(received);
        if (m_line.compare(m_echoed, length, buffer, length) != 0) return fail("wrong bytes came back");
        std::fwrite(buffer, 1, length, stdout);
        m_echoed += length;
        if (length > 0 && m_echoed == m_line.size()) m_answered.post();
        return 0;
    }
    int handle_exception(int) override {
        Plinth::CLockGuard guard(m_mutex);
        return fail("cannot connect");
    }
    int handle_input_timeout(int) override {
        Plinth::CLockGuard guard(m_mutex);
        return m_connected && m_echoed == m_line.size() ? 0 : fail("no answer");
    }
    int handle_close(CNetHandler*) override {
        Plinth::CSemaphore& gone = m_gone;
        delete this;
        gone.post();
        return 0;
    }

    int fail(const char* reason) PLINTH_REQUIRES(m_mutex) {
        if (!m_failed) std::fprintf(stderr, "echo_client: %s\n", reason);
        m_failed = true;
        m_answered.post();
        hang_up();
        return -1;
    }
    /// The registration goes first, then the socket, then the handler. A second call does nothing.
    void hang_up() PLINTH_REQUIRES(m_mutex) {
        if (m_stream.IsValid()) {
            RemoveSock(m_stream);
            m_stream.Close();
        }
        Close();
    }

    Plinth::CSemaphore& m_gone;
    Plinth::CSemaphore m_answered;
    Plinth::CMutex m_mutex;
    CSockStream m_stream PLINTH_GUARDED_BY(m_mutex);
    bool m_connected PLINTH_GUARDED_BY(m_mutex) = false;
    bool m_failed PLINTH_GUARDED_BY(m_mutex) = false;
    std::string m_line PLINTH_GUARDED_BY(m_mutex);
    std::size_t m_sent PLINTH_GUARDED_BY(m_mutex) = 0;
    std::size_t m_echoed PLINTH_GUARDED_BY(m_mutex) = 0;
};

bool talk(CEchoClient& client, int argc, char** argv) {
    if (argc > 2) return client.Exchange(std::string(argv[2]) + "\n");
    for (std::string line; std::getline(std::cin, line);) {
        if (!client.Exchange(line + "\n")) return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: echo_client port [line]\n");
        return EXIT_FAILURE;
    }
    Plinth::CSemaphore gone;  // outlives the pool, whose threads use it
    if (CNetThread::CreateThreadPool(1, false) != 0) return EXIT_FAILURE;
    auto* client = new CEchoClient(gone);
    client->AddRef();
    const auto port = static_cast<unsigned short>(std::strtoul(argv[1], nullptr, 10));
    const bool echoed = client->Start(port) && talk(*client, argc, argv);
    client->Stop();
    client->DecRef();
    gone.pend();
    CNetThread::DestroyThreadPool();
    return echoed ? EXIT_SUCCESS : EXIT_FAILURE;
}
