// How DTLS sockets resume sessions.
#include <atomic>
#include <cstring>
#include <ctime>

#include "Socket/DtlsTicketKeys.h"
#include "Support/Datagrams.h"
#include "Support/DtlsPeers.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::CQuickDtls;
using TestSupport::hasResumed;
using TestSupport::negotiate;
using TestSupport::recordOf;
using TestSupport::SDtlsServer;
using TestSupport::setDtlsCertificate;
using TestSupport::setDtlsSessions;

constexpr int BOTH = SslSessionId | SslSessionTicket;

/// What a server and a client agree on.
struct STerms {
    int server_type = 0;
    int client_type = 0;
    int client_option = 0;
    std::string server_name = "server";
    std::string server_trust = {};
    std::string client_name = {};
    std::string client_trust = {};
};

std::string keyOf(unsigned short port) {
    return "127.0.0.1:" + std::to_string(port);
}

/// One connection to a port; each time both sides are new objects. @return whether the server resumed.
bool meet(unsigned short port, const STerms& terms) {
    SDtlsServer server("", port);
    CSslDgram client;
    setDtlsCertificate(server.dgram, terms.server_name, terms.server_trust);
    if (!terms.client_name.empty() || !terms.client_trust.empty())
        setDtlsCertificate(client, terms.client_name, terms.client_trust);
    setDtlsSessions(server.dgram, terms.server_type);
    setDtlsSessions(client, terms.client_type, terms.client_option);
    EXPECT_TRUE(negotiate(server, client).areGood());
    EXPECT_EQ(hasResumed(server.dgram), hasResumed(client));
    EXPECT_EQ(hasResumed(client), recordOf(client).m_session_reused);
    return hasResumed(server.dgram);
}

bool has(CSessionCache& cache, const std::string& key) {
    return TSession(cache.Get(key.c_str())) != nullptr;
}

class SslDgramSession : public ::testing::Test {
protected:
    SslDgramSession() { EXPECT_EQ(0, CSslDgram::Init()); }

    CQuickDtls m_quick;
    const unsigned short m_port = TestSupport::freeDatagramPort();
};

TEST_F(SslDgramSession, WithoutTheOptionNothingIsResumedOrKept) {
    EXPECT_FALSE(meet(m_port, {}));
    EXPECT_FALSE(meet(m_port, {}));
    EXPECT_FALSE(has(CSslDgram::s_cli_sess_cache_id, keyOf(m_port)));
    EXPECT_FALSE(has(CSslDgram::s_cli_sess_cache_ticket, keyOf(m_port)));
}

TEST_F(SslDgramSession, ResumesByIdAgainAndAgain) {
    const STerms terms{SslSessionId, SslSessionId};
    EXPECT_FALSE(meet(m_port, terms));
    for (int i = 2; i <= 10; ++i) EXPECT_TRUE(meet(m_port, terms)) << i;
    EXPECT_TRUE(has(CSslDgram::s_cli_sess_cache_id, keyOf(m_port)));
    EXPECT_FALSE(has(CSslDgram::s_cli_sess_cache_ticket, keyOf(m_port)));
}

TEST_F(SslDgramSession, ResumesByTicketAgainAndAgain) {
    const STerms terms{SslSessionTicket, SslSessionTicket};
    EXPECT_FALSE(meet(m_port, terms));
    for (int i = 2; i <= 10; ++i) EXPECT_TRUE(meet(m_port, terms)) << i;
    EXPECT_FALSE(has(CSslDgram::s_cli_sess_cache_id, keyOf(m_port)));
    EXPECT_TRUE(has(CSslDgram::s_cli_sess_cache_ticket, keyOf(m_port)));
}

TEST_F(SslDgramSession, TheIdFlagChoosesTheCacheOfThoseWithBoth) {
    const STerms terms{BOTH, BOTH};
    EXPECT_FALSE(meet(m_port, terms));
    EXPECT_TRUE(meet(m_port, terms));
    EXPECT_TRUE(has(CSslDgram::s_cli_sess_cache_id, keyOf(m_port)));
}

TEST_F(SslDgramSession, TheServersCacheHoldsWhatIsResumedById) {
    SDtlsServer server("server", m_port);
    CSslDgram client;
    setDtlsSessions(server.dgram, SslSessionId);
    setDtlsSessions(client, SslSessionId);
    ASSERT_TRUE(negotiate(server, client).areGood());
    unsigned length = 0;
    const unsigned char* id = SSL_SESSION_get_id(SSL_get_session(recordOf(client).m_ssl.get()), &length);
    ASSERT_EQ(32U, length);
    std::string key(reinterpret_cast<const char*>(id), length);
    key.resize(std::strlen(key.c_str()));
    EXPECT_TRUE(has(s_srv_sess_cache, key));
}

TEST_F(SslDgramSession, ATicketNeedsNothingOfTheServersCache) {
    SDtlsServer server("server", m_port);
    CSslDgram client;
    setDtlsSessions(server.dgram, SslSessionTicket);
    setDtlsSessions(client, SslSessionTicket);
    ASSERT_TRUE(negotiate(server, client).areGood());
    EXPECT_EQ(1, SSL_SESSION_has_ticket(SSL_get_session(recordOf(client).m_ssl.get())));
}

