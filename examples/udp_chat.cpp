// A chat without a server: every line that somebody types goes to all who have joined the same group.
//
//   udp_chat [group [port [interface [name]]]]
//
// group      a multicast group, IPv4 or IPv6; 239.255.0.1 by default
// port       of the group; 47011 by default
// interface  the address of the interface to use, e.g. 127.0.0.1; "-", the default, leaves it to the system
// name       goes in front of every line; "somebody" by default
//
// Nothing leaves this machine, and everybody hears themselves, too. Ends with the input, by Ctrl-C or
// SIGTERM.
#include <Plinth/Plinth.h>
#include <Ravelo/Ravelo.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <string>
#include <utility>

using namespace Veltro;
using namespace Veltro::Ravelo;

namespace {

volatile std::sig_atomic_t stop_requested = 0;

void request_stop(int) {
    stop_requested = 1;
}

/// The lines of standard input, read on a thread of its own: nothing interrupts that on every platform, and a
/// thread of a pool would be missing there.
class CInput {
public:
    CInput() { m_reader.createThread(); }

    /// Waits a little for the next line. @return whether there is one.
    bool Next(std::string& line) {
        m_arrived.pend(100'000);
        Plinth::CLockGuard guard(m_mutex);
        if (m_lines.empty()) return false;
        line = std::move(m_lines.front());
        m_lines.pop_front();
        return true;
    }
    bool HasEnded() {
        Plinth::CLockGuard guard(m_mutex);
        return m_ended && m_lines.empty();
    }

private:
    void read() {
        for (std::string line; std::getline(std::cin, line); m_arrived.post()) {
            if (!line.empty() && line.back() == '\r') line.pop_back();
            Plinth::CLockGuard guard(m_mutex);
            m_lines.push_back(std::move(line));
        }
        Plinth::CLockGuard guard(m_mutex);
        m_ended = true;
        m_arrived.post();
    }

    Plinth::CMutex m_mutex;
    std::deque<std::string> m_lines PLINTH_GUARDED_BY(m_mutex);
    bool m_ended PLINTH_GUARDED_BY(m_mutex) = false;
    Plinth::CSemaphore m_arrived;  ///< one post for each line, and one for the end
    Plinth::CThreadLite m_reader{[this](Plinth::CThreadLite&) { read(); }, "input"};
};

/// The group: prints what it hears, on the pool's threads. Who keeps a pointer keeps a reference: AddRef().
class CChat : public CNetHandler {
public:
    /// @param gone posted when the object no longer exists.
    explicit CChat(Plinth::CSemaphore& gone) : m_gone(gone) {}

    bool Join(const CSockAddrStorage& group, const std::string& interface_address) {
        Plinth::CLockGuard guard(m_mutex);
        if (m_dgram.Open(&group, true) != 0) return false;
        if (interface_address != "-" && m_dgram.SetMulticastIF(interface_address.c_str()) != 0) return false;
        return m_dgram.SetMulticastTTL(0) == 0 && m_dgram.SetMulticastLoop(true) == 0 &&
               m_dgram.SetRemote(&group) == 0 && RegisterSock(m_dgram, EventMask::Read, 0) == 0;
    }
    /// Sends a line as one datagram; one that is too long is lost, with a line in the log.
    void Say(const std::string& line) {
        Plinth::CLockGuard guard(m_mutex);
        m_dgram.Send(line.data(), static_cast<unsigned>(line.size()));
    }
    void Leave() {
        Plinth::CLockGuard guard(m_mutex);
        RemoveSock(m_dgram);
        m_dgram.Close();
        Close();
    }

private:
    int handle_input(int) override {
        char line[65'536];
        Plinth::CLockGuard guard(m_mutex);
        int length = m_dgram.IsValid() ? m_dgram.Recv(line, sizeof line) : -1;
        while (length > 0 && line[length - 1] == '\n') --length;
        if (length > 0) std::printf("%.*s\n", length, line);
        std::fflush(stdout);
        return 0;
    }
    int handle_close(CNetHandler*) override {
        Plinth::CSemaphore& gone = m_gone;
        delete this;
        gone.post();
        return 0;
    }

    Plinth::CSemaphore& m_gone;
    Plinth::CMutex m_mutex;  ///< the program's thread sends while the pool's threads receive
    CSockDgram m_dgram PLINTH_GUARDED_BY(m_mutex);
};

}  // namespace

int main(int argc, char** argv) {
    const auto argument = [argc, argv](int at, const char* other) { return at < argc ? argv[at] : other; };
    std::signal(SIGINT, request_stop);
    std::signal(SIGTERM, request_stop);
    const auto port = static_cast<unsigned short>(std::strtoul(argument(2, "47011"), nullptr, 10));
    const char* const group_text = argument(1, "239.255.0.1");
    const CSockAddrStorage group(group_text, port);
    Plinth::CSemaphore gone;  // outlives the pool, whose threads use it
    if (CNetThread::CreateThreadPool(1, false) != 0) return EXIT_FAILURE;
    auto* chat = new CChat(gone);
    chat->AddRef();
    const bool joined = chat->Join(group, argument(3, "-"));
    std::printf(joined ? "joined %s port %d\n" : "cannot join %s port %d\n", group_text, port);
    std::fflush(stdout);
    auto* input = joined ? new CInput : nullptr;
    for (std::string line; joined && stop_requested == 0 && !input->HasEnded();) {
        if (input->Next(line)) chat->Say(argument(4, "somebody") + (": " + line + "\n"));
    }
    chat->Leave();
    chat->DecRef();
    gone.pend();
    CNetThread::DestroyThreadPool();
    if (joined) std::printf("stopped\n");
    std::fflush(stdout);
    // The reader may wait for a line still: then it ends with the process.
    if (joined && !input->HasEnded()) std::_Exit(EXIT_SUCCESS);
    delete input;
    return joined ? EXIT_SUCCESS : EXIT_FAILURE;
}
