// The single calls of a TLS connection.
#include <Ravelo/SslStream.h>
#include <Ravelo/SslX509.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Socket/SocketApi.h"
#include "Support/Descriptors.h"
#include "Support/LogCapture.h"
#include "Support/ProcessSettings.h"
#include "Support/RawTls.h"
#include "Support/ScriptedCall.h"
#include "Support/TlsPair.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::CRawTls;
using TestSupport::receive;
using TestSupport::receiveEnd;
using TestSupport::sendText;
using TestSupport::SListener;
using TestSupport::STlsPair;
using TestSupport::STlsServer;
using TestSupport::waitReadable;

constexpr int LEVEL_ERROR = Plinth::LOG_LEVEL_ERROR;
constexpr int LEVEL_WARNING = Plinth::LOG_LEVEL_WARNING;

std::string handleText(const CSock& socket) {
    return std::to_string(socket.GetHandle());
}

/// A client of ours with a server of plain OpenSSL calls.
struct SRawPair {
    SListener listener;
    TSslContext ctx = TestSupport::rawServerContext();
    CRawTls server{ctx};
    CSslStream client;

    SRawPair() {
        // Sessions that nobody reads would be the first bytes to come.
        SSL_CTX_set_num_tickets(ctx.get(), 0);
        SSL_set_num_tickets(server.ssl(), 0);
        TestSupport::CRunner runner([this] { EXPECT_TRUE(server.accept(listener)); });
        EXPECT_EQ(0, client.Connect(listener.address));
    }
};

/// Sends until the connection takes no more.
std::size_t fill(CSslStream& stream) {
    const std::string block(16'384, 'f');
    std::size_t total = 0;
    for (bool is_full = false; !is_full;) {
        unsigned ready = 0;
        SocketApi::waitOne(stream.GetHandle(), SocketApi::WAIT_WRITE, 100'000, &ready);
        is_full = true;
        int sent = 0;
        while ((sent = sendText(stream, block)) > 0) {
            total += static_cast<std::size_t>(sent);
            is_full = false;
        }
        EXPECT_EQ(0, sent);
    }
    return total;
}

TEST(SslStream, ANewObjectHasNoSocketAndIsATlsStream) {
    const CSslStream stream;
    EXPECT_EQ(-1, stream.GetHandle());
    EXPECT_EQ(static_cast<unsigned>(SOCK_TYPE_SSL_STREAM), stream.GetType());
}

TEST(SslStream, BytesPassBothWays) {
    STlsPair pair;
    EXPECT_EQ(4, sendText(pair.client, "ping"));
    EXPECT_EQ("ping", receive(pair.server, 4));
    EXPECT_EQ(4, sendText(pair.server, "pong"));
    EXPECT_EQ("pong", receive(pair.client, 4));
}

TEST(SslStream, BytesPassBothWaysInTls12) {
    STlsPair pair(true);
    EXPECT_EQ(TLS1_2_VERSION, SSL_version(TestSupport::sslOf(pair.client)));
    EXPECT_EQ(4, sendText(pair.client, "ping"));
    EXPECT_EQ("ping", receive(pair.server, 4));
}

TEST(SslStream, BothEndsSendSmallAmountsAtOnce) {
    STlsPair pair;
    for (const CSslStream* stream : {&pair.client, &pair.server}) {
        int value = 0;
        EXPECT_EQ(0, SocketApi::getOption(stream->GetHandle(), IPPROTO_TCP, TCP_NODELAY, &value));
        EXPECT_NE(0, value);
    }
}

TEST(SslStream, BothEndsAreNonBlocking) {
    STlsPair pair;
    char byte = 0;
    EXPECT_EQ(0, pair.client.Recv(&byte, 1));
    EXPECT_EQ(0, pair.server.Recv(&byte, 1));
    EXPECT_FALSE(pair.client.GetBlockOpt());
    EXPECT_FALSE(pair.server.GetBlockOpt());
}

TEST(SslStream, SendWithoutABufferFailsWithItsLine) {
    CSslStream stream;
    const CLogCapture log;
    EXPECT_EQ(-1, stream.Send(nullptr, 5));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "Send : send failed! buf["));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "], len[5], fd[-1]\n"));
}

