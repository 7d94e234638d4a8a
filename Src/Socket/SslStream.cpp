// CSslStream's life and options.
#include <Ravelo/SockStream.h>
#include <Ravelo/SslStream.h>

#include <cstring>
#include <new>
#include <tuple>
#include <utility>

#include "Log.h"
#include "Socket/SslCall.h"
#include "Socket/SslSetup.h"
#include "Socket/SslStreamRecord.h"
#include "Socket/SslX509Record.h"

namespace Veltro::Ravelo {

CSslStream::CSslStream() : CSock(-1, SOCK_TYPE_SSL_STREAM), m_internal(nullptr) {
    if (SslSetup::keepPastExit() == 0) m_internal = new (std::nothrow) SSslStreamRecord;
}

CSslStream::~CSslStream() {
    if (m_internal == nullptr) return;
    if (SSL* ssl = m_internal->m_ssl.get(); ssl != nullptr) {
        char byte = 0;
        // Tickets that nobody has read yet are kept; and unread bytes would end the connection by a reset.
        if (m_internal->m_ctx != nullptr && !m_block_opt)
            callSsl(ssl, m_fd, [ssl, &byte] { return SSL_peek(ssl, &byte, 1); });
        // A blocking socket is not waited for.
        if (m_block_opt) SslBio::setTimeout(SSL_get_rbio(ssl), 1);
        callSsl(ssl, m_fd, [ssl] { return SSL_shutdown(ssl); });
        ERR_clear_error();
    }
    m_internal->m_ssl.reset();
    m_internal->m_ctx.reset();
    delete m_internal;
}

int CSslStream::SetPemPath(const char* dir) {
    return m_internal != nullptr ? copyOptionText(&m_internal->m_pem_path, dir) : -1;
}

int CSslStream::SetOption(int option, int type, void* value) {
    if (m_internal == nullptr) return -1;
    switch (option) {
        case SslOptSession:
            m_internal->m_session_type = static_cast<std::uint32_t>(type);
            if ((type & SslSessionByNumber) != 0) m_internal->m_session_number = optionNumber(value);
            return 0;
        case SslOptCert:
            return m_internal->setCert(type, value);
        case SslOptCipherList:
            return m_internal->takeCipherList(type, value);
        case SslOptTimeout:
            return m_internal->setTimeout(type, value, 0);
        case SslOptKeyPasswd:
            return m_internal->setPassword(value);
        case SslOptServerName:
            return copyOptionText(&m_internal->m_server_name, static_cast<const char*>(value));
        default:
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : Unknown Option %d Type %d !\n", __func__, option,
                            type);
            return 0;
    }
}

int CSslStream::SetOption(int option, int type, void* value, int len) {
    if (m_internal == nullptr) return -1;
    const std::optional<int> set = m_internal->setSized(option, type, value, len);
    return set ? *set : SetOption(option, type, value);
}

int CSslStream::GetOption(int option, int& type, void* value, int&) {
    if (m_internal == nullptr) return 0;
    if (option != SslOptSession) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : Unknown Option %d Type %d !\n", __func__, option,
                        type);
        return 0;
    }
    type = static_cast<int>(m_internal->m_session_type);
    if ((type & SslSessionByNumber) != 0 && value != nullptr)
        std::memcpy(value, &m_internal->m_session_number, sizeof(m_internal->m_session_number));
    return 0;
}

int CSslStream::GetPeerCert(CSslX509* cert) {
    const SSL* ssl = m_internal != nullptr ? m_internal->m_ssl.get() : nullptr;
    if (ssl == nullptr || cert == nullptr) return -1;
    TCertificate shown(SSL_get1_peer_certificate(ssl));
    if (shown == nullptr) return -2;
    return SSslX509Record::setCert(*cert, std::move(shown));
}

int CSslStream::SetSsl(ssl_st* ssl) {
    if (ssl == nullptr || m_internal == nullptr) return -1;
    const auto& [m_ssl, m_ctx] = std::tie(m_internal->m_ssl, m_internal->m_ctx);
    RAVELO_ASSERT(m_ctx == NULL && m_ssl == NULL);
    m_internal->m_ssl.reset(ssl);
    return 0;
}

int CSslStream::SetStream(CSockStream* stream) {
    if (stream == nullptr) return -1;
    const std::unique_ptr<CSockStream> owned(stream);
    const int fd = stream->Detach();
    const int result = Attach(fd);
    if (result != 0) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "%s : SetStream Attach failed ret = %d!\n", __func__,
                        result);
        // One that could not be taken is nobody's any more.
        if (m_fd != fd) SocketApi::close(fd);
    }
    return 0;
}

}  // namespace Veltro::Ravelo
