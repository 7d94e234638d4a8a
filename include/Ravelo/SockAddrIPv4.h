#pragma once

#include <Ravelo/SockAddr.h>

namespace Veltro::Ravelo {

/// An IPv4 endpoint.
class RAVELO_API CSockAddrIPv4 : public CSockAddr {
public:
    CSockAddrIPv4();
    explicit CSockAddrIPv4(const sockaddr_in& addr);
    CSockAddrIPv4(unsigned int ip, unsigned short port);
    CSockAddrIPv4(const char* ip, unsigned short port);
    CSockAddrIPv4(const CSockAddrIPv4& other);
    CSockAddrIPv4& operator=(const CSockAddrIPv4& other);
    ~CSockAddrIPv4() override;

    int SetAddr(const sockaddr_in& addr);
    int SetAddr(unsigned int ip, unsigned short port);
    int SetAddr(const char* ip, unsigned short port);
    int SetIp(unsigned int ip);
    int SetIp(const char* ip);
    int SetPort(unsigned short port);

    unsigned int GetIp() const;
    unsigned short GetPort() const;
    char* GetIpStr(char* buf, unsigned int len) const;

    sockaddr* GetAddr(sockaddr* addr) const override;
    int GetAddrLen() const override;
    bool IsValid() const override;
    bool operator==(const CSockAddrIPv4& other) const;

private:
    struct SInternal;
    SInternal* m_internal;
};

}  // namespace Veltro::Ravelo
