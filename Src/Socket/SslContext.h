// What TLS streams, TLS acceptors and DTLS sockets have in common: the set-up of OpenSSL's contexts. Each
// class logs failures itself, with texts of its own.
#pragma once

#include "Socket/OpenSslTypes.h"

namespace Veltro::Ravelo {

class CSessionCache;
class CSslX509;

namespace SslContext {

/// The ciphers of TLS 1.2 unless the application chooses.
inline constexpr char DEFAULT_CIPHERS[] = "ALL:!EXPORT:!LOW:!aNULL:!eNULL:!SSLv2:!DES:!RC4:!3DES";

/// A context of a method, at security level 2 at least; null on failure.
TSslContext create(const SSL_METHOD* method);

/// The step of a certificate's set-up that failed.
enum class EFailure { NONE, CERTIFICATE, PRIVATE_KEY, CHECK, CHAIN };

/// Adds an object's trusted certificates to those that a context verifies peers by.
void trust(SSL_CTX* ctx, CSslX509& x509);
/// Makes an object's certificate, key and chain the context's own.
EFailure useOwn(SSL_CTX* ctx, CSslX509& x509);

/// A private key's password; neither copied nor ended by a NUL.
struct SPassword {
    const char* bytes = nullptr;  ///< null: there is none
    int length = 0;
};

/// The paths of a folder's certificate chain and key, in buffers of 128 bytes.
struct SPemFiles {
    explicit SPemFiles(const char* folder);
    bool exist() const;

    char chain[128];
    char key[128];
};

/// Makes the certificate chain and the key of files the context's own. Without a password an encrypted key's
/// is asked for on the terminal.
EFailure usePemFiles(SSL_CTX* ctx, const SPemFiles& files, SPassword password);
/// OpenSSL's callback that hands over a password: user_data points to an SPassword. @return bytes copied, not
/// ended by a NUL; -1 without one.
int copyPassword(char* buffer, int size, int for_writing, void* user_data);

/// Says who keeps sessions, as SSL_SESS_CACHE_ flags, and whether tickets are in use.
void setSessionMode(SSL_CTX* ctx, long mode, bool has_tickets);

/// Offers the session that a cache has under a key on a client's connection that is to be made.
/// @param verifies whether the client verifies its peer: then a session that nobody has verified is not
/// offered. @return whether one was.
bool offerSession(SSL* ssl, CSessionCache& cache, const char* key, bool verifies);
/// Keeps a negotiated connection's session under a key, unless it is there already.
void keepSession(SSL* ssl, CSessionCache& cache, const char* key);

/// Sets a connection's list of ciphers for TLS 1.2 and DTLS. @return false if OpenSSL rejects it: then
/// `fallback` is in force.
bool setCipherList(SSL* ssl, const char* list, const char* fallback);

/// Prints the thread's error queue to standard error, and empties it.
void printErrors();
/// Takes the oldest error off the thread's queue.
/// @param text its text; that of error 0 if there is none. @return whether there was one.
bool takeError(char (&text)[256]);

}  // namespace SslContext

}  // namespace Veltro::Ravelo
