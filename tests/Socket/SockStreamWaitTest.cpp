#include <Plinth/Thread.h>
#include <Plinth/Time.h>
#include <Ravelo/SockStream.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Support/LogCapture.h"
#include "Support/ProcessSettings.h"
#include "Support/ScriptedSend.h"
#include "Support/SocketPair.h"

namespace Veltro::Ravelo {
namespace {

using Plinth::CThreadLite;
using Plinth::CTime;
using TestSupport::CLogCapture;
using TestSupport::SSocketPair;

constexpr int kSecond = 1'000'000;

/// More than a socket takes without its peer reading.
std::vector<char> hugeBlock() {
    return std::vector<char>(64 * 1024 * 1024, 'h');
}

/// What an interruption closes.
int g_socket_to_close = -1;

TEST(SockStreamWait, SendNSendsEverythingWhileThePeerReads) {
    SSocketPair pair;
    const std::vector<char> block = hugeBlock();
    std::size_t received = 0;
    CThreadLite reader(
        [&pair, &block, &received](CThreadLite&) {
            received = TestSupport::receive(pair.server, block.size()).size();
        },
        "reader");
    ASSERT_TRUE(reader.createThread());
    EXPECT_EQ(static_cast<int>(block.size()),
              pair.client.Send_n(block.data(), static_cast<unsigned>(block.size()), 30 * kSecond));
    reader.destroyThread();
    EXPECT_EQ(block.size(), received);
}

TEST(SockStreamWait, SendNGivesUpAfterItsTimeOutWithWhatWasSent) {
    SSocketPair pair;
    const std::vector<char> block = hugeBlock();
    const auto start = CTime::getCurrentMicroSecond();
    const int sent = pair.client.Send_n(block.data(), static_cast<unsigned>(block.size()), 50'000);
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, static_cast<int>(block.size()));
    EXPECT_GE(CTime::getCurrentMicroSecond() - start, 40'000U);
}

TEST(SockStreamWait, SendNWithTimeOutZeroIsOneSend) {
    SSocketPair pair;
    EXPECT_EQ(5, pair.client.Send_n("hello", 5, 0));
    TestSupport::fill(pair.client);
    EXPECT_EQ(0, pair.client.Send_n("x", 1, 0));
    TestSupport::CScriptedSend script(pair.server.GetHandle());
    script.setRoom(3);
    EXPECT_EQ(3, pair.server.Send_n("hello", 5, 0));
    EXPECT_EQ(1, script.sends());
}

TEST(SockStreamWait, SendNWithANegativeTimeOutDoesNotWait) {
    SSocketPair pair;
    TestSupport::fill(pair.client);
    EXPECT_EQ(0, pair.client.Send_n("x", 1, -1));
}

TEST(SockStreamWait, SendNReturnsTheFailureOfItsFirstSend) {
    CLogCapture log;
    CSockStream stream;
    EXPECT_EQ(-1, stream.Send_n(nullptr, 5, kSecond));
    EXPECT_EQ(-1, stream.Send_n("x", 1, kSecond));
    EXPECT_EQ(2, log.count(2, "Send : send failed! buf["));
}

TEST(SockStreamWait, SendNFailsWhenThePeerResets) {
    SSocketPair pair;
    const std::vector<char> block = hugeBlock();
    CLogCapture log;
    CThreadLite peer(
        [&pair](CThreadLite&) {
            // The first byte here tells that the first send there is over.
            EXPECT_EQ(1U, TestSupport::receive(pair.server, 1).size());
            TestSupport::reset(pair.server);
        },
        "peer");
    ASSERT_TRUE(peer.createThread());
    EXPECT_EQ(-1, pair.client.Send_n(block.data(), static_cast<unsigned>(block.size()), 30 * kSecond));
    peer.destroyThread();
    EXPECT_EQ(
        1, log.count(2, "Send_n : send error, fd[" + std::to_string(pair.client.GetHandle()) + "], error:"));
}

TEST(SockStreamWait, SendNTakesUrgentDataForAnException) {
    SSocketPair pair;
    TestSupport::fill(pair.client);
    ASSERT_EQ(1, ::send(pair.server.GetHandle(), "!", 1, MSG_OOB));
    ASSERT_TRUE(TestSupport::waitFor(pair.client, SocketApi::WAIT_EXCEPT));
    CLogCapture log;
    EXPECT_EQ(-1, pair.client.Send_n("x", 1, kSecond));
    EXPECT_EQ(1, log.count(2, "Send_n : Send_n error, socket exception! fd["));
}

TEST(SockStreamWait, SendNFailsWhenItsSocketIsClosedDuringAWait) {
    SSocketPair pair;
    TestSupport::fill(pair.client);
    CLogCapture log;
    g_socket_to_close = pair.client.GetHandle();
    if (!TestSupport::interruptMainThread(1, [] { SocketApi::close(g_socket_to_close); })) {
        return TestSupport::printSkip("this platform does not interrupt waits");
    }
    EXPECT_EQ(-1, pair.client.Send_n("x", 1, 30 * kSecond));
    EXPECT_EQ(1, log.count(2, "Send_n : Send_n select failed, fd["));
    pair.client.Detach();
}

TEST(SockStreamWait, SendNGoesOnAfterAnInterruption) {
    SSocketPair pair;
    TestSupport::fill(pair.client);
    CLogCapture log;
    if (!TestSupport::interruptMainThread(3, nullptr)) {
        return TestSupport::printSkip("this platform does not interrupt waits");
    }
    EXPECT_EQ(0, pair.client.Send_n("x", 1, 200'000));
    EXPECT_EQ(3, TestSupport::interruptionCount());
    EXPECT_TRUE(log.lines().empty());
}

TEST(SockStreamWait, RecvNReturnsOneReadsWorth) {
    SSocketPair pair;
    char text[100];
    ASSERT_EQ(5, pair.server.Send("hello", 5));
    EXPECT_EQ(5, pair.client.Recv_n(text, sizeof(text), 10 * kSecond));
    EXPECT_EQ("hello", std::string(text, 5));
}

TEST(SockStreamWait, RecvNWaitsForData) {
    SSocketPair pair;
    CThreadLite peer(
        [&pair](CThreadLite&) {
            Plinth::sleepMilliSecond(20);
            EXPECT_EQ(1, pair.server.Send("x", 1));
        },
        "peer");
    ASSERT_TRUE(peer.createThread());
    char byte = 0;
    EXPECT_EQ(1, pair.client.Recv_n(&byte, 1, 10 * kSecond));
    peer.destroyThread();
}

TEST(SockStreamWait, RecvNReturnsZeroAfterItsTimeOut) {
    SSocketPair pair;
    char byte = 0;
    const auto start = CTime::getCurrentMicroSecond();
    EXPECT_EQ(0, pair.client.Recv_n(&byte, 1, 50'000));
    EXPECT_GE(CTime::getCurrentMicroSecond() - start, 40'000U);
}

TEST(SockStreamWait, RecvNWithTimeOutZeroReturnsZeroEvenWithDataWaiting) {
    SSocketPair pair;
    char byte = 0;
    ASSERT_EQ(1, pair.server.Send("x", 1));
    ASSERT_TRUE(TestSupport::waitReadable(pair.client));
    EXPECT_EQ(0, pair.client.Recv_n(&byte, 1, 0));
    EXPECT_EQ(1, pair.client.Recv(&byte, 1));
}

TEST(SockStreamWait, RecvNWithANegativeTimeOutTakesOnlyWhatIsThere) {
    SSocketPair pair;
    char byte = 0;
    EXPECT_EQ(0, pair.client.Recv_n(&byte, 1, -1));
    ASSERT_EQ(1, pair.server.Send("x", 1));
    ASSERT_TRUE(TestSupport::waitReadable(pair.client));
    EXPECT_EQ(1, pair.client.Recv_n(&byte, 1, -1));
}

TEST(SockStreamWait, RecvNReturnsZeroAfterPeerCloses) {
    SSocketPair pair;
    char byte = 0;
    CLogCapture log;
    pair.server.Close();
    EXPECT_EQ(0, pair.client.Recv_n(&byte, 1, 10 * kSecond));
    EXPECT_TRUE(log.lines().empty());
}

TEST(SockStreamWait, RecvNFailsWithoutALogLineAfterAReset) {
    SSocketPair pair;
    char byte = 0;
    CLogCapture log;
    TestSupport::reset(pair.server);
    const int result = pair.client.Recv_n(&byte, 1, 10 * kSecond);
    EXPECT_TRUE(log.lines().empty());
    if (result == 0 && TestSupport::isWindows()) {
        return TestSupport::printSkip("emulated Windows sockets show a reset as an end after a wait");
    }
    EXPECT_EQ(-1, result);
    EXPECT_EQ(SocketApi::resetError(), SocketApi::lastError());
}

TEST(SockStreamWait, RecvNIntoNothingFails) {
    SSocketPair pair;
    char byte = 0;
    CLogCapture log;
    EXPECT_EQ(-1, pair.client.Recv_n(nullptr, 5, 7));
    EXPECT_EQ(-1, pair.client.Recv_n(&byte, 0, 7));
    const std::string fd = std::to_string(pair.client.GetHandle());
    EXPECT_EQ(2, log.count(2, "Recv_n : recv_n failed! buf["));
    EXPECT_EQ(1, log.count(2, "], len[5], timeout:7, fd[" + fd + "]\n"));
}

TEST(SockStreamWait, RecvNWithoutASocketFails) {
    char byte = 0;
    CLogCapture log;
    CSockStream stream;
    EXPECT_EQ(-1, stream.Recv_n(&byte, 1, 1000));
    EXPECT_EQ(1, log.count(2, "Recv_n : Recv_n select failed, fd[-1], error:"));
}

TEST(SockStreamWait, RecvNTakesUrgentDataForAnException) {
    SSocketPair pair;
    char byte = 0;
    ASSERT_EQ(1, ::send(pair.server.GetHandle(), "!", 1, MSG_OOB));
    ASSERT_TRUE(TestSupport::waitFor(pair.client, SocketApi::WAIT_EXCEPT));
    CLogCapture log;
    EXPECT_EQ(-1, pair.client.Recv_n(&byte, 1, kSecond));
    EXPECT_EQ(1, log.count(2, "Recv_n : Recv_n error, socket exception, fd["));
}

TEST(SockStreamWait, RecvNFailsWhereTheSystemCannotReceive) {
    TestSupport::SListener listener;
    CSockStream client;
    ASSERT_EQ(0, client.Connect(listener.address));
    ASSERT_TRUE(TestSupport::waitReadable(listener.acceptor));
    CSockStream wrong;
    ASSERT_EQ(0, wrong.Attach(listener.acceptor.Detach()));
    char byte = 0;
    CLogCapture log;
    EXPECT_EQ(-1, wrong.Recv_n(&byte, 1, kSecond));
    EXPECT_EQ(1, log.count(2, "Recv_n : recv error fd["));
    EXPECT_EQ(1, log.count(2, "], len[1], error:"));
}

TEST(SockStreamWait, RecvNGoesOnAfterAnInterruption) {
    SSocketPair pair;
    char byte = 0;
    CLogCapture log;
    if (!TestSupport::interruptMainThread(3, nullptr)) {
        return TestSupport::printSkip("this platform does not interrupt waits");
    }
    EXPECT_EQ(0, pair.client.Recv_n(&byte, 1, 200'000));
    EXPECT_EQ(3, TestSupport::interruptionCount());
    EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace Veltro::Ravelo
