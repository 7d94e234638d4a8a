// The TLS acceptor: opening, options, accepting.
#include <Ravelo/SockAddrStorage.h>
#include <Ravelo/SslAcceptor.h>
#include <Ravelo/SslStream.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "Socket/MadeCertificate.h"
#include "Support/Datagrams.h"
#include "Support/Descriptors.h"
#include "Support/LogCapture.h"
#include "Support/ScarceMemory.h"
#include "Support/ScriptedCall.h"
#include "Support/TlsPair.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::CRunner;
using TestSupport::heapText;
using TestSupport::ownCertificate;
using TestSupport::receive;
using TestSupport::sendText;
using TestSupport::sslOf;
using TestSupport::STlsServer;

constexpr int LEVEL_ERROR = Plinth::LOG_LEVEL_ERROR;
constexpr int LEVEL_WARNING = Plinth::LOG_LEVEL_WARNING;

SSslAcceptorRecord& recordOf(CSslAcceptor& acceptor) {
    return *SSslAcceptorRecord::of(acceptor);
}

/// A stream that a client has connected to.
CSockStream* acceptedStream(CSockStream& client) {
    TestSupport::SListener listener;
    auto* stream = new CSockStream;
    EXPECT_EQ(0, client.Connect(listener.address));
    EXPECT_EQ(0, listener.accept(*stream));
    return stream;
}

TEST(SslAcceptor, ANewObjectIsAnAcceptorWithTheDefaults) {
    CSslAcceptor acceptor;
    EXPECT_EQ(-1, acceptor.GetHandle());
    EXPECT_EQ(static_cast<unsigned>(SOCK_TYPE_ACCEPTOR), acceptor.GetType());
    EXPECT_EQ(3U, recordOf(acceptor).m_protocol_ban);
    EXPECT_EQ(0, recordOf(acceptor).m_handshake_timeout);
    EXPECT_EQ(0, recordOf(acceptor).m_verify_flags);
    EXPECT_EQ(nullptr, TestSupport::contextOf(acceptor));
}

TEST(SslAcceptor, OpenListens) {
    CSslAcceptor acceptor;
    EXPECT_EQ(0, acceptor.Open(CSockAddrIPv4("127.0.0.1", 0)));
    CSockAddrIPv4 address;
    EXPECT_EQ(0, acceptor.GetLocalAddr(&address));
    CSockStream client;
    EXPECT_EQ(0, client.Connect(address));
    EXPECT_TRUE(TestSupport::waitReadable(acceptor));
}

TEST(SslAcceptor, OpenTakesAStorageAddress) {
    CSslAcceptor acceptor;
    EXPECT_EQ(0, acceptor.Open(CSockAddrStorage("127.0.0.1", 0)));
}

TEST(SslAcceptor, OpenTakesAnIPv6Address) {
    SKIP_UNLESS(TestSupport::hasIPv6(), "no sockets on ::1 here");
    CSslAcceptor acceptor;
    EXPECT_EQ(0, acceptor.Open(CSockAddrIPv6("::1", 0)));
}

TEST(SslAcceptor, OpenRefusesAddressesOfNoFamily) {
    CSslAcceptor acceptor;
    const CLogCapture log;
    EXPECT_EQ(-1, acceptor.Open(TestSupport::CForeignAddr()));
    EXPECT_EQ(-1, acceptor.Open(CSockAddrStorage()));
    EXPECT_EQ(2, log.count(LEVEL_ERROR, "Open : invalid local addresst type[0]!\n"));
}

TEST(SslAcceptor, ARefusedAddressLeavesTheSocketThatIsOpen) {
    CSslAcceptor acceptor;
    ASSERT_EQ(0, acceptor.Open(CSockAddrIPv4("127.0.0.1", 0)));
    const CLogCapture log;
    EXPECT_EQ(-1, acceptor.Open(TestSupport::CForeignAddr()));
    EXPECT_TRUE(acceptor.IsValid());
}

