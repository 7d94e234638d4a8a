#pragma once

#include <Ravelo/Sock.h>

namespace Veltro::Ravelo {

/// A TCP stream socket.
class RAVELO_API CSockStream : public CSock {
public:
    CSockStream();
    ~CSockStream() override;

    int Connect(const CSockAddr& remote, CSockAddr* local = nullptr);
    int GetConnectStatus();

    int Send(const char* buf, unsigned int len);
    int WriteV(const iovec* vec, int count);
    int Recv(char* buf, unsigned int len);
    int Send_n(const char* buf, unsigned int len, int timeout);
    int Recv_n(char* buf, unsigned int len, int timeout);

    int SetSockRecvBuf(unsigned int size);
    int SetSockSendBuf(unsigned int size);
    int GetSockRecvBuf();
    int GetSockSendBuf();
    int SetSockKeepAlive(bool enable);
    int SetSockNoDelay(bool enable);
};

}  // namespace Veltro::Ravelo
