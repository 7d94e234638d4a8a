#include <Ravelo/SslDgram.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "Log.h"
#include "Socket/DtlsTicketKeys.h"
#include "Socket/ReadWatch.h"
#include "Socket/SocketApi.h"
#include "Socket/SslContext.h"
#include "Socket/SslDgramCall.h"
#include "Socket/SslDgramRecord.h"

namespace Veltro::Ravelo {

namespace {

/// OpenSSL takes no more at once; DTLS refuses much less.
int callLength(unsigned int length) {
    return static_cast<int>(std::min<unsigned>(length, INT_MAX));
}

}  // namespace

// Logs a call that failed, with OpenSSL's verdict, and what OpenSSL's queue holds.
#define LOG_DTLS_FAILURE(outcome, what, buf, len)                                                           \
    do {                                                                                                    \
        const auto ravelo_text = SocketApi::errorText((outcome).socket_error);                              \
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING,                                                          \
                        "%s : ssl " what " fd[%d], buf:%p, len:%u, error:%d, %s, SSL:%d\n", __func__, m_fd, \
                        static_cast<const void*>(buf), len, (outcome).socket_error, ravelo_text.data(),     \
                        (outcome).ssl_error);                                                               \
        for (char ravelo_entry[256]; SslContext::takeError(ravelo_entry);) {                                \
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING,                                                      \
                            "%s : ssl " what " fd[%d], buf:%p, len:%u, error:%d, %s, SSL:%s\n", __func__,   \
                            m_fd, static_cast<const void*>(buf), len, (outcome).socket_error,               \
                            ravelo_text.data(), ravelo_entry);                                              \
        }                                                                                                   \
        SocketApi::setLastError((outcome).socket_error);                                                    \
    } while (false)

CSslDgram::CSslDgram() : CSock(-1, SOCK_TYPE_DGRAM), m_internal(new (std::nothrow) SSslDgramRecord) {}

CSslDgram::~CSslDgram() {
    tear_down();
    delete m_internal;
}

int CSslDgram::Init() {
    return CDtlsTicketKeys::shared().Init();
}

int CSslDgram::SetOption(int option, int type, void* value) {
    if (m_internal == nullptr) return -1;
    switch (option) {
        case SslOptSession:
            m_internal->m_session_type = type;
            m_internal->m_session_option = 0;
            if (value != nullptr) std::memcpy(&m_internal->m_session_option, value, sizeof(std::int32_t));
            break;
        case SslOptCert:
            m_internal->m_cert_type = type;
            if (m_internal->m_x509.get() != value) m_internal->m_x509.reset(static_cast<CSslX509*>(value));
            break;
        case SslOptCipherList:
            m_internal->m_cipher_type = type;
            if (type == 1) m_internal->m_cipher_list = static_cast<const char*>(value);
            break;
        default:
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : Unknown Option %d Type %d !\n", __func__, option,
                            type);
    }
    return 0;
}

int CSslDgram::Open(const CSockAddr* local, bool reuse) {
    return open(local, reuse);
}

int CSslDgram::open(const CSockAddr* local, bool reuse) {
    if (m_internal == nullptr) return -1;
    if (m_internal->m_dgram != nullptr) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "DTLS connection had been build, open failed!\n");
        return -1;
    }
    std::unique_ptr<CSockDgram> dgram(new (std::nothrow) CSockDgram);
    if (dgram == nullptr || dgram->Open(local, reuse) != 0) return -1;
    m_internal->m_dgram = std::move(dgram);
    m_fd = m_internal->m_dgram->GetHandle();
    return 0;
}

void CSslDgram::end_connection() {
    // Without a close notification its session would not be resumed.
    if (m_internal->m_ssl != nullptr && SSL_is_init_finished(m_internal->m_ssl.get()) == 1) {
        callDtls(m_internal, m_fd, [](SSL* ssl) { return SSL_shutdown(ssl); });
        ERR_clear_error();
    }
    m_internal->m_ssl.reset();
    m_internal->m_ctx.reset();
}

void CSslDgram::tear_down() {
    if (m_internal == nullptr || m_internal->m_dgram == nullptr) return;
    end_connection();
    // The application may have closed the socket, or taken it away: then its number may be another's now.
    if (m_internal->m_dgram->GetHandle() != m_fd) m_internal->m_dgram->Detach();
    m_internal->m_dgram.reset();
    m_fd = -1;
}

int CSslDgram::Send(const char* buf, unsigned int len) {
    if (buf == nullptr || len == 0) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : send failed! buf[%p], len[%d], fd[%d]\n", __func__,
                        static_cast<const void*>(buf), static_cast<int>(len), m_fd);
        return -1;
    }
    const SDtlsOutcome sent =
        callDtls(m_internal, m_fd, [buf, len](SSL* ssl) { return SSL_write(ssl, buf, callLength(len)); });
    if (sent.result > 0) return sent.result;
    if (sent.isTryAgain()) return 0;
    LOG_DTLS_FAILURE(sent, "send error!,", buf, len);
    return -1;
}

int CSslDgram::Recv(char* buf, unsigned int len) {
    if (buf == nullptr || len == 0) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : recv failed! buf[%p], len[%d], fd[%d]\n", __func__,
                        static_cast<const void*>(buf), static_cast<int>(len), m_fd);
        return -1;
    }
    char byte = 0;
    const SDtlsOutcome peeked =
        callDtls(m_internal, m_fd, [&byte](SSL* ssl) { return SSL_peek(ssl, &byte, 1); });
    if (peeked.result <= 0) {
        if (peeked.isTryAgain()) return 0;
        LOG_DTLS_FAILURE(peeked, "peek error!", buf, len);
        return -1;
    }
    const int pending = SSL_pending(m_internal->m_ssl.get());
    const int length = callLength(std::min(static_cast<unsigned>(std::max(pending, 0)), len));
    if (length == 0) return 0;
    const SDtlsOutcome received =
        callDtls(m_internal, m_fd, [buf, length](SSL* ssl) { return SSL_read(ssl, buf, length); });
    if (received.result > 0) {
        // The rest of the record, or of the datagram, makes no event at the socket.
        if (SSL_has_pending(m_internal->m_ssl.get()) == 1) CReadWatch::note(m_fd, CReadWatch::ELeft::Inside);
        return received.result;
    }
    if (received.isTryAgain()) return 0;
    LOG_DTLS_FAILURE(received, "recv error!", buf, len);
    return -1;
}

}  // namespace Veltro::Ravelo
