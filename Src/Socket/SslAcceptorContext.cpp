// The context that CSslAcceptor negotiates with.
#include <Ravelo/SslAcceptor.h>

#include "Log.h"
#include "Socket/DhParameters.h"
#include "Socket/SocketApi.h"
#include "Socket/SslAcceptorRecord.h"
#include "Socket/SslBio.h"
#include "Socket/SslContext.h"

namespace Veltro::Ravelo {

namespace {

using SslContext::EFailure;

constexpr unsigned char SESSION_ID_CONTEXT[] = {'R', 'a', 'v', 'e', 'l', 'o'};
/// Preferred first.
constexpr char GROUPS[] = "P-256:X25519:P-384";

int acceptEveryCertificate(int, X509_STORE_CTX*) {
    return 1;
}

}  // namespace

ssl_ctx_st* CSslAcceptor::init_ssl_ctx() {
    SocketApi::setLastError(0);
    TSslContext ctx = SslContext::create(TLS_server_method());
    if (ctx == nullptr) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : SSL_CTX_new failed, errno:%d, %s\n", __func__, error,
                        SocketApi::errorText(error).data());
        SslContext::printErrors();
        return nullptr;
    }
    if (certificate_setup(ctx.get()) == nullptr) return nullptr;
    protocol_ban(ctx.get());
    SSL_CTX_set_mode(ctx.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    session_setup(ctx.get());
    key_exchange_setup(ctx.get());
    return ctx.release();
}

ssl_ctx_st* CSslAcceptor::certificate_setup(ssl_ctx_st* ctx) {
    SSslAcceptorRecord& own = *m_internal;
    if (own.verifiesPeer())
        SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    if (own.verifiesPeer() && own.m_x509 != nullptr) SslContext::trust(ctx, *own.m_x509);
    if (own.showsOwn() && own.m_x509 != nullptr) {
        const EFailure failure = SslContext::useOwn(ctx, *own.m_x509);
        if (failure == EFailure::NONE) return ctx;
        if (failure == EFailure::CERTIFICATE) {
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : SSL_CTX_use_certificate failed\n", __func__);
        } else if (failure == EFailure::PRIVATE_KEY) {
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : SSL_CTX_use_PrivateKey failed\n", __func__);
        } else if (failure == EFailure::CHECK) {
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : SSL_CTX_check_private_key failed\n", __func__);
        }
        SslContext::printErrors();
        return nullptr;
    }
    if (own.m_verify_flags != 0) SSL_CTX_set_verify(ctx, own.m_verify_flags, acceptEveryCertificate);
    return own.m_pem_path != nullptr ? use_pem_files(ctx, __func__) : ctx;
}

/// Makes the certificate and the key of the folder the context's own. @return ctx, or null.
/// @param function the operation's name for the log.
ssl_ctx_st* CSslAcceptor::use_pem_files(ssl_ctx_st* ctx, const char* function) {
    const SslContext::SPemFiles files(m_internal->m_pem_path.get());
    const EFailure failure = SslContext::usePemFiles(ctx, files, m_internal->password());
    if (failure == EFailure::NONE) return ctx;
    if (failure == EFailure::CERTIFICATE) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : SSL_CTX_use_certificate_chain_file failed\n",
                        function);
    } else if (failure == EFailure::PRIVATE_KEY) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : SSL_CTX_use_PrivateKey_file failed\n", function);
    } else {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : SSL_CTX_check_private_key failed\n", function);
    }
    SslContext::printErrors();
    return nullptr;
}

void CSslAcceptor::protocol_ban(ssl_ctx_st* ctx) {
    const auto ban = [this, ctx](unsigned flag, std::uint64_t option) {
        if ((m_internal->m_protocol_ban & flag) != 0) SSL_CTX_set_options(ctx, option);
    };
    ban(SslBanSSLv2, SSL_OP_NO_SSLv2);
    ban(SslBanSSLv3, SSL_OP_NO_SSLv3);
    ban(SslBanTLSv1, SSL_OP_NO_TLSv1);
    ban(SslBanTLSv1_1, SSL_OP_NO_TLSv1_1);
}

void CSslAcceptor::session_setup(ssl_ctx_st* ctx) {
    const bool resumes = m_internal->m_session_type != 0;
    const bool has_tickets = (m_internal->m_session_type & SslSessionTicket) != 0;
    SslContext::setSessionMode(ctx, resumes ? SSL_SESS_CACHE_SERVER : SSL_SESS_CACHE_OFF, has_tickets);
    // In TLS 1.3 sessions are offered even when none is kept, as tickets that nobody takes.
    if (!resumes) SSL_CTX_set_num_tickets(ctx, 0);
    // Without one, sessions of clients that have shown a certificate are refused.
    SSL_CTX_set_session_id_context(ctx, SESSION_ID_CONTEXT, sizeof(SESSION_ID_CONTEXT));
}

void CSslAcceptor::key_exchange_setup(ssl_ctx_st* ctx) {
    TPrivateKey parameters = makeDhParameters();
    if (parameters != nullptr && SSL_CTX_set0_tmp_dh_pkey(ctx, parameters.get()) == 1) parameters.release();
    if (SSL_CTX_set1_groups_list(ctx, GROUPS) != 1)
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : Error EC CIPHER context!\n", __func__);
}

ssl_st* CSslAcceptor::init_ssl(int fd) {
    TSslConnection ssl(SSL_new(m_internal->m_ctx.get()));
    BIO* bio = ssl != nullptr ? SslBio::create(fd) : nullptr;
    if (bio == nullptr) {
        const int error = SocketApi::lastError();
        SslContext::printErrors();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s SSL_new failed, errno:%d, %s\n", __func__, error,
                        SocketApi::errorText(error).data());
        return nullptr;
    }
    SSL_set_bio(ssl.get(), bio, bio);
    return ssl.release();
}

int CSslAcceptor::set_sock_timeout(int fd, int send_t, int recv_t) {
    if (SocketApi::setReceiveTimeout(fd, recv_t) != 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR,
                        "%s :Set SO_RCVTIMEO failed! fd[%d], send_t:%d, send_t:%d, error:%d, %s\n", __func__,
                        fd, send_t, recv_t, error, SocketApi::errorText(error).data());
        return -1;
    }
    if (SocketApi::setSendTimeout(fd, send_t) != 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR,
                        "%s :Set SO_SNDTIMEO failed! fd[%d], send_t:%d, send_t:%d, error:%d, %s\n", __func__,
                        fd, send_t, recv_t, error, SocketApi::errorText(error).data());
        return -1;
    }
    return 0;
}

}  // namespace Veltro::Ravelo
