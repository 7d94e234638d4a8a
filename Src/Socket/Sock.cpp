#include <Ravelo/Sock.h>
#include <Ravelo/SockAddr.h>

#include "Log.h"
#include "Socket/SockAddrSystem.h"
#include "Socket/SocketApi.h"

namespace Veltro::Ravelo {

CSock::CSock() : CSock(-1, SOCK_TYPE_UNKNOWN) {}

CSock::CSock(int fd, unsigned int type) : m_fd(fd), m_type(type), m_block_opt(false) {}

CSock::CSock(const CSock& other) = default;

CSock& CSock::operator=(const CSock& other) = default;

CSock::~CSock() {
    Close();
}

int CSock::GetHandle() const {
    return m_fd;
}

unsigned int CSock::GetType() const {
    return m_type;
}

bool CSock::IsValid() const {
    return m_fd != -1;
}

bool CSock::GetBlockOpt() const {
    return m_block_opt;
}

int CSock::Attach(int fd) {
    if (m_fd != -1) return -1;
    m_fd = fd;
    return set_block_opt();
}

int CSock::Detach() {
    const int fd = m_fd;
    m_fd = -1;
    return fd;
}

int CSock::Close() {
    if (m_fd < 0) return -1;
    const int result = SocketApi::close(m_fd);
    if (result != 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "CSock::Close failed! fd[%d], error:%d,%s\n", m_fd, error,
                        SocketApi::errorText(error).data());
    }
    m_fd = -1;
    return result == 0 ? 0 : -1;
}

void CSock::SetBlockOpt(bool block) {
    if (m_block_opt == block) return;
    m_block_opt = block;
    if (set_block_opt() != 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : SetBlockOpt failed! fd[%d], error:%d,%s\n", __func__,
                        m_fd, error, SocketApi::errorText(error).data());
    }
}

int CSock::set_block_opt() {
    if (m_fd == -1) return 0;
    if (SocketApi::setNonBlocking(m_fd, !m_block_opt) == 0) return 0;
    const int error = SocketApi::lastError();
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : set socket block failed! fd[%d], error:%d,%s\n", __func__,
                    m_fd, error, SocketApi::errorText(error).data());
    return -1;
}

int CSock::GetLocalAddr(CSockAddr* addr) {
    sockaddr_in6 system{};
    int length = SYSTEM_ADDRESS_BYTES;
    if (SocketApi::getSockName(m_fd, reinterpret_cast<sockaddr*>(&system), &length) != 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : getsockname failed! fd[%d], error:%d,%s\n", __func__,
                        m_fd, error, SocketApi::errorText(error).data());
        return -1;
    }
    if (addr == nullptr || !acceptsSystemFamily(*addr, system.sin6_family)) return -1;
    return setSystemAddress(*addr, system);
}

int CSock::GetRemoteAddr(CSockAddr* addr) {
    sockaddr_in6 system{};
    int length = SYSTEM_ADDRESS_BYTES;
    if (SocketApi::getPeerName(m_fd, reinterpret_cast<sockaddr*>(&system), &length) != 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : getpeername failed! fd[%d], error:%d,%s\n", __func__,
                        m_fd, error, SocketApi::errorText(error).data());
        return -1;
    }
    if (addr == nullptr || !acceptsSystemFamily(*addr, system.sin6_family)) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : Unkonw Sockaddr Type[%u].\n", __func__,
                        addr != nullptr ? addr->GetType() : 0U);
        return -1;
    }
    return setSystemAddress(*addr, system);
}

}  // namespace Veltro::Ravelo
