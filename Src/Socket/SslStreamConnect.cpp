// How CSslStream becomes a client's connection.
#include <Ravelo/SockAddrStorage.h>
#include <Ravelo/SockStream.h>
#include <Ravelo/SslStream.h>

#include <cstdio>
#include <memory>
#include <new>
#include <tuple>

#include "Log.h"
#include "Socket/SslCall.h"
#include "Socket/SslContext.h"
#include "Socket/SslStreamRecord.h"

namespace Veltro::Ravelo {

int CSslStream::Connect(const CSockAddr& remote, CSockAddr* local) {
    const unsigned int type = remote.GetType();
    if (type < SOCKADDR_TYPE_IPV4 || type > SOCKADDR_TYPE_STORAGE) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : connect error, address type[%u] error!\n", __func__,
                        type);
        return -1;
    }
    std::unique_ptr<CSockStream> stream(new (std::nothrow) CSockStream);
    if (stream == nullptr) return -1;
    stream->SetBlockOpt(true);
    if (stream->Connect(remote, local) != 0) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "connect error!\n");
        return -1;
    }
    if (Connect(stream.get()) != 0) return -1;
    stream.release();  // it is gone
    return 0;
}

int CSslStream::Connect(CSockStream* stream) {
    if (stream == nullptr || m_internal == nullptr) return -1;
    const auto& [m_ssl, m_ctx] = std::tie(m_internal->m_ssl, m_internal->m_ctx);
    RAVELO_ASSERT(m_ctx == NULL && m_ssl == NULL);
    stream->SetBlockOpt(true);
    SocketApi::setLastError(0);
    m_internal->m_ctx.reset(init_ssl_ctx());
    if (m_ctx == nullptr) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "%s : init ssl_ctx_st error! errno:%d, %s\n", __func__,
                        error, SocketApi::errorText(error).data());
        return -1;
    }
    m_internal->m_ssl.reset(init_ssl(stream->GetHandle()));
    if (m_ssl == nullptr) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "%s : init ssl_st error! errno:%d, %s\n", __func__, error,
                        SocketApi::errorText(error).data());
        m_internal->dropConnection();
        return -1;
    }
    if (!m_internal->applyCiphers(m_ssl.get(), SslContext::DEFAULT_CIPHERS)) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "%s : Cipher List Rule Set Wrong! errno:%d, %s\n",
                        __func__, error, SocketApi::errorText(error).data());
    }
    send_server_name();
    set_session(m_ssl.get(), stream);
    if (handshake(stream) != 0) {
        m_internal->dropConnection();
        return -1;
    }
    save_session(m_ssl.get(), stream);
    stream->SetBlockOpt(false);
    if (m_fd != -1) Close();
    m_fd = stream->Detach();
    m_block_opt = false;
    delete stream;
    return 0;
}

ssl_ctx_st* CSslStream::init_ssl_ctx() {
    TSslContext ctx = SslContext::create(TLS_client_method());
    if (ctx == nullptr) {
        SslContext::printErrors();
        return nullptr;
    }
    if (certificate_setup(ctx.get()) == nullptr) return nullptr;
    SSL_CTX_set_mode(ctx.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    session_setup(ctx.get());
    return ctx.release();
}

ssl_ctx_st* CSslStream::certificate_setup(ssl_ctx_st* ctx) {
    using SslContext::EFailure;
    SSslStreamRecord& own = *m_internal;
    if (own.verifiesPeer()) SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, nullptr);
    if (own.verifiesPeer() && own.m_x509 != nullptr) SslContext::trust(ctx, *own.m_x509);
    if (own.showsOwn() && own.m_x509 != nullptr) {
        const EFailure failure = SslContext::useOwn(ctx, *own.m_x509);
        if (failure == EFailure::NONE) return ctx;
        const int error = SocketApi::lastError();
        if (failure == EFailure::CERTIFICATE) {
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : SSL_CTX_use_certificate failed, errno:%d, %s\n",
                            __func__, error, SocketApi::errorText(error).data());
        } else if (failure == EFailure::PRIVATE_KEY) {
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : SSL_CTX_use_PrivateKey failed, errno:%d, %s\n",
                            __func__, error, SocketApi::errorText(error).data());
        } else if (failure == EFailure::CHECK) {
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : SSL_CTX_check_private_key failed, errno:%d, %s\n",
                            __func__, error, SocketApi::errorText(error).data());
        }
        SslContext::printErrors();
        return nullptr;
    }
    if (own.m_pem_path == nullptr) return ctx;
    const SslContext::SPemFiles files(own.m_pem_path.get());
    if (!files.exist()) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "cacert.pem or privkey.pem is inexistent!\n");
        return ctx;
    }
    if (SslContext::usePemFiles(ctx, files, own.password()) == EFailure::NONE) return ctx;
    SslContext::printErrors();
    return nullptr;
}

