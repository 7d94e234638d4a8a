#pragma once

#include <Ravelo/Sock.h>

namespace Veltro::Ravelo {

class CSockStream;

/// A TCP listening socket; register it for Read and accept from handle_input().
class RAVELO_API CSockAcceptor : public CSock {
public:
    CSockAcceptor();
    ~CSockAcceptor() override;

    /// Listens, with a backlog of 1024, on an endpoint that may be reused at once. A socket that the object
    /// holds already is closed first, with a log line.
    /// @param local an IPv4 or IPv6 address, or a storage of either; port 0 lets the system choose.
    /// @return 0, or -1; a socket that was created stays in the object then.
    int Open(const CSockAddr& local);
    /// Takes one waiting connection. Does not wait unless SetBlockOpt(true) was called.
    /// @param stream receives the connection and applies its own blocking option. It must hold no socket:
    /// else the connection is lost while the call succeeds.
    /// @param remote receives the peer's endpoint if its type takes the peer's family, else stays unchanged;
    /// may be null.
    /// @return 0; -1, with a log line, on failure and also when nothing is waiting.
    int Accept(CSockStream& stream, CSockAddr* remote = nullptr);
    /// As above, with a new stream that the caller deletes; null on failure.
    CSockStream* Accept(CSockAddr* remote = nullptr);
};

}  // namespace Veltro::Ravelo
