#pragma once

#include <Ravelo/SockAddr.h>

namespace Veltro::Ravelo {

/// An IPv4 endpoint; 0.0.0.0 port 0 at the start. Ports and numeric addresses are in host byte order.
///
/// Setters return 0, or -1 with the address unchanged.
class RAVELO_API CSockAddrIPv4 : public CSockAddr {
public:
    CSockAddrIPv4();
    explicit CSockAddrIPv4(const sockaddr_in& addr);
    CSockAddrIPv4(unsigned int ip, unsigned short port);
    /// A text that SetIp() refuses leaves 0.0.0.0 port 0.
    CSockAddrIPv4(const char* ip, unsigned short port);
    CSockAddrIPv4(const CSockAddrIPv4& other);
    CSockAddrIPv4& operator=(const CSockAddrIPv4& other);
    ~CSockAddrIPv4() override;

    /// Takes a system address as it is, its family included, unchecked.
    int SetAddr(const sockaddr_in& addr);
    int SetAddr(unsigned int ip, unsigned short port);
    /// SetIp(), then the port; on failure the port stays too.
    int SetAddr(const char* ip, unsigned short port);
    int SetIp(unsigned int ip);
    /// Sets the address and keeps the port. A name is looked up, which blocks the calling thread.
    /// @param ip null or empty (0.0.0.0), four decimal octets without leading zeros ("10.0.0.1"), an
    /// IPv4-mapped IPv6 literal ("::ffff:10.0.0.1"), or a host name. Any other IPv6 literal fails.
    int SetIp(const char* ip);
    int SetPort(unsigned short port);

    unsigned int GetIp() const;
    unsigned short GetPort() const;
    /// Prints the address dotted.
    /// @param len bytes at buf, at least 7; 16 hold every address.
    /// @return buf, or null if buf is null or the text does not fit (the latter is logged).
    char* GetIpStr(char* buf, unsigned int len) const;

    sockaddr* GetAddr(sockaddr* addr) const override;
    int GetAddrLen() const override;
    /// False, after a log line, only for 255.255.255.255 with port 0.
    bool IsValid() const override;
    /// Both valid, with the same address and port.
    bool operator==(const CSockAddrIPv4& other) const;

private:
    struct SInternal;
    SInternal* m_internal;
};

}  // namespace Veltro::Ravelo
