// The frame of every echo server: command line, port announcement, stop on SIGTERM or SIGINT.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Bench {

/// Command line of every echo server: `server [port [threads [buffer bytes]]]`.
struct SServerOptions {
    std::uint16_t port = 0;            ///< 0 lets the system choose
    unsigned threads = 1;              ///< threads that serve connections
    std::size_t buffer_bytes = 16384;  ///< most that is read and sent at once
};

/// Reads the command line, ends the process with 2 if it makes no sense, and prepares the process: all
/// descriptors it may have, no SIGPIPE, stop signals held back for wait_for_stop() in threads started later.
SServerOptions prepare_server(int argc, char** argv);

/// Prints the port on a line of its own: the server is ready.
void announce_port(std::uint16_t port);

/// Blocks until SIGTERM or SIGINT.
void wait_for_stop();

/// Tells any number of event loops to end: a descriptor that becomes, and stays, readable.
class CStopEvent {
public:
    CStopEvent();
    ~CStopEvent();
    CStopEvent(const CStopEvent&) = delete;
    CStopEvent& operator=(const CStopEvent&) = delete;

    int Fd() const { return m_fd; }
    void Raise();

private:
    int m_fd;
};

}  // namespace Bench
