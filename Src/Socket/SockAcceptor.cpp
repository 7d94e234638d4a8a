#include <Ravelo/SockAcceptor.h>
#include <Ravelo/SockAddr.h>
#include <Ravelo/SockStream.h>

#include <memory>
#include <new>

#include "Log.h"
#include "Socket/SockAddrSystem.h"
#include "Socket/SocketApi.h"

namespace Veltro::Ravelo {

namespace {

constexpr int BACKLOG = 1024;

}  // namespace

CSockAcceptor::CSockAcceptor() : CSock(-1, SOCK_TYPE_ACCEPTOR) {}

CSockAcceptor::~CSockAcceptor() = default;

int CSockAcceptor::Open(const CSockAddr& local) {
    const unsigned int family = addressFamilyCode(local);
    if (m_fd != -1) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : socket fd[%d] has opened, close old first\n", __func__,
                        m_fd);
        Close();
        m_fd = -1;
    }
    if (systemFamily(family) < 0) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : invalid local addresst type[%u]!\n", __func__, family);
        return -1;
    }
    m_fd = SocketApi::create(systemFamily(family), SOCK_STREAM, 0);
    if (m_fd < 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : socket failed, error:%d,%s\n", __func__, error,
                        SocketApi::errorText(error).data());
        return -1;
    }
    if (SocketApi::setOption(m_fd, SOL_SOCKET, SO_REUSEADDR, 1) != 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : set reuseaddr failed! fd[%d], error:%d,%s\n", __func__,
                        m_fd, error, SocketApi::errorText(error).data());
        return -1;
    }
    sockaddr_in6 system{};
    local.GetAddr(reinterpret_cast<sockaddr*>(&system));
    if (SocketApi::bind(m_fd, reinterpret_cast<sockaddr*>(&system), local.GetAddrLen()) != 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : bind failed! port[%d] fd[%d], error:%d, %s\n",
                        __func__, systemPort(system), m_fd, error, SocketApi::errorText(error).data());
        return -1;
    }
    if (SocketApi::listen(m_fd, BACKLOG) != 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : listen failed! fd[%d], error:%d, %s\n", __func__, m_fd,
                        error, SocketApi::errorText(error).data());
        return -1;
    }
    return set_block_opt();
}

int CSockAcceptor::Accept(CSockStream& stream, CSockAddr* remote) {
    if (remote != nullptr &&
        (remote->GetType() < SOCKADDR_TYPE_IPV4 || remote->GetType() > SOCKADDR_TYPE_STORAGE)) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : invalid local address type[%u]!\n", __func__,
                        remote->GetType());
        return -1;
    }
    sockaddr_in6 system{};
    int length = SYSTEM_ADDRESS_BYTES;
    // Born in the stream's mode, which saves a system call.
    const int accepted =
        SocketApi::accept(m_fd, reinterpret_cast<sockaddr*>(&system), &length, !stream.GetBlockOpt());
    if (accepted < 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : accept failed! fd[%d], error:%d, %s\n", __func__, m_fd,
                        error, SocketApi::errorText(error).data());
        return -1;
    }
    if (remote != nullptr) {
        if (remote->GetType() == SOCKADDR_TYPE_IPV4 && system.sin6_family != AF_INET) {
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "a ipv6 address can't be put into CSockAddrIPv4!\n");
        } else {
            setSystemAddress(*remote, system);
        }
    }
    if (!stream.IsValid()) stream.m_fd = accepted;
    return 0;
}

CSockStream* CSockAcceptor::Accept(CSockAddr* remote) {
    std::unique_ptr<CSockStream> stream(new (std::nothrow) CSockStream);
    if (stream == nullptr || Accept(*stream, remote) != 0) return nullptr;
    return stream.release();
}

}  // namespace Veltro::Ravelo
