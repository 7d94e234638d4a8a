#include <memory>
#include <random>

#include "Socket/MadeCertificate.h"
#include "Support/Datagrams.h"
#include "Support/DtlsPeers.h"
#include "Support/ScriptedCall.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::receiveRecord;
using TestSupport::recordOf;
using TestSupport::SDtlsPair;
using TestSupport::SDtlsServer;
using TestSupport::sendText;

constexpr unsigned LONGEST_RECORD_BYTES = 16'384;

std::string randomText(unsigned seed, std::size_t length_bytes) {
    std::mt19937 random(seed);
    std::string text(length_bytes, '\0');
    for (char& c : text) c = static_cast<char>(random());
    return text;
}

std::string pointerText(const void* pointer) {
    char text[32];
    std::snprintf(text, sizeof(text), "%p", pointer);
    return text;
}

TEST(SslDgram, StartsWithoutASocket) {
    CSslDgram dgram;
    EXPECT_EQ(-1, dgram.GetHandle());
    EXPECT_EQ(static_cast<unsigned>(SOCK_TYPE_DGRAM), dgram.GetType());
    const SSslDgramRecord& record = recordOf(dgram);
    EXPECT_EQ(nullptr, record.m_ssl);
    EXPECT_EQ(nullptr, record.m_ctx);
    EXPECT_EQ(nullptr, record.m_dgram);
    EXPECT_EQ(nullptr, record.m_x509);
    EXPECT_EQ(nullptr, record.m_cipher_list);
    EXPECT_EQ(0, record.m_session_type | record.m_session_option | record.m_cert_type | record.m_cipher_type);
    EXPECT_FALSE(record.m_session_reused);
}

TEST(SslDgram, InitSucceedsAgainAndAgain) {
    EXPECT_EQ(0, CSslDgram::Init());
    EXPECT_EQ(0, CSslDgram::Init());
}

TEST(SslDgram, UnknownOptionsAreLoggedAndTaken) {
    CSslDgram dgram;
    for (const int option : {-1, static_cast<int>(SslOptProtocolBan), static_cast<int>(SslOptTimeout),
                             static_cast<int>(SslOptKeyPasswd), static_cast<int>(SslOptServerName), 7}) {
        const CLogCapture log;
        EXPECT_EQ(0, dgram.SetOption(option, 5, nullptr));
        EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR,
                               "SetOption : Unknown Option " + std::to_string(option) + " Type 5 !\n"));
        EXPECT_EQ(1U, log.lines().size());
    }
}

TEST(SslDgram, TheSessionOptionTakesItsValueWhateverTheType) {
    CSslDgram dgram;
    int value = 7;
    EXPECT_EQ(0, dgram.SetOption(SslOptSession, 0, &value));
    EXPECT_EQ(0, recordOf(dgram).m_session_type);
    EXPECT_EQ(7, recordOf(dgram).m_session_option);
    EXPECT_EQ(0, dgram.SetOption(SslOptSession, SslSessionTicket, nullptr));
    EXPECT_EQ(SslSessionTicket, recordOf(dgram).m_session_type);
    EXPECT_EQ(0, recordOf(dgram).m_session_option);
}

TEST(SslDgram, ASecondCertificateObjectTakesTheFirstOnesPlace) {
    int destroyed = 0;
    CSslDgram dgram;
    auto* second = new CSslX509;
    EXPECT_EQ(0, dgram.SetOption(SslOptCert, SslCertOwn, makeCounted(&destroyed)));
    EXPECT_EQ(0, dgram.SetOption(SslOptCert, SslCertVerifyPeer, second));
    EXPECT_EQ(1, destroyed);
    EXPECT_EQ(second, recordOf(dgram).m_x509.get());
    EXPECT_EQ(0, dgram.SetOption(SslOptCert, SslCertOwn, second));
    EXPECT_EQ(second, recordOf(dgram).m_x509.get());
    EXPECT_EQ(SslCertOwn, recordOf(dgram).m_cert_type);
}

TEST(SslDgram, OnlyCipherListsOfTypeOneAreKept) {
    CSslDgram dgram;
    char list[] = "DEFAULT";
    EXPECT_EQ(0, dgram.SetOption(SslOptCipherList, 2, list));
    EXPECT_EQ(nullptr, recordOf(dgram).m_cipher_list);
    EXPECT_EQ(0, dgram.SetOption(SslOptCipherList, 1, list));
    EXPECT_EQ(list, recordOf(dgram).m_cipher_list);
    EXPECT_EQ(1, recordOf(dgram).m_cipher_type);
}

