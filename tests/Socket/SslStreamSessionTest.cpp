// Resumed sessions of TLS streams.
#include <Ravelo/SslStream.h>
#include <gtest/gtest.h>

#include <openssl/core_names.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "Socket/SessionCacheRecord.h"
#include "Support/LogCapture.h"
#include "Support/RawTls.h"
#include "Support/TlsPair.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::contextOf;
using TestSupport::ownCertificate;
using TestSupport::receive;
using TestSupport::sendText;
using TestSupport::sslOf;
using TestSupport::STlsServer;
using TestSupport::trusting;

constexpr int BOTH = SslSessionId | SslSessionTicket;

/// A server that lets clients resume.
struct SResumingServer : STlsServer {
    explicit SResumingServer(int type = BOTH) { allowSessions(type); }

    std::string peerKey() const { return "127.0.0.1:" + std::to_string(address.GetPort()); }
    /// From now on no session of before is known, as after a restart.
    void restart() { SSslAcceptorRecord::of(acceptor)->m_ctx.reset(); }

    /// One connection of a client, over which a byte comes back so that the client has read its tickets.
    /// Whether the server resumed.
    bool converse(CSslStream& client) {
        CSslStream server;
        EXPECT_TRUE(serve(server, client));
        sendText(server, "x");
        EXPECT_EQ("x", receive(client, 1));
        return SSL_session_reused(sslOf(server)) == 1;
    }
    /// The same with a client that has a session option. @param number in and out, by number.
    bool converse(int type, std::uint32_t* number = nullptr) {
        CSslStream client;
        EXPECT_EQ(0, client.SetOption(SslOptSession, type, number));
        const bool resumed = converse(client);
        int told_type = 0;
        int length = 4;
        EXPECT_EQ(0, client.GetOption(SslOptSession, told_type, number, length));
        return resumed;
    }
};

bool has(CSessionCache& cache, const std::string& key) {
    return TSession(cache.Get(key.c_str())) != nullptr;
}

struct SCase {
    const char* name;
    int client;  ///< SslSession flags
    int server;
    bool up_to_tls12;
};

class SslStreamSessionEveryWay : public ::testing::TestWithParam<SCase> {};

