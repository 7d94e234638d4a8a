// How a TLS stream becomes a client's connection, or fails to.
#include <Plinth/Time.h>
#include <Ravelo/SslStream.h>
#include <Ravelo/SslX509.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include <Ravelo/SockAddrStorage.h>
#include "Socket/SslX509Record.h"
#include "Support/Datagrams.h"
#include "Support/LogCapture.h"
#include "Support/ProcessSettings.h"
#include "Support/RawTls.h"
#include "Support/ScriptedCall.h"
#include "Support/TlsPair.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::certificate;
using TestSupport::CLogCapture;
using TestSupport::CPemFolder;
using TestSupport::CRawTls;
using TestSupport::CRunner;
using TestSupport::heapText;
using TestSupport::ownCertificate;
using TestSupport::receive;
using TestSupport::SListener;
using TestSupport::sslOf;
using TestSupport::STlsServer;
using TestSupport::trusting;

constexpr int LEVEL_ERROR = Plinth::LOG_LEVEL_ERROR;
constexpr int LEVEL_WARNING = Plinth::LOG_LEVEL_WARNING;

std::uint64_t nowMs() {
    return Plinth::CTime::getCurrentMilliSecond();
}

void setTimeout(CSslStream& stream, int timeout_ms) {
    EXPECT_EQ(0, stream.SetOption(SslOptTimeout, 0, &timeout_ms));
}

/// How many milliseconds a connect took that is to fail.
std::uint64_t failingConnectMs(CSslStream& client, const CSockAddr& address) {
    const std::uint64_t start_ms = nowMs();
    EXPECT_EQ(-1, client.Connect(address));
    return nowMs() - start_ms;
}

/// Whether a client's certificate option lets it connect to a server with a certificate.
bool connects(const std::string& server_name, int cert_type, CSslX509* x509) {
    STlsServer listener(server_name);
    CSslStream server;
    CSslStream client;
    EXPECT_EQ(0, client.SetOption(SslOptCert, cert_type, x509));
    return listener.negotiate(server, client).connected == 0;
}

/// A server that asks for a client's certificate and trusts root_ca.
struct SDemandingServer : STlsServer {
    SDemandingServer() : STlsServer("") {
        EXPECT_EQ(0, acceptor.SetOption(SslOptCert, SslCertOwn | SslCertVerifyPeer,
                                        trusting("root_ca", ownCertificate("server"))));
    }
};

TEST(SslStreamConnect, AnAddressOfAnotherClassFailsWithItsLine) {
    CSslStream client;
    const CLogCapture log;
    EXPECT_EQ(-1, client.Connect(TestSupport::CForeignAddr()));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "Connect : connect error, address type[0] error!\n"));
}

TEST(SslStreamConnect, ARefusedConnectFailsWithItsLine) {
    CSslStream client;
    const CLogCapture log;
    EXPECT_EQ(-1, client.Connect(CSockAddrIPv4("127.0.0.1", TestSupport::freePort())));
    EXPECT_EQ(1, log.count(LEVEL_WARNING, ", connect error!\n"));
    EXPECT_EQ(-1, client.GetHandle());
}

TEST(SslStreamConnect, TheLocalEndIsTheOneAskedFor) {
    STlsServer listener;
    CSslStream server;
    CSslStream client;
    CSockAddrIPv4 local("127.0.0.1", TestSupport::freePort());
    CRunner runner([&] { EXPECT_EQ(0, listener.acceptor.Accept(server)); });
    EXPECT_EQ(0, client.Connect(listener.address, &local));
    runner.join();
    CSockAddrIPv4 used;
    EXPECT_EQ(0, client.GetLocalAddr(&used));
    EXPECT_EQ(local.GetPort(), used.GetPort());
}

TEST(SslStreamConnect, AStorageAddressWillDo) {
    STlsServer listener;
    CSslStream server;
    CSslStream client;
    CRunner runner([&] { EXPECT_EQ(0, listener.acceptor.Accept(server)); });
    EXPECT_EQ(0, client.Connect(CSockAddrStorage("127.0.0.1", listener.address.GetPort())));
}

