// Who DTLS sockets negotiate with, and how that fails.
#include <Ravelo/SockAddrStorage.h>

#include "Socket/SslX509Record.h"
#include "Support/Datagrams.h"
#include "Support/DtlsPeers.h"
#include "Support/DtlsRelay.h"
#include "Support/ScriptedCall.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::CQuickDtls;
using TestSupport::CRunner;
using TestSupport::hasResumed;
using TestSupport::negotiate;
using TestSupport::receiveRecord;
using TestSupport::recordOf;
using TestSupport::SDtlsResults;
using TestSupport::SDtlsServer;
using TestSupport::sendText;
using TestSupport::setDtlsCertificate;

/// The name of the cipher that a connection uses.
std::string cipherOf(CSslDgram& dgram) {
    return SSL_get_cipher_name(recordOf(dgram).m_ssl.get());
}

class SslDgramHandshake : public ::testing::Test {
protected:
    CQuickDtls m_quick;
};

TEST_F(SslDgramHandshake, IsOfDtls12) {
    SDtlsServer server;
    CSslDgram client;
    ASSERT_TRUE(negotiate(server, client).areGood());
    EXPECT_STREQ("DTLSv1.2", SSL_get_version(recordOf(client).m_ssl.get()));
}

TEST_F(SslDgramHandshake, NothingIsLoggedWhenAllGoesWell) {
    SDtlsServer server;
    CSslDgram client;
    const CLogCapture log;
    EXPECT_TRUE(negotiate(server, client).areGood());
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(SslDgramHandshake, AcceptOpensAndWaits) {
    const CSockAddrIPv4 address("127.0.0.1", TestSupport::freeDatagramPort());
    CSslDgram server;
    CSslDgram client;
    setDtlsCertificate(server, "server");
    int accepted = -2;
    CRunner runner([&] { accepted = server.Accept(&address, true, nullptr); });
    // On Linux a server that has not opened yet is a closed port.
    const CLogCapture unheard;
    EXPECT_TRUE(TestSupport::waitUntil([&] { return client.Connect(&address, nullptr) == 0; }));
    runner.join();
    EXPECT_EQ(0, accepted);
}

TEST_F(SslDgramHandshake, AcceptXBeforeOpenFailsWithItsMessage) {
    CSslDgram server;
    const CLogCapture log;
    EXPECT_EQ(-1, server.AcceptX(nullptr));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING,
                           "Before invoking AcceptX(), you need to invoke Open() at first!\n"));
    EXPECT_EQ(1U, log.lines().size());
}

TEST_F(SslDgramHandshake, AServerWithoutACertificateFails) {
    SDtlsServer server("");
    const CLogCapture log;
    EXPECT_EQ(-1, server.dgram.AcceptX(nullptr));
    EXPECT_EQ(
        1, log.count(Plinth::LOG_LEVEL_ERROR, "option_valid : server need the certificate compulsorily \n"));
    EXPECT_EQ(1U, log.lines().size());
}

TEST_F(SslDgramHandshake, AServerThatFailedCanBeOpenedAgain) {
    SDtlsServer server("");
    {
        const CLogCapture unheard;
        EXPECT_EQ(-1, server.dgram.AcceptX(nullptr));
    }
    EXPECT_EQ(-1, server.dgram.GetHandle());
    EXPECT_EQ(nullptr, recordOf(server.dgram).m_dgram);
    setDtlsCertificate(server.dgram, "server");
    ASSERT_EQ(0, server.dgram.Open(&server.address, false));
    CSslDgram client;
    EXPECT_TRUE(negotiate(server, client).areGood());
}

TEST_F(SslDgramHandshake, AnAcceptThatFailsClosesItsSocket) {
    CSslDgram server;
    const CSockAddrIPv4 address("127.0.0.1", TestSupport::freeDatagramPort());
    const CLogCapture unheard;
    EXPECT_EQ(-1, server.Accept(&address, false, nullptr));
    EXPECT_EQ(-1, server.GetHandle());
    TestSupport::SReceiver next(address.GetPort());
    EXPECT_TRUE(next.socket.IsValid());
}

