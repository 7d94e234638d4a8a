// Options that TLS streams, TLS acceptors and DTLS sockets keep alike.
#pragma once

#include <Ravelo/SslOption.h>
#include <Ravelo/SslX509.h>

#include <cstdint>
#include <memory>
#include <optional>

#include "Socket/SslContext.h"

namespace Veltro::Ravelo {

/// The options of one object. Setters return what SetOption() does: 0; -1 without memory or without a value
/// where one is needed.
struct SSslOptions {
    std::unique_ptr<char[]> m_pem_path;
    std::unique_ptr<char[]> m_key_passwd;
    std::int32_t m_key_passwd_len = 0;
    std::uint32_t m_session_type = 0;
    std::uint32_t m_cert_type = 0;
    std::unique_ptr<CSslX509> m_x509;
    std::uint32_t m_cipher_type = 0;
    std::unique_ptr<char[]> m_cipher_list;
    std::uint32_t m_timeout_type = 0;
    std::int32_t m_handshake_timeout = 0;  ///< milliseconds; 0 or less: none

    bool verifiesPeer() const { return (m_cert_type & SslCertVerifyPeer) != 0; }
    bool showsOwn() const { return (m_cert_type & SslCertOwn) != 0; }
    SslContext::SPassword password() const { return {m_key_passwd.get(), m_key_passwd_len}; }
    /// Sets a connection's list of ciphers; false if the chosen one is rejected: then `standard` is in force.
    bool applyCiphers(SSL* ssl, const char* standard) const;

    int setCert(int type, void* x509);
    int takeCipherList(int type, void* list);
    int copyCipherList(int type, const void* list, int length);
    /// @param counts_for the type with which the value counts.
    int setTimeout(int type, const void* value, int counts_for);
    int setPassword(const void* text);
    int setPassword(const void* bytes, int length);
    /// Sets an option that comes with its value's length. @return nothing for those that heed none.
    std::optional<int> setSized(int option, int type, const void* value, int length);
};

/// The 32-bit number that an option's value points at, which may lie anywhere; 0 for null.
std::uint32_t optionNumber(const void* value);

/// Copies a NUL-terminated text into a zero-filled buffer of its length plus one. @return 0; -1 without
/// memory, or if it is null: then `to` is null.
int copyOptionText(std::unique_ptr<char[]>* to, const char* text);

}  // namespace Veltro::Ravelo
