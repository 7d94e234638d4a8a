// The calls of a TLS connection that wait.
#include <Plinth/Time.h>
#include <Ravelo/SslStream.h>
#include <gtest/gtest.h>

#include <string>

#include "Support/LogCapture.h"
#include "Support/ProcessSettings.h"
#include "Support/ScriptedCall.h"
#include "Support/TlsPair.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::CRunner;
using TestSupport::CScriptedCall;
using TestSupport::receive;
using TestSupport::sendText;
using TestSupport::STlsPair;
using TestSupport::STlsServer;

constexpr int LEVEL_ERROR = Plinth::LOG_LEVEL_ERROR;
constexpr int SECOND_US = 1'000'000;

std::uint64_t nowMs() {
    return Plinth::CTime::getCurrentMilliSecond();
}

TEST(SslStreamWait, BadArgumentsFailWithTheirLines) {
    CSslStream stream;
    const CLogCapture log;
    char byte = 0;
    EXPECT_EQ(-1, stream.Send_n(nullptr, 5, 7));
    EXPECT_EQ(-1, stream.Send_n("x", 0, 7));
    EXPECT_EQ(-1, stream.Recv_n(nullptr, 5, 7));
    EXPECT_EQ(-1, stream.Recv_n(&byte, 0, 7));
    EXPECT_EQ(2, log.count(LEVEL_ERROR, "Send_n : Send_n failed! buf["));
    EXPECT_EQ(2, log.count(LEVEL_ERROR, "Recv_n : recv_n failed! buf["));
    EXPECT_EQ(2, log.count(LEVEL_ERROR, "], len[5], timeout:[7], fd[-1]\n"));
    EXPECT_EQ(2, log.count(LEVEL_ERROR, "], len[0], timeout:[7], fd[-1]\n"));
}

TEST(SslStreamWait, SendNSendsWhatDoesNotFitAtOnce) {
    STlsPair pair;
    const std::string text(8 * 1024 * 1024, 's');
    std::string received;
    CRunner reader([&pair, &received, &text] { received = receive(pair.server, text.size()); });
    EXPECT_EQ(static_cast<int>(text.size()),
              pair.client.Send_n(text.data(), static_cast<unsigned>(text.size()), 20 * SECOND_US));
    reader.join();
    EXPECT_EQ(text, received);
}

TEST(SslStreamWait, SendNWithoutTimeSendsOnce) {
    STlsPair pair;
    const std::string text(32 * 1024 * 1024, 's');
    const std::uint64_t start_ms = nowMs();
    const int sent = pair.client.Send_n(text.data(), static_cast<unsigned>(text.size()), 0);
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, static_cast<int>(text.size()));
    EXPECT_LT(nowMs() - start_ms, 10'000U);
}

TEST(SslStreamWait, SendNReturnsWhatWasSentWhenTimeIsUp) {
    STlsPair pair;
    const std::string text(32 * 1024 * 1024, 's');
    const std::uint64_t start_ms = nowMs();
    const int sent = pair.client.Send_n(text.data(), static_cast<unsigned>(text.size()), 200'000);
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, static_cast<int>(text.size()));
    EXPECT_GE(nowMs() - start_ms, 150U);
}

