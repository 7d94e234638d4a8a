// A process with a console and a crowd of senders, some of which stall, to be looked at by run_console.py:
// 2,000 media senders on one media buffer, every hundredth of them stalled, and 40 stream senders, every
// tenth stalled. Enter, or the end of its input, ends it.
//
//     crowded_target PATH
#include <Plinth/Console.h>
#include <Plinth/Log.h>
#include <Plinth/Semaphore.h>
#include <Ravelo/Ravelo.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

using namespace Veltro;
using namespace Veltro::Ravelo;

constexpr int MEDIA_SENDERS = 2'000;
constexpr int STREAM_SENDERS = 40;
constexpr long FRAME_US = 20'000;

class CPacket : public CMediaPacket {
public:
    void Release() override { delete this; }
    char* GetBuffer() override { return m_bytes; }
    static constexpr int LENGTH = 8;

private:
    char m_bytes[LENGTH] = {'p', 'a', 'c', 'k', 'e', 't', '.', '\n'};
};

/// Reads what all senders send.
class CDrain : public CNetHandler {
public:
    CSockStream stream;
    bool Start() { return RegisterSock(stream, EventMask::Read, 0) == 0; }
    void Stop() { RemoveSock(stream), Close(); }
    int handle_input(int) override {
        char bytes[65536];
        int length = 0;
        while ((length = stream.Recv(bytes, sizeof bytes)) > 0) {
        }
        return length < 0 ? -1 : 0;
    }
    int handle_close(CNetHandler*) override { return delete this, 0; }
};

/// Puts a frame at a time; has the socket of all connections and owns the stream senders.
class CSource : public CNetHandler {
public:
    CMediaBuffer buffer;
    CSockStream socket;
    void Start() { SetTimer(FRAME_US); }
    std::int64_t handle_timeout(long) override {
        buffer.Put(new CPacket, CPacket::LENGTH, 1, 1);
        return 0;
    }
    /// The shared socket is always writable; it is the connections that take nothing.
    int handle_output(int) override { return UnregisterSock(socket, EventMask::Write), -1; }
    int handle_close(CNetHandler*) override { return delete this, 0; }
};

/// Its message waits behind the ends of all handlers that were closed before it.
struct CFence : CNetHandler {
    Plinth::CSemaphore& passed;
    explicit CFence(Plinth::CSemaphore& semaphore) : passed(semaphore) { Notify(GetID(), 1, 0); }
    int handle_message(long, unsigned int, long) override { return Close(), 0; }
    int handle_close(CNetHandler*) override {
        passed.post();
        return delete this, 0;
    }
};

/// A connection of its own speed, which shares the one socket with all others.
static std::unique_ptr<CSimulatorStream> connection(CSockStream& socket, bool is_stalled) {
    auto stream = std::make_unique<CSimulatorStream>();
    stream->SetRealSocket(&socket);
    stream->SetBandWidth(is_stalled ? 0 : 4095);
    return stream;
}

static bool connect(CSockStream& near_end, CSockStream& far_end) {
    CSockAcceptor acceptor;
    CSockAddrIPv4 where("127.0.0.1", 0);
    const bool works = acceptor.Open(where) == 0 && acceptor.GetLocalAddr(&where) == 0 &&
                       near_end.Connect(where) == 0 && acceptor.Accept(far_end) == 0;
    acceptor.Close();
    return works;
}

int main(int argc, char** argv) {
    Plinth::setLogLevel(Plinth::LOG_LEVEL_ERROR);  // stalled senders say so again and again
    if (argc < 2 || !Plinth::CConsoleHost::start(argv[1])) return 1;
    if (CNetThread::CreateThreadPool(2, false) != 0) return 1;
    auto* drain = new CDrain;
    auto* source = new CSource;
    if (!connect(source->socket, drain->stream) || !drain->Start()) return 1;
    std::vector<std::unique_ptr<CSimulatorStream>> connections;
    std::vector<CMediaStreamSender*> media;
    for (int i = 0; i < MEDIA_SENDERS; ++i) {
        connections.push_back(connection(source->socket, i % 100 == 0));
        media.push_back(CMediaStreamSender::Create());
        media.back()->Attach(connections.back().get());
        source->buffer.AddSender(media.back());
    }
    std::vector<CStreamSender*> senders;
    const std::string block(1000, 'x');
    for (int i = 0; i < STREAM_SENDERS; ++i) {
        connections.push_back(connection(source->socket, i % 10 == 0));
        senders.push_back(CStreamSender::Create());
        senders.back()->Attach(source, connections.back().get());
        senders.back()->Put(block.data(), static_cast<unsigned>(block.size()));
    }
    source->Start();
    std::printf("console at %s\n", Plinth::CConsoleHost::path().c_str());
    std::fflush(stdout);
    std::getchar();

    Plinth::CConsoleHost::stop();
    for (CMediaStreamSender* sender : media) {
        source->buffer.DelSender(sender);
        sender->Close();
    }
    for (CStreamSender* sender : senders) {
        sender->Detach();
        sender->Close();
    }
    drain->Stop();
    source->Close();
    Plinth::CSemaphore passed;
    new CFence(passed);
    passed.pend();
    return CNetThread::DestroyThreadPool() == 0 ? 0 : 1;
}