ssl_st* CSslStream::init_ssl(int fd) {
    TSslConnection ssl(SSL_new(m_internal->m_ctx.get()));
    BIO* bio = ssl != nullptr ? SslBio::create(fd) : nullptr;
    if (bio == nullptr) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "init ssl_st error! fd[%d], errno:%d,%s\n", fd, error,
                        SocketApi::errorText(error).data());
        return nullptr;
    }
    SSL_set_mode(ssl.get(), SSL_MODE_SEND_FALLBACK_SCSV);
    SSL_set_bio(ssl.get(), bio, bio);
    return ssl.release();
}

void CSslStream::send_server_name() {
    const char* name = m_internal->m_server_name.get();
    if (name == nullptr || SSL_set_tlsext_host_name(m_internal->m_ssl.get(), name) == 1) return;
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "Unable to set TLS servername extension.\n");
}

int CSslStream::set_sock_timeout(int fd, int send_t, int recv_t) {
    if (SocketApi::setReceiveTimeout(fd, recv_t) != 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR,
                        "%s :Set SO_RCVTIMEO failed! fd[%d], send_t[%d], recv_t[%d], errno:%d,%s\n", __func__,
                        fd, send_t, recv_t, error, SocketApi::errorText(error).data());
        return -1;
    }
    if (SocketApi::setSendTimeout(fd, send_t) != 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR,
                        "%s :Set SO_SNDTIMEO failed! fd[%d], send_t[%d], recv_t[%d], errno:%d,%s\n", __func__,
                        fd, send_t, recv_t, error, SocketApi::errorText(error).data());
        return -1;
    }
    return 0;
}

/// Negotiates over a blocking stream within the time-out. @return 0, or -1 after log lines.
int CSslStream::handshake(CSockStream* stream) {
    SSL* ssl = m_internal->m_ssl.get();
    const int fd = stream->GetHandle();
    const int timeout_ms = m_internal->m_handshake_timeout;
    // Else the first bytes after the handshake wait until the peer's system acknowledges its last message.
    SocketApi::setOption(fd, IPPROTO_TCP, TCP_NODELAY, 1);
    set_sock_timeout(fd, timeout_ms, timeout_ms);
    SslBio::setTimeout(SSL_get_rbio(ssl), timeout_ms);
    const SSslOutcome outcome = callSsl(ssl, fd, [ssl] { return SSL_connect(ssl); });
    if (outcome.result != 1) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING,
                        "SSL_connect failed, fd[%d] return:%d, SSL_get_error: %d, errno:%d, %s\n", m_fd,
                        outcome.result, outcome.ssl_error, outcome.socket_error,
                        SocketApi::errorText(outcome.socket_error).data());
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "SSL_state_string_long: %s\n", SSL_state_string_long(ssl));
        char text[256];
        SslContext::takeError(text);
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "ERR_error_string: %s\n", text);
    }
    SslBio::setTimeout(SSL_get_rbio(ssl), 0);
    set_sock_timeout(fd, 0, 0);
    ERR_clear_error();
    return outcome.result == 1 ? 0 : -1;
}

void SSslStreamRecord::dropConnection() {
    m_ssl.reset();
    m_ctx.reset();
    m_session_reused = 0;
    m_session_key[0] = '\0';
}

}  // namespace Veltro::Ravelo
