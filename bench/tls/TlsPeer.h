// What servers and load have in common: certificates, contexts and what is said over a connection.
//
// A client sends one byte. To PING the server answers with the same byte and waits for the next; to STREAM it
// answers with zeros until the client goes.
#pragma once

#include <openssl/ssl.h>

#include <memory>

namespace Bench {

constexpr char PING = 'p';
constexpr char STREAM = 's';

/// How much a streaming server hands over at once, in bytes: 16 full records.
constexpr std::size_t STREAM_BLOCK_BYTES = 256 * 1024;

struct SSslDeleter {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    void operator()(SSL* ssl) const { SSL_free(ssl); }
    void operator()(SSL_SESSION* session) const { SSL_SESSION_free(session); }
};
using TSslContext = std::unique_ptr<SSL_CTX, SSslDeleter>;
using TSsl = std::unique_ptr<SSL, SSslDeleter>;
using TSslSession = std::unique_ptr<SSL_SESSION, SSslDeleter>;

/// The folder of the certificates that the build makes.
const char* certificates();

/// The key and the certificate, with the one above it, go into a context; ends the process on failure.
void use_certificate(SSL_CTX* context);

/// TLS 1.2 and 1.3 with the certificate; tickets as OpenSSL makes them by default.
TSslContext server_context();

/// Trusts the server's root, and offers one group, so that every server does the same arithmetic.
TSslContext client_context();

/// Prints OpenSSL's reason and ends the process with 1.
[[noreturn]] void die_of_tls(const char* what);

}  // namespace Bench
