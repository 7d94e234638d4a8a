// CSslStream's calls that wait on the socket without the reactor.
#include <Plinth/Time.h>
#include <Ravelo/SslStream.h>

#include "Log.h"
#include "Socket/SocketApi.h"
#include "Socket/SslStreamRecord.h"

namespace Veltro::Ravelo {

namespace {

/// What Recv_n() takes for an interrupted wait, whatever the platform's number of it.
constexpr int RECV_INTERRUPTED = 4;

/// The time of one waiting call.
class CAllowance {
public:
    explicit CAllowance(int timeout_us)
        : m_timeout_us(timeout_us), m_start_us(Plinth::CTime::getCurrentMicroSecond()) {}

    /// Waits on a socket for the rest of the time, then measures again what is gone.
    int wait(int fd, unsigned wanted, unsigned* ready) {
        const int result = SocketApi::waitOne(fd, wanted, m_timeout_us - m_gone_us, ready);
        m_gone_us = static_cast<std::int64_t>(Plinth::CTime::getCurrentMicroSecond() - m_start_us);
        return result;
    }
    bool isUsedUp() const { return m_gone_us >= m_timeout_us; }

private:
    const std::int64_t m_timeout_us;
    const std::uint64_t m_start_us;
    std::int64_t m_gone_us = 0;
};

}  // namespace

int CSslStream::Send_n(const char* buf, unsigned int len, int timeout) {
    if (buf == nullptr || len == 0) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR,
                        "%s : Send_n failed! buf[%p], len[%d], timeout:[%d], fd[%d]\n", __func__,
                        static_cast<const void*>(buf), static_cast<int>(len), timeout, m_fd);
        return -1;
    }
    int sent = Send(buf, len);
    if (sent < 0 || timeout == 0) return sent;
    CAllowance allowance(timeout);
    while (static_cast<unsigned>(sent) < len) {
        unsigned ready = 0;
        const int waited = allowance.wait(m_fd, SocketApi::WAIT_WRITE | SocketApi::WAIT_EXCEPT, &ready);
        if (waited == 0) return sent;
        const int error = SocketApi::lastError();
        if (waited < 0 && !SocketApi::isInterrupted(error)) {
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : Send_n select failed, fd:%d, errno:%d,%s\n",
                            __func__, m_fd, error, SocketApi::errorText(error).data());
            return -1;
        }
        if (waited > 0) {
            if ((ready & SocketApi::WAIT_EXCEPT) != 0) {
                RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR,
                                "%s : Send_n error, fd:%d, socket exception! errno:%d,%s\n", __func__, m_fd,
                                error, SocketApi::errorText(error).data());
                return -1;
            }
            if ((ready & SocketApi::WAIT_WRITE) == 0) return -1;
            const int more = Send(buf + sent, len - static_cast<unsigned>(sent));
            if (more < 0) return -1;
            sent += more;
        }
        if (allowance.isUsedUp()) return sent;
    }
    return sent;
}

int CSslStream::Recv_n(char* buf, unsigned int len, int timeout) {
    if (buf == nullptr || len == 0) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR,
                        "%s : recv_n failed! buf[%p], len[%d], timeout:[%d], fd[%d]\n", __func__,
                        static_cast<const void*>(buf), static_cast<int>(len), timeout, m_fd);
        return -1;
    }
    if (timeout == 0) return 0;
    // Bytes that are decrypted already make no socket readable.
    if (m_internal != nullptr && m_internal->m_ssl != nullptr && SSL_pending(m_internal->m_ssl.get()) > 0)
        return Recv(buf, len);
    CAllowance allowance(timeout);
    for (;;) {
        unsigned ready = 0;
        const int waited = allowance.wait(m_fd, SocketApi::WAIT_READ | SocketApi::WAIT_EXCEPT, &ready);
        if (waited == 0) return 0;
        const int error = SocketApi::lastError();
        if (waited < 0) {
            if (error != RECV_INTERRUPTED) {
                RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : Recv_n select failed, fd:%d, errno:%d,%s\n",
                                __func__, m_fd, error, SocketApi::errorText(error).data());
                return -1;
            }
            if (allowance.isUsedUp()) return 0;
            continue;
        }
        if ((ready & SocketApi::WAIT_EXCEPT) != 0) {
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : Recv_n error, socket exception! fd:%d, %d,%s\n",
                            __func__, m_fd, error, SocketApi::errorText(error).data());
            return -1;
        }
        if ((ready & SocketApi::WAIT_READ) == 0) {
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : Recv_n error, fd not set! fd:%d, %d,%s\n",
                            __func__, m_fd, error, SocketApi::errorText(error).data());
            return -1;
        }
        const int received = Recv(buf, len);
        if (received != 0) return received;
        // A ticket, or a part of a record: no data yet.
        if (allowance.isUsedUp()) return 0;
    }
}

}  // namespace Veltro::Ravelo
