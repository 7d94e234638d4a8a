// What TLS streams and acceptors share below them.
#include "Socket/SslContext.h"

#include <Plinth/Time.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "Socket/DhParameters.h"
#include "Socket/SocketApi.h"
#include "Socket/SslBio.h"
#include "Socket/SslSetup.h"
#include "Support/Certificates.h"
#include "Support/LogCapture.h"
#include "Support/ProcessSettings.h"
#include "Support/ScarceMemory.h"
#include "Support/ScarceOpenSsl.h"
#include "Support/SocketPair.h"
#include "Support/TlsPair.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::SSocketPair;
using TestSupport::STlsServer;

/// A connection, so that OpenSSL has what it makes once in a process: without that it would not recover.
void warmUp() {
    STlsServer listener;
    CSslStream server;
    CSslStream client;
    EXPECT_TRUE(listener.serve(server, client));
}

TEST(SslContext, ThePasswordIsCopiedUpToTheBuffersSizeWithoutANul) {
    SslContext::SPassword password{"secret", 6};
    char buffer[] = "..........";
    EXPECT_EQ(6, SslContext::copyPassword(buffer, 10, 0, &password));
    EXPECT_STREQ("secret....", buffer);
    char small[] = "....";
    EXPECT_EQ(3, SslContext::copyPassword(small, 3, 0, &password));
    EXPECT_STREQ("sec.", small);
    EXPECT_EQ(-1, SslContext::copyPassword(buffer, 10, 0, nullptr));
}

TEST(SslContext, AnEmptyPasswordIsOne) {
    SslContext::SPassword password{"", 0};
    char buffer[] = "..";
    EXPECT_EQ(0, SslContext::copyPassword(buffer, 2, 0, &password));
    EXPECT_STREQ("..", buffer);
}

TEST(SslContext, PathsAreCutAt127Bytes) {
    const std::string folder(200, 'f');
    const SslContext::SPemFiles files(folder.c_str());
    EXPECT_EQ(std::string(127, 'f'), files.chain);
    EXPECT_EQ(std::string(127, 'f'), files.key);
}

TEST(SslContext, TheOldestErrorIsTakenFirst) {
    SslSetup::start();  // the errors' texts
    ERR_clear_error();
    char text[256];
    EXPECT_FALSE(SslContext::takeError(text));
    EXPECT_EQ(0, std::string(text).find("error:00000000:"));
    ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH);
    ERR_raise(ERR_LIB_SSL, SSL_R_BAD_PACKET);
    EXPECT_TRUE(SslContext::takeError(text));
    EXPECT_NE(nullptr, std::strstr(text, "bad length"));
    EXPECT_TRUE(SslContext::takeError(text));
    EXPECT_NE(nullptr, std::strstr(text, "bad packet"));
    EXPECT_FALSE(SslContext::takeError(text));
}

TEST(SslContext, PrintingEmptiesTheQueue) {
    SslSetup::start();
    ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH);
    testing::internal::CaptureStderr();
    SslContext::printErrors();
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("bad length"));
    EXPECT_EQ(0UL, ERR_peek_error());
}

TEST(SslContext, TheDiffieHellmanPrimeIsGood) {
    const TPrivateKey parameters = makeDhParameters();
    ASSERT_NE(nullptr, parameters);
    EXPECT_EQ(2048, EVP_PKEY_get_bits(parameters.get()));
    EVP_PKEY_CTX* context = EVP_PKEY_CTX_new_from_pkey(nullptr, parameters.get(), nullptr);
    EXPECT_EQ(1, EVP_PKEY_param_check(context));
    EVP_PKEY_CTX_free(context);
    BIGNUM* prime = nullptr;
    EXPECT_EQ(1, EVP_PKEY_get_bn_param(parameters.get(), "p", &prime));
    char* text = BN_bn2hex(prime);
    const std::string digits = text;
    EXPECT_EQ(0U, digits.find("F64257B7087F0817"));
    EXPECT_EQ("5E9320B3B", digits.substr(digits.size() - 9));
    OPENSSL_free(text);
    BN_free(prime);
}

TEST(SslBio, MovesBytesAndTellsWhenToTryAgain) {
    SSocketPair pair;
    const TBio client(SslBio::create(pair.client.GetHandle()));
    const TBio server(SslBio::create(pair.server.GetHandle()));
    char text[10];
    EXPECT_EQ(-1, BIO_read(server.get(), text, 10));
    EXPECT_TRUE(BIO_should_read(server.get()));
    EXPECT_TRUE(BIO_should_retry(server.get()));
    EXPECT_TRUE(SocketApi::isTryAgain(SslBio::lastError(server.get())));
    EXPECT_EQ(5, BIO_write(client.get(), "hello", 5));
    ASSERT_TRUE(TestSupport::waitReadable(pair.server));
    EXPECT_EQ(5, BIO_read(server.get(), text, 10));
    EXPECT_FALSE(BIO_should_retry(server.get()));
    EXPECT_EQ(0, SslBio::lastError(server.get()));
}

