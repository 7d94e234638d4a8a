// What CSslDgram negotiates with: certificates, sessions, tickets.
#include <openssl/sha.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "Log.h"
#include "Socket/DtlsTicketKeys.h"
#include "Socket/SocketApi.h"
#include "Socket/SslContext.h"
#include "Socket/SslDgramRecord.h"
#include "Socket/SslX509Record.h"

namespace Veltro::Ravelo {

CSessionCache CSslDgram::s_cli_sess_cache_id;
CSessionCache CSslDgram::s_cli_sess_cache_ticket;
CSessionCache s_srv_sess_cache;

namespace {

/// The text of a session id: its bytes up to the first zero.
class CSessionKey {
public:
    CSessionKey(const unsigned char* id, unsigned length) {
        std::copy_n(id, std::min<std::size_t>(length, m_text.size() - 1), m_text.begin());
    }
    const char* text() const { return m_text.data(); }

private:
    std::array<char, SSL_MAX_SSL_SESSION_ID_LENGTH + 1> m_text{};
};

int keepServerSession(SSL*, SSL_SESSION* session) {
    unsigned length = 0;
    const unsigned char* id = SSL_SESSION_get_id(session, &length);
    s_srv_sess_cache.Add(session, CSessionKey(id, length).text());
    return 0;  // the cache has taken a reference of its own
}

void dropServerSession(SSL_CTX*, SSL_SESSION* session) {
    unsigned length = 0;
    const unsigned char* id = SSL_SESSION_get_id(session, &length);
    s_srv_sess_cache.Remove(CSessionKey(id, length).text());
}

SSL_SESSION* findServerSession(SSL*, const unsigned char* id, int length, int* copy) {
    *copy = 0;  // the reference goes to OpenSSL
    const auto wanted = static_cast<unsigned>(std::max(length, 0));
    TSession session(s_srv_sess_cache.Get(CSessionKey(id, wanted).text()));
    if (session == nullptr) return nullptr;
    // Ids that are alike up to a zero byte have one key; with another's session the handshake would fail.
    unsigned found_length = 0;
    const unsigned char* found = SSL_SESSION_get_id(session.get(), &found_length);
    return found_length == wanted && std::memcmp(found, id, wanted) == 0 ? session.release() : nullptr;
}

using TDigest = decltype(SSslDgramRecord::m_session_context);
static_assert(std::tuple_size_v<TDigest> == SHA256_DIGEST_LENGTH);

/// Makes a digest one of itself and a certificate.
bool add(TDigest* digest, const X509* cert) {
    std::array<unsigned char, SHA256_DIGEST_LENGTH + EVP_MAX_MD_SIZE> both{};
    std::copy(digest->begin(), digest->end(), both.begin());
    unsigned length = 0;
    if (X509_digest(cert, EVP_sha256(), both.data() + digest->size(), &length) != 1) return false;
    return SHA256(both.data(), digest->size() + length, digest->data()) != nullptr;
}

/// A digest of what is shown to peers and what they are verified by. @return whether it could be made.
bool digestOf(const SSslDgramRecord& own, TDigest* digest) {
    *digest = {};
    (*digest)[0] = static_cast<unsigned char>(own.m_cert_type & (SslCertVerifyPeer | SslCertOwn));
    const SSslX509Record* x509 = own.m_x509 != nullptr ? SSslX509Record::of(*own.m_x509) : nullptr;
    if (x509 == nullptr) return true;
    const bool shows = (own.m_cert_type & SslCertOwn) != 0;
    if (shows && !add(digest, x509->m_cert.get())) return false;
    const int trusted = (own.m_cert_type & SslCertVerifyPeer) != 0 ? sk_X509_num(x509->m_trust.get()) : 0;
    for (int i = 0; i < trusted; ++i) {
        if (!add(digest, sk_X509_value(x509->m_trust.get(), i))) return false;
    }
    return true;
}

}  // namespace

ssl_ctx_st* CSslDgram::init_ssl_ctx(int is_server) {
    TSslContext ctx = SslContext::create(DTLS_method());
    if (ctx == nullptr) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "SSL_CTX_new failed! errno:%d, %s\n", error,
                        SocketApi::errorText(error).data());
        return nullptr;
    }
    if (certificate_setup(ctx.get()) == nullptr) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "certificate_setup failed! errno:%d, %s\n", error,
                        SocketApi::errorText(error).data());
        return nullptr;
    }
    SSL_CTX_set_read_ahead(ctx.get(), 1);
    session_setup(ctx.get(), is_server);
    return ctx.release();
}

ssl_ctx_st* CSslDgram::certificate_setup(ssl_ctx_st* ctx) {
    const SSslDgramRecord& own = *m_internal;
    const bool verifies = (own.m_cert_type & SslCertVerifyPeer) != 0;
    if (verifies) SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    if (own.m_x509 == nullptr) return ctx;
    if (verifies) SslContext::trust(ctx, *own.m_x509);
    if ((own.m_cert_type & SslCertOwn) == 0) return ctx;
    const SslContext::EFailure failure = SslContext::useOwn(ctx, *own.m_x509);
    switch (failure) {
        case SslContext::EFailure::NONE:
            return ctx;
        case SslContext::EFailure::CERTIFICATE:
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : SSL_CTX_use_certificate failed\n", __func__);
            break;
        case SslContext::EFailure::PRIVATE_KEY:
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : SSL_CTX_use_PrivateKey failed\n", __func__);
            break;
        case SslContext::EFailure::CHECK:
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : SSL_CTX_check_private_key failed\n", __func__);
            break;
        case SslContext::EFailure::CHAIN:
            break;
    }
    SslContext::printErrors();
    return nullptr;
}

int CSslDgram::session_setup(ssl_ctx_st* ctx, int is_server) {
    SSslDgramRecord& own = *m_internal;
    const bool has_tickets = (own.m_session_type & SslSessionTicket) != 0;
    if (own.m_session_type == 0) {
        SslContext::setSessionMode(ctx, SSL_SESS_CACHE_OFF, false);
        return 0;
    }
    const bool has_context =
        digestOf(own, &own.m_session_context) &&
        SSL_CTX_set_session_id_context(ctx, own.m_session_context.data(), SSL_MAX_SID_CTX_LENGTH) == 1;
    if (!has_context) {
        SslContext::setSessionMode(ctx, SSL_SESS_CACHE_OFF, false);
        return -1;
    }
    const long side = is_server != 0 ? SSL_SESS_CACHE_SERVER : SSL_SESS_CACHE_CLIENT;
    SslContext::setSessionMode(ctx, side | SSL_SESS_CACHE_NO_INTERNAL, has_tickets);
    if (is_server == 0) return 0;
    SSL_CTX_sess_set_new_cb(ctx, keepServerSession);
    SSL_CTX_sess_set_remove_cb(ctx, dropServerSession);
    SSL_CTX_sess_set_get_cb(ctx, findServerSession);
    if (!has_tickets || CDtlsTicketKeys::shared().Install(ctx) == 0) return 0;
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR,
                    "%s : session-ticket mechanism failed with the initial ticket-keys\n", __func__);
    // OpenSSL's own keys would do for this context only.
    SSL_CTX_set_options(ctx, SSL_OP_NO_TICKET);
    return -1;
}

}  // namespace Veltro::Ravelo
