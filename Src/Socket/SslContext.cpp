#include "Socket/SslContext.h"

#include <Plinth/File.h>
#include <Ravelo/SessionCache.h>
#include <Ravelo/SslX509.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "Socket/SslX509Record.h"

namespace Veltro::Ravelo::SslContext {

namespace {

constexpr int LEAST_SECURITY_LEVEL = 2;
/// The most errors that a thread's queue keeps.
constexpr int ERROR_QUEUE_LENGTH = 16;

/// Offers a password to OpenSSL for as long as it lives.
class CPasswordOffer {
public:
    CPasswordOffer(SSL_CTX* ctx, SPassword* password) : m_ctx(ctx) {
        if (password->bytes == nullptr) return;
        SSL_CTX_set_default_passwd_cb(m_ctx, copyPassword);
        SSL_CTX_set_default_passwd_cb_userdata(m_ctx, password);
    }
    ~CPasswordOffer() {
        SSL_CTX_set_default_passwd_cb(m_ctx, nullptr);
        SSL_CTX_set_default_passwd_cb_userdata(m_ctx, nullptr);
    }
    CPasswordOffer(const CPasswordOffer&) = delete;
    CPasswordOffer& operator=(const CPasswordOffer&) = delete;

private:
    SSL_CTX* m_ctx;
};

/// Adds a copy of a certificate to those that are sent behind the own one.
bool addToChain(SSL_CTX* ctx, const X509* cert) {
    TCertificate copy(X509_dup(cert));
    if (copy == nullptr || SSL_CTX_add_extra_chain_cert(ctx, copy.get()) != 1) return false;
    copy.release();
    return true;
}

}  // namespace

TSslContext create(const SSL_METHOD* method) {
    TSslContext ctx(SSL_CTX_new(method));
    if (ctx != nullptr && SSL_CTX_get_security_level(ctx.get()) < LEAST_SECURITY_LEVEL)
        SSL_CTX_set_security_level(ctx.get(), LEAST_SECURITY_LEVEL);
    return ctx;
}

void trust(SSL_CTX* ctx, CSslX509& x509) {
    const SSslX509Record* record = SSslX509Record::of(x509);
    if (record == nullptr) return;
    X509_STORE* store = SSL_CTX_get_cert_store(ctx);
    for (int i = 0; i < sk_X509_num(record->m_trust.get()); ++i)
        X509_STORE_add_cert(store, sk_X509_value(record->m_trust.get(), i));
}

EFailure useOwn(SSL_CTX* ctx, CSslX509& x509) {
    const SSslX509Record* record = SSslX509Record::of(x509);
    if (record == nullptr || SSL_CTX_use_certificate(ctx, record->m_cert.get()) != 1)
        return EFailure::CERTIFICATE;
    if (SSL_CTX_use_PrivateKey(ctx, record->m_key.get()) != 1) return EFailure::PRIVATE_KEY;
    if (SSL_CTX_check_private_key(ctx) != 1) return EFailure::CHECK;
    for (int i = 0; i < sk_X509_num(record->m_chain.get()); ++i) {
        if (!addToChain(ctx, sk_X509_value(record->m_chain.get(), i))) return EFailure::CHAIN;
    }
    return EFailure::NONE;
}

SPemFiles::SPemFiles(const char* folder) {
    std::snprintf(chain, sizeof(chain), "%s/cacert.pem", folder);
    std::snprintf(key, sizeof(key), "%s/privkey.pem", folder);
}

bool SPemFiles::exist() const {
    return Plinth::CFile::access(chain, Plinth::FILE_ACCESS_EXISTS) == 0 &&
           Plinth::CFile::access(key, Plinth::FILE_ACCESS_EXISTS) == 0;
}

EFailure usePemFiles(SSL_CTX* ctx, const SPemFiles& files, SPassword password) {
    const CPasswordOffer offer(ctx, &password);
    if (SSL_CTX_use_certificate_chain_file(ctx, files.chain) != 1) return EFailure::CERTIFICATE;
    if (SSL_CTX_use_PrivateKey_file(ctx, files.key, SSL_FILETYPE_PEM) != 1) return EFailure::PRIVATE_KEY;
    return SSL_CTX_check_private_key(ctx) == 1 ? EFailure::NONE : EFailure::CHECK;
}

int copyPassword(char* buffer, int size, int, void* user_data) {
    const auto* password = static_cast<const SPassword*>(user_data);
    if (password == nullptr) return -1;
    const int length = std::min(size, password->length);
    if (length > 0) std::memcpy(buffer, password->bytes, static_cast<std::size_t>(length));
    return length;
}

void setSessionMode(SSL_CTX* ctx, long mode, bool has_tickets) {
    SSL_CTX_set_session_cache_mode(ctx, mode);
    if (!has_tickets) SSL_CTX_set_options(ctx, SSL_OP_NO_TICKET);
}

bool offerSession(SSL* ssl, CSessionCache& cache, const char* key, bool verifies) {
    const TSession session(cache.Get(key));
    if (session == nullptr || SSL_set_session(ssl, session.get()) != 1) return false;
    if (!verifies || SSL_get_verify_result(ssl) == X509_V_OK) return true;
    SSL_set_session(ssl, nullptr);
    return false;
}

void keepSession(SSL* ssl, CSessionCache& cache, const char* key) {
    const TSession session(SSL_get1_session(ssl));
    if (session == nullptr || SSL_SESSION_is_resumable(session.get()) != 1) return;
    const TSession known(cache.Get(key));
    // A resumed session is there already, unless the server has renewed its ticket.
    if (known != session) cache.Add(session.get(), key);
}

bool setCipherList(SSL* ssl, const char* list, const char* fallback) {
    if (list != nullptr && SSL_set_cipher_list(ssl, list) == 1) return true;
    // A list without a match has taken all ciphers of TLS 1.2 away.
    SSL_set_cipher_list(ssl, fallback);
    return false;
}

void printErrors() {
    // Not ERR_print_errors_fp: a stream of this library may be of another run-time than OpenSSL's. Nor
    // ERR_print_errors_cb: without memory each line that it makes leaves a new error, for ever.
    for (int i = 0; i < ERROR_QUEUE_LENGTH; ++i) {
        const char* file = nullptr;
        const char* function = nullptr;
        const char* data = nullptr;
        int line = 0;
        int flags = 0;
        const unsigned long error = ERR_get_error_all(&file, &line, &function, &data, &flags);
        if (error == 0) break;
        char text[256];
        ERR_error_string_n(error, text, sizeof(text));
        std::fprintf(stderr, "%s:%s:%d:%s\n", text, file, line, (flags & ERR_TXT_STRING) != 0 ? data : "");
    }
    std::fflush(stderr);  // buffered on Windows where it is no terminal
    ERR_clear_error();
}

bool takeError(char (&text)[256]) {
    const unsigned long error = ERR_get_error();
    ERR_error_string_n(error, text, sizeof(text));
    return error != 0;
}

}  // namespace Veltro::Ravelo::SslContext