TEST_F(SslDgramHandshake, AServerMayNameItsClient) {
    SDtlsServer server;
    const CSockAddrIPv4 local("127.0.0.1", TestSupport::freeDatagramPort());
    CSslDgram client;
    int accepted = -2;
    CRunner runner([&] { accepted = server.dgram.AcceptX(&local); });
    EXPECT_EQ(0, client.Connect(&server.address, &local));
    runner.join();
    EXPECT_EQ(0, accepted);
}

TEST_F(SslDgramHandshake, BothSidesKnowTheirPeersAddress) {
    SDtlsServer server;
    CSslDgram client;
    ASSERT_TRUE(negotiate(server, client).areGood());
    CSockAddrIPv4 local;
    CSockAddrIPv4 remote;
    ASSERT_EQ(0, client.GetLocalAddr(&local));
    ASSERT_EQ(0, server.dgram.GetRemoteAddr(&remote));
    EXPECT_EQ(local.GetPort(), remote.GetPort());
    ASSERT_EQ(0, client.GetRemoteAddr(&remote));
    EXPECT_EQ(server.address.GetPort(), remote.GetPort());
}

TEST_F(SslDgramHandshake, AServersRemoteMustBeAnAddress) {
    SDtlsServer server;
    const TestSupport::CForeignAddr foreign;
    const CLogCapture log;
    EXPECT_EQ(-1, server.dgram.AcceptX(&foreign));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, "DTLS Server SetRemote failed!\n"));
    EXPECT_EQ(-1, server.dgram.GetHandle());
}

/// Negotiates with one more client of a server, who is refused while the socket is the former one's.
bool negotiateNext(SDtlsServer& server, CSslDgram& client) {
    const CLogCapture unheard;
    int accepted = -2;
    CRunner runner([&] { accepted = server.dgram.AcceptX(nullptr); });
    const bool is_connected =
        TestSupport::waitUntil([&] { return client.Connect(&server.address, nullptr) == 0; });
    runner.join();
    return is_connected && accepted == 0;
}

TEST_F(SslDgramHandshake, AServerServesOneClientAfterTheOther) {
    SDtlsServer server("server", TestSupport::freeDatagramPort());
    for (int i = 0; i < 3; ++i) {
        CSslDgram client;
        ASSERT_TRUE(negotiateNext(server, client)) << i;
        EXPECT_EQ(5, sendText(client, "hello"));
        EXPECT_EQ("hello", receiveRecord(server.dgram));
    }
}

TEST_F(SslDgramHandshake, TheClientBeforeIsToldOfHisEnd) {
    SDtlsServer server("server", TestSupport::freeDatagramPort());
    CSslDgram first;
    CSslDgram second;
    ASSERT_TRUE(negotiate(server, first).areGood());
    ASSERT_TRUE(negotiateNext(server, second));
    const CLogCapture log;
    std::string text;
    EXPECT_EQ(-1, receiveRecord(first, &text));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, ", SSL:6\n"));
}

TEST_F(SslDgramHandshake, ServersOfOnePortServeTheirOwnClientsOnLinux) {
    if (TestSupport::isWindows()) GTEST_SKIP() << "on Windows the sockets of one port share its datagrams";
    SDtlsServer first;
    first.dgram.Close();
    CSslDgram servers[2];
    CSslDgram clients[2];
    for (int i = 0; i < 2; ++i) {
        setDtlsCertificate(servers[i], "server");
        ASSERT_EQ(0, servers[i].Open(&first.address, true));
        int accepted = -2;
        CRunner runner([&] { accepted = servers[i].AcceptX(nullptr); });
        EXPECT_EQ(0, clients[i].Connect(&first.address, nullptr));
        runner.join();
        EXPECT_EQ(0, accepted);
    }
    EXPECT_EQ(3, sendText(clients[0], "one"));
    EXPECT_EQ(3, sendText(clients[1], "two"));
    EXPECT_EQ("one", receiveRecord(servers[0]));
    EXPECT_EQ("two", receiveRecord(servers[1]));
}

TEST_F(SslDgramHandshake, AClientBindsTheLocalAddressThatIsAskedFor) {
    SDtlsServer server;
    CSslDgram client;
    const CSockAddrIPv4 local("127.0.0.1", TestSupport::freeDatagramPort());
    int accepted = -2;
    CRunner runner([&] { accepted = server.dgram.AcceptX(nullptr); });
    EXPECT_EQ(0, client.Connect(&server.address, &local));
    runner.join();
    CSockAddrIPv4 own;
    EXPECT_EQ(0, client.GetLocalAddr(&own));
    EXPECT_EQ(local.GetPort(), own.GetPort());
    EXPECT_EQ(0, accepted);
}