TEST(SslBio, AFullSocketIsToBeTriedAgain) {
    SSocketPair pair;
    TestSupport::fill(pair.client);
    const TBio bio(SslBio::create(pair.client.GetHandle()));
    EXPECT_EQ(-1, BIO_write(bio.get(), "x", 1));
    EXPECT_TRUE(BIO_should_write(bio.get()));
}

TEST(SslBio, AnEndIsOne) {
    SSocketPair pair;
    const TBio bio(SslBio::create(pair.client.GetHandle()));
    EXPECT_FALSE(BIO_eof(bio.get()));
    pair.server.Close();
    ASSERT_TRUE(TestSupport::waitReadable(pair.client));
    char byte = 0;
    EXPECT_EQ(0, BIO_read(bio.get(), &byte, 1));
    EXPECT_TRUE(BIO_eof(bio.get()));
    EXPECT_FALSE(BIO_should_retry(bio.get()));
}

TEST(SslBio, ItsSocketStaysOpen) {
    SSocketPair pair;
    BIO* bio = SslBio::create(pair.client.GetHandle());
    int fd = 0;
    EXPECT_EQ(pair.client.GetHandle(), BIO_get_fd(bio, &fd));
    EXPECT_EQ(pair.client.GetHandle(), fd);
    EXPECT_EQ(1, BIO_flush(bio));
    BIO_free(bio);
    EXPECT_EQ(1, pair.client.Send("x", 1));
}

TEST(SslBio, WithoutASocketItFails) {
    SSocketPair pair;
    const TBio bio(SslBio::create(pair.client.GetHandle()));
    SslBio::prepare(bio.get(), -1);
    char byte = 0;
    EXPECT_EQ(-1, BIO_read(bio.get(), &byte, 1));
    EXPECT_FALSE(BIO_should_retry(bio.get()));
    EXPECT_NE(0, SslBio::lastError(bio.get()));
    SslBio::prepare(bio.get(), pair.client.GetHandle());
    EXPECT_EQ(0, SslBio::lastError(bio.get()));
}

TEST(SslBio, RaisesNoSignal) {
    SSocketPair pair;
    TestSupport::watchPipeSignal();
    const TBio bio(SslBio::create(pair.client.GetHandle()));
    TestSupport::reset(pair.server);
    ASSERT_TRUE(TestSupport::waitReadable(pair.client));
    EXPECT_EQ(-1, BIO_write(bio.get(), "x", 1));
    EXPECT_EQ(-1, BIO_write(bio.get(), "x", 1));
    EXPECT_EQ(0, TestSupport::pipeSignalCount());
}

TEST(SslBio, ATimeOutCountsForAllReadsTogether) {
    SSocketPair pair;
    pair.client.SetBlockOpt(true);
    const TBio bio(SslBio::create(pair.client.GetHandle()));
    ASSERT_EQ(1, pair.server.Send("x", 1));
    SslBio::setTimeout(bio.get(), 100);
    char byte = 0;
    EXPECT_EQ(1, BIO_read(bio.get(), &byte, 1));
    const std::uint64_t start_ms = Plinth::CTime::getCurrentMilliSecond();
    EXPECT_EQ(-1, BIO_read(bio.get(), &byte, 1));
    EXPECT_LT(Plinth::CTime::getCurrentMilliSecond() - start_ms, 5000U);
    EXPECT_FALSE(BIO_should_retry(bio.get()));
    EXPECT_EQ(SocketApi::timedOutError(), SslBio::lastError(bio.get()));
    SslBio::setTimeout(bio.get(), 0);
    pair.client.SetBlockOpt(false);
    EXPECT_EQ(-1, BIO_read(bio.get(), &byte, 1));
    EXPECT_TRUE(BIO_should_retry(bio.get()));
}

TEST(SslContext, PrintingEndsWithoutMemory) {
    warmUp();
    for (int i = 0; i < 20; ++i) ERR_raise_data(ERR_LIB_SSL, SSL_R_BAD_LENGTH, "number %d", i);
    testing::internal::CaptureStderr();
    {
        const TestSupport::CScarceOpenSsl scarce(0);
        SslContext::printErrors();
    }
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("bad length"));
    EXPECT_EQ(0UL, ERR_peek_error());
}

