// CSslDgram's handshakes.
#include <Ravelo/SockAddrIPv4.h>
#include <Ravelo/SockAddrIPv6.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>

#include "Log.h"
#include "Socket/SockAddrSystem.h"
#include "Socket/SocketApi.h"
#include "Socket/SslContext.h"
#include "Socket/SslDgramBio.h"
#include "Socket/SslDgramCall.h"
#include "Socket/SslDgramRecord.h"

namespace Veltro::Ravelo {

namespace {

constexpr unsigned IP_TEXT_BYTES = 128;
constexpr std::size_t KEY_BYTES = 128;
constexpr int BY_IP_ONLY = 1;  // bit of the session option

using TTimer = unsigned (*)(unsigned);
std::atomic<TTimer> s_timer{nullptr};
std::atomic<std::int64_t> s_silence_us{DTLS_SILENCE_US};

unsigned askTimer(SSL*, unsigned last_us) {
    const TTimer timer = s_timer.load(std::memory_order_relaxed);
    if (timer != nullptr) return timer(last_us);
    return last_us == 0 ? 1'000'000 : std::min(last_us * 2, 60'000'000U);
}

/// The cipher list of OpenSSL's own choice.
constexpr const char* OPENSSL_CIPHERS = "DEFAULT";

/// A socket's own address; its family is 0 if the system does not tell.
sockaddr_in6 ownAddress(int fd) {
    sockaddr_in6 system{};
    int length = SYSTEM_ADDRESS_BYTES;
    if (SocketApi::getSockName(fd, reinterpret_cast<sockaddr*>(&system), &length) != 0) return {};
    return system;
}

/// Gives a connection its I/O object, which then is its own. @return null on failure.
TSslConnection newConnection(SSL_CTX* ctx, BIO* bio) {
    TBio owned(bio);
    if (owned == nullptr) return nullptr;
    TSslConnection ssl(SSL_new(ctx));
    if (ssl == nullptr) return nullptr;
    SSL_set_bio(ssl.get(), owned.get(), owned.get());
    SslDgramBio::followTimer(owned.release(), ssl.get(), s_silence_us.load(std::memory_order_relaxed));
    if (s_timer.load(std::memory_order_relaxed) != nullptr) DTLS_set_timer_cb(ssl.get(), askTimer);
    return ssl;
}

/// Negotiates to the end. A change of cipher that overtakes what comes before it makes OpenSSL ask for
/// another call, whatever its reads wait for.
int negotiate(SSL* ssl) {
    int result = 0;
    do {
        result = SSL_do_handshake(ssl);
    } while (result < 1 && SSL_get_error(ssl, result) == SSL_ERROR_WANT_READ);
    return result;
}

CSessionCache& clientSessions(int session_type) {
    return (session_type & SslSessionId) != 0 ? CSslDgram::s_cli_sess_cache_id
                                              : CSslDgram::s_cli_sess_cache_ticket;
}

void makeKey(char (&key)[KEY_BYTES], const char* ip, int port) {
    std::snprintf(key, sizeof(key), "%s:%d", ip, port);
}

/// The address of all interfaces and any port, of an address's family; null for an address of none.
const CSockAddr* anyAddress(const CSockAddr& remote) {
    static const CSockAddrIPv4 s_ipv4(0U, 0);
    static const CSockAddrIPv6 s_ipv6("::", 0);
    switch (addressFamilyCode(remote)) {
        case SOCKADDR_TYPE_IPV4:
            return &s_ipv4;
        case SOCKADDR_TYPE_IPV6:
            return &s_ipv6;
        default:
            return nullptr;
    }
}

}  // namespace

void setDtlsTimer(unsigned (*timer)(unsigned last_us), std::int64_t silence_us) {
    s_silence_us.store(silence_us, std::memory_order_relaxed);
    s_timer.store(timer, std::memory_order_relaxed);
}

int CSslDgram::AcceptX(const CSockAddr* remote) {
    if (m_internal == nullptr || m_internal->m_dgram == nullptr) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING,
                        "Before invoking AcceptX(), you need to invoke Open() at first!\n");
        return -1;
    }
    if (accept(remote) == 0) return 0;
    tear_down();
    return -1;
}