TEST(SslStreamWait, SendNWithNegativeTimeDoesNotWait) {
    STlsPair pair;
    const std::string text(32 * 1024 * 1024, 's');
    const std::uint64_t start_ms = nowMs();
    EXPECT_GT(pair.client.Send_n(text.data(), static_cast<unsigned>(text.size()), -1), 0);
    EXPECT_LT(nowMs() - start_ms, 10'000U);
}

TEST(SslStreamWait, SendNOnAConnectionThatIsGoneFails) {
    STlsPair pair;
    CSockStream gone;
    gone.Attach(pair.server.Detach());
    TestSupport::reset(gone);
    ASSERT_TRUE(TestSupport::waitReadable(pair.client));
    const CLogCapture log;
    EXPECT_EQ(-1, pair.client.Send_n("x", 1, SECOND_US));
    EXPECT_GE(log.count(Plinth::LOG_LEVEL_WARNING, "SSL_write error! fd:"), 2);
}

TEST(SslStreamWait, SendNFailsWhenThePeerGoesWhileItWaits) {
    STlsPair pair;
    CRunner killer([&pair] {
        CSockStream gone;
        receive(pair.server, 1000);
        gone.Attach(pair.server.Detach());
        TestSupport::reset(gone);
    });
    const CLogCapture log;
    const std::string text(32 * 1024 * 1024, 's');
    EXPECT_EQ(-1, pair.client.Send_n(text.data(), static_cast<unsigned>(text.size()), 20 * SECOND_US));
}

TEST(SslStreamWait, RecvNWithoutTimeReceivesNothing) {
    STlsPair pair;
    sendText(pair.client, "here");
    ASSERT_TRUE(TestSupport::waitReadable(pair.server));
    char text[10];
    EXPECT_EQ(0, pair.server.Recv_n(text, sizeof(text), 0));
    EXPECT_EQ(0, SSL_has_pending(TestSupport::sslOf(pair.server))) << "nothing was read";
    EXPECT_EQ("here", receive(pair.server, 4));
}

TEST(SslStreamWait, RecvNWithoutTimeAsksNoSocket) {
    CSslStream stream;
    const CLogCapture log;
    char text[10];
    EXPECT_EQ(0, stream.Recv_n(text, sizeof(text), 0));
    EXPECT_TRUE(log.lines().empty());
}

TEST(SslStreamWait, RecvNWaitsForDataAndReceivesOnce) {
    STlsPair pair;
    CRunner sender([&pair] {
        Plinth::sleepMilliSecond(50);
        sendText(pair.client, "late");
    });
    char text[10];
    EXPECT_EQ(4, pair.server.Recv_n(text, sizeof(text), 20 * SECOND_US));
}

TEST(SslStreamWait, RecvNReturnsNothingWhenTimeIsUp) {
    STlsPair pair;
    const std::uint64_t start_ms = nowMs();
    char text[10];
    EXPECT_EQ(0, pair.server.Recv_n(text, sizeof(text), 100'000));
    EXPECT_GE(nowMs() - start_ms, 80U);
    EXPECT_EQ(0, pair.server.Recv_n(text, sizeof(text), -1));
}

TEST(SslStreamWait, RecvNTakesDecryptedBytesWithoutWaiting) {
    STlsPair pair;
    sendText(pair.client, "abcdef");
    ASSERT_TRUE(TestSupport::waitReadable(pair.server));
    char text[4];
    EXPECT_EQ(4, pair.server.Recv_n(text, 4, 20 * SECOND_US));
    const std::uint64_t start_ms = nowMs();
    EXPECT_EQ(2, pair.server.Recv_n(text, 4, 20 * SECOND_US));
    EXPECT_LT(nowMs() - start_ms, 10'000U);
}

TEST(SslStreamWait, RecvNGoesOnWaitingAfterATicket) {
    STlsServer listener;
    listener.allowSessions(SslSessionTicket);
    CSslStream server;
    CSslStream client;
    ASSERT_TRUE(listener.serve(server, client));
    // The tickets are there already.
    ASSERT_TRUE(TestSupport::waitReadable(client));
    CRunner sender([&server] {
        Plinth::sleepMilliSecond(50);
        sendText(server, "data");
    });
    char text[10];
    EXPECT_EQ(4, client.Recv_n(text, sizeof(text), 20 * SECOND_US));
}

TEST(SslStreamWait, ATicketDoesNotProlongTheWait) {
    STlsServer listener;
    listener.allowSessions(SslSessionTicket);
    CSslStream server;
    CSslStream client;
    ASSERT_TRUE(listener.serve(server, client));
    ASSERT_TRUE(TestSupport::waitReadable(client));
    const std::uint64_t start_ms = nowMs();
    char text[10];
    EXPECT_EQ(0, client.Recv_n(text, sizeof(text), 100'000));
    EXPECT_GE(nowMs() - start_ms, 80U);
    EXPECT_LT(nowMs() - start_ms, 10'000U);
}

TEST(SslStreamWait, RecvNOfAConnectionThatHasEndedFails) {
    STlsServer listener;
    CSslStream server;
    auto client = std::make_unique<CSslStream>();
    ASSERT_TRUE(listener.serve(server, *client));
    client.reset();
    const CLogCapture log;
    char text[10];
    EXPECT_EQ(-1, server.Recv_n(text, sizeof(text), 20 * SECOND_US));
    EXPECT_EQ(
        1, log.count(Plinth::LOG_LEVEL_WARNING, "SSL_peek error! fd:" + std::to_string(server.GetHandle()) +
                                                    ", len:10, SSL_get_error=6, errno:0,"));
}

TEST(SslStreamWait, WaitsOnNoSocketFailWithTheirLines) {
    STlsPair pair;
    pair.client.Close();
    const CLogCapture log;
    char text[10];
    EXPECT_EQ(-1, pair.client.Recv_n(text, sizeof(text), SECOND_US));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "Recv_n : Recv_n select failed, fd:-1, errno:"));
}

TEST(SslStreamWait, UrgentDataIsAnExceptionWithItsLine) {
    STlsPair pair;
    ASSERT_EQ(1, ::send(static_cast<decltype(::socket(0, 0, 0))>(pair.client.GetHandle()), "!", 1, MSG_OOB));
    ASSERT_TRUE(TestSupport::waitFor(pair.server, SocketApi::WAIT_EXCEPT));
    const CLogCapture log;
    char text[10];
    EXPECT_EQ(-1, pair.server.Recv_n(text, sizeof(text), SECOND_US));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "Recv_n : Recv_n error, socket exception! fd:" +
                                            std::to_string(pair.server.GetHandle()) + ", "));
    const std::string block(32 * 1024 * 1024, 'b');
    EXPECT_EQ(-1, pair.server.Send_n(block.data(), static_cast<unsigned>(block.size()), SECOND_US));
    EXPECT_EQ(1,
              log.count(LEVEL_ERROR, "Send_n : Send_n error, fd:" + std::to_string(pair.server.GetHandle()) +
                                         ", socket exception! errno:"));
}

TEST(SslStreamWait, AnInterruptedWaitGoesOn) {
    STlsPair pair;
    if (!TestSupport::interruptMainThread(3, [] {})) GTEST_SKIP() << "no such signals on this platform";
    CRunner sender([&pair] {
        Plinth::sleepMilliSecond(200);
        sendText(pair.client, "late");
    });
    char text[10];
    EXPECT_EQ(4, pair.server.Recv_n(text, sizeof(text), 20 * SECOND_US));
    EXPECT_GE(TestSupport::interruptionCount(), 1);
}

TEST(SslStreamWait, SendNWhoseWaitFailsFailsWithItsLine) {
    STlsPair pair;
    const std::string text(32 * 1024 * 1024, 's');
    const CLogCapture log;
    const CScriptedCall failing(CScriptedCall::EFunction::WAIT_ONE, -1);
    EXPECT_EQ(-1, pair.client.Send_n(text.data(), static_cast<unsigned>(text.size()), SECOND_US));
    EXPECT_EQ(1, failing.count());
    EXPECT_EQ(1, log.count(LEVEL_ERROR,
                           "Send_n : Send_n select failed, fd:" + std::to_string(pair.client.GetHandle()) +
                               ", errno:" + std::to_string(SocketApi::resetError()) + ","));
    EXPECT_EQ(1U, log.lines().size());
}

TEST(SslStreamWait, SendNOfASocketThatIsNotReadyFails) {
    STlsPair pair;
    const std::string text(32 * 1024 * 1024, 's');
    const CLogCapture log;
    const CScriptedCall not_ready(CScriptedCall::EFunction::WAIT_ONE, 1);
    EXPECT_EQ(-1, pair.client.Send_n(text.data(), static_cast<unsigned>(text.size()), SECOND_US));
    EXPECT_EQ(1, not_ready.count());
    EXPECT_TRUE(log.lines().empty());
}

TEST(SslStreamWait, RecvNOfASocketThatIsNotReadyFailsWithItsLine) {
    STlsPair pair;
    char text[10];
    const CLogCapture log;
    const CScriptedCall not_ready(CScriptedCall::EFunction::WAIT_ONE, 1);
    EXPECT_EQ(-1, pair.server.Recv_n(text, sizeof(text), SECOND_US));
    EXPECT_EQ(1, not_ready.count());
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "Recv_n : Recv_n error, fd not set! fd:" +
                                            std::to_string(pair.server.GetHandle()) + ", "));
    EXPECT_EQ(1U, log.lines().size());
}

}  // namespace
}  // namespace Veltro::Ravelo