TEST(SslStream, SendOfNothingFailsWithItsLine) {
    CSslStream stream;
    const CLogCapture log;
    EXPECT_EQ(-1, stream.Send("x", 0));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "], len[0], fd[-1]\n"));
}

TEST(SslStream, RecvWithoutABufferOrRoomFailsWithItsLine) {
    CSslStream stream;
    const CLogCapture log;
    char byte = 0;
    EXPECT_EQ(-1, stream.Recv(nullptr, 5));
    EXPECT_EQ(-1, stream.Recv(&byte, 0));
    EXPECT_EQ(2, log.count(LEVEL_ERROR, "Recv : recv failed! buf["));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "], len[5], fd[-1]\n"));
}

TEST(SslStream, CallsWithoutAConnectionFail) {
    CSslStream stream;
    const CLogCapture log;
    char byte = 0;
    EXPECT_EQ(-1, stream.Send("x", 1));
    EXPECT_EQ(-1, stream.Recv(&byte, 1));
    EXPECT_EQ(-1, stream.Peek());
    EXPECT_EQ(1, log.count(LEVEL_WARNING, "SSL_write error! fd:-1, len:1, SSL_get_error=1, errno:0,"));
    EXPECT_EQ(1, log.count(LEVEL_WARNING, "SSL_peek error! fd:-1, len:1, SSL_get_error=1, errno:0,"));
    EXPECT_EQ(1, log.count(LEVEL_WARNING, "SSL_peek error! fd:-1, SSL_get_error:1, errno:0,"));
}

TEST(SslStream, RecvTakesAtMostWhatItHasRoomFor) {
    STlsPair pair;
    sendText(pair.client, "abcdef");
    ASSERT_TRUE(waitReadable(pair.server));
    char part[4];
    EXPECT_EQ(4, pair.server.Recv(part, 4));
    EXPECT_EQ("abcd", std::string(part, 4));
    EXPECT_EQ(2, pair.server.Recv(part, 4));
    EXPECT_EQ("ef", std::string(part, 2));
    EXPECT_EQ(0, pair.server.Recv(part, 4));
}

TEST(SslStream, RecvTakesOneRecordAtATime) {
    STlsPair pair;
    sendText(pair.client, "one");
    sendText(pair.client, "two");
    ASSERT_TRUE(waitReadable(pair.server));
    char text[100];
    EXPECT_EQ(3, pair.server.Recv(text, sizeof(text)));
    ASSERT_TRUE(waitReadable(pair.server));
    EXPECT_EQ(3, pair.server.Recv(text, sizeof(text)));
}

TEST(SslStream, PeekTellsHowMuchIsDecrypted) {
    STlsPair pair;
    EXPECT_EQ(0, pair.server.Peek());
    sendText(pair.client, "abcdef");
    ASSERT_TRUE(waitReadable(pair.server));
    EXPECT_EQ(6, pair.server.Peek());
    EXPECT_EQ(6, pair.server.Peek());
    char text[4];
    EXPECT_EQ(4, pair.server.Recv(text, sizeof(text)));
    EXPECT_EQ(2, pair.server.Peek());
}

TEST(SslStream, TicketsAreNoData) {
    STlsServer listener;
    listener.allowSessions(SslSessionTicket);
    CSslStream server;
    CSslStream client;
    ASSERT_TRUE(listener.serve(server, client));
    ASSERT_TRUE(waitReadable(client));
    const CLogCapture log;
    char byte = 0;
    EXPECT_EQ(0, client.Peek());
    EXPECT_EQ(0, client.Recv(&byte, 1));
    EXPECT_TRUE(log.lines().empty());
}

TEST(SslStream, APartOfARecordIsNoData) {
    SRawPair pair;
    // A record that the client gets in two pieces: written into memory, then sent by hand.
    BIO* memory = BIO_new(BIO_s_mem());
    SSL_set0_wbio(pair.server.ssl(), memory);
    ASSERT_EQ(5, pair.server.write("hello"));
    char record[200];
    const int length = BIO_read(memory, record, sizeof(record));
    ASSERT_GT(length, 20);
    EXPECT_EQ(10, pair.server.stream().Send(record, 10));
    ASSERT_TRUE(waitReadable(pair.client));
    char text[20];
    EXPECT_EQ(0, pair.client.Recv(text, sizeof(text)));
    EXPECT_EQ(0, pair.client.Peek());
    EXPECT_EQ(length - 10, pair.server.stream().Send(record + 10, static_cast<unsigned>(length - 10)));
    EXPECT_EQ("hello", receive(pair.client, 5));
}

