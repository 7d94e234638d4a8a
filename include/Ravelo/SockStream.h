#pragma once

#include <Ravelo/Sock.h>

namespace Veltro::Ravelo {

/// A TCP stream socket, for use with the reactor (single calls that do not wait) or without (Send_n, Recv_n).
///
/// Single calls return a positive count, 0 for "try again later", or -1 after a log line. None of them raises
/// a signal. With SetBlockOpt(true) they wait in the system.
class RAVELO_API CSockStream : public CSock {
public:
    CSockStream();
    ~CSockStream() override;

    /// @name Connecting
    /// @{

    /// Connects to an endpoint, or starts to: register the socket for Write and Except and ask
    /// GetConnectStatus() then. A socket that the object holds already is closed first, with a log line.
    /// @param remote an IPv4 or IPv6 address, or a storage of either.
    /// @param local the endpoint to bind to, of remote's family; null leaves it to the system.
    /// @return 0 connected or under way, -1 failed.
    int Connect(const CSockAddr& remote, CSockAddr* local = nullptr);
    /// How a connect has ended; ask once the socket is writable or failed. @return 0 connected, -2 failed.
    int GetConnectStatus();
    /// @}

    /// @name Single calls
    /// @{

    /// Sends once.
    /// @param buf not null; only read. @param len bytes, above 0.
    /// @return bytes sent, possibly fewer than len; 0 try again; -1 failed.
    int Send(const char* buf, unsigned int len);
    /// Sends the elements of a list with one system call; of more than 1024 elements possibly the first ones.
    /// @param vec not null; it and its data are only read. @param count elements, above 0.
    /// @return bytes sent, possibly fewer than all; 0 try again; -1 failed.
    int WriteV(const iovec* vec, int count);
    /// Receives once.
    /// @param buf not null. @param len bytes, above 0.
    /// @return bytes received; 0 try again; -1 failed or the peer has closed. A close and a reset are not
    /// logged, and both leave "connection reset" as the socket error.
    int Recv(char* buf, unsigned int len);
    /// @}

    /// @name Waiting calls
    /// They block the calling thread: not for the reactor's callbacks. Each wait lasts at most `timeout` less
    /// the wait before it, so that a trickle can make the whole call last longer than `timeout`.
    /// @{

    /// Sends all of a buffer.
    /// @param timeout microseconds; 0 sends once without waiting, negative counts as no time left.
    /// @return bytes sent, fewer than len after a time-out; -1 failed, whatever was sent before.
    int Send_n(const char* buf, unsigned int len, int timeout);
    /// Waits for data and receives once.
    /// @param timeout microseconds; 0 receives nothing, negative counts as no time left.
    /// @return bytes received, at most one read's worth; 0 after a time-out or when the peer has closed; -1
    /// failed.
    int Recv_n(char* buf, unsigned int len, int timeout);
    /// @}

    /// @name Options
    /// Sizes are in bytes; the system may round what is set. Setters return 0 or -1, getters the value or -1.
    /// @{

    int SetSockRecvBuf(unsigned int size);
    int SetSockSendBuf(unsigned int size);
    int GetSockRecvBuf();
    int GetSockSendBuf();
    /// Whether the system probes an idle connection.
    int SetSockKeepAlive(bool enable);
    /// Whether small sends leave at once instead of being collected.
    int SetSockNoDelay(bool enable);
    /// @}
};

}  // namespace Veltro::Ravelo