TEST_F(SslDgramHandshake, WorksOverIPv6) {
    if (!TestSupport::hasIPv6()) GTEST_SKIP() << "this machine has no IPv6 loopback";
    CSockAddrIPv6 address("::1", 0);
    for (const bool as_storage : {false, true}) {
        CSslDgram server;
        CSslDgram client;
        setDtlsCertificate(server, "server");
        ASSERT_EQ(0, server.Open(&address, false));
        CSockAddrIPv6 bound;
        ASSERT_EQ(0, server.GetLocalAddr(&bound));
        const CSockAddrStorage storage("::1", bound.GetPort());
        int accepted = -2;
        CRunner runner([&] { accepted = server.AcceptX(nullptr); });
        const CSockAddr* remote = as_storage ? static_cast<const CSockAddr*>(&storage) : &bound;
        EXPECT_EQ(0, client.Connect(remote, nullptr));
        runner.join();
        EXPECT_EQ(0, accepted);
        EXPECT_EQ(5, sendText(client, "hello"));
        EXPECT_EQ("hello", receiveRecord(server));
    }
}

TEST_F(SslDgramHandshake, WorksWithAHostName) {
    SDtlsServer server;
    CSslDgram client;
    const CSockAddrStorage remote("localhost", server.address.GetPort());
    if (remote.GetInputType() != SOCKADDR_TYPE_IPV4) GTEST_SKIP() << "localhost is no IPv4 address here";
    EXPECT_EQ(-2, SDtlsResults().accepted);
    CRunner runner([&] { EXPECT_EQ(0, server.dgram.AcceptX(nullptr)); });
    EXPECT_EQ(0, client.Connect(&remote, nullptr));
}

TEST_F(SslDgramHandshake, WorksWithARemoteThatLooksLikeABroadcastAddress) {
    if (TestSupport::isWindows())
        GTEST_SKIP() << "wine sends from 127.0.0.1, whatever loopback address a datagram socket is bound to";
    const CSockAddrIPv4 fifteen("127.0.0.15", 0);
    SDtlsServer server;
    server.dgram.Close();
    CSslDgram own;
    setDtlsCertificate(own, "server");
    ASSERT_EQ(0, own.Open(&fifteen, false));
    CSockAddrIPv4 bound;
    ASSERT_EQ(0, own.GetLocalAddr(&bound));
    CSslDgram client;
    int accepted = -2;
    CRunner runner([&] { accepted = own.AcceptX(nullptr); });
    EXPECT_EQ(0, client.Connect(&bound, nullptr));
    runner.join();
    EXPECT_EQ(0, accepted);
    EXPECT_EQ(5, sendText(client, "hello"));
    EXPECT_EQ("hello", receiveRecord(own));
    EXPECT_EQ(5, sendText(own, "hello"));
    EXPECT_EQ("hello", receiveRecord(client));
}

TEST_F(SslDgramHandshake, ARemoteWithoutAnAddressFails) {
    const CSockAddrStorage nowhere;
    const TestSupport::CForeignAddr foreign;
    for (const CSockAddr* remote :
         {static_cast<const CSockAddr*>(nullptr), static_cast<const CSockAddr*>(&nowhere),
          static_cast<const CSockAddr*>(&foreign)}) {
        CSslDgram client;
        const CLogCapture log;
        EXPECT_EQ(-1, client.Connect(remote, nullptr));
        EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, ",  DTLS GetIpStr from remote failed!\n"));
        EXPECT_EQ(1U, log.lines().size());
    }
}

TEST_F(SslDgramHandshake, ARemoteOfAnotherFamilyThanTheSocketFails) {
    CSslDgram client;
    const CSockAddrIPv4 local("127.0.0.1", 0);
    const CSockAddrIPv6 remote("::1", 4433);
    const CLogCapture log;
    EXPECT_EQ(-1, client.Connect(&remote, &local));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, ",  DTLS Client SetRemote address failed!\n"));
    EXPECT_EQ(-1, client.GetHandle());
    EXPECT_EQ(nullptr, recordOf(client).m_dgram);
}

