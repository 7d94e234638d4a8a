// TLS streams and acceptors over loopback, and what tests do with them.
#pragma once

#include <Ravelo/SslAcceptor.h>
#include <Ravelo/SslStream.h>
#include <gtest/gtest.h>

#include <string>

#include "Socket/SslAcceptorRecord.h"
#include "Socket/SslStreamRecord.h"
#include "Support/Certificates.h"
#include "Support/Gate.h"
#include "Support/SocketPair.h"

namespace Veltro::TestSupport {

/// A certificate object for SslOptCert: a certificate of the build, with what stands between it and the root.
inline Ravelo::CSslX509* ownCertificate(const std::string& name) {
    auto* x509 = new Ravelo::CSslX509;
    EXPECT_EQ(0, x509->SetCert(certificate(name + ".pem").c_str(), certificate(name + "_key.pem").c_str()));
    EXPECT_EQ(0, x509->SetCA(certificate("intermediate_1.pem").c_str()));
    return x509;
}
/// One that trusts an authority of the build.
inline Ravelo::CSslX509* trusting(const std::string& authority, Ravelo::CSslX509* x509 = nullptr) {
    if (x509 == nullptr) x509 = new Ravelo::CSslX509;
    EXPECT_EQ(0, x509->SetTrustCA(certificate(authority + ".pem").c_str()));
    return x509;
}

/// The text form of SetOption's owned values.
inline char* heapText(const std::string& text) {
    char* copy = new char[text.size() + 1]();
    text.copy(copy, text.size());
    return copy;
}

inline SSL* sslOf(Ravelo::CSslStream& stream) {
    return Ravelo::SSslStreamRecord::of(stream)->m_ssl.get();
}
inline SSL_CTX* contextOf(Ravelo::CSslAcceptor& acceptor) {
    return Ravelo::SSslAcceptorRecord::of(acceptor)->m_ctx.get();
}

/// An acceptor on a free port of 127.0.0.1; has a certificate unless told otherwise, and waits for no client
/// longer than 20 s.
struct STlsServer {
    Ravelo::CSslAcceptor acceptor;
    Ravelo::CSockAddrIPv4 address;

    explicit STlsServer(const std::string& name = "server") {
        EXPECT_EQ(0, acceptor.Open(Ravelo::CSockAddrIPv4("127.0.0.1", 0)));
        EXPECT_EQ(0, acceptor.GetLocalAddr(&address));
        setTimeout(20'000);
        if (!name.empty()) {
            EXPECT_EQ(0, acceptor.SetOption(Ravelo::SslOptCert, Ravelo::SslCertOwn, ownCertificate(name)));
        }
    }
    void setTimeout(int timeout_ms) {
        EXPECT_EQ(0, acceptor.SetOption(Ravelo::SslOptTimeout, 1, &timeout_ms));
    }
    /// Lets clients resume, by SslSession flags.
    void allowSessions(int type) { EXPECT_EQ(0, acceptor.SetOption(Ravelo::SslOptSession, type, nullptr)); }
    struct SResults {
        int accepted = -2;
        int connected = -2;
    };
    /// Negotiates with a client, as the server on a thread of its own.
    SResults negotiate(Ravelo::CSslStream& server, Ravelo::CSslStream& client) {
        SResults results;
        CRunner runner([&] { results.accepted = acceptor.Accept(server); });
        results.connected = client.Connect(address);
        runner.join();
        return results;
    }
    /// The same; whether both sides went well.
    bool serve(Ravelo::CSslStream& server, Ravelo::CSslStream& client) {
        const SResults results = negotiate(server, client);
        return results.accepted == 0 && results.connected == 0;
    }
    /// From now on TLS 1.2 at most. Builds the context by a first connection.
    void limitToTls12() {
        Ravelo::CSslStream server;
        Ravelo::CSslStream client;
        EXPECT_TRUE(serve(server, client));
        EXPECT_EQ(1, SSL_CTX_set_max_proto_version(contextOf(acceptor), TLS1_2_VERSION));
    }
};

/// Two connected TLS streams.
struct STlsPair {
    STlsServer listener;
    Ravelo::CSslStream client;
    Ravelo::CSslStream server;

    explicit STlsPair(bool up_to_tls12 = false) {
        if (up_to_tls12) listener.limitToTls12();
        EXPECT_TRUE(listener.serve(server, client));
    }
};

inline int sendText(Ravelo::CSslStream& stream, const std::string& text) {
    return stream.Send(text.data(), static_cast<unsigned>(text.size()));
}

/// Receives exactly a number of bytes; fewer if the connection ends or 10 s pass without any.
inline std::string receive(Ravelo::CSslStream& stream, std::size_t length_bytes) {
    std::string text;
    std::vector<char> block(64 * 1024);
    while (text.size() < length_bytes) {
        const std::size_t rest = length_bytes - text.size();
        const int received =
            stream.Recv(block.data(), static_cast<unsigned>(rest < block.size() ? rest : block.size()));
        if (received < 0 || (received == 0 && !waitReadable(stream))) break;
        text.append(block.data(), static_cast<std::size_t>(received));
    }
    return text;
}

/// Receives until a stream fails or 10 s pass without anything; the last result.
inline int receiveEnd(Ravelo::CSslStream& stream) {
    char block[4096];
    int received = 0;
    while (received >= 0) {
        received = stream.Recv(block, sizeof(block));
        if (received == 0 && !waitReadable(stream)) break;
    }
    return received;
}

/// A folder with a certificate chain and a key under the names that SetPemPath() wants; removed at the end.
class CPemFolder {
public:
    /// @param chain, key names of files of the build; empty: the file is missing.
    CPemFolder(const std::string& chain, const std::string& key, const std::string& name = "ravelo_pem_")
        : m_path(std::filesystem::temp_directory_path() / (name + std::to_string(std::random_device{}()))) {
        std::filesystem::create_directory(m_path);
        if (!chain.empty()) std::filesystem::copy_file(certificate(chain), m_path / "cacert.pem");
        if (!key.empty()) std::filesystem::copy_file(certificate(key), m_path / "privkey.pem");
    }
    ~CPemFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    CPemFolder(const CPemFolder&) = delete;
    CPemFolder& operator=(const CPemFolder&) = delete;

    std::string path() const { return m_path.string(); }

private:
    std::filesystem::path m_path;
};

}  // namespace Veltro::TestSupport