TEST(SslStreamConnect, AConnectedStreamIsTakenOver) {
    STlsServer listener;
    CSslStream server;
    CSslStream client;
    auto* stream = new CSockStream;
    ASSERT_EQ(0, stream->Connect(listener.address));
    ASSERT_TRUE(TestSupport::waitWritable(*stream));
    const int fd = stream->GetHandle();
    CRunner runner([&] { EXPECT_EQ(0, listener.acceptor.Accept(server)); });
    // The leak checker tells whether the stream has been deleted.
    EXPECT_EQ(0, client.Connect(stream));
    runner.join();
    EXPECT_EQ(fd, client.GetHandle());
    EXPECT_FALSE(client.GetBlockOpt());
    EXPECT_EQ(2, TestSupport::sendText(client, "hi"));
    EXPECT_EQ("hi", receive(server, 2));
}

TEST(SslStreamConnect, AFailureLeavesTheStreamToTheCaller) {
    SListener listener;
    CSockStream stream;
    ASSERT_EQ(0, stream.Connect(listener.address));
    CSslStream client;
    setTimeout(client, 50);
    const CLogCapture log;
    EXPECT_EQ(-1, client.Connect(&stream));
    EXPECT_TRUE(stream.IsValid());
    EXPECT_TRUE(stream.GetBlockOpt());
    EXPECT_EQ(-1, client.GetHandle());
}

TEST(SslStreamConnect, NoStreamAtAllFails) {
    CSslStream client;
    EXPECT_EQ(-1, client.Connect(static_cast<CSockStream*>(nullptr)));
}

TEST(SslStreamConnect, ASilentServerCostsTheTimeOutAndThreeLines) {
    SListener listener;
    CSslStream client;
    setTimeout(client, 200);
    const CLogCapture log;
    const std::uint64_t took_ms = failingConnectMs(client, listener.address);
    EXPECT_GE(took_ms, 150U);
    EXPECT_LT(took_ms, 5000U);
    EXPECT_EQ(1, log.count(LEVEL_WARNING, "SSL_connect failed, fd[-1] return:-1, SSL_get_error: 5, errno:" +
                                              std::to_string(SocketApi::timedOutError()) + ", "));
    EXPECT_EQ(1, log.count(LEVEL_WARNING, "SSL_state_string_long: SSLv3/TLS write client hello\n"));
    EXPECT_EQ(1, log.count(LEVEL_WARNING, "ERR_error_string: error:00000000:"));
    EXPECT_EQ(3U, log.lines().size());
}

TEST(SslStreamConnect, AServerThatTricklesCostsNoMoreThanTheTimeOut) {
    SListener listener;
    std::atomic<bool> over{false};
    CRunner trickler([&] {
        CSockStream stream;
        listener.accept(stream);
        // The head of a long record, byte by byte.
        const char head[] = {22, 3, 3, 64, 0};
        for (unsigned i = 0; !over.load(); ++i) {
            stream.Send(i < sizeof(head) ? head + i : head + 1, 1);
            Plinth::sleepMilliSecond(20);
        }
    });
    CSslStream client;
    setTimeout(client, 300);
    const CLogCapture log;
    EXPECT_LT(failingConnectMs(client, listener.address), 5000U);
    over = true;
}

TEST(SslStreamConnect, WithoutATimeOutTheServerMayTakeItsTime) {
    STlsServer listener;
    CSslStream server;
    CSslStream client;
    setTimeout(client, 0);
    CRunner runner([&] {
        Plinth::sleepMilliSecond(100);
        EXPECT_EQ(0, listener.acceptor.Accept(server));
    });
    EXPECT_EQ(0, client.Connect(listener.address));
}

TEST(SslStreamConnect, TheTimeOutOfAnotherTypeDoesNotCount) {
    STlsServer listener;
    CSslStream server;
    CSslStream client;
    int timeout_ms = 20;
    client.SetOption(SslOptTimeout, 1, &timeout_ms);
    CRunner runner([&] {
        Plinth::sleepMilliSecond(200);
        EXPECT_EQ(0, listener.acceptor.Accept(server));
    });
    EXPECT_EQ(0, client.Connect(listener.address));
}

TEST(SslStreamConnect, TheTimeOutEndsWithTheHandshake) {
    STlsServer listener;
    CSslStream server;
    CSslStream client;
    setTimeout(client, 2000);
    ASSERT_TRUE(listener.serve(server, client));
    client.SetBlockOpt(true);
    CRunner sender([&server] {
        Plinth::sleepMilliSecond(2500);
        TestSupport::sendText(server, "late");
    });
    char text[10];
    EXPECT_EQ(4, client.Recv(text, sizeof(text)));
}