TEST(SslAcceptor, ASecondOpenClosesTheFirstSocketWithALine) {
    CSslAcceptor acceptor;
    ASSERT_EQ(0, acceptor.Open(CSockAddrIPv4("127.0.0.1", 0)));
    CSockAddrIPv4 first;
    acceptor.GetLocalAddr(&first);
    const int fd = acceptor.GetHandle();
    const CLogCapture log;
    EXPECT_EQ(0, acceptor.Open(CSockAddrIPv4("127.0.0.1", 0)));
    EXPECT_EQ(1, log.count(LEVEL_WARNING,
                           "Open : socket fd[" + std::to_string(fd) + "] has opened, close old first\n"));
    EXPECT_EQ(1U, log.lines().size());
    CSockAcceptor other;
    EXPECT_EQ(0, other.Open(first)) << "the port is free again";
}

TEST(SslAcceptor, OpenOnAnAddressOfAnotherMachineFailsWithItsLine) {
    CSslAcceptor acceptor;
    const CLogCapture log;
    EXPECT_EQ(-1, acceptor.Open(CSockAddrIPv4("192.0.2.1", 0)));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "Open : ssl open error! error:"));
    EXPECT_EQ(-1, acceptor.GetHandle());
    EXPECT_EQ(0, acceptor.Open(CSockAddrIPv4("127.0.0.1", 0))) << "it may be opened elsewhere";
}

TEST(SslAcceptor, TheSocketIsClosedOnce) {
    const CLogCapture log;
    {
        STlsServer listener;
        CSslStream server;
        CSslStream client;
        EXPECT_TRUE(listener.serve(server, client));
    }
    EXPECT_EQ(0, log.count(LEVEL_ERROR, "Close failed"));
}

TEST(SslAcceptor, AcceptWithoutAStreamFailsWithItsLine) {
    STlsServer listener;
    CSslStream server;
    const CLogCapture log;
    EXPECT_EQ(-1, listener.acceptor.Accept(server, static_cast<CSockStream*>(nullptr)));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "Accept stream is NULL\n"));
}

TEST(SslAcceptor, AcceptWithoutACertificateFailsWithItsLineAndDeletesTheStream) {
    CSslAcceptor acceptor;
    CSslStream server;
    CSockStream client;
    const CLogCapture log;
    EXPECT_EQ(-1, acceptor.Accept(server, acceptedStream(client)));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "option_valid : server need the certificate compulsorily \n"));
    ASSERT_TRUE(TestSupport::waitReadable(client));
    char byte = 0;
    EXPECT_EQ(-1, client.Recv(&byte, 1));
}

TEST(SslAcceptor, AcceptTellsTheClientsAddress) {
    STlsServer listener;
    CSslStream server;
    CSslStream client;
    CSockAddrIPv4 remote;
    CRunner runner([&] { EXPECT_EQ(0, listener.acceptor.Accept(server, &remote)); });
    ASSERT_EQ(0, client.Connect(listener.address));
    runner.join();
    CSockAddrIPv4 local;
    EXPECT_EQ(0, client.GetLocalAddr(&local));
    EXPECT_EQ(local.GetPort(), remote.GetPort());
}

TEST(SslAcceptor, AcceptMakesANewStream) {
    STlsServer listener;
    std::unique_ptr<CSslStream> server;
    CSslStream client;
    CRunner runner([&] { server.reset(listener.acceptor.Accept()); });
    ASSERT_EQ(0, client.Connect(listener.address));
    runner.join();
    ASSERT_NE(nullptr, server);
    EXPECT_EQ(2, sendText(client, "hi"));
    EXPECT_EQ("hi", receive(*server, 2));
}

TEST(SslAcceptor, AcceptOfAClientThatFailsGivesNoStream) {
    STlsServer listener;
    CSockStream client;
    ASSERT_EQ(0, client.Connect(listener.address));
    client.Close();
    const CLogCapture log;
    EXPECT_EQ(nullptr, listener.acceptor.Accept());
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "Accept : SSL_accept failed, fd[" +
                                            std::to_string(listener.acceptor.GetHandle()) + "], error:"));
    EXPECT_EQ(1U, log.lines().size());
}

