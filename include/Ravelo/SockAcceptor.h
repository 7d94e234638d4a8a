#pragma once

#include <Ravelo/Sock.h>

namespace Veltro::Ravelo {

class CSockStream;

/// A TCP listening socket.
class RAVELO_API CSockAcceptor : public CSock {
public:
    CSockAcceptor();
    ~CSockAcceptor() override;

    int Open(const CSockAddr& local);
    int Accept(CSockStream& stream, CSockAddr* remote = nullptr);
    CSockStream* Accept(CSockAddr* remote = nullptr);
};

}  // namespace Veltro::Ravelo