TEST(SslStreamConnect, SignalsDoNotEndTheHandshake) {
    STlsServer listener;
    CSslStream server;
    CSslStream client;
    if (!TestSupport::interruptMainThread(5, nullptr))
        return TestSupport::printSkip("this platform does not interrupt waits");
    CRunner runner([&] {
        Plinth::sleepMilliSecond(200);
        EXPECT_EQ(0, listener.acceptor.Accept(server));
    });
    EXPECT_EQ(0, client.Connect(listener.address));
    EXPECT_EQ(5, TestSupport::interruptionCount());
}

TEST(SslStreamConnect, AServerThatHangsUpIsAFailure) {
    SListener listener;
    CRunner runner([&listener] {
        CSockStream stream;
        listener.accept(stream);
        char byte = 0;
        TestSupport::waitReadable(stream);
        stream.Recv(&byte, 1);
    });
    CSslStream client;
    const CLogCapture log;
    EXPECT_LT(failingConnectMs(client, listener.address), 4000U);
    EXPECT_EQ(1, log.count(LEVEL_WARNING, "SSL_connect failed, fd[-1] return:-1, SSL_get_error: "));
}

TEST(SslStreamConnect, AServerThatSpeaksSomethingElseIsAFailure) {
    SListener listener;
    CRunner runner([&listener] {
        CSockStream stream;
        listener.accept(stream);
        const std::string answer = "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n";
        stream.Send(answer.data(), static_cast<unsigned>(answer.size()));
        receive(stream, 100'000);
    });
    CSslStream client;
    const CLogCapture log;
    EXPECT_EQ(-1, client.Connect(listener.address));
    EXPECT_EQ(1,
              log.count(LEVEL_WARNING, "SSL_connect failed, fd[-1] return:-1, SSL_get_error: 1, errno:0, "));
    EXPECT_EQ(
        1, log.count(LEVEL_WARNING, "ERR_error_string: error:0A00010B:SSL routines::wrong version number\n"));
}

TEST(SslStreamConnect, AnObjectThatFailedMayTryAgain) {
    SListener silent;
    STlsServer listener;
    CSslStream server;
    CSslStream client;
    setTimeout(client, 100);
    {
        const CLogCapture log;
        EXPECT_EQ(-1, client.Connect(silent.address));
    }
    setTimeout(client, 10'000);
    EXPECT_TRUE(listener.serve(server, client));
}

TEST(SslStreamConnectDeathTest, ASecondConnectHitsTheAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            STlsServer listener;
            CSslStream server;
            CSslStream client;
            listener.serve(server, client);
            client.Connect(listener.address);
        },
        "Assertion failed: m_ctx == NULL && m_ssl == NULL");
}

TEST(SslStreamConnect, TheNewestVersionIsNegotiated) {
    STlsServer listener;
    CSslStream server;
    CSslStream client;
    ASSERT_TRUE(listener.serve(server, client));
    EXPECT_EQ(TLS1_3_VERSION, SSL_version(sslOf(client)));
}

TEST(SslStreamConnect, PartialWritesFromAnywhereAreOn) {
    STlsServer listener;
    CSslStream server;
    CSslStream client;
    ASSERT_TRUE(listener.serve(server, client));
    for (CSslStream* stream : {&client, &server}) {
        const auto wanted = SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER;
        EXPECT_EQ(wanted, SSL_get_mode(sslOf(*stream)) & wanted);
    }
    EXPECT_NE(0, SSL_get_mode(sslOf(client)) & SSL_MODE_SEND_FALLBACK_SCSV);
}

TEST(SslStreamConnect, WithoutVerificationAnyServerWillDo) {
    EXPECT_TRUE(connects("other_server", 0, nullptr));
    EXPECT_TRUE(connects("expired", 0, nullptr));
}

TEST(SslStreamConnect, AServerOfATrustedAuthorityIsVerified) {
    EXPECT_TRUE(connects("server", SslCertVerifyPeer, trusting("root_ca")));
    EXPECT_TRUE(connects("server_rsa", SslCertVerifyPeer, trusting("trust")));
}

TEST(SslStreamConnect, AServerOfAnotherAuthorityIsRefused) {
    const CLogCapture log;
    EXPECT_FALSE(connects("server", SslCertVerifyPeer, trusting("other_ca")));
    EXPECT_EQ(1,
              log.count(LEVEL_WARNING, "ERR_error_string: error:0A000086:SSL routines::certificate verify"));
}

TEST(SslStreamConnect, AnExpiredServerIsRefused) {
    const CLogCapture log;
    EXPECT_FALSE(connects("expired", SslCertVerifyPeer, trusting("root_ca")));
}

