#pragma once

#include <Ravelo/Defs.h>

namespace Veltro::Ravelo {

/// Base of the address classes: what a socket operation needs to know of an endpoint.
class RAVELO_API CSockAddr {
public:
    CSockAddr();
    CSockAddr(const CSockAddr& other);
    CSockAddr& operator=(const CSockAddr& other);
    virtual ~CSockAddr();

    virtual sockaddr* GetAddr(sockaddr* addr) const = 0;
    virtual int GetAddrLen() const = 0;
    virtual bool IsValid() const = 0;

    unsigned int GetType() const;
    bool IsReserved();

protected:
    explicit CSockAddr(unsigned int type);

    unsigned int m_type;
};

}  // namespace Veltro::Ravelo