TEST(SslStream, AFullConnectionTakesAPartThenNothing) {
    STlsPair pair;
    const std::size_t total = fill(pair.client);
    EXPECT_GT(total, 16'384U);
    EXPECT_EQ(0, sendText(pair.client, std::string(16'384, 'f')));
}

TEST(SslStream, WhatAFullConnectionTookArrivesWhole) {
    STlsPair pair;
    const std::size_t total = fill(pair.client);
    std::string received;
    // The record that stands half-way needs another call, with the same bytes, to be sent on.
    const std::string block(16'384, 'f');
    std::size_t sent = total;
    while (received.size() < total + block.size()) {
        received += receive(pair.server, 16'384);
        if (sent == total) sent += static_cast<std::size_t>(sendText(pair.client, block));
    }
    EXPECT_EQ(total + block.size(), sent);
    EXPECT_EQ(std::string(sent, 'f'), received);
}

TEST(SslStream, ARepeatedSendMayComeFromElsewhere) {
    STlsPair pair;
    const std::size_t total = fill(pair.client);
    EXPECT_EQ(total, receive(pair.server, total).size());
    const std::vector<char> elsewhere(16'384, 'f');
    EXPECT_EQ(16'384, pair.client.Send(elsewhere.data(), 16'384));
    EXPECT_EQ(std::string(16'384, 'f'), receive(pair.server, 16'384));
}

TEST(SslStream, ALongSendStopsWhereTheSocketIsFull) {
    STlsPair pair;
    const std::string text(32 * 1024 * 1024, 'x');
    const int sent = sendText(pair.client, text);
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, static_cast<int>(text.size()));
    EXPECT_EQ(static_cast<std::size_t>(sent), receive(pair.server, static_cast<std::size_t>(sent)).size());
}

TEST(SslStream, WriteVWithoutAListFailsWithItsLine) {
    CSslStream stream;
    const CLogCapture log;
    iovec element{1, nullptr};
    EXPECT_EQ(-1, stream.WriteV(nullptr, 3));
    EXPECT_EQ(-1, stream.WriteV(&element, 0));
    EXPECT_EQ(2, log.count(LEVEL_ERROR, "WriteV : send failed! vector["));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "], count[3], fd[-1]\n"));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "], count[0], fd[-1]\n"));
}

TEST(SslStream, WriteVSendsAllElementsInOrder) {
    STlsPair pair;
    std::string texts[] = {"one ", "two ", "three"};
    const iovec list[] = {{4, texts[0].data()}, {4, texts[1].data()}, {5, texts[2].data()}};
    EXPECT_EQ(13, pair.client.WriteV(list, 3));
    EXPECT_EQ("one two three", receive(pair.server, 13));
}

TEST(SslStream, WriteVStopsAtAnElementThatIsSentInPart) {
    STlsPair pair;
    std::string first = "first";
    std::string second(32 * 1024 * 1024, '2');
    std::string third = "third";
    const iovec list[] = {
        {5, first.data()}, {static_cast<std::uint32_t>(second.size()), second.data()}, {5, third.data()}};
    const int sent = pair.client.WriteV(list, 3);
    ASSERT_GT(sent, 5);
    ASSERT_LT(sent, static_cast<int>(5 + second.size()));
    const std::string received = receive(pair.server, static_cast<std::size_t>(sent));
    EXPECT_EQ("first" + std::string(static_cast<std::size_t>(sent) - 5, '2'), received);
}

TEST(SslStream, WriteVOfAFullConnectionIsToBeTriedAgain) {
    STlsPair pair;
    fill(pair.client);
    std::string text(16'384, 'f');
    const iovec element{16'384, text.data()};
    EXPECT_EQ(0, pair.client.WriteV(&element, 1));
}

TEST(SslStream, WriteVFailsWithItsElement) {
    STlsPair pair;
    std::string text = "text";
    const iovec list[] = {{4, text.data()}, {4, nullptr}};
    const CLogCapture log;
    EXPECT_EQ(-1, pair.client.WriteV(list, 2));
    EXPECT_EQ(1, log.count(LEVEL_ERROR, "Send : send failed! buf["));
    EXPECT_EQ("text", receive(pair.server, 4));
}

TEST(SslStream, ACloseNotificationReadsAsAnEnd) {
    STlsServer listener;
    CSslStream server;
    auto client = std::make_unique<CSslStream>();
    ASSERT_TRUE(listener.serve(server, *client));
    client.reset();
    const CLogCapture log;
    EXPECT_EQ(-1, receiveEnd(server));
    EXPECT_EQ(SSL_RECEIVED_SHUTDOWN, SSL_get_shutdown(TestSupport::sslOf(server)));
    const std::string head = "SSL_peek error! fd:" + handleText(server) + ", len:4096, ";
    EXPECT_EQ(1, log.count(LEVEL_WARNING, head + "SSL_get_error=6, errno:0,"));
    EXPECT_EQ(1, log.count(LEVEL_WARNING, head + "ERR_get_error=0, errno:0,"));
    EXPECT_EQ(2U, log.lines().size());
}

TEST(SslStream, AnEndNeverReadsAsTryAgain) {
    STlsServer listener;
    CSslStream server;
    auto client = std::make_unique<CSslStream>();
    ASSERT_TRUE(listener.serve(server, *client));
    char byte = 0;
    EXPECT_EQ(0, server.Recv(&byte, 1));  // leaves "try again" as the thread's socket error
    client.reset();
    const CLogCapture log;
    EXPECT_EQ(-1, receiveEnd(server));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(-1, server.Recv(&byte, 1));
    EXPECT_EQ(-1, server.Peek());
}

TEST(SslStream, AnEndWithoutNotificationReadsAsAFailure) {
    SRawPair pair;
    pair.server.stream().Close();
    const CLogCapture log;
    EXPECT_EQ(-1, receiveEnd(pair.client));
    const std::string head = "SSL_peek error! fd:" + handleText(pair.client) + ", len:4096, ";
    EXPECT_EQ(1, log.count(LEVEL_WARNING, head + "SSL_get_error=1, errno:0,"));
    EXPECT_EQ(
        1, log.count(LEVEL_WARNING, head + "ERR_error_string:error:0A000126:SSL routines::unexpected eof"));
    EXPECT_EQ(1, log.count(LEVEL_WARNING, head + "ERR_get_error=0, errno:0,"));
}

TEST(SslStream, PeekLogsAnEndWithItsOwnTexts) {
    SRawPair pair;
    pair.server.stream().Close();
    ASSERT_TRUE(waitReadable(pair.client));
    const CLogCapture log;
    EXPECT_EQ(-1, pair.client.Peek());
    const std::string head = "SSL_peek error! fd:" + handleText(pair.client) + ", ";
    EXPECT_EQ(1, log.count(LEVEL_WARNING, head + "SSL_get_error:1, errno:0,"));
    EXPECT_EQ(1, log.count(LEVEL_WARNING, head + "ERR_error_string:error:0A000126:"));
    EXPECT_EQ(1, log.count(LEVEL_WARNING, head + "ERR_get_error:0, errno:0,"));
}

TEST(SslStream, GarbageInsteadOfARecordIsAFailure) {
    SRawPair pair;
    EXPECT_EQ(20, pair.server.stream().Send("GET / HTTP/1.1\r\n\r\nxy", 20));
    const CLogCapture log;
    EXPECT_EQ(-1, receiveEnd(pair.client));
    EXPECT_EQ(1, log.count(LEVEL_WARNING, "SSL_get_error=1, errno:"));
    EXPECT_EQ(1, log.count(LEVEL_WARNING, "ERR_error_string:error:0A"));
    char byte = 0;
    EXPECT_EQ(-1, pair.client.Recv(&byte, 1));
}

TEST(SslStream, GarbageIsAFailureEvenWhenTheAlertAboutItFindsNoRoom) {
    SRawPair pair;
    const std::string block(16'384, 'f');
    // Full to the last byte, so that the alert must wait.
    while (pair.client.Send(block.data(), 16'384) > 0) {
    }
    EXPECT_EQ(20, pair.server.stream().Send("GET / HTTP/1.1\r\n\r\nxy", 20));
    const CLogCapture log;
    EXPECT_EQ(-1, receiveEnd(pair.client));
}

TEST(SslStream, AChangedRecordIsAFailure) {
    SRawPair pair;
    BIO* memory = BIO_new(BIO_s_mem());
    SSL_set0_wbio(pair.server.ssl(), memory);
    ASSERT_EQ(5, pair.server.write("hello"));
    char record[200];
    const int length = BIO_read(memory, record, sizeof(record));
    record[length - 1] ^= 1;
    EXPECT_EQ(length, pair.server.stream().Send(record, static_cast<unsigned>(length)));
    const CLogCapture log;
    EXPECT_EQ(-1, receiveEnd(pair.client));
    EXPECT_EQ(1, log.count(LEVEL_WARNING, "bad record mac"));
}

TEST(SslStream, AResetIsAFailureWithTheSocketsError) {
    SRawPair pair;
    TestSupport::reset(pair.server.stream());
    const CLogCapture log;
    EXPECT_EQ(-1, receiveEnd(pair.client));
    EXPECT_EQ(SocketApi::resetError(), SocketApi::lastError());
    // OpenSSL's verdict differs: where the system reports an end first, it is the alert that meets the reset.
    EXPECT_GE(log.count(LEVEL_WARNING, "errno:" + std::to_string(SocketApi::resetError()) + ","), 2);
}

TEST(SslStream, AReadThatFailsAfterItsPeekIsLoggedWithItsOwnTexts) {
    STlsPair pair;
    sendText(pair.client, "hello");
    ASSERT_TRUE(waitReadable(pair.server));
    const CLogCapture log;
    char text[10];
    {
        using TestSupport::CScriptedCall;
        const CScriptedCall failing(CScriptedCall::EFunction::SSL_READ, -1);
        EXPECT_EQ(-1, pair.server.Recv(text, sizeof(text)));
        EXPECT_EQ(1, failing.count());
    }
    const std::string head = "SSL_read error! fd:" + handleText(pair.server) + ", len:10, ";
    EXPECT_EQ(1, log.count(LEVEL_WARNING, head + "SSL_get_error:1, errno:0,"));
    EXPECT_EQ(1, log.count(LEVEL_WARNING, head + "ERR_error_string:error:0A0C0103:"));
    EXPECT_EQ(1, log.count(LEVEL_WARNING, head + "ERR_get_error:0, errno:0,"));
    EXPECT_EQ(3U, log.lines().size());
    EXPECT_EQ("hello", receive(pair.server, 5)) << "nothing was taken";
}

TEST(SslStream, SendToAPeerThatIsGoneFailsWithoutASignal) {
    SRawPair pair;
    TestSupport::watchPipeSignal();
    TestSupport::reset(pair.server.stream());
    ASSERT_TRUE(waitReadable(pair.client));
    const CLogCapture log;
    // The first failure may have reported the reset; from now on the pipe is broken.
    EXPECT_EQ(-1, sendText(pair.client, "x"));
    EXPECT_EQ(-1, sendText(pair.client, "x"));
    const std::string head = "SSL_write error! fd:" + handleText(pair.client) + ", len:1, ";
    EXPECT_EQ(2, log.count(LEVEL_WARNING, head + "SSL_get_error="));
    EXPECT_EQ(2, log.count(LEVEL_WARNING, head + "ERR_get_error=0, errno:"));
    EXPECT_EQ(0, TestSupport::pipeSignalCount());
}

TEST(SslStream, TheDestructorOfABrokenConnectionRaisesNoSignal) {
    STlsServer listener;
    CSslStream server;
    auto client = std::make_unique<CSslStream>();
    ASSERT_TRUE(listener.serve(server, *client));
    TestSupport::watchPipeSignal();
    CSockStream gone;
    gone.Attach(server.Detach());
    TestSupport::reset(gone);
    ASSERT_TRUE(waitReadable(*client));
    client.reset();
    EXPECT_EQ(0, TestSupport::pipeSignalCount());
}

TEST(SslStream, AClosedSocketIsNotUsedAgain) {
    STlsPair pair;
    const int fd = pair.client.GetHandle();
    EXPECT_EQ(0, pair.client.Close());
    TestSupport::SSocketPair other;
    CSockStream successor;
    TestSupport::moveTo(other.client, fd, successor);
    const CLogCapture log;
    char byte = 0;
    EXPECT_EQ(-1, sendText(pair.client, "secret"));
    EXPECT_EQ(-1, pair.client.Recv(&byte, 1));
    EXPECT_EQ(0, successor.Recv(&byte, 1));
    EXPECT_EQ(0, other.server.Recv(&byte, 1));
}

TEST(SslStream, TheDestructorWritesToNoSocketButItsOwn) {
    STlsServer listener;
    CSslStream server;
    auto client = std::make_unique<CSslStream>();
    ASSERT_TRUE(listener.serve(server, *client));
    const int fd = client->GetHandle();
    client->Close();
    TestSupport::SSocketPair other;
    CSockStream successor;
    TestSupport::moveTo(other.client, fd, successor);
    client.reset();
    char byte = 0;
    EXPECT_EQ(0, other.server.Recv(&byte, 1));
}

TEST(SslStream, TheDestructorWaitsForNobodyEvenIfTheSocketBlocks) {
    STlsServer listener;
    CSslStream server;
    auto client = std::make_unique<CSslStream>();
    ASSERT_TRUE(listener.serve(server, *client));
    fill(*client);
    client->SetBlockOpt(true);
    const std::uint64_t start_ms = Plinth::CTime::getCurrentMilliSecond();
    client.reset();
    EXPECT_LT(Plinth::CTime::getCurrentMilliSecond() - start_ms, 5000U);
}

TEST(SslStream, AfterSetBlockOptRecvWaits) {
    STlsPair pair;
    pair.server.SetBlockOpt(true);
    TestSupport::CRunner runner([&pair] {
        Plinth::sleepMilliSecond(50);
        sendText(pair.client, "late");
    });
    char text[10];
    EXPECT_EQ(4, pair.server.Recv(text, sizeof(text)));
}

TEST(SslStream, ErrorsOfOtherConnectionsAreNotTakenForOwnOnes) {
    STlsPair pair;
    ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH);
    char byte = 0;
    EXPECT_EQ(0, pair.client.Recv(&byte, 1));
    ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH);
    EXPECT_EQ(0, pair.client.Peek());
    ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH);
    EXPECT_EQ(1, sendText(pair.client, "x"));
    EXPECT_EQ(0UL, ERR_peek_error());
}

TEST(SslStream, KeyUpdatesAreNoData) {
    SRawPair pair;
    ASSERT_EQ(1, SSL_key_update(pair.server.ssl(), SSL_KEY_UPDATE_REQUESTED));
    ASSERT_EQ(5, pair.server.write("after"));
    EXPECT_EQ("after", receive(pair.client, 5));
    EXPECT_EQ(4, sendText(pair.client, "back"));
    EXPECT_EQ("back", pair.server.read(4));
}

TEST(SslStream, GetPeerCertGivesThePeersCertificate) {
    STlsPair pair;
    CSslX509 shown;
    EXPECT_EQ(0, pair.client.GetPeerCert(&shown));
    CertSubjectMsg subject;
    EXPECT_GT(shown.GetCertSubjectMsg(&subject), 0);
    EXPECT_STREQ("server", subject.common_name);
}

TEST(SslStream, GetPeerCertOfAPeerWithoutOneIsMinusTwo) {
    STlsPair pair;
    CSslX509 shown;
    EXPECT_EQ(-2, pair.server.GetPeerCert(&shown));
}

TEST(SslStream, GetPeerCertNeedsAConnectionAndAnObject) {
    CSslX509 shown;
    CSslStream unconnected;
    EXPECT_EQ(-1, unconnected.GetPeerCert(&shown));
    STlsPair pair;
    EXPECT_EQ(-1, pair.client.GetPeerCert(nullptr));
}

}  // namespace
}  // namespace Veltro::Ravelo