TEST(SslStreamConnect, VerificationWithoutTrustRefusesEverybody) {
    const CLogCapture log;
    EXPECT_FALSE(connects("server", SslCertVerifyPeer, nullptr));
    EXPECT_FALSE(connects("server", SslCertVerifyPeer, new CSslX509));
}

TEST(SslStreamConnect, ARevokedServerIsFoundByItsCertificate) {
    STlsServer listener("revoked");
    CSslStream server;
    CSslStream client;
    client.SetOption(SslOptCert, SslCertVerifyPeer, trusting("root_ca"));
    ASSERT_TRUE(listener.serve(server, client));
    CSslX509 shown;
    ASSERT_EQ(0, client.GetPeerCert(&shown));
    EXPECT_EQ(1, shown.CheckCertIsRevoked(certificate("crl.pem").c_str()));
}

TEST(SslStreamConnect, TheOwnCertificateIsShown) {
    SDemandingServer listener;
    CSslStream server;
    CSslStream client;
    client.SetOption(SslOptCert, SslCertOwn, ownCertificate("client"));
    ASSERT_TRUE(listener.serve(server, client));
    CSslX509 shown;
    ASSERT_EQ(0, server.GetPeerCert(&shown));
    CertSubjectMsg subject;
    EXPECT_GT(shown.GetCertSubjectMsg(&subject), 0);
    EXPECT_STREQ("client", subject.common_name);
}

TEST(SslStreamConnect, ACertificateOfAFolderIsShown) {
    const CPemFolder folder("client.pem", "client_key.pem");
    STlsServer listener("");
    // The folder's file may hold the chain; here the server knows what stands between.
    CSslX509* x509 = trusting("root_ca", ownCertificate("server"));
    EXPECT_EQ(0, x509->SetTrustCA(certificate("intermediate_1.pem").c_str()));
    listener.acceptor.SetOption(SslOptCert, SslCertOwn | SslCertVerifyPeer, x509);
    CSslStream server;
    CSslStream client;
    EXPECT_EQ(0, client.SetPemPath(folder.path().c_str()));
    ASSERT_TRUE(listener.serve(server, client));
    CSslX509 shown;
    EXPECT_EQ(0, server.GetPeerCert(&shown));
}

TEST(SslStreamConnect, AFoldersChainIsShownWhole) {
    const CPemFolder folder("server_chain.pem", "server_key.pem");
    SDemandingServer listener;
    CSslStream server;
    CSslStream client;
    EXPECT_EQ(0, client.SetPemPath(folder.path().c_str()));
    EXPECT_TRUE(listener.serve(server, client));
}

TEST(SslStreamConnect, AFolderThatLacksAFileIsLoggedAndCountsAsNone) {
    for (const char* key : {"", "client_key.pem"}) {
        const CPemFolder folder(*key == '\0' ? "client.pem" : "", key);
        STlsServer listener;
        CSslStream server;
        CSslStream client;
        EXPECT_EQ(0, client.SetPemPath(folder.path().c_str()));
        const CLogCapture log;
        EXPECT_TRUE(listener.serve(server, client));
        EXPECT_EQ(1, log.count(LEVEL_WARNING, ", cacert.pem or privkey.pem is inexistent!\n"));
        CSslX509 shown;
        EXPECT_EQ(-2, server.GetPeerCert(&shown));
    }
}

TEST(SslStreamConnect, APathIsCutAt127Bytes) {
    const CPemFolder folder("client.pem", "client_key.pem", std::string(120, 'p'));
    STlsServer listener;
    CSslStream server;
    CSslStream client;
    EXPECT_EQ(0, client.SetPemPath(folder.path().c_str()));
    const CLogCapture log;
    EXPECT_TRUE(listener.serve(server, client));
    EXPECT_EQ(1, log.count(LEVEL_WARNING, ", cacert.pem or privkey.pem is inexistent!\n"));
}

TEST(SslStreamConnect, AFoldersKeyOfAnotherCertificateFails) {
    const CPemFolder folder("client.pem", "server_key.pem");
    SListener listener;
    CSslStream client;
    EXPECT_EQ(0, client.SetPemPath(folder.path().c_str()));
    const CLogCapture log;
    EXPECT_EQ(-1, client.Connect(listener.address));
    EXPECT_EQ(1, log.count(LEVEL_WARNING, "Connect : init ssl_ctx_st error! errno:"));
}