TEST_F(SslDgramSession, ClientsOfOneKindDoNotResumeTheOthersSessions) {
    EXPECT_FALSE(meet(m_port, {BOTH, SslSessionId}));
    EXPECT_FALSE(meet(m_port, {BOTH, SslSessionTicket}));
    EXPECT_TRUE(meet(m_port, {BOTH, SslSessionId}));
    EXPECT_TRUE(meet(m_port, {BOTH, SslSessionTicket}));
}

TEST_F(SslDgramSession, AnotherPortIsAnotherServer) {
    const STerms terms{SslSessionId, SslSessionId};
    const unsigned short other = TestSupport::freeDatagramPort();
    EXPECT_FALSE(meet(m_port, terms));
    EXPECT_FALSE(meet(other, terms));
}

TEST_F(SslDgramSession, KeysByIpOnlyShareOneSessionAmongPorts) {
    const STerms terms{SslSessionId, SslSessionId, 1};
    CSslDgram::s_cli_sess_cache_id.Remove("127.0.0.1:-1");
    EXPECT_FALSE(meet(m_port, terms));
    EXPECT_TRUE(meet(TestSupport::freeDatagramPort(), terms));
    EXPECT_TRUE(has(CSslDgram::s_cli_sess_cache_id, "127.0.0.1:-1"));
    EXPECT_FALSE(has(CSslDgram::s_cli_sess_cache_id, keyOf(m_port)));
}

TEST_F(SslDgramSession, OtherBitsOfTheOptionDoNotCount) {
    EXPECT_FALSE(meet(m_port, {SslSessionId, SslSessionId, 2}));
    EXPECT_TRUE(has(CSslDgram::s_cli_sess_cache_id, keyOf(m_port)));
}

TEST_F(SslDgramSession, ARefusedSessionIsReplacedByTheNewOne) {
    const STerms terms{SslSessionId, SslSessionId};
    EXPECT_FALSE(meet(m_port, terms));
    const TSession before(CSslDgram::s_cli_sess_cache_id.Get(keyOf(m_port).c_str()));
    EXPECT_FALSE(meet(m_port, {0, SslSessionId}));  // this server resumes none
    const TSession after(CSslDgram::s_cli_sess_cache_id.Get(keyOf(m_port).c_str()));
    EXPECT_NE(before, after);
    EXPECT_FALSE(meet(m_port, terms));
    EXPECT_TRUE(meet(m_port, terms));
}

TEST_F(SslDgramSession, AResumedSessionIsNotStoredAgain) {
    const STerms terms{SslSessionId, SslSessionId};
    EXPECT_FALSE(meet(m_port, terms));
    const TSession before(CSslDgram::s_cli_sess_cache_id.Get(keyOf(m_port).c_str()));
    EXPECT_TRUE(meet(m_port, terms));
    EXPECT_EQ(before, TSession(CSslDgram::s_cli_sess_cache_id.Get(keyOf(m_port).c_str())));
    EXPECT_EQ(0, CSslDgram::s_cli_sess_cache_id.Remove(keyOf(m_port).c_str()));
}

TEST_F(SslDgramSession, SessionsOutliveAConnectionThatWasClosedWithoutANotification) {
    const STerms terms{SslSessionId, SslSessionId};
    {
        SDtlsServer server("server", m_port);
        CSslDgram client;
        setDtlsSessions(server.dgram, SslSessionId);
        setDtlsSessions(client, SslSessionId);
        ASSERT_TRUE(negotiate(server, client).areGood());
        client.Close();
    }
    EXPECT_TRUE(meet(m_port, terms));
}

TEST_F(SslDgramSession, VerifiedPeersResume) {
    const STerms terms{BOTH, SslSessionId, 0, "server", "root_ca", "client", "root_ca"};
    EXPECT_FALSE(meet(m_port, terms));
    EXPECT_TRUE(meet(m_port, terms));
    EXPECT_TRUE(meet(m_port, terms));
}

TEST_F(SslDgramSession, AClientThatVerifiesDoesNotResumeWhatNobodyHasVerified) {
    EXPECT_FALSE(meet(m_port, {SslSessionId, SslSessionId}));
    EXPECT_FALSE(meet(m_port, {SslSessionId, SslSessionId, 0, "server", "", "", "root_ca"}));
    EXPECT_TRUE(meet(m_port, {SslSessionId, SslSessionId, 0, "server", "", "", "root_ca"}));
}

TEST_F(SslDgramSession, AServerThatVerifiesDoesNotResumeWhatNobodyHasVerified) {
    for (const int type : {static_cast<int>(SslSessionId), static_cast<int>(SslSessionTicket)}) {
        const unsigned short port = TestSupport::freeDatagramPort();
        EXPECT_FALSE(meet(port, {type, type, 0, "server", "", "client", ""}));
        EXPECT_FALSE(meet(port, {type, type, 0, "server", "root_ca", "client", ""}));
        EXPECT_TRUE(meet(port, {type, type, 0, "server", "root_ca", "client", ""}));
    }
}

