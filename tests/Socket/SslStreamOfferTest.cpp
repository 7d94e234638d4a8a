// What a TLS client shows and demands when it connects: certificates, the server's name, ciphers.
#include <Plinth/Log.h>
#include <Ravelo/SslStream.h>
#include <Ravelo/SslX509.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Socket/SslX509Record.h"
#include "Support/LogCapture.h"
#include "Support/RawTls.h"
#include "Support/TlsPair.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::certificate;
using TestSupport::CLogCapture;
using TestSupport::CPemFolder;
using TestSupport::heapText;
using TestSupport::ownCertificate;
using TestSupport::SListener;
using TestSupport::sslOf;
using TestSupport::STlsServer;
using TestSupport::trusting;

constexpr int LEVEL_ERROR = Plinth::LOG_LEVEL_ERROR;
constexpr int LEVEL_WARNING = Plinth::LOG_LEVEL_WARNING;

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

}  // namespace
}  // namespace Veltro::Ravelo
