// What a TLS acceptor negotiates with: certificates, versions, ciphers, groups, time-outs.
#include <Plinth/Time.h>
#include <Ravelo/SslAcceptor.h>
#include <Ravelo/SslStream.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "Socket/SslX509Record.h"
#include "Support/LogCapture.h"
#include "Support/RawTls.h"
#include "Support/ScriptedCall.h"
#include "Support/TlsPair.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::contextOf;
using TestSupport::CPemFolder;
using TestSupport::CRawTls;
using TestSupport::CRunner;
using TestSupport::CScriptedCall;
using TestSupport::heapText;
using TestSupport::ownCertificate;
using TestSupport::sslOf;
using TestSupport::STlsServer;
using TestSupport::trusting;

constexpr int LEVEL_ERROR = Plinth::LOG_LEVEL_ERROR;
constexpr int LEVEL_WARNING = Plinth::LOG_LEVEL_WARNING;

/// Lets a client of plain OpenSSL calls connect. Whether both sides went well.
/// @param look called with the client's connection then.
bool serveRaw(STlsServer& listener, const TSslContext& ctx, const std::function<void(SSL*)>& look = {}) {
    CSslStream server;
    CRawTls client(ctx);
    int accepted = -2;
    CRunner runner([&] { accepted = listener.acceptor.Accept(server); });
    const bool connected = client.connect(listener.address);
    if (!connected) client.stream().Close();
    runner.join();
    if (connected && accepted == 0 && look) look(client.ssl());
    return connected && accepted == 0;
}

/// A client's context for one version of the protocol only.
TSslContext contextOfVersion(int version) {
    TSslContext ctx = TestSupport::rawClientContext();
    SSL_CTX_set_security_level(ctx.get(), 0);
    EXPECT_EQ(1, SSL_CTX_set_cipher_list(ctx.get(), "ALL:@SECLEVEL=0"));
    EXPECT_EQ(1, SSL_CTX_set_min_proto_version(ctx.get(), version));
    EXPECT_EQ(1, SSL_CTX_set_max_proto_version(ctx.get(), version));
    return ctx;
}

/// Whether a client without, or with, a certificate is accepted.
bool acceptsClient(STlsServer& listener, CSslX509* own) {
    CSslStream server;
    CSslStream client;
    if (own != nullptr) client.SetOption(SslOptCert, SslCertOwn, own);
    return listener.negotiate(server, client).accepted == 0;
}

/// A server whose certificate comes from a folder.
struct SFolderServer : STlsServer {
    CPemFolder folder;

    explicit SFolderServer(const std::string& chain = "server_chain.pem",
                           const std::string& key = "server_key.pem")
        : STlsServer(""), folder(chain, key) {
        EXPECT_EQ(0, acceptor.SetPemPath(folder.path().c_str()));
    }
};

/// How many lines of a level the set-up of an acceptor leaves that cannot negotiate.
void expectSetUpToFail(STlsServer& listener, const std::string& line) {
    CSockStream client;
    ASSERT_EQ(0, client.Connect(listener.address));
    CSslStream server;
    const CLogCapture log;
    EXPECT_EQ(-1, listener.acceptor.Accept(server));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, line));
    EXPECT_EQ(1U, log.lines().size());
    EXPECT_EQ(nullptr, contextOf(listener.acceptor));
}

TEST(SslAcceptorContext, TheSecurityLevelIsTwo) {
    STlsServer listener;
    CSslStream server;
    CSslStream client;
    ASSERT_TRUE(listener.serve(server, client));
    EXPECT_EQ(2, SSL_CTX_get_security_level(contextOf(listener.acceptor)));
}

TEST(SslAcceptorContext, BannedVersionsAreSwitchedOff) {
    STlsServer listener;
    CSslStream server;
    CSslStream client;
    listener.acceptor.SetOption(SslOptProtocolBan, SslBanTLSv1, nullptr);
    ASSERT_TRUE(listener.serve(server, client));
    const std::uint64_t options = SSL_CTX_get_options(contextOf(listener.acceptor));
    EXPECT_NE(0U, options & SSL_OP_NO_SSLv3);
    EXPECT_NE(0U, options & SSL_OP_NO_TLSv1);
    EXPECT_EQ(0U, options & SSL_OP_NO_TLSv1_1);
    EXPECT_EQ(0U, options & SSL_OP_NO_TLSv1_2);
}

TEST(SslAcceptorContext, Tls12AndTls13AreAccepted) {
    STlsServer listener;
    EXPECT_TRUE(serveRaw(listener, contextOfVersion(TLS1_2_VERSION)));
    EXPECT_TRUE(serveRaw(listener, contextOfVersion(TLS1_3_VERSION)));
}

