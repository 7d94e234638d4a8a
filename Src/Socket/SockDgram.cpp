#include <Ravelo/SockAddrIPv6.h>
#include <Ravelo/SockAddrStorage.h>
#include <Ravelo/SockDgram.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "Log.h"
#include "Socket/SockAddrSystem.h"
#include "Socket/SockDgramRecord.h"
#include "Socket/SockOption.h"
#include "Socket/SocketApi.h"

namespace Veltro::Ravelo {

namespace {

/// One byte more than any datagram has: the system refuses what fills it.
constexpr std::size_t TOO_LONG_BYTES = 65'536;

/// Sends a list that is too long for the system as one datagram, by way of a copy.
int sendCopy(int fd, const iovec* elements, int count) {
    const std::unique_ptr<char[]> copy(new (std::nothrow) char[TOO_LONG_BYTES]);
    if (copy == nullptr) {
        SocketApi::setLastError(SocketApi::noBufferError());
        return -1;
    }
    std::size_t used = 0;
    for (int i = 0; i < count; ++i) {
        const std::size_t length = std::min<std::size_t>(elements[i].iov_len, TOO_LONG_BYTES - used);
        if (length > 0) std::memcpy(copy.get() + used, elements[i].iov_base, length);
        used += length;
    }
    return SocketApi::send(fd, copy.get(), static_cast<unsigned>(used));
}

}  // namespace

CSockDgram::CSockDgram() : CSock(-1, SOCK_TYPE_DGRAM), m_internal(new (std::nothrow) SInternal) {}

CSockDgram::~CSockDgram() {
    delete m_internal;
}

int CSockDgram::Send(const char* buf, unsigned int len, const CSockAddr* remote) {
    if (buf == nullptr || len == 0) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR,
                        "%s : send to failed! Invalid parameter: buf:%p, len:%u, fd[%d]\n", __func__,
                        static_cast<const void*>(buf), len, m_fd);
        return -1;
    }
    if (remote == nullptr && m_internal != nullptr) remote = m_internal->m_remote_addr.get();
    if (remote == nullptr) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : send to failed! remote is null, fd[%d]\n", __func__,
                        m_fd);
        return -1;
    }
    if (!remote->IsValid()) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : send to failed! remote is invalid, fd[%d]\n", __func__,
                        m_fd);
        return -1;
    }
    sockaddr_in6 system{};
    auto* address = reinterpret_cast<sockaddr*>(&system);
    remote->GetAddr(address);
    const int sent = SocketApi::sendTo(m_fd, buf, len, address, remote->GetAddrLen());
    if (sent >= 0) return sent;
    const int error = SocketApi::lastError();
    if (SocketApi::isTryAgain(error)) return 0;
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : send to failed! fd[%d] error:%d, %s\n", __func__, m_fd,
                    error, SocketApi::errorText(error).data());
    return sent;
}

int CSockDgram::WriteV(const iovec* vec, int count) {
    const CSockAddr* remote = m_internal != nullptr ? m_internal->m_remote_addr.get() : nullptr;
    if (vec == nullptr || remote == nullptr) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR,
                        "%s : WriteV failed! Invalid parameter: vector:%p, m_remote_addr:%p fd[%d]\n",
                        __func__, static_cast<const void*>(vec), static_cast<const void*>(remote), m_fd);
        return -1;
    }
    const int sent =
        count > SocketApi::MAX_ELEMENTS ? sendCopy(m_fd, vec, count) : SocketApi::sendV(m_fd, vec, count);
    if (sent >= 0) return sent;
    const int error = SocketApi::lastError();
    if (SocketApi::isTryAgain(error)) return 0;
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : send failed! fd[%d] error:%d, %s\n", __func__, m_fd, error,
                    SocketApi::errorText(error).data());
    return -1;
}

int CSockDgram::Recv(char* buf, unsigned int len, CSockAddr* remote) {
    if (buf == nullptr || len == 0) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR,
                        "%s : recv failed! invalid parameter: buf:%p, len:%u, fd[%d]\n", __func__,
                        static_cast<const void*>(buf), len, m_fd);
        return -1;
    }
    if (remote != nullptr &&
        (remote->GetType() < SOCKADDR_TYPE_IPV4 || remote->GetType() > SOCKADDR_TYPE_STORAGE)) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR,
                        "%s : recv failed! invalid parameter,remote type:%u, fd[%d]\n", __func__,
                        remote->GetType(), m_fd);
        return -1;
    }
    sockaddr_in6 system{};
    int length = SYSTEM_ADDRESS_BYTES;
    const int received = SocketApi::recvFrom(m_fd, buf, len, reinterpret_cast<sockaddr*>(&system), &length);
    if (received < 0) {
        const int error = SocketApi::lastError();
        if (SocketApi::isTryAgain(error)) return 0;
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : recv from failed! fd[%d], error:%d, %s\n", __func__,
                        m_fd, error, SocketApi::errorText(error).data());
        return received;
    }
    if (received == 0 || remote == nullptr) return received;
    if (remote->GetType() == SOCKADDR_TYPE_IPV4 && system.sin6_family != AF_INET) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR,
                        "%s : a ipv6 address can not put into CSockAddrIPv4! fd[%d]\n", __func__, m_fd);
    } else {
        setSystemAddress(*remote, system);
    }
    return received;
}

int CSockDgram::SetSockRecvBuf(unsigned int size) {
    return setIntOption(*this, __func__, SOL_SOCKET, SO_RCVBUF, static_cast<int>(size));
}

int CSockDgram::SetSockSendBuf(unsigned int size) {
    return setIntOption(*this, __func__, SOL_SOCKET, SO_SNDBUF, static_cast<int>(size));
}

int CSockDgram::GetSockRecvBuf() {
    return getIntOption(*this, __func__, SOL_SOCKET, SO_RCVBUF);
}

int CSockDgram::GetSockSendBuf() {
    return getIntOption(*this, __func__, SOL_SOCKET, SO_SNDBUF);
}

}  // namespace Veltro::Ravelo
