#pragma once

#include <Ravelo/SockAddr.h>

namespace Veltro::Ravelo {

/// An IPv6 endpoint with its scope; all zero, and so invalid, at the start. Ports are in host byte order.
///
/// Setters return 0 or -1.
class RAVELO_API CSockAddrIPv6 : public CSockAddr {
public:
    CSockAddrIPv6();
    /// As SetAddr() of the same arguments; what it refuses leaves all zero.
    explicit CSockAddrIPv6(const sockaddr_in6* addr);
    CSockAddrIPv6(const char* ip, unsigned short port);
    CSockAddrIPv6(const char* ip, unsigned short port, unsigned int scope_id);
    CSockAddrIPv6(const CSockAddrIPv6& other);
    CSockAddrIPv6& operator=(const CSockAddrIPv6& other);
    ~CSockAddrIPv6() override;

    /// Takes a system address. @return -1, with nothing changed, if it is null or not of family AF_INET6.
    int SetAddr(const sockaddr_in6* addr);
    /// Clears all fields, then sets address and port. On failure all fields stay cleared.
    int SetAddr(const char* ip, unsigned short port);
    int SetAddr(const char* ip, unsigned short port, unsigned int scope_id);
    /// Sets the address. A name is looked up, which blocks the calling thread; a failure is logged and
    /// changes nothing.
    /// @param ip an IPv6 literal, with an optional scope ("fe80::1%2", "fe80::1%eth0"): port 0 and the text's
    /// scope, or 0, are set with it. Or an IPv4 literal (IPv4-mapped) or a host name, whose first IPv6 or
    /// else IPv4-mapped address is taken: the port stays. No brackets, no port in the text.
    int SetIp(const char* ip);
    int SetPort(unsigned short port);
    int SetScopeID(unsigned int scope_id);

    unsigned short GetPort() const;
    /// The interface's index of a link-local address; 0 for none.
    unsigned int GetScopeID() const;
    /// Prints the address in the usual compressed form, without scope.
    /// @param len bytes at buf, at least 17; 46 hold every address.
    /// @return buf, or null if buf is null or the text does not fit (the latter is logged).
    char* GetIpStr(char* buf, unsigned int len) const;

    sockaddr* GetAddr(sockaddr* addr) const override;
    int GetAddrLen() const override;
    /// False, after a log line, for port 0 and for the address "::".
    bool IsValid() const override;
    /// Both valid, with the same address and port; scopes are not compared.
    bool operator==(const CSockAddrIPv6& other) const;

private:
    struct SInternal;
    SInternal* m_internal;
};

}  // namespace Veltro::Ravelo