TEST(SslAcceptorContext, OlderVersionsAreRefusedByTheSecurityLevel) {
    const CLogCapture log;
    STlsServer listener;
    EXPECT_FALSE(serveRaw(listener, contextOfVersion(TLS1_VERSION)));
    EXPECT_FALSE(serveRaw(listener, contextOfVersion(TLS1_1_VERSION)));
}

TEST(SslAcceptorContext, ALowerLevelOfTheCipherListLetsThemIn) {
    STlsServer listener;
    listener.acceptor.SetOption(SslOptCipherList, 1, heapText("ALL:@SECLEVEL=0"));
    EXPECT_TRUE(serveRaw(listener, contextOfVersion(TLS1_1_VERSION)));
    EXPECT_TRUE(serveRaw(listener, contextOfVersion(TLS1_VERSION)));
}

TEST(SslAcceptorContext, BansHoldWhateverTheLevel) {
    const CLogCapture log;
    STlsServer listener;
    listener.acceptor.SetOption(SslOptCipherList, 1, heapText("ALL:@SECLEVEL=0"));
    listener.acceptor.SetOption(SslOptProtocolBan, SslBanTLSv1_1, nullptr);
    EXPECT_FALSE(serveRaw(listener, contextOfVersion(TLS1_1_VERSION)));
    EXPECT_TRUE(serveRaw(listener, contextOfVersion(TLS1_VERSION)));
}

TEST(SslAcceptorContext, OptionsCountFromTheNextContextOn) {
    const CLogCapture log;
    STlsServer listener;
    EXPECT_TRUE(acceptsClient(listener, nullptr));
    listener.acceptor.SetOption(SslOptCert, SslCertOwn | SslCertVerifyPeer,
                                trusting("root_ca", ownCertificate("server")));
    EXPECT_TRUE(acceptsClient(listener, nullptr)) << "the context is made";
    CSockStream rude;
    ASSERT_EQ(0, rude.Connect(listener.address));
    rude.Close();
    CSslStream nobody;
    EXPECT_EQ(-1, listener.acceptor.Accept(nobody));
    EXPECT_EQ(nullptr, contextOf(listener.acceptor));
    EXPECT_FALSE(acceptsClient(listener, nullptr));
    EXPECT_TRUE(acceptsClient(listener, ownCertificate("client")));
}

TEST(SslAcceptorContext, ClientsMustShowATrustedCertificateIfAsked) {
    const CLogCapture log;
    STlsServer listener("");
    listener.acceptor.SetOption(SslOptCert, SslCertOwn | SslCertVerifyPeer,
                                trusting("root_ca", ownCertificate("server")));
    EXPECT_FALSE(acceptsClient(listener, nullptr));
    EXPECT_FALSE(acceptsClient(listener, ownCertificate("other_server")));
    EXPECT_FALSE(acceptsClient(listener, ownCertificate("expired")));
    EXPECT_TRUE(acceptsClient(listener, ownCertificate("client")));
}

TEST(SslAcceptorContext, VerityPeerWantsAnyCertificateWithAFolder) {
    const CLogCapture log;
    SFolderServer listener;
    listener.acceptor.SetCertVerityPeer(true);
    EXPECT_FALSE(acceptsClient(listener, nullptr));
    EXPECT_TRUE(acceptsClient(listener, ownCertificate("other_server")));
    EXPECT_TRUE(acceptsClient(listener, ownCertificate("expired")));
}

TEST(SslAcceptorContext, VerityPeerHasNoEffectWithACertificateObject) {
    STlsServer listener;
    listener.acceptor.SetCertVerityPeer(true);
    EXPECT_TRUE(acceptsClient(listener, nullptr));
}

TEST(SslAcceptorContext, TrustMayComeFromAnObjectAndTheCertificateFromAFolder) {
    const CLogCapture log;
    SFolderServer listener;
    listener.acceptor.SetOption(SslOptCert, SslCertVerifyPeer, trusting("root_ca"));
    EXPECT_FALSE(acceptsClient(listener, nullptr));
    EXPECT_TRUE(acceptsClient(listener, ownCertificate("client")));
}

TEST(SslAcceptorContext, AFoldersChainIsShownWhole) {
    SFolderServer listener;
    CSslStream server;
    CSslStream client;
    client.SetOption(SslOptCert, SslCertVerifyPeer, trusting("root_ca"));
    EXPECT_TRUE(listener.serve(server, client));
}

TEST(SslAcceptorContext, AnEncryptedKeyTakesItsPassword) {
    SFolderServer listener("server_chain.pem", "server_key_encrypted.pem");
    char password[] = "secret";
    listener.acceptor.SetOption(SslOptKeyPasswd, 0, password);
    EXPECT_TRUE(acceptsClient(listener, nullptr));
}