TEST(SslDgram, OpenBindsASocketThatTheObjectShows) {
    const SDtlsServer server;
    EXPECT_NE(0, server.address.GetPort());
    CSslDgram dgram;
    const CSockAddrIPv4 any("127.0.0.1", 0);
    ASSERT_EQ(0, dgram.Open(&any, false));
    EXPECT_EQ(recordOf(dgram).m_dgram->GetHandle(), dgram.GetHandle());
}

TEST(SslDgram, OpenTwiceFailsTheSecondTime) {
    SDtlsServer server;
    const int fd = server.dgram.GetHandle();
    const CLogCapture log;
    EXPECT_EQ(-1, server.dgram.Open(&server.address, true));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, "DTLS connection had been build, open failed!\n"));
    EXPECT_EQ(1U, log.lines().size());
    EXPECT_EQ(fd, server.dgram.GetHandle());
}

TEST(SslDgram, OpenThatFailsLeavesTheObjectToBeOpenedAgain) {
    SDtlsServer taken;
    CSslDgram dgram;
    {
        const CLogCapture log;
        EXPECT_EQ(-1, dgram.Open(&taken.address, false));
        EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, "Open : bind failed! port["));
    }
    EXPECT_EQ(-1, dgram.GetHandle());
    EXPECT_EQ(nullptr, recordOf(dgram).m_dgram);
    const CSockAddrIPv4 any("127.0.0.1", 0);
    EXPECT_EQ(0, dgram.Open(&any, false));
}

TEST(SslDgram, ReuseWithoutAnAddressFails) {
    const CLogCapture log;
    CSslDgram dgram;
    EXPECT_EQ(-1, dgram.Open(nullptr, true));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, "open failed!Invalid parameter: reuseaddr:1"));
    EXPECT_EQ(nullptr, recordOf(dgram).m_dgram);
}

TEST(SslDgram, WithReuseTwoSocketsShareAPort) {
    CSslDgram first;
    CSslDgram second;
    const CSockAddrIPv4 address("127.0.0.1", TestSupport::freeDatagramPort());
    EXPECT_EQ(0, first.Open(&address, true));
    EXPECT_EQ(0, second.Open(&address, true));
}

TEST(SslDgram, TextsPassBothWays) {
    SDtlsPair pair;
    EXPECT_EQ(5, sendText(pair.client, "hello"));
    EXPECT_EQ("hello", receiveRecord(pair.server.dgram));
    EXPECT_EQ(7, sendText(pair.server.dgram, "goodbye"));
    EXPECT_EQ("goodbye", receiveRecord(pair.client));
}

TEST(SslDgram, RecordsKeepTheirBounds) {
    SDtlsPair pair;
    for (const char* text : {"one", "two", "three"}) sendText(pair.client, text);
    for (const char* text : {"one", "two", "three"}) EXPECT_EQ(text, receiveRecord(pair.server.dgram));
}

TEST(SslDgram, RecordsOfEverySizeUpToTheLongestPassBothWays) {
    SDtlsPair pair;
    for (const std::size_t length : {1U, 2U, 255U, 1200U, 1371U, 1472U, 1473U, 9000U, 16'383U, 16'384U}) {
        const std::string text = randomText(static_cast<unsigned>(length), length);
        EXPECT_EQ(static_cast<int>(length), sendText(pair.client, text));
        EXPECT_EQ(text, receiveRecord(pair.server.dgram));
        EXPECT_EQ(static_cast<int>(length), sendText(pair.server.dgram, text));
        EXPECT_EQ(text, receiveRecord(pair.client));
    }
}

TEST(SslDgram, ALongerRecordFailsAndHarmsNothing) {
    SDtlsPair pair;
    const std::string text(LONGEST_RECORD_BYTES + 1, 'x');
    {
        const CLogCapture log;
        EXPECT_EQ(-1, sendText(pair.client, text));
        EXPECT_EQ(2, log.count(Plinth::LOG_LEVEL_WARNING,
                               "Send : ssl send error!, fd[" + std::to_string(pair.client.GetHandle()) +
                                   "], buf:" + pointerText(text.data()) + ", len:16385, error:0, "));
        EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, ", SSL:1\n"));
        EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, "dtls message too big"));
        EXPECT_EQ(2U, log.lines().size());
    }
    EXPECT_EQ(2, sendText(pair.client, "ok"));
    EXPECT_EQ("ok", receiveRecord(pair.server.dgram));
}

