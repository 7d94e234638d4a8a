// TLS peers made of plain OpenSSL calls, for what the library's own classes are not to do or to say.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "Socket/OpenSslTypes.h"
#include "Socket/SslBio.h"
#include "Support/Certificates.h"
#include "Support/SocketPair.h"

namespace Veltro::TestSupport {

/// A context of a client, or of a server with a certificate of the build.
inline Ravelo::TSslContext rawClientContext() {
    return Ravelo::TSslContext(SSL_CTX_new(TLS_client_method()));
}
inline Ravelo::TSslContext rawServerContext(const std::string& name = "server") {
    Ravelo::TSslContext ctx(SSL_CTX_new(TLS_server_method()));
    EXPECT_EQ(1, SSL_CTX_use_certificate_chain_file(ctx.get(), certificate(name + ".pem").c_str()));
    EXPECT_EQ(
        1, SSL_CTX_use_PrivateKey_file(ctx.get(), certificate(name + "_key.pem").c_str(), SSL_FILETYPE_PEM));
    return ctx;
}

/// A TLS connection over a blocking stream.
class CRawTls {
public:
    explicit CRawTls(const Ravelo::TSslContext& ctx) : m_ssl(SSL_new(ctx.get())) {}

    /// As a client to an endpoint, or as the server of a listener's next client. Whether it went well.
    bool connect(const Ravelo::CSockAddrIPv4& address) {
        m_stream.SetBlockOpt(true);
        return m_stream.Connect(address) == 0 && begin() && SSL_connect(ssl()) == 1;
    }
    bool accept(SListener& listener) {
        m_stream.SetBlockOpt(true);
        return listener.accept(m_stream) == 0 && begin() && SSL_accept(ssl()) == 1;
    }

    int write(const std::string& text) {
        return SSL_write(ssl(), text.data(), static_cast<int>(text.size()));
    }
    /// Reads exactly a number of bytes; fewer when the connection ends.
    std::string read(std::size_t length) {
        std::string text(length, '\0');
        std::size_t used = 0;
        while (used < length) {
            const int got = SSL_read(ssl(), text.data() + used, static_cast<int>(length - used));
            if (got <= 0) break;
            used += static_cast<std::size_t>(got);
        }
        text.resize(used);
        return text;
    }

    SSL* ssl() const { return m_ssl.get(); }
    Ravelo::CSockStream& stream() { return m_stream; }

private:
    bool begin() {
        BIO* bio = Ravelo::SslBio::create(m_stream.GetHandle());
        SSL_set_bio(ssl(), bio, bio);
        // Nothing lasts for ever, least of all a test that fails.
        Ravelo::SslBio::setTimeout(bio, 20'000);
        return true;
    }

    Ravelo::CSockStream m_stream;  // outlives what reads it
    Ravelo::TSslConnection m_ssl;
};

}  // namespace Veltro::TestSupport
