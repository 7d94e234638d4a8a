#pragma once

#include <Ravelo/SslStream.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "Socket/OpenSslTypes.h"
#include "Socket/SslOptions.h"

namespace Veltro::Ravelo {

/// The private state of a CSslStream.
struct SSslStreamRecord : SSslOptions {
    static constexpr std::int32_t HANDSHAKE_TIMEOUT_MS = 5000;
    static constexpr std::size_t KEY_BYTES = 144;

    TSslConnection m_ssl;                ///< null until connected or handed over
    TSslContext m_ctx;                   ///< null for a connection that an acceptor handed over
    std::uint32_t m_session_reused = 0;  ///< 1: a session was offered on this connection
    std::uint32_t m_session_number = 0;
    std::unique_ptr<char[]> m_server_name;
    /// Where this connection's sessions go; empty until it is known.
    char m_session_key[KEY_BYTES] = {};

    SSslStreamRecord() { m_handshake_timeout = HANDSHAKE_TIMEOUT_MS; }

    /// An object's record; null if there was no memory for it.
    static SSslStreamRecord* of(CSslStream& object) { return object.m_internal; }

    /// The cache that the option chooses.
    CSessionCache& sessionCache() const;
    /// Forgets the connection, as if it had never been tried.
    void dropConnection();
};

}  // namespace Veltro::Ravelo
