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

using TestSupport::CLogCapture;
using TestSupport::CRunner;
using TestSupport::receive;
using TestSupport::SListener;
using TestSupport::sslOf;
using TestSupport::STlsServer;

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