TEST(SslAcceptor, AHandshakeThatReturnsZeroCountsAsAccepted) {
    STlsServer listener;
    CSockStream client;
    ASSERT_EQ(0, client.Connect(listener.address));
    CSslStream server;
    const CLogCapture log;
    {
        const TestSupport::CScriptedCall zero(TestSupport::CScriptedCall::EFunction::SSL_ACCEPT, 0);
        EXPECT_EQ(0, listener.acceptor.Accept(server));
        EXPECT_EQ(1, zero.count());
    }
    EXPECT_TRUE(server.IsValid());
    EXPECT_NE(nullptr, sslOf(server));
    EXPECT_NE(nullptr, TestSupport::contextOf(listener.acceptor));
    EXPECT_TRUE(log.lines().empty());
}

TEST(SslAcceptor, AnAcceptorThatIsNotOpenAcceptsNobody) {
    CSslAcceptor acceptor;
    acceptor.SetOption(SslOptCert, SslCertOwn, ownCertificate("server"));
    CSslStream server;
    const CLogCapture log;
    EXPECT_EQ(-1, acceptor.Accept(server));
    EXPECT_EQ(nullptr, acceptor.Accept());
    EXPECT_EQ(2, log.count(LEVEL_ERROR, "Accept : accept failed! fd[-1], error:"));
}

TEST(SslAcceptor, AnAcceptorThatWasClosedUsesNoSocketOfOthers) {
    STlsServer listener;
    CSslStream server;
    CSslStream client;
    ASSERT_TRUE(listener.serve(server, client));
    const int fd = listener.acceptor.GetHandle();
    listener.acceptor.Close();
    TestSupport::SSocketPair other;
    CSockStream successor;
    TestSupport::moveTo(other.client, fd, successor);
    const CLogCapture log;
    EXPECT_EQ(nullptr, listener.acceptor.Accept());
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "Accept : accept failed! fd[-1], error:"));
}

TEST(SslAcceptor, AStreamThatHasASocketKeepsIt) {
    STlsServer listener;
    CSslStream server;
    TestSupport::SSocketPair pair;
    const int fd = pair.client.Detach();
    server.Attach(fd);
    CSslStream client;
    const CLogCapture log;
    EXPECT_TRUE(listener.serve(server, client));
    EXPECT_EQ(fd, server.GetHandle());
    EXPECT_EQ(1, log.count(LEVEL_WARNING, "SetStream : SetStream Attach failed ret = -1!\n"));
}

TEST(SslAcceptorDeathTest, AStreamThatIsConnectedHitsTheAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            STlsServer listener;
            CSslStream server;
            CSslStream client;
            CSslStream other;
            listener.serve(server, client);
            listener.serve(server, other);
        },
        "Assertion failed: m_ctx == NULL && m_ssl == NULL");
}

TEST(SslAcceptor, StreamsOutliveTheAcceptor) {
    auto listener = std::make_unique<STlsServer>();
    CSslStream server;
    CSslStream client;
    ASSERT_TRUE(listener->serve(server, client));
    listener.reset();
    EXPECT_EQ(2, sendText(server, "hi"));
    EXPECT_EQ("hi", receive(client, 2));
}

TEST(SslAcceptor, UnknownOptionsAreLoggedAndSucceed) {
    CSslAcceptor acceptor;
    const CLogCapture log;
    EXPECT_EQ(0, acceptor.SetOption(SslOptServerName, 1, nullptr));
    EXPECT_EQ(0, acceptor.SetOption(SslOptServerName, 2, nullptr, 0));
    EXPECT_EQ(0, acceptor.SetOption(-1, 3, nullptr));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "SetOption : Unknown Option 6 Type 1 !\n"));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "SetOption : Unknown Option 6 Type 2 !\n"));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "SetOption : Unknown Option -1 Type 3 !\n"));
}

TEST(SslAcceptor, BansAddUp) {
    CSslAcceptor acceptor;
    EXPECT_EQ(0, acceptor.SetOption(SslOptProtocolBan, SslBanTLSv1, nullptr));
    EXPECT_EQ(7U, recordOf(acceptor).m_protocol_ban);
    EXPECT_EQ(0, acceptor.SetOption(SslOptProtocolBan, SslBanTLSv1_1, nullptr, 0));
    EXPECT_EQ(15U, recordOf(acceptor).m_protocol_ban);
    EXPECT_EQ(0, acceptor.SetOption(SslOptProtocolBan, 0, nullptr));
    EXPECT_EQ(15U, recordOf(acceptor).m_protocol_ban);
}