TEST_F(SslDgramHandshake, ALocalAddressThatIsTakenFails) {
    SDtlsServer server;
    CSslDgram client;
    const CLogCapture log;
    EXPECT_EQ(-1, client.Connect(&server.address, &server.address));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, "Open : bind failed!"));
    EXPECT_EQ(-1, client.GetHandle());
}

TEST_F(SslDgramHandshake, ASecondConnectEndsTheConnection) {
    SDtlsServer server;
    CSslDgram client;
    ASSERT_TRUE(negotiate(server, client).areGood());
    const CLogCapture log;
    EXPECT_EQ(-1, client.Connect(&server.address, nullptr));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, "DTLS connection had been build, open failed!\n"));
    EXPECT_EQ(-1, client.GetHandle());
    std::string text;
    EXPECT_EQ(-1, receiveRecord(server.dgram, &text));
}

TEST_F(SslDgramHandshake, AClientThatFailedMayTryAgain) {
    SDtlsServer server;
    CSslDgram client;
    const CSockAddrIPv4 nobody("127.0.0.1", TestSupport::freeDatagramPort());
    {
        const CLogCapture unheard;
        const CQuickDtls impatient(20'000);
        EXPECT_EQ(-1, client.Connect(&nobody, nullptr));
    }
    EXPECT_TRUE(negotiate(server, client).areGood());
}

/// An object's address as log lines have it.
std::string addressOf(const CSslDgram& dgram) {
    char text[32];
    std::snprintf(text, sizeof(text), "%p", static_cast<const void*>(&dgram));
    return text;
}

/// What two peers come to that show and verify certificates.
struct SVerified {
    SDtlsResults results;
    CLogCapture log{Plinth::LOG_LEVEL_WARNING};

    SVerified(const std::string& server_name, const std::string& server_trust, const std::string& client_name,
              const std::string& client_trust) {
        SDtlsServer server("");
        CSslDgram client;
        setDtlsCertificate(server.dgram, server_name, server_trust);
        if (!client_name.empty() || !client_trust.empty())
            setDtlsCertificate(client, client_name, client_trust);
        results = negotiate(server, client);
        if (!results.areGood()) return;
        EXPECT_EQ(5, sendText(client, "hello"));
        EXPECT_EQ("hello", receiveRecord(server.dgram));
    }
    int errorCount(const std::string& reason) const {
        return log.count(Plinth::LOG_LEVEL_WARNING, "SSL routines::" + reason + "\n");
    }
};

TEST_F(SslDgramHandshake, AClientVerifiesItsServer) {
    EXPECT_TRUE(SVerified("server", "", "", "root_ca").results.areGood());
    EXPECT_TRUE(SVerified("server_rsa", "", "", "root_ca").results.areGood());
}

TEST_F(SslDgramHandshake, BothSidesVerifyEachOther) {
    EXPECT_TRUE(SVerified("server", "root_ca", "client", "root_ca").results.areGood());
}

TEST_F(SslDgramHandshake, AServerOfAnotherAuthorityIsRefused) {
    const SVerified verified("server", "", "", "other_ca");
    EXPECT_EQ(-1, verified.results.connected);
    EXPECT_EQ(-1, verified.results.accepted);
    EXPECT_EQ(1, verified.errorCount("certificate verify failed"));
}

TEST_F(SslDgramHandshake, AnExpiredServerIsRefused) {
    const SVerified verified("expired", "", "", "root_ca");
    EXPECT_EQ(-1, verified.results.connected);
    EXPECT_EQ(1, verified.errorCount("certificate verify failed"));
}

TEST_F(SslDgramHandshake, AClientOfAnotherAuthorityIsRefused) {
    const SVerified verified("server", "other_ca", "client", "");
    EXPECT_EQ(-1, verified.results.accepted);
    EXPECT_EQ(-1, verified.results.connected);
    EXPECT_EQ(1, verified.errorCount("certificate verify failed"));
}

TEST_F(SslDgramHandshake, AClientWithoutACertificateIsRefusedWhereOneIsAskedFor) {
    const SVerified verified("server", "root_ca", "", "");
    EXPECT_EQ(-1, verified.results.accepted);
    EXPECT_EQ(1, verified.errorCount("peer did not return a certificate"));
}

TEST_F(SslDgramHandshake, ACertificateThatIsNotForShowIsNotShown) {
    SDtlsServer server("");
    EXPECT_EQ(0, server.dgram.SetOption(SslOptCert, 0, TestSupport::dtlsCertificate("server")));
    CSslDgram client;
    const CLogCapture log;
    const SDtlsResults results = negotiate(server, client);
    EXPECT_EQ(-1, results.accepted);
    EXPECT_EQ(-1, results.connected);
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, "SSL_accept error:1  ret:-1, fd["));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, "SSL routines::no shared cipher\n"));
}

