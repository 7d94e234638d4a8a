// CSockDgram's opening and its default destination.
#include <Ravelo/SockAddrIPv4.h>
#include <Ravelo/SockAddrIPv6.h>
#include <Ravelo/SockDgram.h>

#include <memory>
#include <new>

#include "Log.h"
#include "Socket/SockAddrSystem.h"
#include "Socket/SockDgramRecord.h"
#include "Socket/SocketApi.h"

namespace Veltro::Ravelo {

namespace {

/// What the log calls the operations, also from their helpers.
constexpr const char* OPEN = "Open";
constexpr const char* SET_REMOTE = "SetRemote";

constexpr unsigned TEXT_BYTES = 64;

/// Whether an IPv4 address counts as a broadcast one: loosely, by its last four bits.
bool isBroadcast(std::uint32_t ipv4) {
    return (ipv4 & 0xFU) == 0xFU;
}

std::uint32_t hostAddress(const sockaddr_in6& system) {
    return ntohl(asIPv4(system).sin_addr.s_addr);
}

/// A socket binds the system's form of an address; the result is the system's.
int bindTo(int fd, const CSockAddr& address) {
    sockaddr_in6 system{};
    auto* form = reinterpret_cast<sockaddr*>(&system);
    address.GetAddr(form);
    return SocketApi::bind(fd, form, address.GetAddrLen());
}

/// A copy of a system address; null for a family that is none, or without memory.
std::unique_ptr<CSockAddr> newAddress(unsigned int family, const sockaddr_in6& system) {
    std::unique_ptr<CSockAddr> copy;
    if (family == SOCKADDR_TYPE_IPV4) copy.reset(new (std::nothrow) CSockAddrIPv4(asIPv4(system)));
    if (family == SOCKADDR_TYPE_IPV6) copy.reset(new (std::nothrow) CSockAddrIPv6(&system));
    return copy;
}

}  // namespace

int CSockDgram::Open(const CSockAddr* local) {
    return Open(local, false);
}

int CSockDgram::Open(const CSockAddr* local, bool reuse) {
    if (reuse && local == nullptr) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR,
                        "%s : open failed!Invalid parameter: reuseaddr:%d, addr:%p \n", OPEN, 1,
                        static_cast<const void*>(local));
        return -1;
    }
    const unsigned int family = local != nullptr ? addressFamilyCode(*local) : SOCKADDR_TYPE_IPV4;
    if (m_fd != -1) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : socket fd[%d] has opened, close old first\n", OPEN,
                        m_fd);
        Close();
        m_fd = -1;
    }
    if (m_internal == nullptr) return -1;
    *m_internal = SInternal{};
    m_internal->m_is_ipv4 = family == SOCKADDR_TYPE_IPV4;
    // What is no IPv4 address counts as an IPv6 one; without any text that is "::".
    m_fd = SocketApi::createDatagram(m_internal->m_is_ipv4 ? AF_INET : AF_INET6);
    if (m_fd < 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : create socket failed, error:%d, %s\n.", OPEN, error,
                        SocketApi::errorText(error).data());
        return -1;
    }
    if (set_block_opt() != 0) return -1;
    if (local == nullptr) return 0;
    return m_internal->m_is_ipv4 ? open_ipv4(*local, reuse) : open_ipv6(*local, reuse);
}

int CSockDgram::open_ipv4(const CSockAddr& local, bool reuse) {
    char text[TEXT_BYTES];
    addressText(local, text, sizeof(text));
    sockaddr_in6 system{};
    local.GetAddr(reinterpret_cast<sockaddr*>(&system));
    const std::uint32_t group = hostAddress(system);
    const bool joins = isMulticast(group);
    const unsigned short port = addressPort(local);
    CSockAddrIPv4 address(0U, port);
    // An empty text would bind all addresses; there is none when it is too long.
    if (!joins && (text[0] == '\0' || address.SetIp(text) != 0)) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : SetIp failed, fd[%d], ip[%s]\n", OPEN, m_fd, text);
        return -1;
    }
    if (reuse_port(port, reuse) != 0) return -1;
    if (bindTo(m_fd, address) != 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : bind failed! port[%d], fd[%d], error:%d, %s\n", OPEN,
                        port, m_fd, error, SocketApi::errorText(error).data());
        return -1;
    }
    if (!joins) return 0;
    if (setMembership(m_fd, IP_ADD_MEMBERSHIP, group, INADDR_ANY) != 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : IP_ADD_MEMBERSHIP failed, fd[%d], error:%d, %s\n",
                        OPEN, m_fd, error, SocketApi::errorText(error).data());
        return -1;
    }
    m_internal->m_is_member = true;
    m_internal->m_multicast_addr = newAddress(SOCKADDR_TYPE_IPV4, system);
    return m_internal->m_multicast_addr != nullptr ? 0 : -1;
}