TEST(SslStreamConnect, AnEncryptedKeyTakesItsPassword) {
    for (const char* key : {"server_key_encrypted.pem", "server_key_legacy.pem"}) {
        const CPemFolder folder("server_chain.pem", key);
        SDemandingServer listener;
        CSslStream server;
        CSslStream client;
        EXPECT_EQ(0, client.SetPemPath(folder.path().c_str()));
        char password[] = "secret, and more";
        EXPECT_EQ(0, client.SetOption(SslOptKeyPasswd, 0, password, 6));
        EXPECT_TRUE(listener.serve(server, client)) << key;
    }
}

TEST(SslStreamConnect, AWrongPasswordFails) {
    const CPemFolder folder("server_chain.pem", "server_key_encrypted.pem");
    SListener listener;
    CSslStream client;
    EXPECT_EQ(0, client.SetPemPath(folder.path().c_str()));
    char password[] = "secre";
    EXPECT_EQ(0, client.SetOption(SslOptKeyPasswd, 0, password));
    const CLogCapture log;
    EXPECT_EQ(-1, client.Connect(listener.address));
    EXPECT_EQ(1, log.count(LEVEL_WARNING, "Connect : init ssl_ctx_st error! errno:"));
}

TEST(SslStreamConnect, AnOwnCertificateObjectWithoutCertificateFailsWithItsLine) {
    SListener listener;
    CSslStream client;
    client.SetOption(SslOptCert, SslCertOwn, new CSslX509);
    const CLogCapture log;
    EXPECT_EQ(-1, client.Connect(listener.address));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "certificate_setup : SSL_CTX_use_certificate failed, errno:"));
    EXPECT_EQ(1, log.count(LEVEL_WARNING, "Connect : init ssl_ctx_st error! errno:"));
}

TEST(SslStreamConnect, AnOwnCertificateWithoutKeyFailsWithItsLine) {
    SListener listener;
    CSslStream client;
    CSslX509* x509 = ownCertificate("client");
    SSslX509Record::of(*x509)->m_key.reset();
    client.SetOption(SslOptCert, SslCertOwn, x509);
    const CLogCapture log;
    EXPECT_EQ(-1, client.Connect(listener.address));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "certificate_setup : SSL_CTX_use_PrivateKey failed, errno:"));
}

TEST(SslStreamConnect, AnOwnCertificateWithAnotherKeyFailsWithALineOfEitherStep) {
    SListener listener;
    CSslStream client;
    CSslX509* x509 = ownCertificate("client");
    const std::unique_ptr<CSslX509> other(ownCertificate("server"));
    SSslX509Record::of(*x509)->m_key.swap(SSslX509Record::of(*other)->m_key);
    client.SetOption(SslOptCert, SslCertOwn, x509);
    const CLogCapture log;
    EXPECT_EQ(-1, client.Connect(listener.address));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "SSL_CTX_use_PrivateKey failed, errno:") +
                     log.count(LEVEL_ERROR, "SSL_CTX_check_private_key failed, errno:"));
}

TEST(SslStreamConnect, TheServersNameIsSent) {
    STlsServer listener;
    CSslStream server;
    CSslStream client;
    char name[] = "ravelo.test";
    EXPECT_EQ(0, client.SetOption(SslOptServerName, 0, name));
    ASSERT_TRUE(listener.serve(server, client));
    EXPECT_STREQ("ravelo.test", SSL_get_servername(sslOf(server), TLSEXT_NAMETYPE_host_name));
}

TEST(SslStreamConnect, WithoutANameNoneIsSent) {
    STlsServer listener;
    CSslStream server;
    CSslStream client;
    ASSERT_TRUE(listener.serve(server, client));
    EXPECT_EQ(nullptr, SSL_get_servername(sslOf(server), TLSEXT_NAMETYPE_host_name));
}

TEST(SslStreamConnect, ANameThatIsTooLongIsLoggedAndNotSent) {
    STlsServer listener;
    CSslStream server;
    CSslStream client;
    std::string name(300, 'n');
    EXPECT_EQ(0, client.SetOption(SslOptServerName, 0, name.data()));
    const CLogCapture log;
    ASSERT_TRUE(listener.serve(server, client));
    EXPECT_EQ(1, log.count(LEVEL_WARNING, ", Unable to set TLS servername extension.\n"));
    EXPECT_EQ(nullptr, SSL_get_servername(sslOf(server), TLSEXT_NAMETYPE_host_name));
}

