// Clients that mean no good to a TLS acceptor: each costs at most its time-out and one log line, and the next
// client is served.
#include <Plinth/Time.h>
#include <Ravelo/SslAcceptor.h>
#include <Ravelo/SslStream.h>
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Support/Load.h"
#include "Support/LogCapture.h"
#include "Support/ProcessSettings.h"
#include "Support/RawTls.h"
#include "Support/TlsPair.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::ownCertificate;
using TestSupport::STlsServer;

constexpr int LEVEL_ERROR = Plinth::LOG_LEVEL_ERROR;
constexpr int TIMEOUT_MS = 250;
/// What a time-out may take on a machine that is busy.
constexpr std::uint64_t LATEST_MS = 5000;

/// A server with a short time-out that tells what a rude client has cost.
struct SPatientServer : STlsServer {
    SPatientServer() { setTimeout(TIMEOUT_MS); }

    /// Accepts a client that has connected and is to fail.
    void refuse(const std::string& what) {
        CSslStream server;
        const CLogCapture log;
        const std::uint64_t start_ms = Plinth::CTime::getCurrentMilliSecond();
        EXPECT_EQ(-1, acceptor.Accept(server)) << what;
        EXPECT_LT(Plinth::CTime::getCurrentMilliSecond() - start_ms, LATEST_MS) << what;
        EXPECT_EQ(1, log.count(LEVEL_ERROR, "Accept : SSL_accept failed, fd[")) << what;
        EXPECT_EQ(1U, log.lines().size()) << what;
    }
    /// A good client that comes next.
    /// @param own its certificate, or null; becomes the client's.
    void serveOne(const std::string& after, CSslX509* own = nullptr) {
        CSslStream server;
        CSslStream client;
        if (own != nullptr) client.SetOption(SslOptCert, SslCertOwn, own);
        setTimeout(20'000);
        EXPECT_TRUE(serve(server, client)) << "after " << after;
        setTimeout(TIMEOUT_MS);
    }
};

/// Connects, sends bytes and then says nothing, or hangs up.
std::unique_ptr<CSockStream> sendBytes(const STlsServer& listener, const std::string& bytes, bool hangs_up) {
    auto client = std::make_unique<CSockStream>();
    client->SetBlockOpt(true);
    EXPECT_EQ(0, client->Connect(listener.address));
    if (!bytes.empty()) {
        EXPECT_EQ(static_cast<int>(bytes.size()),
                  client->Send(bytes.data(), static_cast<unsigned>(bytes.size())));
    }
    if (hangs_up) client->Close();
    return client;
}

/// Sends the first few messages of a proper handshake, one record each, and then says nothing, or hangs up.
/// The thread that accepts works meanwhile.
class CHalfClient {
public:
    CHalfClient(const TSslContext& ctx, const STlsServer& listener) : m_ssl(SSL_new(ctx.get())) {
        m_in = BIO_new(BIO_s_mem());
        m_out = BIO_new(BIO_s_mem());
        BIO_set_mem_eof_return(m_in, -1);
        SSL_set_bio(m_ssl.get(), m_in, m_out);
        m_stream.SetBlockOpt(true);
        EXPECT_EQ(0, m_stream.Connect(listener.address));
    }

    /// Sends up to a number of records. @return how many there were to send.
    int send(int records) {
        int sent = 0;
        while (sent < records) {
            SSL_connect(m_ssl.get());
            std::string flight(BIO_ctrl_pending(m_out), '\0');
            if (!flight.empty()) BIO_read(m_out, flight.data(), static_cast<int>(flight.size()));
            for (; !flight.empty() && sent < records; ++sent) {
                const std::size_t length = lengthOfRecord(flight);
                EXPECT_EQ(static_cast<int>(length),
                          m_stream.Send(flight.data(), static_cast<unsigned>(length)));
                flight.erase(0, length);
            }
            if (SSL_is_init_finished(m_ssl.get()) == 1) break;
            if (sent < records) receive();
        }
        return sent;
    }
    void hangUp() { m_stream.Close(); }

private:
    static std::size_t lengthOfRecord(const std::string& record) {
        return 5 + static_cast<unsigned char>(record[3]) * 256U + static_cast<unsigned char>(record[4]);
    }
    void receive() {
        char bytes[4096];
        const int length = m_stream.Recv(bytes, sizeof(bytes));
        if (length > 0) BIO_write(m_in, bytes, length);
    }

