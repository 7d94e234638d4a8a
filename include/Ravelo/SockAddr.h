#pragma once

#include <Ravelo/Defs.h>

namespace Veltro::Ravelo {

/// Base of the address classes: what a socket operation needs to know of an endpoint.
///
/// Owned by the application; a socket operation reads or fills it and keeps no pointer to it. Not locked: one
/// object is used by one thread at a time.
class RAVELO_API CSockAddr {
public:
    /// Type code 0: an address of no family.
    CSockAddr();
    /// Copies the type code; derived classes copy their own state.
    CSockAddr(const CSockAddr& other);
    CSockAddr& operator=(const CSockAddr& other);
    virtual ~CSockAddr();

    /// Copies the system's form of the address.
    /// @param addr at least GetAddrLen() bytes (28 hold every class's form).
    /// @return addr, or null if addr is null or there is no address.
    virtual sockaddr* GetAddr(sockaddr* addr) const = 0;
    /// Bytes of the system's form: 16 for IPv4, 28 for IPv6, 0 without an address.
    virtual int GetAddrLen() const = 0;
    /// Whether the endpoint can be used; by the derived class's rule.
    virtual bool IsValid() const = 0;

    /// SOCKADDR_TYPE_IPV4, SOCKADDR_TYPE_IPV6, SOCKADDR_TYPE_STORAGE, or 0.
    unsigned int GetType() const;
    /// Whether this is a CSockAddrIPv4 whose port the system keeps for itself: 0 to 1024, 1900, 3800, 5000,
    /// 5050, 8090 to 8121, 9999, 37776 to 37778, 37780 to 37880, 39999. Other types are never reserved.
    bool IsReserved();

protected:
    explicit CSockAddr(unsigned int type);

    unsigned int m_type;
};

}  // namespace Veltro::Ravelo
