#include <Ravelo/SslX509.h>
#include <gtest/gtest.h>

#include <string>

#include "Support/Certificates.h"
#include "Support/LogCapture.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::certificate;
using TestSupport::CLogCapture;
using TestSupport::contentOf;
using TestSupport::CTemporaryFile;

constexpr const char* PEM_NOTE = " CheckCertIsRevoked Read CRL file from pem format. crlst addr = ";
constexpr const char* NO_LIST = " CheckCertIsRevoked CRL file is neither DER format nor PEM format.\n";

/// Looks a certificate up in a list.
int lookUp(const std::string& name, const std::string& crl) {
    CSslX509 object;
    EXPECT_EQ(0, object.SetCert(certificate(name + ".pem").c_str(), certificate(name + "_key.pem").c_str()));
    return object.CheckCertIsRevoked(crl.c_str());
}

TEST(SslX509Revoked, ARevokedCertificateIsFoundInADerList) {
    const CLogCapture log;
    EXPECT_EQ(1, lookUp("revoked", certificate("crl.der")));
    EXPECT_TRUE(log.lines().empty());
}

TEST(SslX509Revoked, APemListIsReadAfterTheDerAttempt) {
    const CLogCapture log;
    EXPECT_EQ(1, lookUp("revoked", certificate("crl.pem")));
    ASSERT_EQ(1U, log.lines().size());
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_TRACE, PEM_NOTE));
}

TEST(SslX509Revoked, ACertificateThatIsNotListedIsNotRevoked) {
    EXPECT_EQ(0, lookUp("server", certificate("crl.der")));
    EXPECT_EQ(0, lookUp("server", certificate("crl.pem")));
}

TEST(SslX509Revoked, AListThatRevokesNoneRevokesNone) {
    EXPECT_EQ(0, lookUp("revoked", certificate("empty_crl.pem")));
}

TEST(SslX509Revoked, AnotherIssuersSerialNumberDoesNotCount) {
    // Both authorities have revoked their number 0x13.
    EXPECT_EQ(0, lookUp("revoked", certificate("other_crl.pem")));
    EXPECT_EQ(0, lookUp("other_server", certificate("crl.pem")));
    EXPECT_EQ(1, lookUp("other_server", certificate("other_crl.pem")));
}

TEST(SslX509Revoked, AnExpiredCertificateIsNotARevokedOne) {
    EXPECT_EQ(0, lookUp("expired", certificate("crl.pem")));
}

TEST(SslX509Revoked, AListWithTextAroundItIsTaken) {
    const CTemporaryFile file("0a comment that begins as DER might\n" + contentOf(certificate("crl.pem")) +
                              "end");
    EXPECT_EQ(1, lookUp("revoked", file.path()));
}

TEST(SslX509Revoked, AMissingListFailsWithItsLine) {
    const CLogCapture log;
    EXPECT_EQ(-1, lookUp("revoked", "no_such.crl"));
    ASSERT_EQ(1U, log.lines().size());
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR,
                           " CheckCertIsRevoked Open CRL file no_such.crl failed. errno:2, "));
}

TEST(SslX509Revoked, ANullPathFailsLikeAMissingList) {
    const CLogCapture log;
    CSslX509 object;
    EXPECT_EQ(-1, object.CheckCertIsRevoked(nullptr));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, "Open CRL file (null) failed."));
}

TEST(SslX509Revoked, AFileThatIsNoListFailsWithItsLine) {
    const CLogCapture log;
    EXPECT_EQ(-1, lookUp("revoked", certificate("server.pem")));
    ASSERT_EQ(2U, log.lines().size());
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_TRACE, PEM_NOTE));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, NO_LIST));
}

TEST(SslX509Revoked, AnEmptyFileIsNoList) {
    const CLogCapture log;
    const CTemporaryFile empty;
    EXPECT_EQ(-1, lookUp("revoked", empty.path()));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, NO_LIST));
}

TEST(SslX509Revoked, WithoutACertificateTheResultIsMinusOne) {
    CSslX509 object;
    EXPECT_EQ(-1, object.CheckCertIsRevoked(certificate("crl.der").c_str()));
}

}  // namespace
}  // namespace Veltro::Ravelo
