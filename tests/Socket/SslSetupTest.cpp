#include "Socket/SslSetup.h"

#include <Ravelo/NetThread.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include "Socket/DtlsTicketKeys.h"
#include "Socket/OpenSslTypes.h"

namespace Veltro::Ravelo {
namespace {

TEST(SslSetup, TheFirstPoolDrawsTheTicketKeys) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(1, false));
    EXPECT_GT(CDtlsTicketKeys::shared().Size(), 0U);
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
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
    ASSERT_EQ(0, SslSetup::initLibrary());
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
