// DTLS over paths that lose, double, reorder and add datagrams, and with peers that fall silent.
#include <algorithm>
#include <memory>
#include <random>

#include "Support/DtlsPeers.h"
#include "Support/DtlsRelay.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CDtlsRelay;
using TestSupport::CLogCapture;
using TestSupport::CQuickDtls;
using TestSupport::CRunner;
using TestSupport::negotiate;
using TestSupport::receiveRecord;
using TestSupport::SDtlsServer;
using TestSupport::sendText;

/// Says something until the answer comes: the peer may have been in his handshake still.
bool hasEcho(CSslDgram& client, const std::string& text) {
    for (int i = 0; i < 200; ++i) {
        sendText(client, text);
        for (int tries = 0; tries < 5; ++tries) {
            char answer[64];
            const int length = client.Recv(answer, sizeof(answer));
            if (length > 0) return text == std::string(answer, static_cast<std::size_t>(length));
            if (length < 0) return false;
            unsigned ready = 0;
            SocketApi::waitOne(client.GetHandle(), SocketApi::WAIT_READ, 10'000, &ready);
        }
    }
    return false;
}

/// A client and a server that meet over a path.
struct SMeeting {
    SDtlsServer server;
    std::unique_ptr<CSslDgram> client = std::make_unique<CSslDgram>();
    int accepted = -2;
    int connected = -2;
    bool has_echo = false;

    explicit SMeeting(const std::string& server_name = "server") : server(server_name) {}

    /// Negotiates, gets an echo if that went well, and ends; the log may hold what that brings.
    void meet(const CDtlsRelay::TFate& fate) {
        const CDtlsRelay relay(server.address, [&](const std::string& datagram, bool is_from_client) {
            longest = std::max(longest, datagram.size());
            return fate(datagram, is_from_client);
        });
        CRunner runner([this] {
            accepted = server.dgram.AcceptX(nullptr);
            if (accepted == 0) TestSupport::echoUntilClosed(server.dgram);
        });
        connected = client->Connect(&relay.address(), nullptr);
        if (connected == 0) has_echo = hasEcho(*client, "hello");
        client.reset();
        runner.join();
        from_client = relay.count(true);
        from_server = relay.count(false);
    }
    bool isGood() const { return accepted == 0 && connected == 0 && has_echo; }

    int from_client = 0;  ///< datagrams
    int from_server = 0;
    std::size_t longest = 0;  ///< bytes of one
};

std::vector<std::string> asItIs(const std::string& datagram, bool) {
    if (datagram.empty()) return {};
    return {datagram};
}

std::string logText(const CLogCapture& log) {
    std::string text;
    for (const CLogCapture::SLine& line : log.lines()) text += "\n" + line.text;
    return text;
}

/// Lets a client's first datagrams pass, cut at the bounds of records, and then nothing of anybody.
CDtlsRelay::TFate fallSilentAfter(int records) {
    return [left = records](const std::string& datagram, bool is_from_client) mutable {
        if (!is_from_client) return left > 0 ? asItIs(datagram, false) : std::vector<std::string>{};
        std::vector<std::string> sent;
        for (std::size_t at = 0; at + 13 <= datagram.size() && left > 0; --left) {
            const auto high = static_cast<unsigned char>(datagram[at + 11]);
            const auto low = static_cast<unsigned char>(datagram[at + 12]);
            const std::size_t length = 13U + high * 256U + low;
            sent.push_back(datagram.substr(at, length));
            at += length;
        }
        return sent;
    };
}

/// Handshakes over paths of different seeds, each with certificates on both sides.
void meetOverBadPaths(unsigned first_seed, unsigned meetings, int session_type, unsigned* resumed) {
    for (unsigned seed = first_seed; seed < first_seed + meetings; ++seed) {
        const CLogCapture log;
        SMeeting meeting;
        TestSupport::setDtlsCertificate(meeting.server.dgram, "server", "root_ca");
        TestSupport::setDtlsCertificate(*meeting.client, "client", "root_ca");
        TestSupport::setDtlsSessions(meeting.server.dgram, session_type);
        TestSupport::setDtlsSessions(*meeting.client, session_type, 1);  // every server has its own port
        meeting.meet(TestSupport::CBadPath(seed, 50));
        EXPECT_TRUE(meeting.isGood())
            << "seed " << seed << ": accepted " << meeting.accepted << ", connected " << meeting.connected
            << ", echo " << meeting.has_echo << logText(log);
        if (TestSupport::hasResumed(meeting.server.dgram)) ++*resumed;
    }
}

TEST(SslDgramLoss, FullHandshakesOverABadPathAllEndWell) {
    const CQuickDtls quick;
    unsigned resumed = 0;
    meetOverBadPaths(1000, 50, 0, &resumed);
    EXPECT_EQ(0U, resumed);
}

TEST(SslDgramLoss, ResumingHandshakesOverABadPathAllEndWell) {
    const CQuickDtls quick;
    ASSERT_EQ(0, CSslDgram::Init());
    unsigned resumed = 0;
    meetOverBadPaths(2000, 25, SslSessionId, &resumed);
    EXPECT_EQ(24U, resumed);
    meetOverBadPaths(3000, 25, SslSessionTicket, &resumed);
    EXPECT_EQ(48U, resumed);
}

TEST(SslDgramLoss, ALostLastFlightIsAnsweredOutOfRecv) {
    const CQuickDtls quick;
    const CLogCapture unheard;
    CSslDgram::s_cli_sess_cache_id.Remove("127.0.0.1:-1");  // of another test in the same process
    for (const int type : {0, static_cast<int>(SslSessionId)}) {
        for (int i = 0; i < 2; ++i) {  // the second one resumes, and its last flight is the client's
            SMeeting meeting;
            TestSupport::setDtlsSessions(meeting.server.dgram, type);
            TestSupport::setDtlsSessions(*meeting.client, type, 1);
            const bool by_client = type != 0 && i == 1;
            int lost = 0;
            meeting.meet([by_client, &lost](const std::string& datagram, bool is_from_client) {
                // Both flights hold a change of cipher.
                const bool is_last = is_from_client == by_client && datagram.find("\x14\xfe\xfd") == 0;
                if (is_last && lost++ < 2) return std::vector<std::string>{};
                return asItIs(datagram, is_from_client);
            });
            EXPECT_TRUE(meeting.isGood()) << type << " " << i;
            EXPECT_EQ(by_client, TestSupport::hasResumed(meeting.server.dgram));
        }
    }
}

/// Surrounds each datagram with others that are none of DTLS.
std::vector<std::string> withGarbage(const std::string& datagram, std::mt19937* random) {
    if (datagram.empty()) return {};
    std::vector<std::string> sent;
    for (int i = 0; i < 4; ++i) {
        std::string garbage((*random)() % 1400, '\0');
        for (char& c : garbage) c = static_cast<char>((*random)());
        sent.push_back(garbage);
    }
    sent.insert(sent.begin(), "");
    sent.push_back(std::string(13, '\x16'));
    sent.push_back("");
    // A record of a kind and version that count, whose length does not.
    sent.push_back(std::string("\x17\xfe\xfd\x00\x01\x00\x00\x00\x00\x00\x07\xff\xff\x00", 14));
    sent.push_back(datagram);
    sent.push_back("x");
    return sent;
}

TEST(SslDgramLoss, GarbageOfThePeersAddressCostsNothing) {
    const CQuickDtls quick;
    for (unsigned seed = 0; seed < 10; ++seed) {
        auto random = std::make_shared<std::mt19937>(seed);
        SMeeting meeting;
        const CLogCapture log;
        meeting.meet(
            [random](const std::string& datagram, bool) { return withGarbage(datagram, random.get()); });
        EXPECT_TRUE(meeting.isGood()) << seed;
        EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, "ssl peek error!"));  // the client's end
        EXPECT_EQ(1U, log.lines().size());
    }
}

