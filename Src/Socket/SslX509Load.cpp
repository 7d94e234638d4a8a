// What CSslX509 reads from files.
#include <Ravelo/SslX509.h>
#include <openssl/pem.h>

#include "Log.h"
#include "Socket/SocketApi.h"
#include "Socket/SslX509Record.h"

namespace Veltro::Ravelo {

namespace {

/// Opens a file for reading, as it is on every platform. False if it cannot be opened.
bool openFile(const TBio& bio, const char* path) {
    return path != nullptr && BIO_read_filename(bio.get(), path) == 1;
}

const char* printable(const char* path) {
    return path != nullptr ? path : "(null)";
}

/// Appends to a list; -1, and the certificate goes, if there is no memory.
int append(const TCertificateList& list, TCertificate cert) {
    if (sk_X509_push(list.get(), cert.get()) == 0) return -1;
    cert.release();
    return 0;
}

}  // namespace

x509_st* CSslX509::get_x509_from_file(const char* path) {
    const CErrorQueueKeeper errors;
    SocketApi::setLastError(0);
    const TBio bio(BIO_new(BIO_s_file()));
    if (bio == nullptr) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s Create BIO failed ! errno:%d, %s\n", __func__, error,
                        SocketApi::errorText(error).data());
        return nullptr;
    }
    if (!openFile(bio, path)) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s Read the certificate file[%s]failed! errno:%d, %s\n",
                        __func__, printable(path), error, SocketApi::errorText(error).data());
        return nullptr;
    }
    X509* cert = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr);
    if (cert == nullptr) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s Get x509 from certificate file failed! errno:%d, %s\n",
                        __func__, error, SocketApi::errorText(error).data());
    }
    return cert;
}

evp_pkey_st* CSslX509::get_privkey_from_file(const char* path) {
    const CErrorQueueKeeper errors;
    SocketApi::setLastError(0);
    const TBio bio(BIO_new(BIO_s_file()));
    if (bio == nullptr) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s Create BIO failed! errno:%d, %s\n", __func__, error,
                        SocketApi::errorText(error).data());
        return nullptr;
    }
    if (!openFile(bio, path)) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s Read the privkey file failed! errno:%d, %s\n", __func__,
                        error, SocketApi::errorText(error).data());
        return nullptr;
    }
    EVP_PKEY* key = PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr);
    if (key == nullptr) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s Get key from key file failed! errno:%d, %s\n", __func__,
                        error, SocketApi::errorText(error).data());
    }
    return key;
}

int CSslX509::SetCert(const char* cert_file, const char* key_file) {
    if (m_internal == nullptr) return -1;
    m_internal->m_cert.reset();
    m_internal->m_key.reset();
    TCertificate cert(get_x509_from_file(cert_file));
    if (cert == nullptr) return -1;
    TPrivateKey key(get_privkey_from_file(key_file));
    if (key == nullptr) return -2;
    const CErrorQueueKeeper errors;
    if (X509_check_private_key(cert.get(), key.get()) != 1) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s CERT and KEY does not match!\n", __func__);
        return -3;
    }
    m_internal->m_cert = std::move(cert);
    m_internal->m_key = std::move(key);
    return 0;
}

int CSslX509::SetCA(const char* file) {
    if (m_internal == nullptr) return -1;
    const CErrorQueueKeeper errors;
    TCertificate cert(get_x509_from_file(file));
    return cert != nullptr ? append(m_internal->m_chain, std::move(cert)) : -1;
}

int CSslX509::SetTrustCA(const char* file) {
    if (m_internal == nullptr) return -1;
    const CErrorQueueKeeper errors;
    SocketApi::setLastError(0);
    const TBio bio(BIO_new(BIO_s_file()));
    if (bio == nullptr) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s Create BIO failed! errno:%d, %s\n", __func__, error,
                        SocketApi::errorText(error).data());
        return -1;
    }
    if (!openFile(bio, file)) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s Read the certificate file[%s]failed! errno:%d, %s\n",
                        __func__, printable(file), error, SocketApi::errorText(error).data());
        return -1;
    }
    int count = 0;
    for (;;) {
        TCertificate cert(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
        if (cert == nullptr) break;
        if (append(m_internal->m_trust, std::move(cert)) != 0) return -1;
        ++count;
    }
    const int error = SocketApi::lastError();
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_TRACE, "%s Get [%d] x509 from certificate file [%s]! errno:%d, %s\n",
                    __func__, count, file, error, SocketApi::errorText(error).data());
    return 0;
}

}  // namespace Veltro::Ravelo
