// How CSslStream resumes sessions.
#include <Ravelo/SockAddrStorage.h>
#include <Ravelo/SockStream.h>
#include <Ravelo/SslStream.h>

#include <cstdio>

#include "Socket/SslContext.h"
#include "Socket/SslStreamRecord.h"

namespace Veltro::Ravelo {

CSessionCache CSslStream::s_session_cache_id;
CSessionCache CSslStream::s_session_cache_ticket;

namespace {

/// The key of sessions with a stream's peer. @return 0 or -1.
int makePeerKey(CSockStream& stream, char* key, std::size_t size) {
    CSockAddrStorage remote;
    char ip[128];
    if (stream.GetRemoteAddr(&remote) != 0 || remote.GetIpStr(ip, sizeof(ip)) == nullptr) return -1;
    std::snprintf(key, size, "%s:%d", ip, remote.GetPort());
    return 0;
}

/// The key of a connection's sessions: that of its number or of its peer.
int makeKey(const SSslStreamRecord& own, CSockStream& stream, char (&key)[SSslStreamRecord::KEY_BYTES]) {
    if ((own.m_session_type & SslSessionByNumber) == 0) return makePeerKey(stream, key, sizeof(key));
    std::snprintf(key, sizeof(key), "#%u", own.m_session_number);
    return 0;
}

/// OpenSSL has a session for a connection. In TLS 1.3 they come after the handshake, one or more, and each
/// serves once: the latest one takes its forerunner's place.
int keepNewSession(SSL* ssl, SSL_SESSION* session) {
    const auto* own = static_cast<const SSslStreamRecord*>(SSL_get_app_data(ssl));
    if (own != nullptr && own->m_session_key[0] != '\0' && SSL_SESSION_is_resumable(session))
        own->sessionCache().Add(session, own->m_session_key);
    return 0;  // the cache has taken a reference of its own
}

}  // namespace

CSessionCache& SSslStreamRecord::sessionCache() const {
    return (m_session_type & SslSessionId) != 0 ? CSslStream::s_session_cache_id
                                                : CSslStream::s_session_cache_ticket;
}

void CSslStream::session_setup(ssl_ctx_st* ctx) {
    const bool has_tickets = (m_internal->m_session_type & SslSessionTicket) != 0;
    if (m_internal->m_session_type == 0) {
        SslContext::setSessionMode(ctx, SSL_SESS_CACHE_OFF, has_tickets);
        return;
    }
    // The caches of the class keep sessions, not OpenSSL.
    SslContext::setSessionMode(ctx, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL, has_tickets);
    SSL_CTX_sess_set_new_cb(ctx, keepNewSession);
}

int CSslStream::set_session(ssl_st* ssl, CSockStream* stream) {
    SSslStreamRecord& own = *m_internal;
    const bool by_number = (own.m_session_type & SslSessionByNumber) != 0;
    if (own.m_session_type == 0 || (by_number && own.m_session_number == 0)) return 0;
    char key[SSslStreamRecord::KEY_BYTES];
    if (makeKey(own, *stream, key) != 0) return -1;
    // Who verifies the peer does not resume with one that nobody has verified.
    if (SslContext::offerSession(ssl, own.sessionCache(), key, own.verifiesPeer())) own.m_session_reused = 1;
    return 0;
}

int CSslStream::save_session(ssl_st* ssl, CSockStream* stream) {
    SSslStreamRecord& own = *m_internal;
    if (own.m_session_type == 0) return 0;
    const bool by_number = (own.m_session_type & SslSessionByNumber) != 0;
    // What takes the place of a refused session keeps its number.
    if (by_number && own.m_session_reused == 0) own.m_session_number = own.sessionCache().NewNumber();
    if (makeKey(own, *stream, own.m_session_key) != 0) return -1;
    SSL_set_app_data(ssl, &own);
    SslContext::keepSession(ssl, own.sessionCache(), own.m_session_key);
    return 0;
}

}  // namespace Veltro::Ravelo
