// CSockStream's calls that wait on the socket without the reactor.
#include <Plinth/Time.h>
#include <Ravelo/SockStream.h>

#include "Log.h"
#include "Socket/SocketApi.h"

namespace Veltro::Ravelo {

namespace {

/// One wait of at most (timeout - *last) microseconds; *last becomes how long it took.
int waitMeasured(int fd, unsigned wanted, int timeout, std::int64_t* last, unsigned* ready) {
    const auto start = Plinth::CTime::getCurrentMicroSecond();
    const int result = SocketApi::waitOne(fd, wanted, timeout - *last, ready);
    *last = static_cast<std::int64_t>(Plinth::CTime::getCurrentMicroSecond() - start);
    return result;
}

}  // namespace

int CSockStream::Send_n(const char* buf, unsigned int len, int timeout) {
    int sent = Send(buf, len);
    if (sent < 0 || timeout == 0) return sent;
    std::int64_t last = 0;
    while (static_cast<unsigned>(sent) < len) {
        unsigned ready = 0;
        const int waited =
            waitMeasured(m_fd, SocketApi::WAIT_WRITE | SocketApi::WAIT_EXCEPT, timeout, &last, &ready);
        if (waited == 0) return sent;
        if (waited < 0) {
            const int error = SocketApi::lastError();
            if (!SocketApi::isInterrupted(error)) {
                RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : Send_n select failed, fd[%d], error:%d, %s\n",
                                __func__, m_fd, error, SocketApi::errorText(error).data());
                return -1;
            }
        } else {
            if ((ready & SocketApi::WAIT_EXCEPT) != 0) {
                const int error = SocketApi::lastError();
                RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR,
                                "%s : Send_n error, socket exception! fd[%d], error:%d, %s\n", __func__, m_fd,
                                error, SocketApi::errorText(error).data());
                return -1;
            }
            if ((ready & SocketApi::WAIT_WRITE) == 0) return -1;
            const int count = SocketApi::send(m_fd, buf + sent, len - static_cast<unsigned>(sent));
            if (count >= 0) {
                sent += count;
            } else if (const int error = SocketApi::lastError(); !SocketApi::isTryAgain(error)) {
                RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : send error, fd[%d], error:%d, %s\n", __func__,
                                m_fd, error, SocketApi::errorText(error).data());
                return -1;
            }
        }
        if (last >= timeout) return sent;
    }
    return sent;
}

int CSockStream::Recv_n(char* buf, unsigned int len, int timeout) {
    if (buf == nullptr || len == 0) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : recv_n failed! buf[%p], len[%d], timeout:%d, fd[%d]\n",
                        __func__, static_cast<const void*>(buf), static_cast<int>(len), timeout, m_fd);
        return -1;
    }
    if (timeout == 0) return 0;
    std::int64_t last = 0;
    do {
        unsigned ready = 0;
        const int waited =
            waitMeasured(m_fd, SocketApi::WAIT_READ | SocketApi::WAIT_EXCEPT, timeout, &last, &ready);
        if (waited == 0) return 0;
        if (waited < 0) {
            const int error = SocketApi::lastError();
            if (SocketApi::isInterrupted(error)) continue;
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : Recv_n select failed, fd[%d], error:%d, %s\n",
                            __func__, m_fd, error, SocketApi::errorText(error).data());
            return -1;
        }
        if ((ready & SocketApi::WAIT_EXCEPT) != 0) {
            const int error = SocketApi::lastError();
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR,
                            "%s : Recv_n error, socket exception, fd[%d], error:%d, %s\n", __func__, m_fd,
                            error, SocketApi::errorText(error).data());
            return -1;
        }
        if ((ready & SocketApi::WAIT_READ) == 0) return -1;
        const int received = SocketApi::recv(m_fd, buf, len);
        if (received >= 0) return received;
        const int error = SocketApi::lastError();
        if (SocketApi::isTryAgain(error)) continue;
        if (SocketApi::isReset(error)) return -1;
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : recv error fd[%d], buf[%p], len[%u], error:%d, %s\n",
                        __func__, m_fd, static_cast<const void*>(buf), len, error,
                        SocketApi::errorText(error).data());
        return -1;
    } while (last < timeout);
    return 0;
}

}  // namespace Veltro::Ravelo