TEST(SslAcceptor, TheTimeOutCountsWithTypeOneOnly) {
    CSslAcceptor acceptor;
    int timeout_ms = 1234;
    EXPECT_EQ(0, acceptor.SetOption(SslOptTimeout, 0, &timeout_ms));
    EXPECT_EQ(0, recordOf(acceptor).m_handshake_timeout);
    EXPECT_EQ(0, acceptor.SetOption(SslOptTimeout, 1, &timeout_ms, 4));
    EXPECT_EQ(1234, recordOf(acceptor).m_handshake_timeout);
}

TEST(SslAcceptor, TextsAreCopiedOrTakenAsTheStreamDoes) {
    CSslAcceptor acceptor;
    char password[] = "secret";
    EXPECT_EQ(0, acceptor.SetOption(SslOptKeyPasswd, 0, password));
    EXPECT_EQ(6, recordOf(acceptor).m_key_passwd_len);
    EXPECT_EQ(0, acceptor.SetOption(SslOptKeyPasswd, 0, password, 3));
    EXPECT_EQ(3, recordOf(acceptor).m_key_passwd_len);
    EXPECT_EQ(0, acceptor.SetOption(SslOptCipherList, 1, heapText("HIGH")));
    char list[] = "ECDHE:!MD5";
    EXPECT_EQ(0, acceptor.SetOption(SslOptCipherList, 1, list, 5));
    EXPECT_STREQ("ECDHE", recordOf(acceptor).m_cipher_list.get());
    EXPECT_EQ(0, acceptor.SetPemPath("some/where"));
    EXPECT_STREQ("some/where", recordOf(acceptor).m_pem_path.get());
    EXPECT_EQ(-1, acceptor.SetPemPath(nullptr));
}

TEST(SslAcceptor, ASecondCertificateTakesTheFirstOnesPlace) {
    int destroyed = 0;
    {
        CSslAcceptor acceptor;
        EXPECT_EQ(0, acceptor.SetOption(SslOptCert, SslCertOwn, makeCounted(&destroyed)));
        EXPECT_EQ(0, acceptor.SetOption(SslOptCert, SslCertOwn, makeCounted(&destroyed), 0));
        EXPECT_EQ(1, destroyed);
    }
    EXPECT_EQ(2, destroyed);
}

TEST(SslAcceptor, VerityPeerSetsTheFlags) {
    CSslAcceptor acceptor;
    acceptor.SetCertVerityPeer(true);
    EXPECT_EQ(7, recordOf(acceptor).m_verify_flags);
    acceptor.SetCertVerityPeer(false);
    EXPECT_EQ(0, recordOf(acceptor).m_verify_flags);
}

TEST(SslAcceptor, AnObjectWithoutMemoryFailsEverywhere) {
    alignas(CSslAcceptor) char place[sizeof(CSslAcceptor)];
    CSslAcceptor* acceptor = nullptr;
    {
        const TestSupport::CScarceMemory none(0);
        acceptor = new (place) CSslAcceptor;
    }
    CSslStream server;
    EXPECT_EQ(-1, acceptor->Open(CSockAddrIPv4("127.0.0.1", 0)));
    EXPECT_EQ(-1, acceptor->SetPemPath("x"));
    acceptor->SetCertVerityPeer(true);
    EXPECT_EQ(-1, acceptor->SetOption(SslOptSession, 1, nullptr));
    EXPECT_EQ(-1, acceptor->SetOption(SslOptSession, 1, nullptr, 0));
    EXPECT_EQ(-1, acceptor->Accept(server));
    EXPECT_EQ(-1, acceptor->Accept(server, new CSockStream));
    EXPECT_EQ(nullptr, acceptor->Accept());
    acceptor->~CSslAcceptor();
}

TEST(SslAcceptor, AStreamWithoutMemoryIsNotHandedAConnection) {
    STlsServer listener;
    alignas(CSslStream) char place[sizeof(CSslStream)];
    CSslStream* server = nullptr;
    {
        const TestSupport::CScarceMemory none(0);
        server = new (place) CSslStream;
    }
    CSslStream client;
    EXPECT_EQ(-1, listener.negotiate(*server, client).accepted);
    server->~CSslStream();
}

}  // namespace
}  // namespace Veltro::Ravelo
