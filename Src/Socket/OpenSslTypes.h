// Owners of OpenSSL's objects.
#pragma once

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>

namespace Veltro::Ravelo {

/// Calls one of OpenSSL's functions that free.
template <auto Function>
struct SFreeBy {
    template <typename T>
    void operator()(T* object) const {
        Function(object);
    }
};

/// A list that owns its certificates.
inline void freeCertificates(STACK_OF(X509) * list) {
    sk_X509_pop_free(list, X509_free);
}

using TBio = std::unique_ptr<BIO, SFreeBy<BIO_free>>;
using TCertificate = std::unique_ptr<X509, SFreeBy<X509_free>>;
using TCertificateList = std::unique_ptr<STACK_OF(X509), SFreeBy<freeCertificates>>;
using TPrivateKey = std::unique_ptr<EVP_PKEY, SFreeBy<EVP_PKEY_free>>;
using TRevocationList = std::unique_ptr<X509_CRL, SFreeBy<X509_CRL_free>>;
using TSession = std::unique_ptr<SSL_SESSION, SFreeBy<SSL_SESSION_free>>;
using TSslConnection = std::unique_ptr<SSL, SFreeBy<SSL_free>>;
using TSslContext = std::unique_ptr<SSL_CTX, SFreeBy<SSL_CTX_free>>;

/// Takes away again what the calls of its life leave in the thread's error queue, so that none of it ends
/// another connection.
class CErrorQueueKeeper {
public:
    CErrorQueueKeeper() { ERR_set_mark(); }
    ~CErrorQueueKeeper() { ERR_pop_to_mark(); }
    CErrorQueueKeeper(const CErrorQueueKeeper&) = delete;
    CErrorQueueKeeper& operator=(const CErrorQueueKeeper&) = delete;
};

}  // namespace Veltro::Ravelo
