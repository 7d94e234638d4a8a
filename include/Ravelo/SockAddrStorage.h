#pragma once

#include <Ravelo/SockAddr.h>

namespace Veltro::Ravelo {

/// An endpoint of either family, given as text; keeps the text, the family it was written in (the input type)
/// and the family it stands for (the real type). Ports are in host byte order.
///
/// The two types differ for an IPv4-mapped literal only ("::ffff:10.0.0.1": input 2, real 1). The input type
/// chooses what GetAddr() gives, the real type which form a later port goes to: so a mapped literal keeps, in
/// GetAddr(), the port that was current when its text was set. Setters return 0 or -1.
class RAVELO_API CSockAddrStorage : public CSockAddr {
public:
    CSockAddrStorage();
    /// As SetAddr() of the same arguments.
    CSockAddrStorage(const char* ip, unsigned short port);
    CSockAddrStorage(const CSockAddrStorage& other);
    CSockAddrStorage& operator=(const CSockAddrStorage& other);
    ~CSockAddrStorage() override;

    /// Keeps the text (127 characters of it) and resolves it; the port stays. A name is looked up, which
    /// blocks the calling thread, in IPv4 before IPv6.
    /// @param ip an IPv4 or IPv6 literal or a host name, as CSockAddrIPv4 and CSockAddrIPv6 take them; not
    /// null. On failure the real type becomes 0, and the input type 2 if the text has a colon, else 0.
    int SetIp(const char* ip);
    /// SetIp(), then the port.
    int SetAddr(const char* ip, unsigned short port);
    /// Takes an address that the system returned, with its numeric text.
    /// @param addr of family AF_INET (16 bytes) or AF_INET6 (28 bytes); -1 for another or null.
    int SetAddr(const sockaddr_in* addr);
    int SetPort(unsigned short port);

    /// The port, or 0 while IsValid() is false.
    unsigned short GetPort() const;
    /// The family of the text: 1 IPv4, 2 IPv6; 0 while IsValid() is false.
    unsigned int GetInputType() const;
    /// The family that the text resolved to: 1 IPv4, 2 IPv6, 0 none.
    unsigned int GetRealType() const;
    /// Copies the text as it was given.
    /// @param len bytes at buf, above the text's length; the copy ends with a zero byte only if len is at
    /// least the text's length + 2.
    /// @return buf, or null if buf is null, too short, or nothing was resolved.
    char* GetIpStr(char* buf, unsigned int len) const;
    /// Not available: logs a line and returns false.
    bool GetRealSockAddr(CSockAddr* addr);

    sockaddr* GetAddr(sockaddr* addr) const override;
    int GetAddrLen() const override;
    /// Whether the input type is known and the text is not empty.
    bool IsValid() const override;
    /// Both valid, with the same input type, text and port: two texts of one host differ.
    bool operator==(const CSockAddrStorage& other) const;

private:
    struct SInternal;
    SInternal* m_internal;
};

}  // namespace Veltro::Ravelo
