// A process that an operator can look into: it switches the console host on, adds a command of its own, and
// has a socket and a clock to look at. Enter, or the end of its input, ends it.
//
//     operator_console [PATH]        in one window
//     ravelo-console --path PATH     in another: rvl -dump -fd all
#include <Plinth/Component.h>
#include <Plinth/Console.h>
#include <Plinth/Log.h>
#include <Ravelo/Ravelo.h>

#include <atomic>
#include <cstdio>

using namespace Veltro;
using namespace Veltro::Ravelo;

/// Listens, counts who calls, and hangs up.
class CDoorbell : public CNetHandler {
public:
    bool Start() {
        return m_acceptor.Open(CSockAddrIPv4("127.0.0.1", 0)) == 0 &&
               RegisterSock(m_acceptor, EventMask::Read, 0) == 0;
    }
    void Stop() {
        RemoveSock(m_acceptor);
        Close();
    }
    int Rings() const { return m_rings.load(); }

    int handle_input(int) override {
        CSockStream caller;
        if (m_acceptor.Accept(caller) == 0) ++m_rings;
        caller.Close();
        return 0;
    }
    int handle_close(CNetHandler*) override {
        delete this;
        return 0;
    }

private:
    CSockAcceptor m_acceptor;
    std::atomic<int> m_rings{0};
};

int main(int argc, char** argv) {
    // Before the first pool, so that the pool finds it.
    if (!Plinth::CConsoleHost::start(argc > 1 ? argv[1] : nullptr)) return 1;
    if (CNetThread::CreateThreadPool(2, false) != 0) return 1;
    auto* doorbell = new CDoorbell;
    if (!doorbell->Start()) return 1;

    // What a command logs is what the operator reads.
    const auto console = Plinth::CComponentRegistry::getConsole(Plinth::COMPONENT_SERVER_LOCAL);
    console->registerCommand("rings", "rings: how often somebody has called", [doorbell](int, char**) {
        Plinth::logFilter(Plinth::LOG_LEVEL_TRACE, nullptr, __FILE__, "rings", __LINE__, nullptr,
                          "%d rings\n", doorbell->Rings());
        return 0;
    });
    std::printf("console at %s\n", Plinth::CConsoleHost::path().c_str());
    std::fflush(stdout);
    std::getchar();

    console->unregisterCommand("rings");
    Plinth::CConsoleHost::stop();
    doorbell->Stop();
    return CNetThread::DestroyThreadPool() == 0 ? 0 : 1;
}
