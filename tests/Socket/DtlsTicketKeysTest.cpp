// The failing random generator is installed by a call that OpenSSL 3 still has, but advises against.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "Socket/DtlsTicketKeys.h"

#include <gtest/gtest.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>

#include <array>

#include "Socket/OpenSslTypes.h"
#include "Support/LogCapture.h"
#include "Support/ScarceOpenSsl.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;

constexpr const char* FAILED = "Init : Generate SESSION TICKET KEY  failed\n";

/// The size that OpenSSL 3 asks for: name, HMAC key, cipher key.
using TBlock = std::array<unsigned char, 16 + 32 + 32>;

TBlock keysOf(SSL_CTX* ctx) {
    TBlock block{};
    EXPECT_EQ(1, SSL_CTX_get_tlsext_ticket_keys(ctx, block.data(), static_cast<long>(block.size())));
    return block;
}

TBlock installed(const CDtlsTicketKeys& keys) {
    const TSslContext ctx(SSL_CTX_new(DTLS_method()));
    EXPECT_EQ(0, keys.Install(ctx.get()));
    return keysOf(ctx.get());
}

/// Lets the random generator fail while it lives.
class CFailingRandom {
public:
    CFailingRandom() {
        static RAND_METHOD failing{};
        failing.bytes = [](unsigned char*, int) { return 0; };
        EXPECT_EQ(1, RAND_set_rand_method(&failing));
    }
    ~CFailingRandom() { RAND_set_rand_method(nullptr); }
};

TEST(DtlsTicketKeys, ThereAreNoneBeforeInit) {
    CDtlsTicketKeys keys;
    const TSslContext ctx(SSL_CTX_new(DTLS_method()));
    const TBlock before = keysOf(ctx.get());
    EXPECT_EQ(0U, keys.Size());
    EXPECT_EQ(-1, keys.Install(ctx.get()));
    EXPECT_EQ(before, keysOf(ctx.get()));
}

TEST(DtlsTicketKeys, InitDrawsAsManyBytesAsOpenSslAsksFor) {
    CDtlsTicketKeys keys;
    EXPECT_EQ(0, keys.Init());
    EXPECT_EQ(TBlock{}.size(), keys.Size());
}

TEST(DtlsTicketKeys, EveryContextGetsTheSameKeys) {
    CDtlsTicketKeys keys;
    ASSERT_EQ(0, keys.Init());
    EXPECT_EQ(installed(keys), installed(keys));
}

TEST(DtlsTicketKeys, ASecondInitKeepsTheKeys) {
    CDtlsTicketKeys keys;
    ASSERT_EQ(0, keys.Init());
    const TBlock first = installed(keys);
    EXPECT_EQ(0, keys.Init());
    EXPECT_EQ(first, installed(keys));
}

TEST(DtlsTicketKeys, EveryBlockIsDrawnAnew) {
    CDtlsTicketKeys one;
    CDtlsTicketKeys other;
    ASSERT_EQ(0, one.Init());
    ASSERT_EQ(0, other.Init());
    EXPECT_NE(installed(one), installed(other));
    EXPECT_NE(TBlock{}, installed(one));
}

TEST(DtlsTicketKeys, WithoutRandomBytesInitFailsWithItsLine) {
    CDtlsTicketKeys keys;
    const CLogCapture log;
    {
        const CFailingRandom failing;
        EXPECT_EQ(-1, keys.Init());
    }
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, FAILED));
    EXPECT_EQ(0U, keys.Size());
    EXPECT_EQ(0UL, ERR_peek_error());
}

TEST(DtlsTicketKeys, WithoutMemoryInitFailsWithItsLine) {
    CDtlsTicketKeys keys;
    const CLogCapture log;
    {
        const TestSupport::CScarceOpenSsl scarce(0);
        EXPECT_EQ(-1, keys.Init());
    }
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, FAILED));
    EXPECT_EQ(0UL, ERR_peek_error());
}

TEST(DtlsTicketKeys, InitSucceedsAfterAFailure) {
    CDtlsTicketKeys keys;
    {
        const CLogCapture log;
        const CFailingRandom failing;
        EXPECT_EQ(-1, keys.Init());
    }
    EXPECT_EQ(0, keys.Init());
    EXPECT_NE(TBlock{}, installed(keys));
}

TEST(DtlsTicketKeys, TheProcessHasOneBlock) {
    EXPECT_EQ(&CDtlsTicketKeys::shared(), &CDtlsTicketKeys::shared());
}

}  // namespace
}  // namespace Veltro::Ravelo
