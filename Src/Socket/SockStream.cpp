#include <Ravelo/SockAddr.h>
#include <Ravelo/SockStream.h>

#include "Log.h"
#include "Socket/SockAddrSystem.h"
#include "Socket/SockOption.h"
#include "Socket/SocketApi.h"

namespace Veltro::Ravelo {

CSockStream::CSockStream() : CSock(-1, SOCK_TYPE_STREAM) {}

CSockStream::~CSockStream() = default;

int CSockStream::Connect(const CSockAddr& remote, CSockAddr* local) {
    const unsigned int family = addressFamilyCode(remote);
    if (systemFamily(family) < 0) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : SockAddr remote type[%u] error\n", __func__, family);
        return -1;
    }
    if (local != nullptr && addressFamilyCode(*local) != family) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : SockAddr local type[%u] error\n", __func__,
                        addressFamilyCode(*local));
        return -1;
    }
    if (m_fd != -1) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : socket fd[%d] has opened, close old first\n", __func__,
                        m_fd);
        Close();
        m_fd = -1;
    }
    m_fd = SocketApi::create(systemFamily(family), SOCK_STREAM, 0);
    if (m_fd < 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : create socket failed! error:%d, %s\n", __func__, error,
                        SocketApi::errorText(error).data());
        return -1;
    }
    if (set_block_opt() != 0) return -1;

    sockaddr_in6 system{};
    auto* address = reinterpret_cast<sockaddr*>(&system);
    if (local != nullptr) {
        local->GetAddr(address);
        if (SocketApi::bind(m_fd, address, local->GetAddrLen()) != 0) {
            const int error = SocketApi::lastError();
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : bind failed! port[%d], fd[%d], error:%d, %s\n",
                            __func__, systemPort(system), m_fd, error, SocketApi::errorText(error).data());
            return -1;
        }
    }
    remote.GetAddr(address);
    if (SocketApi::connect(m_fd, address, remote.GetAddrLen()) == 0) return 0;
    const int error = SocketApi::lastError();
    if (SocketApi::isConnecting(error)) return 0;
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : connect faield! fd[%d], error:%d, %s\n", __func__, m_fd,
                    error, SocketApi::errorText(error).data());
    Close();
    m_fd = -1;
    SocketApi::setLastError(error);
    return -1;
}

int CSockStream::GetConnectStatus() {
    int pending = 0;
    if (SocketApi::getOption(m_fd, SOL_SOCKET, SO_ERROR, &pending) != 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : getsockopt error, fd[%d], error:%d, %s\n", __func__,
                        m_fd, error, SocketApi::errorText(error).data());
        return -2;
    }
    if (pending == 0) return 0;
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : error: %d\n", __func__, pending);
    return -2;
}

int CSockStream::Send(const char* buf, unsigned int len) {
    if (buf == nullptr || len == 0) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : send failed! buf[%p], len[%d], fd[%d]\n", __func__,
                        static_cast<const void*>(buf), static_cast<int>(len), m_fd);
        return -1;
    }
    const int sent = SocketApi::send(m_fd, buf, len);
    if (sent >= 0) return sent;
    const int error = SocketApi::lastError();
    if (SocketApi::isTryAgain(error)) return 0;
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : send failed! buf[%p], len[%u], fd[%d], error:%d, %s\n",
                    __func__, static_cast<const void*>(buf), len, m_fd, error,
                    SocketApi::errorText(error).data());
    return -1;
}

int CSockStream::WriteV(const iovec* vec, int count) {
    if (vec == nullptr || count < 1) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : writev failed! iovec[%p], count[%d], fd[%d]\n",
                        __func__, static_cast<const void*>(vec), count, m_fd);
        return -1;
    }
    const int sent = SocketApi::sendV(m_fd, vec, count);
    if (sent >= 0) return sent;
    const int error = SocketApi::lastError();
    if (SocketApi::isTryAgain(error)) return 0;
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : send failed! iovec[%p], count:%d, fd[%d], error:%d, %s\n",
                    __func__, static_cast<const void*>(vec), count, m_fd, error,
                    SocketApi::errorText(error).data());
    return -1;
}

int CSockStream::Recv(char* buf, unsigned int len) {
    if (buf == nullptr || len == 0) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : recv failed! buf[%p], len[%d], fd[%d]\n", __func__,
                        static_cast<const void*>(buf), static_cast<int>(len), m_fd);
        return -1;
    }
    const int received = SocketApi::recv(m_fd, buf, len);
    if (received > 0) return received;
    if (received == 0) {
        SocketApi::setLastError(SocketApi::resetError());
        return -1;
    }
    const int error = SocketApi::lastError();
    if (SocketApi::isTryAgain(error)) return 0;
    if (SocketApi::isReset(error)) return -1;
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : recv failed, buf[%p], len[%u], fd[%d], error:%d, %s\n",
                    __func__, static_cast<const void*>(buf), len, m_fd, error,
                    SocketApi::errorText(error).data());
    return -1;
}

int CSockStream::SetSockRecvBuf(unsigned int size) {
    return setIntOption(*this, __func__, SOL_SOCKET, SO_RCVBUF, static_cast<int>(size));
}

int CSockStream::SetSockSendBuf(unsigned int size) {
    return setIntOption(*this, __func__, SOL_SOCKET, SO_SNDBUF, static_cast<int>(size));
}

int CSockStream::GetSockRecvBuf() {
    return getIntOption(*this, __func__, SOL_SOCKET, SO_RCVBUF);
}

int CSockStream::GetSockSendBuf() {
    return getIntOption(*this, __func__, SOL_SOCKET, SO_SNDBUF);
}

int CSockStream::SetSockKeepAlive(bool enable) {
    return setIntOption(*this, __func__, SOL_SOCKET, SO_KEEPALIVE, enable ? 1 : 0);
}

int CSockStream::SetSockNoDelay(bool enable) {
    return setIntOption(*this, __func__, IPPROTO_TCP, TCP_NODELAY, enable ? 1 : 0);
}

}  // namespace Veltro::Ravelo
