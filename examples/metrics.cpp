// A page of figures that Prometheus reads: http://127.0.0.1:PORT/metrics. The figures are what the operator's
// command "stat" answers; a dialogue of its own asks for them, so the page needs no operator. Enter ends it.
//
//     metrics [PORT]        any free port without one
#include <Plinth/Console.h>
#include <Ravelo/Ravelo.h>

#include <cstdio>
#include <cstdlib>
#include <string>

using namespace Veltro;
using namespace Veltro::Ravelo;

/// What the command answers, as an HTTP answer.
static std::string page() {
    std::string figures;
    Plinth::CConsoleDialogue dialogue(
        [&figures](const char* text, std::size_t length) { figures.append(text, length); });
    const std::string command = "stat -metrics\n";
    dialogue.receive(command.data(), command.size());
    dialogue.runNext();
    // In the first moments the command is not there yet.
    const bool known = figures.starts_with("# ");
    return std::string(known ? "HTTP/1.1 200 OK" : "HTTP/1.1 503 Service Unavailable") +
           "\r\nContent-Type: text/plain; version=0.0.4\r\nConnection: close\r\nContent-Length: " +
           std::to_string(figures.size()) + "\r\n\r\n" + figures;
}

/// One request, whatever it asks for; then the connection ends.
class CScrape : public CNetHandler {
public:
    CSockStream stream;
    void Start() { RegisterSock(stream, EventMask::Read, 10'000'000); }

    int handle_input(int) override {
        char text[1024];
        const int length = stream.Recv(text, sizeof text);
        if (length > 0) m_request.append(text, static_cast<std::size_t>(length));
        const bool is_whole = m_request.find("\r\n\r\n") != std::string::npos;
        if (length >= 0 && !is_whole && m_request.size() < 8192) return 0;
        if (is_whole) {
            const std::string answer = page();
            stream.Send_n(answer.data(), static_cast<unsigned>(answer.size()), 1'000'000);
        }
        return end();
    }
    int handle_input_timeout(int) override { return end(); }
    int handle_close(CNetHandler*) override { return delete this, 0; }

private:
    int end() {
        RemoveSock(stream);
        stream.Close();
        Close();
        return -1;
    }
    std::string m_request;
};

class CPage : public CNetHandler {
public:
    bool Start(CSockAddrIPv4& where) {
        return m_acceptor.Open(where) == 0 && m_acceptor.GetLocalAddr(&where) == 0 &&
               RegisterSock(m_acceptor, EventMask::Read, 0) == 0;
    }
    void Stop() { RemoveSock(m_acceptor), Close(); }

    int handle_input(int) override {
        auto* scrape = new CScrape;
        m_acceptor.Accept(scrape->stream) == 0 ? scrape->Start() : scrape->Close();
        return 0;
    }
    int handle_close(CNetHandler*) override { return delete this, 0; }

private:
    CSockAcceptor m_acceptor;
};

int main(int argc, char** argv) {
    if (!Plinth::CConsoleHost::start() || CNetThread::CreateThreadPool(2, false) != 0) return 1;
    CSockAddrIPv4 where("127.0.0.1", static_cast<unsigned short>(argc > 1 ? std::atoi(argv[1]) : 0));
    auto* server = new CPage;
    const bool works = server->Start(where);
    if (works) std::printf("listening on 127.0.0.1:%d\n", where.GetPort());
    std::fflush(stdout);
    if (works) std::getchar();
    server->Stop();
    Plinth::CConsoleHost::stop();
    return CNetThread::DestroyThreadPool() == 0 && works ? 0 : 1;
}
