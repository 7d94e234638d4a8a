#pragma once

#include <Ravelo/SslX509.h>

#include "Socket/OpenSslTypes.h"

namespace Veltro::Ravelo {

/// The private state of a CSslX509, read by the TLS classes that own one.
struct SSslX509Record {
    // Destroyed from the last to the first.
    TCertificate m_cert;
    TPrivateKey m_key;
    TCertificateList m_chain{sk_X509_new_null()};
    TCertificateList m_trust{sk_X509_new_null()};

    /// An object's record; null if there was no memory for it.
    static SSslX509Record* of(CSslX509& object) { return object.m_internal; }
    /// Gives an object a certificate that comes from no file, such as a peer's; 0 or -1.
    static int setCert(CSslX509& object, TCertificate cert) { return object.SetCert(cert.release()); }
};

}  // namespace Veltro::Ravelo