int CSockDgram::open_ipv6(const CSockAddr& local, bool reuse) {
    char text[TEXT_BYTES];
    addressText(local, text, sizeof(text));
    sockaddr_in6 system{};
    local.GetAddr(reinterpret_cast<sockaddr*>(&system));
    const bool joins = isMulticast(system.sin6_addr);
    const unsigned short port = addressPort(local);
    CSockAddrIPv6 address;
    if (!joins) {
        address.SetIp(text);
        // An IPv6 address's own text lacks the scope, without which a link-local address cannot be bound.
        if (address.GetScopeID() == 0) address.SetScopeID(static_cast<unsigned>(system.sin6_scope_id));
    }
    address.SetPort(port);
    if (reuse_port(port, reuse) != 0) return -1;
    if (bindTo(m_fd, address) != 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : bind failed! port[%d], fd[%d] error:%d, %s\n", OPEN,
                        port, m_fd, error, SocketApi::errorText(error).data());
        return -1;
    }
    if (!joins) return 0;
    const ipv6_mreq membership{system.sin6_addr, 0};
    if (SocketApi::setOption(m_fd, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, &membership, sizeof(membership)) != 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : IPV6_JOIN_GROUP failed, fd[%d], error:%d, %s\n", OPEN,
                        m_fd, error, SocketApi::errorText(error).data());
        return -1;
    }
    m_internal->m_is_member = true;
    m_internal->m_multicast_addr = newAddress(SOCKADDR_TYPE_IPV6, system);
    return m_internal->m_multicast_addr != nullptr ? 0 : -1;
}

int CSockDgram::reuse_port(unsigned short port, bool reuse) {
    if (!reuse || port == 0) return 0;
    if (SocketApi::setOption(m_fd, SOL_SOCKET, SO_REUSEADDR, 1) == 0) return 0;
    const int error = SocketApi::lastError();
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : set reuseaddr failed!, fd[%d], error:%d, %s\n", OPEN, m_fd,
                    error, SocketApi::errorText(error).data());
    return -1;
}

int CSockDgram::SetRemote(const CSockAddr* remote) {
    if (m_internal != nullptr && remote != nullptr) m_internal->m_remote_addr.reset();
    sockaddr_in6 system{};
    auto* address = reinterpret_cast<sockaddr*>(&system);
    if (remote == nullptr || remote->GetAddr(address) == nullptr) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : invalid remote addresst type! fd[%d]\n", SET_REMOTE,
                        m_fd);
        return -1;
    }
    const unsigned int family = addressFamilyCode(*remote);
    if (m_internal != nullptr) m_internal->m_remote_addr = newAddress(family, system);
    if (m_internal == nullptr || m_internal->m_remote_addr == nullptr) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : CSockDgram::SetRemote error! fd[%d]\n", SET_REMOTE,
                        m_fd);
        return -1;
    }
    const bool is_broadcast = family == SOCKADDR_TYPE_IPV4 && isBroadcast(hostAddress(system));
    if (is_broadcast && SocketApi::setOption(m_fd, SOL_SOCKET, SO_BROADCAST, 1) != 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : set SO_BROADCAST failed, fd[%d], error:%d, %s\n",
                        SET_REMOTE, m_fd, error, SocketApi::errorText(error).data());
        return -1;
    }
    const bool is_group =
        family == SOCKADDR_TYPE_IPV4 ? isMulticast(hostAddress(system)) : isMulticast(system.sin6_addr);
    return connect_remote(*remote, !is_broadcast && !is_group);
}

int CSockDgram::connect_remote(const CSockAddr& remote, bool connects) {
    int result = 0;
    if (connects) {
        sockaddr_in6 system{};
        auto* address = reinterpret_cast<sockaddr*>(&system);
        remote.GetAddr(address);
        result = SocketApi::connect(m_fd, address, remote.GetAddrLen());
    } else if (m_internal->m_is_connected && m_fd != -1) {
        // Otherwise only the former peer would be heard.
        result = SocketApi::disconnect(m_fd, m_internal->m_is_ipv4 ? AF_INET : AF_INET6);
    }
    m_internal->m_is_connected = connects;
    const int error = SocketApi::lastError();
    if (result == 0 || SocketApi::isConnecting(error)) return 0;
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : connect faield! fd[%d], error:%d, %s\n", SET_REMOTE, m_fd,
                    error, SocketApi::errorText(error).data());
    Close();
    m_fd = -1;
    m_internal->m_is_connected = false;
    SocketApi::setLastError(error);
    return -1;
}

}  // namespace Veltro::Ravelo