TEST_F(SslDgramHandshake, AFailedHandshakeLogsItsStateAndOpenSslsReason) {
    SDtlsServer server;
    CSslDgram client;
    setDtlsCertificate(client, "", "other_ca");
    const CLogCapture log;
    EXPECT_EQ(-1, negotiate(server, client).connected);
    const std::string its = " this:" + addressOf(client) + " ";
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, "SSL_connect error:1, ret: -1, errno:0, "));
    EXPECT_EQ(3, log.count(Plinth::LOG_LEVEL_WARNING, its));
    // The server's state depends on whether the alert or the closed port comes first.
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, "SSL_accept error:"));
    EXPECT_EQ(6, log.count(Plinth::LOG_LEVEL_WARNING, ""));
    int at = 0;
    for (const char* end : {"SSL_connect error:1", ", error\n", "certificate verify failed\n"}) {
        std::vector<CLogCapture::SLine> lines = log.lines();
        std::erase_if(lines, [&](const auto& line) { return line.text.find(its) == std::string::npos; });
        EXPECT_NE(std::string::npos, lines[at++].text.find(end)) << end;
    }
}

/// What a client makes of an own certificate that cannot be used, up to standard error's lines.
std::string setUpLog(CSslX509* x509, int* lines) {
    CSslDgram client;
    EXPECT_EQ(0, client.SetOption(SslOptCert, SslCertOwn, x509));
    TestSupport::SReceiver nobody;
    const CLogCapture log;
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(-1, client.Connect(&nobody.address, nullptr));
    EXPECT_NE("", ::testing::internal::GetCapturedStderr());
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, "certificate_setup failed! errno:"));
    EXPECT_EQ(-1, client.GetHandle());
    *lines = static_cast<int>(log.lines().size());
    return log.lines().empty() ? std::string() : log.lines().front().text;
}

TEST_F(SslDgramHandshake, AnEmptyCertificateObjectCannotBeShown) {
    int lines = 0;
    const std::string text = setUpLog(new CSslX509, &lines);
    EXPECT_NE(std::string::npos, text.find("certificate_setup : SSL_CTX_use_certificate failed\n")) << text;
    EXPECT_EQ(2, lines);
}

TEST_F(SslDgramHandshake, ACertificateWithAnothersKeyCannotBeShown) {
    auto* x509 = new CSslX509;
    SSslX509Record& record = *SSslX509Record::of(*x509);
    const std::unique_ptr<CSslX509> other(TestSupport::dtlsCertificate("client"));
    const std::unique_ptr<CSslX509> own(TestSupport::dtlsCertificate("server"));
    record.m_cert = std::move(SSslX509Record::of(*own)->m_cert);
    record.m_key = std::move(SSslX509Record::of(*other)->m_key);
    int lines = 0;
    const std::string text = setUpLog(x509, &lines);
    EXPECT_TRUE(text.find("certificate_setup : SSL_CTX_use_PrivateKey failed\n") != std::string::npos ||
                text.find("certificate_setup : SSL_CTX_check_private_key failed\n") != std::string::npos)
        << text;
    EXPECT_EQ(2, lines);
}

TEST_F(SslDgramHandshake, ACertificateWithoutAKeyCannotBeShown) {
    auto* x509 = new CSslX509;
    const std::unique_ptr<CSslX509> own(TestSupport::dtlsCertificate("server"));
    SSslX509Record::of(*x509)->m_cert = std::move(SSslX509Record::of(*own)->m_cert);
    int lines = 0;
    const std::string text = setUpLog(x509, &lines);
    EXPECT_NE(std::string::npos, text.find("certificate_setup : SSL_CTX_use_PrivateKey failed\n")) << text;
}