int CSslDgram::Accept(const CSockAddr* local, bool reuse, const CSockAddr* remote) {
    return Open(local, reuse) == 0 ? AcceptX(remote) : -1;
}

int CSslDgram::option_valid() {
    if (m_internal->m_x509 != nullptr) return 0;
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : server need the certificate compulsorily \n", __func__);
    return -1;
}

int CSslDgram::accept(const CSockAddr* remote) {
    SSslDgramRecord& own = *m_internal;
    if (option_valid() != 0) return -1;
    const bool had_client = own.m_ssl != nullptr;
    end_connection();
    if (had_client) leave_client();
    if (remote != nullptr && own.m_dgram->SetRemote(remote) != 0) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "DTLS Server SetRemote failed!\n");
        return -1;
    }
    own.m_ctx.reset(init_ssl_ctx(1));
    if (own.m_ctx == nullptr) return -1;
    SSL_CTX_set_options(own.m_ctx.get(), SSL_OP_CIPHER_SERVER_PREFERENCE);
    if (init_accept_ssl(remote) != 0) return -1;
    if (!choose_ciphers()) RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "Cipher List Rule Set Wrong!\n");
    const SDtlsOutcome accepted = callDtls(&own, m_fd, negotiate);
    if (accepted.result >= 1) return finish_handshake();
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "SSL_accept error:%d  ret:%d, fd[%d], errno:%d, %s\n",
                    accepted.ssl_error, accepted.result, m_fd, accepted.socket_error,
                    SocketApi::errorText(accepted.socket_error).data());
    log_state();
    return -1;
}

void CSslDgram::leave_client() {
    SocketApi::disconnect(m_fd, ownAddress(m_fd).sin6_family);
    // That his port was closed already is no news for the next one's handshake.
    int error = 0;
    SocketApi::getOption(m_fd, SOL_SOCKET, SO_ERROR, &error);
}

int CSslDgram::init_accept_ssl(const CSockAddr* remote) {
    SSslDgramRecord& own = *m_internal;
    own.m_dgram->SetBlockOpt(true);
    sockaddr_in6 peer{};
    if (remote != nullptr) remote->GetAddr(reinterpret_cast<sockaddr*>(&peer));
    const int peer_length = remote != nullptr ? remote->GetAddrLen() : 0;
    own.m_ssl = newConnection(own.m_ctx.get(),
                              SslDgramBio::create(m_fd, ownAddress(m_fd).sin6_family, peer, peer_length));
    if (own.m_ssl != nullptr) {
        SSL_set_accept_state(own.m_ssl.get());
        return 0;
    }
    const int error = SocketApi::lastError();
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "%s : SSL_new failed, fd[%d], error:%d, %s\n", __func__, m_fd,
                    error, SocketApi::errorText(error).data());
    return -1;
}

int CSslDgram::Connect(const CSockAddr* remote, const CSockAddr* local) {
    if (m_internal == nullptr) return -1;
    char ip[IP_TEXT_BYTES] = "";
    if (remote != nullptr) addressText(*remote, ip, sizeof(ip));
    if (ip[0] == '\0') {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, " DTLS GetIpStr from remote failed!\n");
        return -1;
    }
    if (connect(*remote, local, ip) == 0) return 0;
    tear_down();
    return -1;
}

