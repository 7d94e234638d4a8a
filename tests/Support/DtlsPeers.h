// DTLS clients and servers over loopback, and what tests do with them.
#pragma once

#include <Ravelo/SockAddrIPv4.h>
#include <Ravelo/SockAddrIPv6.h>
#include <Ravelo/SslDgram.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

#include "Socket/SslDgramRecord.h"
#include "Support/Certificates.h"
#include "Support/Gate.h"
#include "Support/LogCapture.h"
#include "Support/SocketPair.h"

namespace Veltro::TestSupport {

/// While it lives, handshakes repeat soon, and give up on a silent peer after about two seconds, or less.
class CQuickDtls {
public:
    /// @param most_us the longest wait; the first one is at most 50 ms.
    /// @param silence_us how long a known peer may be silent while nobody repeats anything.
    explicit CQuickDtls(unsigned most_us = 200'000, std::int64_t silence_us = 3'000'000) {
        s_most_us = most_us;
        Ravelo::setDtlsTimer(next, silence_us);
    }
    ~CQuickDtls() { Ravelo::setDtlsTimer(nullptr); }
    CQuickDtls(const CQuickDtls&) = delete;
    CQuickDtls& operator=(const CQuickDtls&) = delete;

private:
    static unsigned next(unsigned last_us) {
        return std::min(last_us == 0 ? 50'000 : last_us * 2, s_most_us.load());
    }
    static inline std::atomic<unsigned> s_most_us{0};
};

/// A certificate object for SslOptCert: a certificate of the build with what stands between it and the root,
/// and with what it trusts; either may be empty.
inline Ravelo::CSslX509* dtlsCertificate(const std::string& name, const std::string& trusted = {}) {
    auto* x509 = new Ravelo::CSslX509;
    if (!name.empty()) {
        const std::string key = certificate(name + "_key.pem");
        EXPECT_EQ(0, x509->SetCert(certificate(name + ".pem").c_str(), key.c_str()));
        EXPECT_EQ(0, x509->SetCA(certificate("intermediate_1.pem").c_str()));
    }
    if (!trusted.empty()) {
        EXPECT_EQ(0, x509->SetTrustCA(certificate(trusted + ".pem").c_str()));
    }
    return x509;
}

/// Gives a socket a certificate to show, or none, and an authority to verify its peer by, or none.
inline void setDtlsCertificate(Ravelo::CSslDgram& dgram, const std::string& name,
                               const std::string& trusted = {}) {
    const int type = (name.empty() ? 0 : static_cast<int>(Ravelo::SslCertOwn)) |
                     (trusted.empty() ? 0 : static_cast<int>(Ravelo::SslCertVerifyPeer));
    EXPECT_EQ(0, dgram.SetOption(Ravelo::SslOptCert, type, dtlsCertificate(name, trusted)));
}

inline void setDtlsSessions(Ravelo::CSslDgram& dgram, int type, int option = 0) {
    EXPECT_EQ(0, dgram.SetOption(Ravelo::SslOptSession, type, &option));
}

inline Ravelo::SSslDgramRecord& recordOf(Ravelo::CSslDgram& dgram) {
    return *Ravelo::SSslDgramRecord::of(dgram);
}

/// Whether a connection resumed a session; false without one.
inline bool hasResumed(Ravelo::CSslDgram& dgram) {
    return recordOf(dgram).m_ssl != nullptr && SSL_session_reused(recordOf(dgram).m_ssl.get()) == 1;
}

/// A server on a port of the loopback, 0 for a free one; with a certificate, unless its name is empty.
struct SDtlsServer {
    Ravelo::CSslDgram dgram;
    Ravelo::CSockAddrIPv4 address;

    explicit SDtlsServer(const std::string& name = "server", unsigned short port = 0)
        : address("127.0.0.1", port) {
        EXPECT_EQ(0, dgram.Open(&address, false));
        EXPECT_EQ(0, dgram.GetLocalAddr(&address));
        if (!name.empty()) setDtlsCertificate(dgram, name);
    }
};

struct SDtlsResults {
    int accepted = -2;
    int connected = -2;

    bool areGood() const { return accepted == 0 && connected == 0; }
};

/// Negotiates, as the server on a thread of its own. The client may go to the server by way of another
/// address.
inline SDtlsResults negotiate(SDtlsServer& server, Ravelo::CSslDgram& client,
                              const Ravelo::CSockAddr* remote = nullptr) {
    SDtlsResults results;
    CRunner runner([&] { results.accepted = server.dgram.AcceptX(nullptr); });
    results.connected = client.Connect(remote != nullptr ? remote : &server.address, nullptr);
    runner.join();
    return results;
}

/// Two connected DTLS sockets.
struct SDtlsPair {
    CQuickDtls quick;
    SDtlsServer server;
    Ravelo::CSslDgram client;

    SDtlsPair() { EXPECT_TRUE(negotiate(server, client).areGood()); }
};

inline int sendText(Ravelo::CSslDgram& dgram, const std::string& text) {
    return dgram.Send(text.data(), static_cast<unsigned>(text.size()));
}

/// Receives once, after a wait for something to receive; the result.
inline int receiveRecord(Ravelo::CSslDgram& dgram, std::string* text, unsigned length_bytes = 65'536) {
    std::vector<char> block(length_bytes);
    int received = 0;
    do {
        received = dgram.Recv(block.data(), length_bytes);
    } while (received == 0 && waitReadable(dgram));
    text->assign(block.data(), static_cast<std::size_t>(std::max(received, 0)));
    return received;
}

/// A record's text; empty on failure or after 10 s.
inline std::string receiveRecord(Ravelo::CSslDgram& dgram) {
    std::string text;
    receiveRecord(dgram, &text);
    return text;
}

/// Sends back what comes until the peer closes.
inline void echoUntilClosed(Ravelo::CSslDgram& dgram) {
    for (std::string text; receiveRecord(dgram, &text) > 0;) sendText(dgram, text);
}

}  // namespace Veltro::TestSupport