    CSockStream m_stream;
    TSslConnection m_ssl;
    BIO* m_in;
    BIO* m_out;
};

/// Lets clients stop after each message of a handshake but the last.
void stopAfterEachMessage(int version, bool shows_certificate) {
    const TSslContext ctx = TestSupport::rawClientContext();
    SSL_CTX_set_max_proto_version(ctx.get(), version);
    if (shows_certificate) {
        EXPECT_EQ(1, SSL_CTX_use_certificate_chain_file(
                         ctx.get(), TestSupport::certificate("server_chain.pem").c_str()));
        EXPECT_EQ(1, SSL_CTX_use_PrivateKey_file(
                         ctx.get(), TestSupport::certificate("server_key.pem").c_str(), SSL_FILETYPE_PEM));
    }
    SPatientServer listener;
    if (shows_certificate) {
        listener.acceptor.SetOption(SslOptCert, SslCertOwn | SslCertVerifyPeer,
                                    TestSupport::trusting("root_ca", ownCertificate("server")));
    }
    // How many records there are.
    int all = 0;
    {
        listener.setTimeout(20'000);
        CSslStream server;
        CHalfClient whole(ctx, listener);
        TestSupport::CRunner runner([&] { EXPECT_EQ(0, listener.acceptor.Accept(server)); });
        all = whole.send(1000);
        listener.setTimeout(TIMEOUT_MS);
    }
    ASSERT_GE(all, 3);
    for (int records = 0; records < all; ++records) {
        for (const bool hangs_up : {false, true}) {
            CHalfClient half(ctx, listener);
            TestSupport::CRunner runner([&] {
                half.send(records);
                if (hangs_up) half.hangUp();
            });
            const std::string what =
                std::to_string(records) + (hangs_up ? " records and an end" : " records");
            listener.refuse(what);
            listener.serveOne(what, shows_certificate ? ownCertificate("client") : nullptr);
        }
    }
}

TEST(SslAcceptorRude, GarbageIsRefused) {
    SPatientServer listener;
    std::mt19937 draw(7);
    for (const std::size_t length : {1U, 4U, 5U, 11U, 100U, 1000U, 20'000U}) {
        std::string bytes(length, '\0');
        for (char& byte : bytes) byte = static_cast<char>(draw());
        const auto client = sendBytes(listener, bytes, false);
        listener.refuse(std::to_string(length) + " random bytes");
    }
    listener.serveOne("garbage");
}

TEST(SslAcceptorRude, GarbageThatBeginsAsARecordIsRefused) {
    SPatientServer listener;
    const std::string heads[] = {std::string("\x16\x03\x01\x00\x00", 5),
                                 std::string("\x16\x03\x01\xff\xff", 5),
                                 std::string("\x16\x03\x03\x00\x04\x01\xff\xff\xff", 9),
                                 std::string("\x16\x03\x03\x00\x04\x01\x00\x00\x00", 9),
                                 std::string("\x15\x03\x03\x00\x02\x02\x28", 7),
                                 std::string("\x17\x03\x03\x00\x03"
                                             "abc",
                                             8),
                                 std::string("\x14\x03\x03\x00\x01\x01", 6),
                                 std::string("\x80\x2e\x01\x03\x01", 5)};
    for (const std::string& head : heads) {
        for (const bool hangs_up : {false, true}) {
            const auto client = sendBytes(listener, head, hangs_up);
            listener.refuse("a record's head of kind " + std::to_string(head[0]));
        }
    }
    listener.serveOne("garbage");
}

TEST(SslAcceptorRude, APlainHttpRequestIsRefused) {
    SPatientServer listener;
    const auto client = sendBytes(listener, "GET / HTTP/1.1\r\nHost: localhost\r\n\r\n", false);
    listener.refuse("an HTTP request");
    listener.serveOne("an HTTP request");
}

TEST(SslAcceptorRude, ASilentClientIsRefused) {
    SPatientServer listener;
    const auto client = sendBytes(listener, "", false);
    listener.refuse("silence");
    listener.serveOne("silence");
}

TEST(SslAcceptorRude, AClientThatHangsUpAtOnceIsRefused) {
    SPatientServer listener;
    sendBytes(listener, "", true);
    listener.refuse("an end");
    listener.serveOne("an end");
}

TEST(SslAcceptorRude, AClientThatResetsIsRefused) {
    SPatientServer listener;
    const auto client = sendBytes(listener, std::string("\x16\x03\x01", 3), false);
    TestSupport::reset(*client);
    CSslStream server;
    const CLogCapture log;
    // On some systems such a connection cannot even be accepted any more.
    EXPECT_EQ(-1, listener.acceptor.Accept(server));
    EXPECT_EQ(1U, log.lines().size());
    listener.serveOne("a reset");
}

TEST(SslAcceptorRude, AClientThatTricklesIsRefusedInTime) {
    SPatientServer listener;
    const auto client = sendBytes(listener, "", false);
    std::atomic<bool> over{false};
    TestSupport::CRunner trickler([&] {
        // The head of a record of 16 KiB, and its bytes.
        const char head[] = {22, 3, 1, 64, 0, 1, 0, 63, -4};
        for (unsigned i = 0; !over.load(); ++i) {
            client->Send(i < sizeof(head) ? head + i : head, 1);
            Plinth::sleepMilliSecond(20);
        }
    });
    listener.refuse("a trickle");
    over = true;
    trickler.join();
    listener.serveOne("a trickle");
}

TEST(SslAcceptorRude, ClientsMayStopAfterEachMessageOfTls12) {
    stopAfterEachMessage(TLS1_2_VERSION, false);
}

TEST(SslAcceptorRude, ClientsMayStopAfterEachMessageOfTls13) {
    stopAfterEachMessage(TLS1_3_VERSION, false);
}

TEST(SslAcceptorRude, ClientsWithCertificatesMayStopAfterEachMessageOfTls12) {
    stopAfterEachMessage(TLS1_2_VERSION, true);
}

TEST(SslAcceptorRude, ClientsWithCertificatesMayStopAfterEachMessageOfTls13) {
    stopAfterEachMessage(TLS1_3_VERSION, true);
}

TEST(SslAcceptorRude, TwoHundredAtOnceCostALineEach) {
    constexpr int CROWD = 200;
    STlsServer listener;
    listener.setTimeout(20);
    TestSupport::watchPipeSignal();
    const TSslContext ctx = TestSupport::rawClientContext();
    std::vector<std::unique_ptr<CSockStream>> crowd;
    std::vector<std::unique_ptr<CHalfClient>> halves;
    const std::string requests[] = {"", "GET / HTTP/1.1\r\n\r\n", std::string("\x16\x03\x01\x02\x00\x01", 6)};
    for (int i = 0; i < CROWD; ++i) {
        const bool hangs_up = i / 4 % 2 == 1;
        if (i % 4 < 3) {
            crowd.push_back(sendBytes(listener, requests[i % 4], hangs_up));
            continue;
        }
        halves.push_back(std::make_unique<CHalfClient>(ctx, listener));
        EXPECT_EQ(1, halves.back()->send(1));
        if (hangs_up) halves.back()->hangUp();
    }
    const CLogCapture log;
    const std::uint64_t start_ms = Plinth::CTime::getCurrentMilliSecond();
    for (int i = 0; i < CROWD; ++i) {
        CSslStream server;
        EXPECT_EQ(-1, listener.acceptor.Accept(server));
    }
    EXPECT_EQ(CROWD, log.count(LEVEL_ERROR, "Accept : SSL_accept failed, fd["));
    EXPECT_EQ(static_cast<std::size_t>(CROWD), log.lines().size());
    EXPECT_LT(Plinth::CTime::getCurrentMilliSecond() - start_ms, 200U * 20U + 20'000U);
    EXPECT_EQ(0, TestSupport::pipeSignalCount());
    listener.setTimeout(20'000);
    CSslStream server;
    CSslStream client;
    EXPECT_TRUE(listener.serve(server, client));
}

}  // namespace
}  // namespace Veltro::Ravelo