TEST(SslDgram, ASmallBufferTakesARecordInPieces) {
    SDtlsPair pair;
    EXPECT_EQ(10, sendText(pair.client, "0123456789"));
    EXPECT_EQ(4, sendText(pair.client, "next"));
    std::string text;
    EXPECT_EQ(4, receiveRecord(pair.server.dgram, &text, 4));
    EXPECT_EQ("0123", text);
    EXPECT_EQ(4, receiveRecord(pair.server.dgram, &text, 4));
    EXPECT_EQ("4567", text);
    EXPECT_EQ(2, receiveRecord(pair.server.dgram, &text, 4));
    EXPECT_EQ("89", text);
    EXPECT_EQ("next", receiveRecord(pair.server.dgram));
}

TEST(SslDgram, RecvWithNothingToReceiveTriesAgain) {
    SDtlsPair pair;
    const CLogCapture log;
    char byte = 0;
    EXPECT_EQ(0, pair.client.Recv(&byte, 1));
    EXPECT_EQ(0, pair.server.dgram.Recv(&byte, 1));
    EXPECT_TRUE(log.lines().empty());
}

TEST(SslDgram, AfterTheHandshakeNeitherSideBlocks) {
    SDtlsPair pair;
    EXPECT_FALSE(pair.client.GetBlockOpt());
    EXPECT_FALSE(recordOf(pair.client).m_dgram->GetBlockOpt());
    EXPECT_FALSE(recordOf(pair.server.dgram).m_dgram->GetBlockOpt());
}

TEST(SslDgram, WhatTheReceiverHasNoRoomForIsLost) {
    SDtlsPair pair;
    for (int i = 0; i < 2000; ++i) {
        const std::string text = std::to_string(i) + std::string(1200, 'x');
        const int sent = sendText(pair.client, text);
        ASSERT_TRUE(sent == static_cast<int>(text.size()) || sent == 0) << sent;
    }
    EXPECT_EQ("0x", receiveRecord(pair.server.dgram).substr(0, 2));
    EXPECT_EQ("1x", receiveRecord(pair.server.dgram).substr(0, 2));
}

TEST(SslDgram, NullAndEmptyBuffersAreRefused) {
    SDtlsPair pair;
    char byte = 'x';
    const std::string fd = ", fd[" + std::to_string(pair.client.GetHandle()) + "]\n";
    const CLogCapture log;
    EXPECT_EQ(-1, pair.client.Send(nullptr, 3));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR,
                           "Send : send failed! buf[" + pointerText(nullptr) + "], len[3]" + fd));
    EXPECT_EQ(-1, pair.client.Send(&byte, 0));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR,
                           "Send : send failed! buf[" + pointerText(&byte) + "], len[0]" + fd));
    EXPECT_EQ(-1, pair.client.Recv(nullptr, 3));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR,
                           "Recv : recv failed! buf[" + pointerText(nullptr) + "], len[3]" + fd));
    EXPECT_EQ(-1, pair.client.Recv(&byte, 0));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR,
                           "Recv : recv failed! buf[" + pointerText(&byte) + "], len[0]" + fd));
    EXPECT_EQ(4U, log.lines().size());
}

TEST(SslDgram, SendAndRecvWithoutAConnectionFail) {
    CSslDgram dgram;
    char byte = 'x';
    const CLogCapture log;
    EXPECT_EQ(-1, dgram.Send(&byte, 1));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, "Send : ssl send error!, fd[-1], buf:"));
    EXPECT_EQ(-1, dgram.Recv(&byte, 1));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, "Recv : ssl peek error! fd[-1], buf:"));
    EXPECT_EQ(2U, log.lines().size());
}

TEST(SslDgram, AReadThatFailsAfterItsPeekIsLoggedWithItsOwnTexts) {
    SDtlsPair pair;
    sendText(pair.client, "hello");
    ASSERT_TRUE(TestSupport::waitReadable(pair.server.dgram));
    char bytes[10];
    const CLogCapture log;
    {
        using TestSupport::CScriptedCall;
        const CScriptedCall failing(CScriptedCall::EFunction::SSL_READ, -1);
        EXPECT_EQ(-1, pair.server.dgram.Recv(bytes, sizeof(bytes)));
        EXPECT_EQ(1, failing.count());
    }
    const std::string head = "Recv : ssl recv error! fd[" + std::to_string(pair.server.dgram.GetHandle()) +
                             "], buf:" + pointerText(bytes) + ", len:10, error:0, ";
    EXPECT_EQ(2, log.count(Plinth::LOG_LEVEL_WARNING, head));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, ", SSL:1\n"));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, ", SSL:error:0A0C0103:"));
    EXPECT_EQ(2U, log.lines().size());
    EXPECT_EQ("hello", receiveRecord(pair.server.dgram)) << "nothing was taken";
}