TEST_F(SslDgramHandshake, ACipherListChooses) {
    char list[] = "ECDHE-ECDSA-AES256-GCM-SHA384";
    for (const bool at_server : {false, true}) {
        SDtlsServer server;
        CSslDgram client;
        EXPECT_EQ(0, (at_server ? server.dgram : client).SetOption(SslOptCipherList, 1, list));
        ASSERT_TRUE(negotiate(server, client).areGood());
        EXPECT_EQ(list, cipherOf(client));
    }
}

TEST_F(SslDgramHandshake, TheServersOrderOfCiphersCounts) {
    char servers[] = "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-ECDSA-AES256-GCM-SHA384";
    char clients[] = "ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-ECDSA-AES128-GCM-SHA256";
    SDtlsServer server;
    CSslDgram client;
    EXPECT_EQ(0, server.dgram.SetOption(SslOptCipherList, 1, servers));
    EXPECT_EQ(0, client.SetOption(SslOptCipherList, 1, clients));
    ASSERT_TRUE(negotiate(server, client).areGood());
    EXPECT_EQ("ECDHE-ECDSA-AES128-GCM-SHA256", cipherOf(client));
}

TEST_F(SslDgramHandshake, ListsWithoutACommonCipherFail) {
    char servers[] = "ECDHE-ECDSA-AES128-GCM-SHA256";
    char clients[] = "ECDHE-ECDSA-AES256-GCM-SHA384";
    SDtlsServer server;
    CSslDgram client;
    EXPECT_EQ(0, server.dgram.SetOption(SslOptCipherList, 1, servers));
    EXPECT_EQ(0, client.SetOption(SslOptCipherList, 1, clients));
    const CLogCapture unheard;
    const SDtlsResults results = negotiate(server, client);
    EXPECT_EQ(-1, results.accepted);
    EXPECT_EQ(-1, results.connected);
}

TEST_F(SslDgramHandshake, ARejectedCipherListIsLoggedAndOpenSslsDefaultCounts) {
    char nonsense[] = "no such cipher";
    for (char* list : {nonsense, static_cast<char*>(nullptr)}) {
        SDtlsServer server;
        CSslDgram client;
        EXPECT_EQ(0, server.dgram.SetOption(SslOptCipherList, 1, list));
        EXPECT_EQ(0, client.SetOption(SslOptCipherList, 1, list));
        const CLogCapture log;
        EXPECT_TRUE(negotiate(server, client).areGood());
        EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, ", Cipher List Rule Set Wrong!\n"));
        EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING,
                               ", Cipher List Rule Set Wrong\xEF\xBC\x8C"
                               "but the procedure will keep on!\n"));
        EXPECT_EQ(2U, log.lines().size());
    }
}

TEST_F(SslDgramHandshake, ACipherListOfAnotherTypeDoesNotCount) {
    char nonsense[] = "no such cipher";
    SDtlsServer server;
    CSslDgram client;
    EXPECT_EQ(0, client.SetOption(SslOptCipherList, 1, nonsense));
    EXPECT_EQ(0, client.SetOption(SslOptCipherList, 0, nullptr));
    const CLogCapture log;
    EXPECT_TRUE(negotiate(server, client).areGood());
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(SslDgramHandshake, ADestroyedObjectFreesItsPort) {
    CSockAddrIPv4 address;
    {
        SDtlsServer server;
        CSslDgram client;
        ASSERT_TRUE(negotiate(server, client).areGood());
        address = server.address;
    }
    TestSupport::SReceiver next(address.GetPort());
    EXPECT_TRUE(next.socket.IsValid());
}

TEST_F(SslDgramHandshake, AClientWhoseSocketDoesNotTellItsAddressFailsWithItsLine) {
    const CSockAddrIPv4 address("127.0.0.1", TestSupport::freeDatagramPort());
    CSslDgram client;
    const CLogCapture log;
    const TestSupport::CScriptedCall refused(TestSupport::CScriptedCall::EFunction::GET_SOCK_NAME, -1);
    EXPECT_EQ(-1, client.Connect(&address, nullptr));
    EXPECT_EQ(1, refused.count());
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, "init_connect_ssl : getsockname fd["));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING,
                           "], error:" + std::to_string(SocketApi::resetError()) + ", "));
    EXPECT_EQ(1U, log.lines().size());
    EXPECT_EQ(-1, client.GetHandle());
}

}  // namespace
}  // namespace Veltro::Ravelo