TEST(SslAcceptorContext, AFolderWithoutAChainFailsWithItsLine) {
    SFolderServer listener("", "server_key.pem");
    expectSetUpToFail(listener, "certificate_setup : SSL_CTX_use_certificate_chain_file failed\n");
}

TEST(SslAcceptorContext, AFolderWithoutAKeyFailsWithItsLine) {
    SFolderServer listener("server_chain.pem", "");
    expectSetUpToFail(listener, "certificate_setup : SSL_CTX_use_PrivateKey_file failed\n");
}

TEST(SslAcceptorContext, AWrongPasswordFailsWithTheKeysLine) {
    SFolderServer listener("server_chain.pem", "server_key_encrypted.pem");
    char password[] = "wrong";
    listener.acceptor.SetOption(SslOptKeyPasswd, 0, password);
    expectSetUpToFail(listener, "certificate_setup : SSL_CTX_use_PrivateKey_file failed\n");
}

TEST(SslAcceptorContext, AFoldersKeyOfAnotherCertificateFailsWithALineOfEitherStep) {
    SFolderServer listener("server_chain.pem", "client_key.pem");
    CSockStream client;
    ASSERT_EQ(0, client.Connect(listener.address));
    CSslStream server;
    const CLogCapture log;
    EXPECT_EQ(-1, listener.acceptor.Accept(server));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "SSL_CTX_use_PrivateKey_file failed\n") +
                     log.count(LEVEL_ERROR, "SSL_CTX_check_private_key failed\n"));
}

TEST(SslAcceptorContext, AnObjectWithoutCertificateFailsWithItsLine) {
    STlsServer listener("");
    listener.acceptor.SetOption(SslOptCert, SslCertOwn, new CSslX509);
    expectSetUpToFail(listener, "certificate_setup : SSL_CTX_use_certificate failed\n");
}

TEST(SslAcceptorContext, AnObjectWithoutKeyFailsWithItsLine) {
    STlsServer listener("");
    CSslX509* x509 = ownCertificate("server");
    SSslX509Record::of(*x509)->m_key.reset();
    listener.acceptor.SetOption(SslOptCert, SslCertOwn, x509);
    expectSetUpToFail(listener, "certificate_setup : SSL_CTX_use_PrivateKey failed\n");
}

TEST(SslAcceptorContext, AnObjectThatIsNotShownLeavesNothingToNegotiateWith) {
    STlsServer listener("");
    listener.acceptor.SetOption(SslOptCert, 0, ownCertificate("server"));
    const CLogCapture log;
    EXPECT_FALSE(acceptsClient(listener, nullptr));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "Accept : SSL_accept failed, fd["));
}

TEST(SslAcceptorContext, ARejectedListIsLoggedAndTheDefaultOneCounts) {
    STlsServer listener;
    listener.acceptor.SetOption(SslOptCipherList, 1, heapText("NONSENSE"));
    const CLogCapture log;
    EXPECT_TRUE(serveRaw(listener, contextOfVersion(TLS1_2_VERSION)));
    EXPECT_EQ(1, log.count(LEVEL_WARNING, ", Cipher List Rule Set Wrong!\n"));
}

TEST(SslAcceptorContext, TheCipherListIsReadAtEachAccept) {
    const CLogCapture log;
    STlsServer listener;
    const TSslContext ctx = contextOfVersion(TLS1_2_VERSION);
    SSL_CTX_set_cipher_list(ctx.get(), "ECDHE-ECDSA-CHACHA20-POLY1305");
    EXPECT_TRUE(serveRaw(listener, ctx));
    listener.acceptor.SetOption(SslOptCipherList, 1, heapText("ECDHE-ECDSA-AES128-GCM-SHA256"));
    EXPECT_FALSE(serveRaw(listener, ctx));
}

TEST(SslAcceptorContext, EphemeralDiffieHellmanHas2048Bits) {
    STlsServer listener("server_rsa");
    const TSslContext ctx = contextOfVersion(TLS1_2_VERSION);
    SSL_CTX_set_cipher_list(ctx.get(), "DHE-RSA-AES128-GCM-SHA256");
    EXPECT_TRUE(serveRaw(listener, ctx, [](SSL* ssl) {
        EVP_PKEY* key = nullptr;
        ASSERT_EQ(1, SSL_get_peer_tmp_key(ssl, &key));
        const TPrivateKey owned(key);
        EXPECT_EQ(EVP_PKEY_DH, EVP_PKEY_get_base_id(key));
        EXPECT_EQ(2048, EVP_PKEY_get_bits(key));
    }));
}