TEST(SslDgramLoss, StrangersAreNeitherHeardNorAnswered) {
    const CQuickDtls quick;
    SDtlsServer server;
    CSslDgram client;
    TestSupport::SReceiver stranger;
    const auto disturb = [&] {
        sockaddr_in6 system{};
        auto* address = reinterpret_cast<sockaddr*>(&system);
        server.address.GetAddr(address);
        for (const std::string& text : {std::string(), std::string("garbage"), std::string(1400, '\x16')}) {
            SocketApi::sendTo(stranger.socket.GetHandle(), text.data(), static_cast<unsigned>(text.size()),
                              address, server.address.GetAddrLen());
        }
    };
    disturb();  // before any client has come
    CDtlsRelay relay(server.address, [&](const std::string& datagram, bool is_from_client) {
        if (!datagram.empty()) disturb();
        return asItIs(datagram, is_from_client);
    });
    const CLogCapture log;
    ASSERT_TRUE(negotiate(server, client, &relay.address()).areGood());
    disturb();
    char byte = 0;
    EXPECT_EQ(0, server.dgram.Recv(&byte, 1));
    EXPECT_EQ(6, sendText(server.dgram, "secret"));
    EXPECT_EQ("secret", receiveRecord(client));
    EXPECT_TRUE(log.lines().empty());
    char none = 0;
    EXPECT_EQ(0, stranger.socket.Recv(&none, 1));
}