TEST_F(SslDgramSession, AnExpiredSessionIsNegotiatedAnew) {
    const STerms terms{SslSessionId, SslSessionId};
    EXPECT_FALSE(meet(m_port, terms));
    const TSession session(CSslDgram::s_cli_sess_cache_id.Get(keyOf(m_port).c_str()));
    SSL_SESSION_set_time(session.get(), static_cast<long>(std::time(nullptr)) - 10);
    SSL_SESSION_set_timeout(session.get(), 5);
    EXPECT_FALSE(meet(m_port, terms));
    EXPECT_TRUE(meet(m_port, terms));
}

/// Lets a server's sessions have an id of zeros with a number at its end.
int makeZeroId(SSL*, unsigned char* id, unsigned* length) {
    static std::atomic<unsigned char> s_next{0};
    std::memset(id, 0, *length);
    id[*length - 1] = ++s_next;
    return 1;
}

TEST_F(SslDgramSession, IdsThatAreAlikeUpToAZeroAreNotMistakenForEachOther) {
    // What the callback finds under the key "" is the other session.
    const TSession first(SSL_SESSION_new());
    const TSession second(SSL_SESSION_new());
    unsigned char id[SSL_MAX_SSL_SESSION_ID_LENGTH] = {};
    unsigned length = sizeof(id);
    makeZeroId(nullptr, id, &length);
    ASSERT_EQ(1, SSL_SESSION_set1_id(first.get(), id, length));
    unsigned char other[SSL_MAX_SSL_SESSION_ID_LENGTH] = {};
    makeZeroId(nullptr, other, &length);
    SDtlsServer server("server", m_port);
    CSslDgram client;
    setDtlsSessions(server.dgram, SslSessionId);
    ASSERT_TRUE(negotiate(server, client).areGood());
    SSL_CTX* ctx = recordOf(server.dgram).m_ctx.get();
    EXPECT_EQ(0, SSL_CTX_sess_get_new_cb(ctx)(nullptr, first.get()));
    int copy = 1;
    const auto find = SSL_CTX_sess_get_get_cb(ctx);
    EXPECT_EQ(first, TSession(find(nullptr, id, static_cast<int>(length), &copy)));
    EXPECT_EQ(0, copy);
    EXPECT_EQ(nullptr, TSession(find(nullptr, other, static_cast<int>(length), &copy)));
    EXPECT_EQ(nullptr, TSession(find(nullptr, id, 1, &copy)));
    SSL_CTX_sess_get_remove_cb(ctx)(ctx, first.get());
    EXPECT_EQ(nullptr, TSession(find(nullptr, id, static_cast<int>(length), &copy)));
}

TEST_F(SslDgramSession, TheContextsKeepNoSessionsThemselves) {
    SDtlsServer server("server", m_port);
    CSslDgram client;
    setDtlsSessions(server.dgram, SslSessionId);
    setDtlsSessions(client, SslSessionId);
    ASSERT_TRUE(negotiate(server, client).areGood());
    SSL_CTX* servers = recordOf(server.dgram).m_ctx.get();
    SSL_CTX* clients = recordOf(client).m_ctx.get();
    EXPECT_EQ(0x302, SSL_CTX_get_session_cache_mode(servers));
    EXPECT_EQ(0x301, SSL_CTX_get_session_cache_mode(clients));
    EXPECT_EQ(0, SSL_CTX_sess_number(servers));
    EXPECT_NE(0U, SSL_CTX_get_options(servers) & SSL_OP_NO_TICKET);
    EXPECT_NE(0U, SSL_CTX_get_options(servers) & SSL_OP_CIPHER_SERVER_PREFERENCE);
    EXPECT_NE(0U, SSL_CTX_get_options(clients) & SSL_OP_NO_TICKET);
    EXPECT_EQ(1, SSL_CTX_get_read_ahead(servers));
    EXPECT_EQ(1, SSL_CTX_get_read_ahead(clients));
}

// Each test runs in a process of its own, so nobody has made the keys here.
TEST(SslDgramTicketKeys, AServerWithoutInitLogsItAndStillNegotiates) {
    if (CDtlsTicketKeys::shared().Size() != 0)
        GTEST_SKIP() << "another test of this process has called Init()";
    const CQuickDtls quick;
    for (int i = 0; i < 2; ++i) {
        SDtlsServer server;
        CSslDgram client;
        setDtlsSessions(server.dgram, SslSessionTicket);
        setDtlsSessions(client, SslSessionTicket);
        const CLogCapture log;
        EXPECT_TRUE(negotiate(server, client).areGood());
        EXPECT_EQ(
            1, log.count(Plinth::LOG_LEVEL_ERROR,
                         "session_setup : session-ticket mechanism failed with the initial ticket-keys\n"));
        EXPECT_EQ(1U, log.lines().size());
        EXPECT_EQ(0, SSL_SESSION_has_ticket(SSL_get_session(recordOf(client).m_ssl.get())));
    }
}

}  // namespace
}  // namespace Veltro::Ravelo
