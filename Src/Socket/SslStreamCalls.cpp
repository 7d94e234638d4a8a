// CSslStream's single calls.
#include <Ravelo/SslStream.h>

#include <algorithm>
#include <climits>
#include <cstdint>

#include "Log.h"
#include "Socket/SslCall.h"
#include "Socket/SslContext.h"
#include "Socket/SslStreamRecord.h"

// Logs a call that failed: OpenSSL's verdict, what its queue holds, and the queue's end. `head` names the
// call and ends the formats' beginning, whose values follow; `mark` stands before the verdict.
#define LOG_SSL_FAILURE(outcome, head, mark, ...)                                                 \
    do {                                                                                          \
        const int ravelo_error = (outcome).socket_error;                                          \
        const auto ravelo_text = SocketApi::errorText(ravelo_error);                              \
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, head "SSL_get_error" mark "%d, errno:%d,%s\n", \
                        __VA_ARGS__, (outcome).ssl_error, ravelo_error, ravelo_text.data());      \
        for (char ravelo_entry[256]; SslContext::takeError(ravelo_entry);) {                      \
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, head "ERR_error_string:%s, errno:%d,%s\n", \
                            __VA_ARGS__, ravelo_entry, ravelo_error, ravelo_text.data());         \
        }                                                                                         \
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, head "ERR_get_error" mark "0, errno:%d,%s\n",  \
                        __VA_ARGS__, ravelo_error, ravelo_text.data());                           \
        SocketApi::setLastError(ravelo_error);                                                    \
    } while (false)

namespace Veltro::Ravelo {

namespace {

/// Looks for data without taking any, which reads the next record if none is there.
SSslOutcome peekByte(SSL* ssl, int fd) {
    char byte = 0;
    return callSsl(ssl, fd, [ssl, &byte] { return SSL_peek(ssl, &byte, 1); });
}

SSL* connectionOf(const SSslStreamRecord* record) {
    return record != nullptr ? record->m_ssl.get() : nullptr;
}

}  // namespace

int CSslStream::Send(const char* buf, unsigned int len) {
    if (buf == nullptr || len == 0) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : send failed! buf[%p], len[%d], fd[%d]\n", __func__,
                        static_cast<const void*>(buf), static_cast<int>(len), m_fd);
        return -1;
    }
    SSL* ssl = connectionOf(m_internal);
    const int length = static_cast<int>(std::min<unsigned>(len, INT_MAX));
    const SSslOutcome sent = callSsl(ssl, m_fd, [ssl, buf, length] { return SSL_write(ssl, buf, length); });
    if (sent.result > 0) return sent.result;
    if (sent.isTryAgain()) return 0;
    LOG_SSL_FAILURE(sent, "SSL_write error! fd:%d, len:%u, ", "=", m_fd, len);
    return -1;
}

int CSslStream::Recv(char* buf, unsigned int len) {
    if (buf == nullptr || len == 0) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : recv failed! buf[%p], len[%d], fd[%d]\n", __func__,
                        static_cast<const void*>(buf), static_cast<int>(len), m_fd);
        return -1;
    }
    SSL* ssl = connectionOf(m_internal);
    const SSslOutcome peeked = peekByte(ssl, m_fd);
    if (peeked.result <= 0) {
        if (peeked.isTryAgain()) return 0;
        LOG_SSL_FAILURE(peeked, "SSL_peek error! fd:%d, len:%u, ", "=", m_fd, len);
        return -1;
    }
    const int pending = SSL_pending(ssl);
    if (pending <= 0) return 0;
    const int length = static_cast<int>(std::min(static_cast<unsigned>(pending), len));
    const SSslOutcome received =
        callSsl(ssl, m_fd, [ssl, buf, length] { return SSL_read(ssl, buf, length); });
    if (received.result > 0) return received.result;
    if (received.isTryAgain()) return 0;
    LOG_SSL_FAILURE(received, "SSL_read error! fd:%d, len:%u, ", ":", m_fd, len);
    return -1;
}

int CSslStream::Peek() {
    SSL* ssl = connectionOf(m_internal);
    const SSslOutcome peeked = peekByte(ssl, m_fd);
    if (peeked.result > 0) return SSL_pending(ssl);
    if (peeked.wantsMore()) return 0;
    LOG_SSL_FAILURE(peeked, "SSL_peek error! fd:%d, ", ":", m_fd);
    return -1;
}

int CSslStream::WriteV(const iovec* vec, int count) {
    if (vec == nullptr || count < 1) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : send failed! vector[%p], count[%d], fd[%d]\n",
                        __func__, static_cast<const void*>(vec), count, m_fd);
        return -1;
    }
    int total = 0;
    for (int i = 0; i < count; ++i) {
        // What has been sent stays an int.
        const auto room = static_cast<std::uint32_t>(INT_MAX - total);
        const std::uint32_t length = std::min(vec[i].iov_len, room);
        if (length < vec[i].iov_len && length == 0) break;
        const int sent = Send(vec[i].iov_base, length);
        if (sent < 0) return sent;
        total += sent;
        if (static_cast<std::uint32_t>(sent) < vec[i].iov_len) break;
    }
    return total;
}

}  // namespace Veltro::Ravelo
