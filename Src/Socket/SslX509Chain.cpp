// How CSslX509 inspects its certificates: the order of the chain, and revocation.
#include <Ravelo/SslX509.h>
#include <openssl/pem.h>

#include "Log.h"
#include "Socket/SocketApi.h"
#include "Socket/SslX509Record.h"

namespace Veltro::Ravelo {

namespace {

constexpr int FLAG_REMOVE_UNRELATED = 1;

bool sameName(const X509_NAME* left, const X509_NAME* right) {
    return X509_NAME_cmp(left, right) == 0;
}

/// Moves the first certificate at or after a position whose subject is `name` to that position. False if
/// there is none.
bool bringForward(STACK_OF(X509) * chain, int position, const X509_NAME* name) {
    for (int i = position; i < sk_X509_num(chain); ++i) {
        if (!sameName(X509_get_subject_name(sk_X509_value(chain, i)), name)) continue;
        // The list has just become shorter: putting the certificate back needs no memory.
        if (i != position) sk_X509_insert(chain, sk_X509_delete(chain, i), position);
        return true;
    }
    return false;
}

/// Orders a chain from a certificate on; returns how many of its entries continue the path.
int order(const X509* cert, STACK_OF(X509) * chain) {
    const X509_NAME* issuer = X509_get_issuer_name(cert);
    int position = 0;
    while (position < sk_X509_num(chain) && bringForward(chain, position, issuer)) {
        issuer = X509_get_issuer_name(sk_X509_value(chain, position));
        ++position;
    }
    return position;
}

}  // namespace

int CSslX509::CheckCertificateChain(int flags) {
    if (m_internal == nullptr || m_internal->m_cert == nullptr) return -1;
    STACK_OF(X509)* chain = m_internal->m_chain.get();
    if (sk_X509_num(chain) == 0) return -2;
    const int path = order(m_internal->m_cert.get(), chain);
    if ((flags & FLAG_REMOVE_UNRELATED) != 0) {
        while (sk_X509_num(chain) > path) X509_free(sk_X509_pop(chain));
    }
    if (path == 0) return 1;
    const X509* last = sk_X509_value(chain, path - 1);
    return sameName(X509_get_subject_name(last), X509_get_issuer_name(last)) ? 0 : path + 1;
}

int CSslX509::CheckCertIsRevoked(const char* crl_file) {
    const CErrorQueueKeeper errors;
    SocketApi::setLastError(0);
    // Binary: a DER list is not text.
    const TBio bio(crl_file != nullptr ? BIO_new_file(crl_file, "rb") : nullptr);
    if (bio == nullptr) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s Open CRL file %s failed. errno:%d, %s\n", __func__,
                        crl_file != nullptr ? crl_file : "(null)", error, SocketApi::errorText(error).data());
        return -1;
    }
    TRevocationList list(d2i_X509_CRL_bio(bio.get(), nullptr));
    if (list == nullptr) {
        static_cast<void>(BIO_reset(bio.get()));
        list.reset(PEM_read_bio_X509_CRL(bio.get(), nullptr, nullptr, nullptr));
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_TRACE,
                        "%s Read CRL file from pem format. crlst addr = %p, errno:%d, %s\n", __func__,
                        static_cast<const void*>(list.get()), error, SocketApi::errorText(error).data());
    }
    if (list == nullptr) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s CRL file is neither DER format nor PEM format.\n",
                        __func__);
        return -1;
    }
    if (m_internal == nullptr || m_internal->m_cert == nullptr) return -1;
    X509_REVOKED* entry = nullptr;
    // 2 is an entry that takes an earlier revocation back.
    return X509_CRL_get0_by_cert(list.get(), &entry, m_internal->m_cert.get()) == 1 ? 1 : 0;
}

}  // namespace Veltro::Ravelo
