// CSockDgram's multicast settings.
#include <Ravelo/SockAddrIPv4.h>
#include <Ravelo/SockDgram.h>

#include "Log.h"
#include "Socket/SockAddrText.h"
#include "Socket/SockDgramRecord.h"
#include "Socket/SocketApi.h"

namespace Veltro::Ravelo {

int setMembership(int fd, int option, std::uint32_t group, std::uint32_t ifaddr) {
    ip_mreq membership{};
    membership.imr_multiaddr.s_addr = htonl(group);
    membership.imr_interface.s_addr = htonl(ifaddr);
    return SocketApi::setOption(fd, IPPROTO_IP, option, &membership, sizeof(membership));
}

int CSockDgram::SetMulticastIF(unsigned int ifaddr) {
    const CSockAddr* joined = m_internal != nullptr ? m_internal->m_multicast_addr.get() : nullptr;
    if (joined == nullptr || joined->GetType() != SOCKADDR_TYPE_IPV4) return -1;
    const std::uint32_t group = static_cast<const CSockAddrIPv4*>(joined)->GetIp();
    if (m_internal->m_is_member &&
        setMembership(m_fd, IP_DROP_MEMBERSHIP, group, m_internal->m_multicast_if) != 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : IP_DROP_MEMBERSHIP failed, fd[%d], error:%d, %s\n",
                        __func__, m_fd, error, SocketApi::errorText(error).data());
        return -1;
    }
    m_internal->m_is_member = false;
    if (setMembership(m_fd, IP_ADD_MEMBERSHIP, group, ifaddr) != 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : IP_ADD_MEMBERSHIP failed, fd[%d], error:%d, %s\n",
                        __func__, m_fd, error, SocketApi::errorText(error).data());
        return -1;
    }
    m_internal->m_is_member = true;
    m_internal->m_multicast_if = ifaddr;
    in_addr outgoing{};
    outgoing.s_addr = htonl(ifaddr);
    if (SocketApi::setOption(m_fd, IPPROTO_IP, IP_MULTICAST_IF, &outgoing, sizeof(outgoing)) == 0) return 0;
    const int error = SocketApi::lastError();
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : IP_MULTICAST_IF failed, fd[%d], error:%d, %s\n", __func__,
                    m_fd, error, SocketApi::errorText(error).data());
    return -1;
}

int CSockDgram::SetMulticastIF(const char* ifaddr) {
    const CSockAddr* joined = m_internal != nullptr ? m_internal->m_multicast_addr.get() : nullptr;
    if (ifaddr == nullptr || joined == nullptr) return -1;
    if (joined->GetType() == SOCKADDR_TYPE_IPV4) {
        in_addr address{};
        if (parseIPv4Literal(ifaddr, &address)) {
            return SetMulticastIF(static_cast<unsigned int>(ntohl(address.s_addr)));
        }
        const int error = SocketApi::invalidArgumentError();
        SocketApi::setLastError(error);
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : inet_pton failed, fd[%d], error:%d, %s\n", __func__,
                        m_fd, error, SocketApi::errorText(error).data());
        return -1;
    }
    // The default interface, whatever the text.
    if (SocketApi::setOption(m_fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, 0) == 0) return 0;
    const int error = SocketApi::lastError();
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : IPV6_MULTICAST_IF faied, fd[%d], error:%d, %s\n", __func__,
                    m_fd, error, SocketApi::errorText(error).data());
    return -1;
}

int CSockDgram::SetMulticastTTL(unsigned char ttl) {
    const bool is_ipv4 = m_internal == nullptr || m_internal->m_is_ipv4;
    const int result = is_ipv4 ? SocketApi::setOption(m_fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof(ttl))
                               : SocketApi::setOption(m_fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, int{ttl});
    if (result == 0) return 0;
    const int error = SocketApi::lastError();
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : %s failed, fd[%d], error:%d, %s\n", __func__,
                    is_ipv4 ? "IP_MULTICAST_TTL" : "IP_MULTICAST_HOPS", m_fd, error,
                    SocketApi::errorText(error).data());
    return -1;
}

int CSockDgram::SetMulticastLoop(bool loop) {
    const CSockAddr* joined = m_internal != nullptr ? m_internal->m_multicast_addr.get() : nullptr;
    if (joined == nullptr) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : IP_MULTICAST_LOOP failed, multicast addr:%p, fd[%d]\n",
                        __func__, static_cast<const void*>(joined), m_fd);
        return -1;
    }
    const bool is_ipv4 = joined->GetType() == SOCKADDR_TYPE_IPV4;
    const int result = is_ipv4 ? SocketApi::setOption(m_fd, IPPROTO_IP, IP_MULTICAST_LOOP, loop ? 1 : 0)
                               : SocketApi::setOption(m_fd, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, loop ? 1 : 0);
    if (result == 0) return 0;
    const int error = SocketApi::lastError();
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : %s failed, fd[%d], error:%d, %s\n", __func__,
                    is_ipv4 ? "IP_MULTICAST_LOOP" : "IPV6_MULTICAST_LOOP", m_fd, error,
                    SocketApi::errorText(error).data());
    return -1;
}

}  // namespace Veltro::Ravelo