TEST(SslDgramLoss, AnotherClientsHelloDoesNotDisturbTheFirstOnes) {
    const CQuickDtls quick;
    SDtlsServer server;
    CSslDgram client;
    TestSupport::SReceiver stranger;
    bool is_first = true;
    const CDtlsRelay relay(server.address, [&](const std::string& datagram, bool is_from_client) {
        // The first one passes alone; when the server answers it, the stranger says what the client says.
        if (!is_first && is_from_client && !datagram.empty())
            TestSupport::sendText(stranger.socket, datagram, &server.address);
        if (!datagram.empty()) is_first = false;
        return asItIs(datagram, is_from_client);
    });
    ASSERT_TRUE(negotiate(server, client, &relay.address()).areGood());
    sendText(client, "x");
    EXPECT_EQ("x", receiveRecord(server.dgram));
    char none = 0;
    EXPECT_EQ(0, stranger.socket.Recv(&none, 1));
}

TEST(SslDgramLoss, AServerOfOneRemoteHearsNobodyElse) {
    // The stranger gives up before the server does: where a closed port is not reported, he repeats himself.
    const CQuickDtls quick(20'000, 20'000'000);
    SDtlsServer server;
    TestSupport::SReceiver only;
    CSslDgram stranger;
    int accepted = -2;
    const CLogCapture log;
    {
        CRunner runner([&] { accepted = server.dgram.AcceptX(&only.address); });
        EXPECT_EQ(-1, stranger.Connect(&server.address, nullptr));
        // The right one ends the wait, with something that is no handshake.
        const std::string alert("\x15\xfe\xfd\0\0\0\0\0\0\0\0\0\2\2\x28", 15);
        TestSupport::sendText(only.socket, alert, &server.address);
    }
    EXPECT_EQ(-1, accepted);
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, "SSL_accept error:1  ret:-1, fd["));
}

TEST(SslDgramLoss, AClientGivesUpOnASilentServerAfterTwelveRepetitions) {
    const CQuickDtls impatient(20'000);
    TestSupport::SReceiver silent;
    CSslDgram client;
    const std::string tid = std::to_string(Plinth::getCurrentThreadId());
    const CLogCapture log;
    EXPECT_EQ(-1, client.Connect(&silent.address, nullptr));
    EXPECT_EQ(-1, client.GetHandle());
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, "SSL_connect error:1, ret: -1, errno:0, "));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, " tid:" + tid + ", error\n"));  // OpenSSL's state
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, "read timeout expired\n"));
    EXPECT_EQ(3U, log.lines().size());
    int hellos = 0;
    char bytes[2048];
    while (silent.socket.Recv(bytes, sizeof(bytes)) > 0) ++hellos;
    EXPECT_EQ(13, hellos);
}

TEST(SslDgramLoss, AClientThatFallsSilentCostsItsTimeAndTheNextOneIsServed) {
    // Its messages: hello; certificate, key exchange, proof, change of cipher, and the end, which is not
    // sent.
    for (int records = 1; records <= 5; ++records) {
        SMeeting meeting;
        TestSupport::setDtlsCertificate(meeting.server.dgram, "server", "root_ca");
        TestSupport::setDtlsCertificate(*meeting.client, "client", "root_ca");
        {
            const CQuickDtls impatient(20'000);
            const CLogCapture log;
            meeting.meet(fallSilentAfter(records));
            EXPECT_EQ(-1, meeting.accepted) << records;
            EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, "SSL_accept error:1  ret:-1, fd["));
            EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, "SSL_connect error:1, ret: -1, "));
            EXPECT_EQ(-1, meeting.server.dgram.GetHandle());
        }
        CSslDgram next;
        TestSupport::setDtlsCertificate(next, "client", "root_ca");
        ASSERT_EQ(0, meeting.server.dgram.Open(&meeting.server.address, false));
        EXPECT_TRUE(negotiate(meeting.server, next).areGood());
    }
}

