#pragma once

#include <Ravelo/Defs.h>

/// OpenSSL's X509 and EVP_PKEY.
struct x509_st;
struct evp_pkey_st;

namespace Veltro::Ravelo {

struct SSslX509Record;

/// A certificate's subject, as CSslX509::GetCertSubjectMsg() fills it: texts padded with NULs. A text that
/// fills its field has no NUL at its end.
struct CertSubjectMsg {
    char country[4];
    char state[64];
    char locality[64];
    char organization[64];
    char unit[64];
    char common_name[128];
    char reserved[124];  ///< zeroed
};

/// A certificate with its private key, its chain of intermediate certificates, and a list of trusted CA
/// certificates, loaded from files.
///
/// TLS and DTLS objects take one as their certificate option and own it from then on. One thread fills it
/// before it is handed over. Operations that read files block the calling thread; each failure of theirs is
/// logged. Paths are UTF-8 on Windows.
class RAVELO_API CSslX509 {
public:
    CSslX509();
    ~CSslX509();
    CSslX509(const CSslX509&) = delete;
    CSslX509& operator=(const CSslX509&) = delete;

    /// Loads the own certificate and its key in place of those that are there. An encrypted key's password is
    /// asked for on the terminal, by OpenSSL's own prompt.
    /// @param cert_file PEM; its first certificate counts. @param key_file PEM.
    /// @return 0; -1 no certificate, -2 no key, -3 the key is another certificate's. After a failure there is
    /// neither.
    int SetCert(const char* cert_file, const char* key_file);
    /// Appends a certificate to the chain. @param file PEM; its first certificate counts.
    /// @return 0, or -1 if there was none.
    int SetCA(const char* file);
    /// Appends to the trusted CA certificates. @param file PEM; all certificates up to the first damaged one
    /// count. @return 0, also when there was none; -1 if the file cannot be opened.
    int SetTrustCA(const char* file);

    /// Orders the chain from the own certificate towards a root; names decide, no signature is checked.
    /// @param flags 1: certificates that do not continue the path are removed. 0: they stay, behind it.
    /// @return 0 the path ends at a self-signed root; above 0 it does not, and has that many certificates
    /// including the own one; -1 there is no own certificate, -2 the chain is empty.
    int CheckCertificateChain(int flags);
    /// Looks the own certificate up, by issuer and serial number, in a list of revoked ones. The list's own
    /// signature and dates are not checked.
    /// @param crl_file DER or PEM. @return 1 revoked, 0 not, -1 no such list or no own certificate.
    int CheckCertIsRevoked(const char* crl_file);

    /// The own certificate's serial number, as unsigned bytes, highest first.
    /// @param len the bytes at buf; afterwards those of the number, also when they are too many.
    /// @return 0; -1 no own certificate, or buf is null; -2 the number is longer than len.
    int GetCertSN(unsigned char* buf, int& len);
    /// Fills the record with the own certificate's subject. An attribute that is missing after one that is
    /// there gets the text of the one before it.
    /// @return the sum of the texts' lengths, with -1 for each missing attribute; -1 without a certificate or
    /// record, and as soon as the sum falls below 0: the fields that follow are then empty.
    int GetCertSubjectMsg(CertSubjectMsg* msg);

private:
    friend struct SSslX509Record;

    /// Each reads what a PEM file begins with; null after a log line. The caller owns the result.
    x509_st* get_x509_from_file(const char* path);
    evp_pkey_st* get_privkey_from_file(const char* path);
    /// Takes over a certificate in place of the own one.
    int SetCert(x509_st* cert);

    SSslX509Record* m_internal;
};

}  // namespace Veltro::Ravelo
