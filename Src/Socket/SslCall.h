// One call of OpenSSL's on a connection over a stream, and what came of it.
#pragma once

#include "Socket/OpenSslTypes.h"
#include "Socket/SocketApi.h"
#include "Socket/SslBio.h"

namespace Veltro::Ravelo {

/// What a call came to; the socket error is the thread's last one afterwards.
struct SSslOutcome {
    int result = -1;                ///< OpenSSL's: above 0 is success
    int ssl_error = SSL_ERROR_SSL;  ///< SSL_ERROR_ of the call
    int socket_error = 0;           ///< of its last read or write; 0 none

    bool wantsMore() const { return ssl_error == SSL_ERROR_WANT_READ || ssl_error == SSL_ERROR_WANT_WRITE; }
    /// Whether a call that did not succeed may do so later. The socket's word comes first; but a connection
    /// that has failed stays so, even if the socket did not take the alert about it.
    bool isTryAgain() const {
        return wantsMore() || (ssl_error != SSL_ERROR_SSL && SocketApi::isTryAgain(socket_error));
    }
};

/// Calls OpenSSL with no errors of former calls about, so that none of them is taken for one of this call.
/// @param ssl a connection over a BIO of SslBio; null fails. @param fd the socket to use.
/// @param call takes no arguments and returns OpenSSL's result.
template <typename TCall>
SSslOutcome callSsl(SSL* ssl, int fd, TCall call) {
    if (ssl == nullptr) return {};
    BIO* bio = SSL_get_rbio(ssl);
    SslBio::prepare(bio, fd);
    ERR_clear_error();
    SSslOutcome outcome;
    outcome.result = call();
    outcome.ssl_error = SSL_get_error(ssl, outcome.result);
    outcome.socket_error = SslBio::lastError(bio);
    SocketApi::setLastError(outcome.socket_error);
    return outcome;
}

}  // namespace Veltro::Ravelo
