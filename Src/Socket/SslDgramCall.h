// One call of OpenSSL's on a DTLS connection, and what came of it.
#pragma once

#include "Socket/SocketApi.h"
#include "Socket/SslDgramBio.h"
#include "Socket/SslDgramRecord.h"

namespace Veltro::Ravelo {

/// What a call of OpenSSL's came to.
struct SDtlsOutcome {
    int result = -1;                ///< above 0 is success
    int ssl_error = SSL_ERROR_SSL;  ///< SSL_ERROR_ of the call
    int socket_error = 0;           ///< of its last read or write; 0 none

    bool isTryAgain() const { return ssl_error == SSL_ERROR_WANT_READ || ssl_error == SSL_ERROR_WANT_WRITE; }
};

/// Calls OpenSSL with no errors of former calls about. The socket error is the thread's last one afterwards.
template <typename TCall>
SDtlsOutcome callDtls(const SSslDgramRecord* record, int fd, TCall call) {
    SSL* ssl = record != nullptr ? record->m_ssl.get() : nullptr;
    if (ssl == nullptr) return {};
    SslDgramBio::prepare(SSL_get_rbio(ssl), fd);
    ERR_clear_error();
    SDtlsOutcome outcome;
    outcome.result = call(ssl);
    outcome.ssl_error = SSL_get_error(ssl, outcome.result);
    outcome.socket_error = SslDgramBio::lastError(SSL_get_rbio(ssl));
    SocketApi::setLastError(outcome.socket_error);
    return outcome;
}

}  // namespace Veltro::Ravelo