TEST_P(SslStreamSessionEveryWay, ConnectionsTwoToTenResume) {
    const SCase& way = GetParam();
    SResumingServer listener(way.server);
    if (way.up_to_tls12) listener.limitToTls12();
    std::uint32_t number = 0;
    EXPECT_FALSE(listener.converse(way.client, &number));
    const std::uint32_t first = number;
    EXPECT_EQ((way.client & SslSessionByNumber) != 0, first != 0);
    for (int i = 2; i <= 10; ++i) {
        EXPECT_TRUE(listener.converse(way.client, &number)) << "connection " << i;
        EXPECT_EQ(first, number);
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, SslStreamSessionEveryWay,
    ::testing::Values(SCase{"IdTls12", SslSessionId, SslSessionId, true},
                      SCase{"IdTls13", SslSessionId, SslSessionId, false},
                      SCase{"TicketTls12", SslSessionTicket, SslSessionTicket, true},
                      SCase{"TicketTls13", SslSessionTicket, SslSessionTicket, false},
                      SCase{"BothTls12", BOTH, BOTH, true}, SCase{"BothTls13", BOTH, BOTH, false},
                      SCase{"IdAtATicketServerTls13", SslSessionId, SslSessionTicket, false},
                      SCase{"TicketAtAnIdServerTls12", SslSessionTicket, SslSessionId, true},
                      SCase{"TicketAtAnIdServerTls13", SslSessionTicket, SslSessionId, false},
                      SCase{"NumberTls12", SslSessionByNumber, BOTH, true},
                      SCase{"NumberTls13", SslSessionByNumber, BOTH, false},
                      SCase{"NumberByIdTls12", SslSessionByNumber | SslSessionId, BOTH, true},
                      SCase{"NumberByIdTls13", SslSessionByNumber | SslSessionId, BOTH, false},
                      SCase{"NumberByTicketTls12", SslSessionByNumber | SslSessionTicket, BOTH, true},
                      SCase{"NumberByTicketTls13", SslSessionByNumber | SslSessionTicket, BOTH, false}),
    [](const auto& way) { return std::string(way.param.name); });

class SslStreamSession : public ::testing::TestWithParam<bool> {};

INSTANTIATE_TEST_SUITE_P(EveryVersion, SslStreamSession, ::testing::Bool(),
                         [](const auto& way) { return way.param ? "Tls12" : "Tls13"; });

TEST_P(SslStreamSession, WithoutTheOptionNothingIsKeptOrResumed) {
    SResumingServer listener;
    if (GetParam()) listener.limitToTls12();
    EXPECT_FALSE(listener.converse(0));
    EXPECT_FALSE(listener.converse(0));
    EXPECT_FALSE(has(CSslStream::s_session_cache_id, listener.peerKey()));
    EXPECT_FALSE(has(CSslStream::s_session_cache_ticket, listener.peerKey()));
}

TEST_P(SslStreamSession, TheOptionChoosesTheCache) {
    SResumingServer by_id;
    SResumingServer by_ticket;
    if (GetParam()) by_id.limitToTls12();
    if (GetParam()) by_ticket.limitToTls12();
    by_id.converse(BOTH);
    by_ticket.converse(SslSessionTicket);
    EXPECT_TRUE(has(CSslStream::s_session_cache_id, by_id.peerKey()));
    EXPECT_FALSE(has(CSslStream::s_session_cache_ticket, by_id.peerKey()));
    EXPECT_TRUE(has(CSslStream::s_session_cache_ticket, by_ticket.peerKey()));
    EXPECT_FALSE(has(CSslStream::s_session_cache_id, by_ticket.peerKey()));
}

TEST_P(SslStreamSession, AServerThatKeepsNoneResumesNone) {
    SResumingServer listener(0);
    if (GetParam()) listener.limitToTls12();
    EXPECT_FALSE(listener.converse(BOTH));
    EXPECT_FALSE(listener.converse(BOTH));
}

TEST_P(SslStreamSession, ARefusedSessionIsReplacedByTheNewOne) {
    SResumingServer listener;
    if (GetParam()) listener.limitToTls12();
    EXPECT_FALSE(listener.converse(BOTH));
    listener.restart();
    if (GetParam()) listener.limitToTls12();
    EXPECT_FALSE(listener.converse(BOTH));
    EXPECT_TRUE(listener.converse(BOTH));
}

TEST_P(SslStreamSession, ARefusedSessionsNumberGoesToTheNewOne) {
    SResumingServer listener;
    if (GetParam()) listener.limitToTls12();
    std::uint32_t number = 0;
    EXPECT_FALSE(listener.converse(SslSessionByNumber, &number));
    const std::uint32_t first = number;
    listener.restart();
    if (GetParam()) listener.limitToTls12();
    EXPECT_FALSE(listener.converse(SslSessionByNumber, &number));
    EXPECT_EQ(first, number);
    EXPECT_TRUE(listener.converse(SslSessionByNumber, &number));
}

TEST_P(SslStreamSession, ConnectionsWithoutANumberDrawOne) {
    SResumingServer listener;
    if (GetParam()) listener.limitToTls12();
    std::uint32_t first = 0;
    std::uint32_t second = 0;
    EXPECT_FALSE(listener.converse(SslSessionByNumber, &first));
    EXPECT_FALSE(listener.converse(SslSessionByNumber, &second));
    EXPECT_GE(first, 1U);
    EXPECT_EQ(first + 1, second);
    EXPECT_TRUE(listener.converse(SslSessionByNumber, &first));
    EXPECT_TRUE(listener.converse(SslSessionByNumber, &second));
}

TEST_P(SslStreamSession, ANumberThatIsNotKnownIsReplacedByANewOne) {
    SResumingServer listener;
    if (GetParam()) listener.limitToTls12();
    std::uint32_t number = 4'000'000'000;
    EXPECT_FALSE(listener.converse(SslSessionByNumber, &number));
    EXPECT_LT(number, 1000U);
    EXPECT_TRUE(listener.converse(SslSessionByNumber, &number));
}

TEST_P(SslStreamSession, ANumberIsGoodAtAnotherAddress) {
    SResumingServer listener;
    if (GetParam()) listener.limitToTls12();
    std::uint32_t number = 0;
    EXPECT_FALSE(listener.converse(SslSessionByNumber, &number));
    // The same server moves to another port.
    EXPECT_EQ(0, listener.acceptor.Open(CSockAddrIPv4("127.0.0.1", 0)));
    EXPECT_EQ(0, listener.acceptor.GetLocalAddr(&listener.address));
    EXPECT_TRUE(listener.converse(SslSessionByNumber, &number));
}

TEST_P(SslStreamSession, AClientThatNeverReadsResumesToo) {
    SResumingServer listener;
    if (GetParam()) listener.limitToTls12();
    for (int i = 1; i <= 3; ++i) {
        CSslStream server;
        CSslStream client;
        client.SetOption(SslOptSession, BOTH, nullptr);
        ASSERT_TRUE(listener.serve(server, client));
        EXPECT_EQ(i > 1, SSL_session_reused(sslOf(server)) == 1) << "connection " << i;
        if (!GetParam()) {
            ASSERT_TRUE(TestSupport::waitReadable(client));
        }
    }
}

TEST_P(SslStreamSession, AVerifyingClientDoesNotResumeWhatNobodyHasVerified) {
    SResumingServer listener;
    if (GetParam()) listener.limitToTls12();
    EXPECT_FALSE(listener.converse(BOTH));
    EXPECT_TRUE(listener.converse(BOTH));
    for (int i = 1; i <= 2; ++i) {
        CSslStream client;
        client.SetOption(SslOptSession, BOTH, nullptr);
        client.SetOption(SslOptCert, SslCertVerifyPeer, trusting("root_ca"));
        EXPECT_EQ(i > 1, listener.converse(client)) << "connection " << i;
    }
}

TEST_P(SslStreamSession, ClientsWithCertificatesResume) {
    SResumingServer listener;
    listener.acceptor.SetOption(SslOptCert, SslCertOwn | SslCertVerifyPeer,
                                trusting("root_ca", ownCertificate("server")));
    if (GetParam()) {
        CSslStream server;
        CSslStream client;
        client.SetOption(SslOptCert, SslCertOwn, ownCertificate("client"));
        ASSERT_TRUE(listener.serve(server, client));
        SSL_CTX_set_max_proto_version(contextOf(listener.acceptor), TLS1_2_VERSION);
    }
    for (int i = 1; i <= 3; ++i) {
        CSslStream server;
        CSslStream client;
        client.SetOption(SslOptSession, BOTH, nullptr);
        client.SetOption(SslOptCert, SslCertOwn, ownCertificate("client"));
        ASSERT_TRUE(listener.serve(server, client));
        sendText(server, "x");
        EXPECT_EQ("x", receive(client, 1));
        EXPECT_EQ(i > 1, SSL_session_reused(sslOf(server)) == 1) << "connection " << i;
        CSslX509 shown;
        EXPECT_EQ(0, server.GetPeerCert(&shown)) << "a resumed session knows its peer";
    }
}

TEST_P(SslStreamSession, AConnectionCutOffHarmsNoSessionOfOthers) {
    SResumingServer listener;
    if (GetParam()) listener.limitToTls12();
    EXPECT_FALSE(listener.converse(SslSessionTicket));
    {
        CSslStream server;
        CSslStream client;
        client.SetOption(SslOptSession, SslSessionTicket, nullptr);
        ASSERT_TRUE(listener.serve(server, client));
        EXPECT_EQ(1, SSL_session_reused(sslOf(server)));
        server.Close();
        const CLogCapture log;
        EXPECT_EQ(-1, TestSupport::receiveEnd(client));
    }
    // The session may have gone with it; what comes next connects, and then sessions resume again.
    listener.converse(SslSessionTicket);
    EXPECT_TRUE(listener.converse(SslSessionTicket));
}

TEST(SslStreamSessionTls13, EveryTicketTakesItsForerunnersPlace) {
    SResumingServer listener;
    listener.converse(BOTH);
    const TSession before(CSslStream::s_session_cache_id.Get(listener.peerKey().c_str()));
    listener.converse(BOTH);
    const TSession after(CSslStream::s_session_cache_id.Get(listener.peerKey().c_str()));
    ASSERT_NE(nullptr, before);
    ASSERT_NE(nullptr, after);
    EXPECT_NE(before.get(), after.get());
}

TEST(SslStreamSessionTls12, ARenewedTicketTakesItsForerunnersPlace) {
    TestSupport::SListener listener;
    const TSslContext ctx = TestSupport::rawServerContext();
    SSL_CTX_set_max_proto_version(ctx.get(), TLS1_2_VERSION);
    // Each ticket is good once more and comes with the next one.
    SSL_CTX_set_tlsext_ticket_key_evp_cb(
        ctx.get(), [](SSL*, unsigned char* name, unsigned char* vector, EVP_CIPHER_CTX* cipher,
                      EVP_MAC_CTX* mac, int encrypts) {
            unsigned char key[32] = {1};
            if (encrypts == 1) {
                std::fill_n(name, 16, static_cast<unsigned char>('n'));
                std::fill_n(vector, 16, static_cast<unsigned char>('v'));
            }
            OSSL_PARAM params[] = {OSSL_PARAM_construct_octet_string("key", key, sizeof(key)),
                                   OSSL_PARAM_construct_utf8_string("digest", const_cast<char*>("SHA256"), 0),
                                   OSSL_PARAM_construct_end()};
            EVP_MAC_CTX_set_params(mac, params);
            EVP_CipherInit_ex(cipher, EVP_aes_256_cbc(), nullptr, key, vector, encrypts);
            return encrypts == 1 ? 1 : 2;
        });
    const std::string key = "127.0.0.1:" + std::to_string(listener.address.GetPort());
    std::vector<TSession> kept;
    for (int i = 1; i <= 3; ++i) {
        TestSupport::CRawTls server(ctx);
        CSslStream client;
        client.SetOption(SslOptSession, SslSessionTicket, nullptr);
        TestSupport::CRunner runner([&] { EXPECT_TRUE(server.accept(listener)); });
        ASSERT_EQ(0, client.Connect(listener.address));
        runner.join();
        EXPECT_EQ(i > 1, SSL_session_reused(server.ssl()) == 1) << "connection " << i;
        kept.emplace_back(CSslStream::s_session_cache_ticket.Get(key.c_str()));
        ASSERT_NE(nullptr, kept.back());
        SSL_shutdown(server.ssl());
    }
    EXPECT_NE(kept[0].get(), kept[1].get());
    EXPECT_NE(kept[1].get(), kept[2].get());
}

// Each test runs in a process of its own, so nobody has drawn a number here.
TEST(SslStreamSessionNumber, TheFirstOneDrawnIsOne) {
    SSessionCacheRecord& cache = *SSessionCacheRecord::of(CSslStream::s_session_cache_ticket);
    {
        const Plinth::CLockGuard guard(cache.mutex);
        if (cache.m_next_number != 1) GTEST_SKIP() << "another test of this process has drawn numbers";
    }
    SResumingServer listener;
    std::uint32_t number = 0;
    EXPECT_FALSE(listener.converse(SslSessionByNumber, &number));
    EXPECT_EQ(1U, number);
    EXPECT_TRUE(has(CSslStream::s_session_cache_ticket, "#1"));
    EXPECT_TRUE(listener.converse(SslSessionByNumber, &number));
    EXPECT_EQ(1U, number);
}

}  // namespace
}  // namespace Veltro::Ravelo
