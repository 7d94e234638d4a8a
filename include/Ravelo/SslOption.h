// Options of the TLS and DTLS classes, as their SetOption() takes them.
#pragma once

namespace Veltro::Ravelo {

/// What an option is about. Each class says which ones it takes and how.
enum : int {
    SslOptSession = 0,      ///< type: SslSession flags
    SslOptCert = 1,         ///< type: SslCert flags; value: a CSslX509, which the object owns from then on
    SslOptProtocolBan = 2,  ///< type: SslBan flags
    SslOptCipherList = 3,   ///< type 1: value is a list of ciphers in OpenSSL's notation
    SslOptTimeout = 4,      ///< value: the handshake's time-out, a 32-bit number of milliseconds
    SslOptKeyPasswd = 5,    ///< value: the password of the private key's file
    SslOptServerName = 6    ///< value: the name of the server that a client wants to reach
};

/// How sessions are resumed; bits of SslOptSession's type. 0 resumes none.
enum : int {
    SslSessionId = 1,       ///< by session id: the server keeps the session
    SslSessionTicket = 2,   ///< by ticket: the client keeps the session, sealed by the server
    SslSessionByNumber = 4  ///< clients: under a number that the application keeps, not the peer's address
};

/// What certificates are for; bits of SslOptCert's type.
enum : int {
    SslCertVerifyPeer = 1,  ///< the peer's certificate must lead to a trusted one
    SslCertOwn = 2          ///< the own certificate is shown to the peer
};

/// Protocol versions that a server refuses; bits of SslOptProtocolBan's type. TLS 1.2 and later cannot be
/// refused; OpenSSL's security level refuses some of these by itself.
enum : int { SslBanSSLv2 = 1, SslBanSSLv3 = 2, SslBanTLSv1 = 4, SslBanTLSv1_1 = 8 };

}  // namespace Veltro::Ravelo
