#pragma once

#include <Ravelo/SockAcceptor.h>
#include <Ravelo/SslAcceptor.h>

#include <cstdint>

#include "Socket/OpenSslTypes.h"
#include "Socket/SslOptions.h"

namespace Veltro::Ravelo {

/// The private state of a CSslAcceptor.
struct SSslAcceptorRecord : SSslOptions {
    CSockAcceptor m_acceptor;  ///< its socket is the object's, too
    int m_verify_flags = 0;    ///< SSL_VERIFY_ flags of SetCertVerityPeer()
    TSslContext m_ctx;         ///< null until the first Accept() and after a failed handshake
    std::uint32_t m_protocol_ban = SslBanSSLv2 | SslBanSSLv3;

    /// An object's record; null if there was no memory for it.
    static SSslAcceptorRecord* of(CSslAcceptor& object) { return object.m_internal; }
};

}  // namespace Veltro::Ravelo
