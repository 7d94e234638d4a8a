// The private record of a datagram socket.
#pragma once

#include <Ravelo/SockAddr.h>
#include <Ravelo/SockDgram.h>

#include <cstdint>
#include <memory>

namespace Veltro::Ravelo {

/// Null in an object for which there was no memory: it can neither be opened nor given a destination.
struct CSockDgram::SInternal {
    std::unique_ptr<CSockAddr> m_remote_addr;     ///< the default destination: a CSockAddrIPv4 or IPv6
    std::unique_ptr<CSockAddr> m_multicast_addr;  ///< the joined group: the same
    bool m_is_ipv4 = true;                        ///< the family of the current socket

    bool m_is_connected = false;       ///< the destination is a unicast one
    bool m_is_member = false;          ///< false with a group: a move to another interface failed half-way
    std::uint32_t m_multicast_if = 0;  ///< where the IPv4 group is joined, in host order
};

/// Joins or leaves an IPv4 group. @param option IP_ADD_MEMBERSHIP or IP_DROP_MEMBERSHIP.
/// @param group, ifaddr in host order. @return the system's result.
int setMembership(int fd, int option, std::uint32_t group, std::uint32_t ifaddr);

}  // namespace Veltro::Ravelo
