// The private record of a DTLS socket, and what the files of its class share.
#pragma once

#include <Ravelo/SockDgram.h>
#include <Ravelo/SslDgram.h>
#include <Ravelo/SslX509.h>

#include <array>
#include <cstdint>
#include <memory>

#include "Socket/OpenSslTypes.h"

namespace Veltro::Ravelo {

/// Null in an object for which there was no memory: it can do nothing.
struct SSslDgramRecord {
    // Destroyed from the last to the first.
    std::unique_ptr<CSockDgram> m_dgram;  ///< carries the traffic
    std::unique_ptr<CSslX509> m_x509;
    TSslContext m_ctx;
    TSslConnection m_ssl;

    bool m_session_reused = false;  ///< the handshake resumed a session
    int m_session_type = 0;
    int m_session_option = 0;
    int m_cert_type = 0;
    int m_cipher_type = 0;
    const char* m_cipher_list = nullptr;  ///< the application's

    /// Who shows and verifies other certificates resumes none of this one's sessions, nor this one theirs: a
    /// resumed session is not verified again.
    std::array<unsigned char, SSL_MAX_SID_CTX_LENGTH> m_session_context{};

    static SSslDgramRecord* of(CSslDgram& object) { return object.m_internal; }
};

/// The sessions of all DTLS servers of the process, by session id.
extern CSessionCache s_srv_sess_cache;

/// The longest wait for a silent peer, which OpenSSL has, too.
constexpr std::int64_t DTLS_SILENCE_US = 60'000'000;

/// How long DTLS handshakes wait before they repeat what they have sent: the first time for timer(0), then
/// for timer(the last time), in microseconds. Null, as at the start, leaves it to OpenSSL. Any thread; counts
/// for the handshakes that begin later.
void setDtlsTimer(unsigned (*timer)(unsigned last_us), std::int64_t silence_us = DTLS_SILENCE_US);

}  // namespace Veltro::Ravelo