TEST(SslBio, WithoutMemoryThereIsNone) {
    const TestSupport::CScarceMemory none(0);
    EXPECT_EQ(nullptr, SslBio::create(5));
}

TEST(SocketApiTimeout, ReceivesAndSendsOfABlockingSocketEndInTime) {
    SSocketPair pair;
    TestSupport::fill(pair.client);
    pair.client.SetBlockOpt(true);
    EXPECT_EQ(0, SocketApi::setReceiveTimeout(pair.client.GetHandle(), 50));
    EXPECT_EQ(0, SocketApi::setSendTimeout(pair.client.GetHandle(), 50));
    char byte = 0;
    const std::uint64_t start_ms = Plinth::CTime::getCurrentMilliSecond();
    EXPECT_EQ(-1, SocketApi::recv(pair.client.GetHandle(), &byte, 1));
    EXPECT_EQ(-1, SocketApi::send(pair.client.GetHandle(), &byte, 1));
    EXPECT_LT(Plinth::CTime::getCurrentMilliSecond() - start_ms, 10'000U);
    EXPECT_EQ(0, SocketApi::setReceiveTimeout(pair.client.GetHandle(), 0));
    EXPECT_EQ(0, SocketApi::setSendTimeout(pair.client.GetHandle(), -5));
    EXPECT_EQ(-1, SocketApi::setReceiveTimeout(-1, 50));
    EXPECT_EQ(-1, SocketApi::setSendTimeout(-1, 50));
}

/// Runs an operation with fewer and fewer refusals of OpenSSL's memory, until there is none.
/// @return how many runs there were.
template <typename TOperation>
int runWithScarceMemory(TOperation operation) {
    int runs = 0;
    for (int allocations = 0;; allocations += 1 + allocations / 12, ++runs) {
        const TestSupport::CScarceOpenSsl scarce(allocations);
        operation();
        if (!scarce.hasFailed()) return runs;
    }
}

TEST(SslScarceMemory, ConnectFailsWellWhereverMemoryEnds) {
    warmUp();
    TestSupport::SListener listener;
    const TestSupport::CLogCapture log;
    testing::internal::CaptureStderr();
    EXPECT_GT(runWithScarceMemory([&listener] {
                  CSslStream client;
                  int timeout_ms = 1;
                  client.SetOption(SslOptTimeout, 0, &timeout_ms);
                  EXPECT_EQ(-1, client.Connect(listener.address));
                  CSockStream taken;
                  listener.accept(taken);
              }),
              30);
    testing::internal::GetCapturedStderr();
    EXPECT_GT(log.count(Plinth::LOG_LEVEL_WARNING, "Connect : init ssl_ctx_st error! errno:"), 0);
    EXPECT_GT(log.count(Plinth::LOG_LEVEL_WARNING, ", init ssl_st error! fd["), 0);
    EXPECT_GT(log.count(Plinth::LOG_LEVEL_WARNING, "Connect : init ssl_st error! errno:"), 0);
}

TEST(SslScarceMemory, AcceptFailsWellWhereverMemoryEnds) {
    warmUp();
    STlsServer listener;
    listener.setTimeout(1);
    const TestSupport::CLogCapture log;
    testing::internal::CaptureStderr();
    EXPECT_GT(runWithScarceMemory([&listener] {
                  CSockStream client;
                  EXPECT_EQ(0, client.Connect(listener.address));
                  CSslStream server;
                  EXPECT_EQ(-1, listener.acceptor.Accept(server));
              }),
              30);
    testing::internal::GetCapturedStderr();
    EXPECT_GT(log.count(Plinth::LOG_LEVEL_ERROR, "init_ssl_ctx : SSL_CTX_new failed, errno:"), 0);
}

TEST(SslScarceMemory, AConnectionThatCannotBeMadeFailsWithItsLine) {
    STlsServer listener;
    CSslStream server;
    CSslStream client;
    ASSERT_TRUE(listener.serve(server, client));
    CSockStream next;
    EXPECT_EQ(0, next.Connect(listener.address));
    const TestSupport::CLogCapture log;
    CSslStream none;
    {
        const TestSupport::CScarceOpenSsl scarce(0);
        EXPECT_EQ(-1, listener.acceptor.Accept(none));
    }
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, "init_ssl SSL_new failed, errno:"));
    EXPECT_EQ(nullptr, TestSupport::contextOf(listener.acceptor));
    CSslStream other;
    EXPECT_TRUE(listener.serve(none, other));
}

}  // namespace
}  // namespace Veltro::Ravelo
