#include "Socket/SslSetup.h"

#include <Ravelo/NetThread.h>
#include <Ravelo/SessionCache.h>
#include <Ravelo/SslX509.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <string>

#include "Socket/DtlsTicketKeys.h"
#include "Socket/OpenSslTypes.h"
#include "Support/Certificates.h"

namespace Veltro::Ravelo {
namespace {

TEST(SslSetup, TheFirstPoolDrawsTheTicketKeys) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(1, false));
    EXPECT_GT(CDtlsTicketKeys::shared().Size(), 0U);
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

TEST(SslSetup, StaticsHoldTheirOpenSslObjectsUntilTheProcessEnds) {
    // Destroyed at exit: the sanitizers and the program's result tell whether that goes well.
    static CSessionCache s_static_cache;
    static CSslX509 s_static_cert;
    const TSession session(SSL_SESSION_new());
    EXPECT_EQ(0, s_static_cache.Add(session.get(), "static"));
    EXPECT_EQ(0, s_static_cert.SetCert(TestSupport::certificate("server.pem").c_str(),
                                       TestSupport::certificate("server_key.pem").c_str()));
}

TEST(SslSetup, OpenSslWorksAcrossTheEndsOfPools) {
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(0, CNetThread::CreateThreadPool(1, false));
        const TSslContext during(SSL_CTX_new(TLS_method()));
        EXPECT_NE(nullptr, during);
        EXPECT_EQ(0, CNetThread::DestroyThreadPool());
        const TSslContext after(SSL_CTX_new(TLS_method()));
        EXPECT_NE(nullptr, after);
    }
}

TEST(SslSetup, TheTicketKeysOutliveThePools) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(1, false));
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    EXPECT_GT(CDtlsTicketKeys::shared().Size(), 0U);
}

TEST(SslSetup, BothPlatformsRefuseWhatSecurityLevelTwoRefuses) {
    SslSetup::start();
    const TSslContext context(SSL_CTX_new(TLS_method()));
    EXPECT_EQ(2, SSL_CTX_get_security_level(context.get()));
}

TEST(SslSetup, OpenSslNamesNoFolderOfTheBuild) {
    const std::string folder = OpenSSL_version(OPENSSL_DIR);
    EXPECT_TRUE(folder == "OPENSSLDIR: \"/usr/lib/ssl\"" ||
                folder == "OPENSSLDIR: \"C:/Program Files/Common Files/SSL\"")
        << folder;
}

}  // namespace
}  // namespace Veltro::Ravelo