TEST(SslAcceptorContext, TheThreeGroupsAreTakenAndNoOther) {
    const CLogCapture log;
    STlsServer listener;
    for (const char* group : {"P-256", "X25519", "P-384"}) {
        const TSslContext ctx = contextOfVersion(TLS1_3_VERSION);
        SSL_CTX_set1_groups_list(ctx.get(), group);
        EXPECT_TRUE(serveRaw(listener, ctx)) << group;
    }
    const TSslContext ctx = contextOfVersion(TLS1_3_VERSION);
    SSL_CTX_set1_groups_list(ctx.get(), "P-521");
    EXPECT_FALSE(serveRaw(listener, ctx));
}

TEST(SslAcceptorContext, ClientsThatDoNotResumeAreSentNoTickets) {
    STlsServer listener;
    CSslStream server;
    CSslStream client;
    ASSERT_TRUE(listener.serve(server, client));
    EXPECT_EQ(0U, SSL_get_num_tickets(sslOf(server)));
}

TEST(SslAcceptorContext, ASilentClientCostsTheTimeOutAndOneLine) {
    STlsServer listener;
    listener.setTimeout(200);
    CSockStream client;
    ASSERT_EQ(0, client.Connect(listener.address));
    CSslStream server;
    const CLogCapture log;
    const std::uint64_t start_ms = Plinth::CTime::getCurrentMilliSecond();
    EXPECT_EQ(-1, listener.acceptor.Accept(server));
    const std::uint64_t took_ms = Plinth::CTime::getCurrentMilliSecond() - start_ms;
    EXPECT_GE(took_ms, 150U);
    EXPECT_LT(took_ms, 5000U);
    EXPECT_EQ(1U, log.lines().size());
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "], error:" + std::to_string(SocketApi::timedOutError()) + ", "));
}

TEST(SslAcceptorContext, WithoutATimeOutTheClientMayTakeItsTime) {
    STlsServer listener;
    listener.setTimeout(0);
    CSslStream server;
    CSslStream client;
    CRunner runner([&] { EXPECT_EQ(0, listener.acceptor.Accept(server)); });
    auto* stream = new CSockStream;
    ASSERT_EQ(0, stream->Connect(listener.address));
    Plinth::sleepMilliSecond(300);
    EXPECT_EQ(0, client.Connect(stream));
}

TEST(SslAcceptorContext, TheTimeOutIsReadAtEachAcceptAndEndsWithTheHandshake) {
    STlsServer listener;
    CSslStream first;
    CSslStream client;
    ASSERT_TRUE(listener.serve(first, client));
    listener.setTimeout(1000);
    CSslStream second;
    CSslStream other;
    ASSERT_TRUE(listener.serve(second, other));
    second.SetBlockOpt(true);
    CRunner sender([&other] {
        Plinth::sleepMilliSecond(1500);
        TestSupport::sendText(other, "late");
    });
    char text[10];
    EXPECT_EQ(4, second.Recv(text, sizeof(text)));
}

TEST(SslAcceptorContext, TimeOutsThatCannotBeSetAreLogged) {
    STlsServer listener;
    listener.setTimeout(1000);
    auto* stream = new CSockStream;
    const int fd = TestSupport::isWindows() ? 0x7ffffff0 : 1'000'000;
    stream->Attach(fd);
    CSslStream server;
    const CLogCapture log;
    EXPECT_EQ(-1, listener.acceptor.Accept(server, stream));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "set_sock_timeout :Set SO_RCVTIMEO failed! fd[" + std::to_string(fd) +
                                            "], send_t:1000, send_t:1000, error:"));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "Accept : SSL_accept failed, fd["));
}

TEST(SslAcceptorContext, ASendTimeOutThatCannotBeSetIsLogged) {
    STlsServer listener;
    listener.setTimeout(1000);
    CSockStream client;
    ASSERT_EQ(0, client.Connect(listener.address));
    client.Close();
    CSslStream server;
    const CLogCapture log;
    const CScriptedCall refused(CScriptedCall::EFunction::SET_SEND_TIMEOUT, -1);
    EXPECT_EQ(-1, listener.acceptor.Accept(server));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "set_sock_timeout :Set SO_SNDTIMEO failed! fd["));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "], send_t:1000, send_t:1000, error:" +
                                            std::to_string(SocketApi::resetError()) + ", "));
}

TEST(SslAcceptorContext, GroupsThatCannotBeSetAreLoggedAndOpenSslsOwnCount) {
    STlsServer listener;
    CSslStream client;
    CSslStream server;
    const CLogCapture log;
    CRunner runner([&] {
        const CScriptedCall refused(CScriptedCall::EFunction::SET_GROUPS, 0);
        EXPECT_EQ(0, listener.acceptor.Accept(server));
        EXPECT_EQ(1, refused.count());
    });
    EXPECT_EQ(0, client.Connect(listener.address));
    runner.join();
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "key_exchange_setup : Error EC CIPHER context!\n"));
    EXPECT_EQ(1U, log.lines().size());
}

}  // namespace
}  // namespace Veltro::Ravelo