TEST(SslStreamConnect, TheChosenCiphersAreTheOnesOffered) {
    STlsServer listener;
    listener.limitToTls12();
    CSslStream server;
    CSslStream client;
    client.SetOption(SslOptCipherList, 1, heapText("ECDHE-ECDSA-CHACHA20-POLY1305"));
    ASSERT_TRUE(listener.serve(server, client));
    EXPECT_STREQ("ECDHE-ECDSA-CHACHA20-POLY1305", SSL_get_cipher(sslOf(client)));
}

TEST(SslStreamConnect, ARejectedListIsLoggedAndTheDefaultOneCounts) {
    STlsServer listener;
    listener.limitToTls12();
    CSslStream server;
    CSslStream client;
    client.SetOption(SslOptCipherList, 1, heapText("NONSENSE"));
    const CLogCapture log;
    EXPECT_TRUE(listener.serve(server, client));
    EXPECT_EQ(1, log.count(LEVEL_WARNING, "Connect : Cipher List Rule Set Wrong! errno:"));
    EXPECT_EQ(TLS1_2_VERSION, SSL_version(sslOf(client)));
}

std::vector<std::string> cipherNames(SSL* ssl) {
    std::vector<std::string> names;
    const STACK_OF(SSL_CIPHER)* ciphers = SSL_get_ciphers(ssl);
    for (int i = 0; i < sk_SSL_CIPHER_num(ciphers); ++i)
        names.emplace_back(SSL_CIPHER_get_name(sk_SSL_CIPHER_value(ciphers, i)));
    return names;
}

TEST(SslStreamConnect, BothEndsHaveTheDefaultList) {
    const TSslConnection expected(SSL_new(TestSupport::rawClientContext().get()));
    ASSERT_EQ(1,
              SSL_set_cipher_list(expected.get(), "ALL:!EXPORT:!LOW:!aNULL:!eNULL:!SSLv2:!DES:!RC4:!3DES"));
    STlsServer listener;
    CSslStream server;
    CSslStream client;
    ASSERT_TRUE(listener.serve(server, client));
    EXPECT_EQ(cipherNames(expected.get()), cipherNames(sslOf(client)));
    EXPECT_EQ(cipherNames(expected.get()), cipherNames(sslOf(server)));
}

TEST(SslStreamConnect, TheDefaultCiphersHoldNoneThatIsWeak) {
    STlsServer listener;
    CSslStream server;
    CSslStream client;
    ASSERT_TRUE(listener.serve(server, client));
    const std::vector<std::string> names = cipherNames(sslOf(client));
    ASSERT_GT(names.size(), 10U);
    for (const std::string& name : names) {
        EXPECT_EQ(std::string::npos, name.find("RC4")) << name;
        EXPECT_EQ(std::string::npos, name.find("DES-")) << name;
        EXPECT_EQ(std::string::npos, name.find("NULL")) << name;
        EXPECT_EQ(std::string::npos, name.find("ADH")) << name;
    }
}

TEST(SslStreamConnect, TimeOutsThatCannotBeSetAreLogged) {
    // A descriptor that is no socket: each time-out is tried first before, then after the handshake.
    CSockStream stream;
    stream.Attach(TestSupport::isWindows() ? 0x7ffffff0 : 1'000'000);
    CSslStream client;
    const CLogCapture log;
    EXPECT_EQ(-1, client.Connect(&stream));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "set_sock_timeout :Set SO_RCVTIMEO failed! fd[" +
                                            std::to_string(stream.GetHandle()) +
                                            "], send_t[5000], recv_t[5000], errno:"));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "], send_t[0], recv_t[0], errno:"));
    stream.Detach();
}

TEST(SslStreamConnect, ASendTimeOutThatCannotBeSetIsLogged) {
    STlsServer listener;
    CSslStream server;
    CSslStream client;
    const CLogCapture log;
    CRunner runner([&] { EXPECT_EQ(0, listener.acceptor.Accept(server)); });
    {
        using TestSupport::CScriptedCall;
        const CScriptedCall refused(CScriptedCall::EFunction::SET_SEND_TIMEOUT, -1);
        EXPECT_EQ(0, client.Connect(listener.address));
        EXPECT_EQ(2, refused.count());
    }
    runner.join();
    EXPECT_EQ(2, log.count(LEVEL_ERROR, "set_sock_timeout :Set SO_SNDTIMEO failed! fd[" +
                                            std::to_string(client.GetHandle()) + "], send_t["));
    const std::string error = "errno:" + std::to_string(SocketApi::resetError()) + ",";
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "], send_t[5000], recv_t[5000], " + error));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "], send_t[0], recv_t[0], " + error));
}

}  // namespace
}  // namespace Veltro::Ravelo