int CSslDgram::connect(const CSockAddr& remote, const CSockAddr* local, char* ip) {
    SSslDgramRecord& own = *m_internal;
    if (open(local != nullptr ? local : anyAddress(remote), false) != 0) return -1;
    if (own.m_dgram->SetRemote(&remote) != 0) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, " DTLS Client SetRemote address failed!\n");
        return -1;
    }
    own.m_ctx.reset(init_ssl_ctx(0));
    if (own.m_ctx == nullptr || init_connect_ssl(remote) != 0) return -1;
    if (!choose_ciphers()) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING,
                        "Cipher List Rule Set Wrong，but the procedure will keep on!\n");
    }
    const int port = (own.m_session_option & BY_IP_ONLY) != 0 ? -1 : addressPort(remote);
    set_session(own.m_ssl.get(), ip, port);
    const SDtlsOutcome connected = callDtls(&own, m_fd, negotiate);
    if (connected.result == 1) {
        finish_handshake();
        save_session(own.m_ssl.get(), ip, port);
        return 0;
    }
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "SSL_connect error:%d, ret: %d, errno:%d, %s\n",
                    connected.ssl_error, connected.result, connected.socket_error,
                    SocketApi::errorText(connected.socket_error).data());
    log_state();
    return -1;
}

int CSslDgram::init_connect_ssl(const CSockAddr& remote) {
    SSslDgramRecord& own = *m_internal;
    own.m_dgram->SetBlockOpt(true);
    const int family = ownAddress(m_fd).sin6_family;
    if (family == 0) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "%s : getsockname fd[%d], error:%d, %s\n", __func__, m_fd,
                        error, SocketApi::errorText(error).data());
        return -1;
    }
    SocketApi::discoverPathMtu(m_fd, family);
    sockaddr_in6 peer{};
    remote.GetAddr(reinterpret_cast<sockaddr*>(&peer));
    own.m_ssl = newConnection(own.m_ctx.get(), SslDgramBio::create(m_fd, family, peer, remote.GetAddrLen()));
    if (own.m_ssl != nullptr) {
        SSL_set_connect_state(own.m_ssl.get());
        return 0;
    }
    const int error = SocketApi::lastError();
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "%s : SSL_new failed, fd[%d], error:%d, %s\n", __func__, m_fd,
                    error, SocketApi::errorText(error).data());
    return -1;
}

bool CSslDgram::choose_ciphers() {
    const SSslDgramRecord& own = *m_internal;
    return own.m_cipher_type != 1 ||
           SslContext::setCipherList(own.m_ssl.get(), own.m_cipher_list, OPENSSL_CIPHERS);
}

int CSslDgram::finish_handshake() {
    SSslDgramRecord& own = *m_internal;
    SslDgramBio::followTimer(SSL_get_rbio(own.m_ssl.get()), nullptr, 0);
    own.m_session_reused = SSL_session_reused(own.m_ssl.get()) == 1;
    own.m_dgram->SetBlockOpt(false);
    SetBlockOpt(false);
    return 0;
}

void CSslDgram::log_state() {
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "%s\n", SSL_state_string_long(m_internal->m_ssl.get()));
    char text[256];
    SslContext::takeError(text);
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_WARNING, "%s\n", text);
    ERR_clear_error();
}

int CSslDgram::set_session(ssl_st* ssl, char* ip, int port) {
    const SSslDgramRecord& own = *m_internal;
    if (own.m_session_type == 0) return 0;
    char key[KEY_BYTES];
    makeKey(key, ip, port);
    const TSession session(clientSessions(own.m_session_type).Get(key));
    if (session == nullptr) return 0;
    unsigned length = 0;
    const unsigned char* made_in = SSL_SESSION_get0_id_context(session.get(), &length);
    const bool is_of_context =
        length == own.m_session_context.size() &&
        std::equal(own.m_session_context.begin(), own.m_session_context.end(), made_in);
    if (is_of_context) SSL_set_session(ssl, session.get());
    return 0;
}

int CSslDgram::save_session(ssl_st* ssl, char* ip, int port) {
    const SSslDgramRecord& own = *m_internal;
    if (own.m_session_type == 0 || own.m_session_reused) return 0;
    char key[KEY_BYTES];
    makeKey(key, ip, port);
    const TSession session(SSL_get1_session(ssl));
    if (session != nullptr) clientSessions(own.m_session_type).Add(session.get(), key);
    return 0;
}

}  // namespace Veltro::Ravelo