TEST(SslDgramLoss, AServerWhoseClientHasGoneEndsAtOnceOnLinux) {
    if (TestSupport::isWindows()) GTEST_SKIP() << "on Windows a closed port is never reported";
    const CQuickDtls impatient(20'000);
    TestSupport::SReceiver gone;
    std::string hello;
    {
        CSslDgram client;
        CRunner runner([&] {
            const CLogCapture unheard;
            client.Connect(&gone.address, nullptr);
        });
        hello = TestSupport::receiveDatagram(gone.socket);
    }
    SDtlsServer server;
    ASSERT_LT(0, TestSupport::sendText(gone.socket, hello, &server.address));
    gone.socket.Close();
    const CLogCapture log;
    EXPECT_EQ(-1, server.dgram.AcceptX(nullptr));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, "SSL_accept error:5  ret:-1, fd["));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, ", errno:111, "));
}

TEST(SslDgramLoss, AServerThatIsNotThereEndsItsClientAtOnceOnLinux) {
    const CQuickDtls quick;
    if (TestSupport::isWindows()) GTEST_SKIP() << "on Windows a closed port is never reported";
    const CSockAddrIPv4 nobody("127.0.0.1", TestSupport::freeDatagramPort());
    CSslDgram client;
    const CLogCapture log;
    EXPECT_EQ(-1, client.Connect(&nobody, nullptr));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, "SSL_connect error:5, ret: -1, errno:111, "));
    EXPECT_EQ(3U, log.lines().size());
}

TEST(SslDgramTimer, TheFirstRepetitionComesAfterASecond) {
    TestSupport::SReceiver silent;
    CSslDgram client;
    const CLogCapture unheard;
    CRunner runner([&] { client.Connect(&silent.address, nullptr); });
    CSockAddrIPv4 sender;
    TestSupport::receiveDatagram(silent.socket, &sender);
    const std::uint64_t start_us = Plinth::CTime::getCurrentMicroSecond();
    TestSupport::receiveDatagram(silent.socket, &sender);
    EXPECT_LE(900'000U, Plinth::CTime::getCurrentMicroSecond() - start_us);
    const std::string alert("\x15\xfe\xfd\0\0\0\0\0\0\0\0\0\2\2\x28", 15);
    TestSupport::sendText(silent.socket, alert, &sender);
}

TEST(SslDgramTimer, ALongCertificateChainNeedsNoRepetition) {
    SMeeting meeting;
    CSslX509* x509 = TestSupport::dtlsCertificate("server");
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(0, x509->SetCA(TestSupport::certificate("intermediate_1.pem").c_str()));
    EXPECT_EQ(0, meeting.server.dgram.SetOption(SslOptCert, SslCertOwn, x509));
    const CLogCapture unheard;
    meeting.meet(asItIs);
    EXPECT_TRUE(meeting.isGood());
    EXPECT_LE(10, meeting.from_server);  // above 10 KB
    EXPECT_GE(40, meeting.from_server);  // some systems do not tell what the path carries
    EXPECT_LE(meeting.longest, 1472U);
}

TEST(SslDgramTimer, NoHandshakeDatagramIsLongerThanEthernetCarries) {
    SMeeting meeting;
    // Both flights with certificates are longer than one datagram.
    TestSupport::setDtlsCertificate(meeting.server.dgram, "server", "root_ca");
    TestSupport::setDtlsCertificate(*meeting.client, "client", "root_ca");
    const CLogCapture unheard;
    meeting.meet(asItIs);
    EXPECT_TRUE(meeting.isGood());
    EXPECT_LE(450U, meeting.longest);
    EXPECT_LE(meeting.longest, 1472U);
}

}  // namespace
}  // namespace Veltro::Ravelo