/// A connected client that a test can destroy.
struct SMortalClient {
    TestSupport::CQuickDtls quick;
    SDtlsServer server;
    std::unique_ptr<CSslDgram> client = std::make_unique<CSslDgram>();

    SMortalClient() { EXPECT_TRUE(TestSupport::negotiate(server, *client).areGood()); }
};

TEST(SslDgram, DestroyingSendsTheCloseNotification) {
    SMortalClient mortal;
    mortal.client.reset();
    const CLogCapture log;
    std::string text;
    EXPECT_EQ(-1, receiveRecord(mortal.server.dgram, &text));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING,
                           "Recv : ssl peek error! fd[" + std::to_string(mortal.server.dgram.GetHandle())));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, ", SSL:6\n"));  // closed by the peer
    EXPECT_EQ(1U, log.lines().size());
    EXPECT_EQ(-1, mortal.server.dgram.Recv(text.data(), 1));
}

TEST(SslDgram, ADestroyedServerNotifiesItsClient) {
    TestSupport::CQuickDtls quick;
    CSslDgram client;
    {
        SDtlsServer server;
        ASSERT_TRUE(TestSupport::negotiate(server, client).areGood());
    }
    const CLogCapture log;
    std::string text;
    EXPECT_EQ(-1, receiveRecord(client, &text));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, ", SSL:6\n"));
}

TEST(SslDgram, WhatWasSentBeforeTheEndIsReceivedBeforeTheFailure) {
    SMortalClient mortal;
    EXPECT_EQ(4, sendText(*mortal.client, "last"));
    mortal.client.reset();
    EXPECT_EQ("last", receiveRecord(mortal.server.dgram));
    const CLogCapture unheard;
    std::string text;
    EXPECT_EQ(-1, receiveRecord(mortal.server.dgram, &text));
}

TEST(SslDgram, CloseEndsTheConnectionWithoutANotification) {
    SMortalClient mortal;
    EXPECT_EQ(0, mortal.client->Close());
    const CLogCapture log;
    EXPECT_EQ(-1, sendText(*mortal.client, "x"));
    char byte = 0;
    EXPECT_EQ(-1, mortal.client->Recv(&byte, 1));
    mortal.client.reset();
    EXPECT_EQ(0, mortal.server.dgram.Recv(&byte, 1));
}

TEST(SslDgram, ASocketThatReusesTheClosedOnesNumberIsLeftAlone) {
    SMortalClient mortal;
    const int fd = mortal.client->GetHandle();
    EXPECT_EQ(0, mortal.client->Close());
    TestSupport::SReceiver newcomer;
    const bool is_reused = newcomer.socket.GetHandle() == fd;
    mortal.client.reset();
    CSockAddrIPv4 address;
    EXPECT_EQ(0, newcomer.socket.GetLocalAddr(&address));
    if (!is_reused) TestSupport::printSkip("the system did not give the number out again");
}

TEST(SslDgram, SendFailsOnceThePeersPortIsClosedOnLinux) {
    if (TestSupport::isWindows()) GTEST_SKIP() << "on Windows a closed port is never reported";
    SMortalClient mortal;
    EXPECT_EQ(0, mortal.client->Close());
    EXPECT_EQ(1, sendText(mortal.server.dgram, "x"));
    ASSERT_TRUE(TestSupport::waitReadable(mortal.server.dgram));
    const CLogCapture log;
    EXPECT_EQ(-1, sendText(mortal.server.dgram, "y"));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, ", len:1, error:111, "));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, ", SSL:5\n"));
    EXPECT_EQ(1, sendText(mortal.server.dgram, "z"));
}

TEST(SslDgram, AnErrorOfAnotherConnectionDoesNotEndThisOne) {
    SDtlsPair pair;
    char byte = 0;
    ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH);
    SocketApi::setLastError(SocketApi::resetError());
    EXPECT_EQ(0, pair.client.Recv(&byte, 1));
    ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH);
    EXPECT_EQ(1, sendText(pair.client, "x"));
}

}  // namespace
}  // namespace Veltro::Ravelo
