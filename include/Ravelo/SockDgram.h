#pragma once

#include <Ravelo/Sock.h>

namespace Veltro::Ravelo {

/// A UDP socket, IPv4 or IPv6, with multicast and broadcast; register it for Read and receive from
/// handle_input().
///
/// Like every socket object it is used by one thread at a time. Single calls return a count, 0 for "try again
/// later", or -1 after a log line; with SetBlockOpt(true) they wait in the system.
class RAVELO_API CSockDgram : public CSock {
public:
    /// No socket, no destination, no group.
    CSockDgram();
    ~CSockDgram() override;
    CSockDgram(const CSockDgram&) = delete;
    CSockDgram& operator=(const CSockDgram&) = delete;

    /// @name Opening
    /// @{

    /// Creates a socket and binds it; what the object held before, socket, destination and group, goes. A
    /// multicast group as the local address is joined on the default interface, and its port bound on all
    /// addresses; nothing is received from groups that this socket has not joined.
    /// @param local where to bind: an IPv4 or IPv6 address, or a storage of either; port 0 lets the system
    /// choose. Null makes an IPv4 socket that the system binds when it first sends. A name in a storage is
    /// looked up once more, which blocks the calling thread; if that fails, IPv4 fails and IPv6 binds "::".
    /// So does an address of no family, such as a storage without a text.
    /// @param reuse lets other sockets bind the same port, if that is not 0; needs a local address.
    /// @return 0, or -1; a socket that was created stays in the object then.
    int Open(const CSockAddr* local, bool reuse);
    /// As above, with reuse false.
    int Open(const CSockAddr* local);
    /// Sets the default destination of Send() and WriteV(). A unicast destination is connected: the socket
    /// receives from it only, and WriteV() works. A group or a broadcast address is not, and ends an earlier
    /// connection. Broadcasting is allowed for every IPv4 address whose last four bits are all 1, which is
    /// then not connected either (10.0.0.15, 192.168.1.255).
    /// @param remote an IPv4 or IPv6 address, or a storage of either, of the socket's family; copied.
    /// @return 0; -1 failed, and an earlier destination is forgotten unless remote is null. A connect that
    /// fails closes the socket, too.
    int SetRemote(const CSockAddr* remote);
    /// @}

    /// @name Single calls
    /// @{

    /// Sends one datagram.
    /// @param buf not null; only read. @param len bytes, above 0.
    /// @param remote where to; null takes SetRemote()'s destination.
    /// @return bytes sent; 0 try again; -1 failed. On Linux a connected socket also fails once for an earlier
    /// datagram that found a closed port, here or in Recv().
    int Send(const char* buf, unsigned int len, const CSockAddr* remote = nullptr);
    /// Sends the elements of a list as one datagram, to the unicast destination set by SetRemote(). Up to
    /// 1024 elements go to the system as they are; of more it makes a copy.
    /// @param vec not null; it and its data are only read. @param count elements; 0 is an empty datagram.
    /// @return bytes sent; 0 try again, or an empty datagram was sent; -1 failed, also without a connection.
    int WriteV(const iovec* vec, int count);
    /// Receives one datagram. What does not fit is lost: on Linux the call gives what fits, on Windows it
    /// fails with the system's "message too long".
    /// @param buf not null. @param len bytes, above 0; 65,535 hold every datagram.
    /// @param remote receives the sender's address, unless the datagram is empty; may be null. An IPv4 or
    /// IPv6 address takes senders of its own family and else stays unchanged; a storage takes both.
    /// @return bytes received; 0 try again, or the datagram is empty; -1 failed.
    int Recv(char* buf, unsigned int len, CSockAddr* remote = nullptr);
    /// @}

    /// @name Multicast
    /// Each returns 0, or -1; IPv4 interfaces are named by their address.
    /// @{

    /// Moves the membership of the IPv4 group to an interface and sends to groups through it.
    /// @param ifaddr the interface's address in host byte order; 0 is the default interface.
    /// @return -1 also, without a log line, if no IPv4 group is joined.
    int SetMulticastIF(unsigned int ifaddr);
    /// The same with a dotted address. An IPv6 group always uses the default interface: the text counts for
    /// nothing then.
    /// @return -1 also, without a log line, if the text is null or no group is joined.
    int SetMulticastIF(const char* ifaddr);
    /// How many networks a datagram to a group may cross: 0 stays on this machine, 1, the start, on this
    /// network. Needs no group.
    int SetMulticastTTL(unsigned char ttl);
    /// Whether what is sent to a group reaches this machine's own members, this socket included; so at the
    /// start. Needs a joined group. On Linux it governs sending, on Windows receiving.
    int SetMulticastLoop(bool loop);
    /// @}

    /// @name Options
    /// Sizes are in bytes; the system may round what is set. Setters return 0 or -1, getters the value or -1.
    /// @{

    int SetSockRecvBuf(unsigned int size);
    int SetSockSendBuf(unsigned int size);
    int GetSockRecvBuf();
    int GetSockSendBuf();
    /// @}

private:
    int open_ipv4(const CSockAddr& local, bool reuse);
    int open_ipv6(const CSockAddr& local, bool reuse);
    int reuse_port(unsigned short port, bool reuse);
    int connect_remote(const CSockAddr& remote, bool connects);

    struct SInternal;
    SInternal* m_internal;
};

}  // namespace Veltro::Ravelo
