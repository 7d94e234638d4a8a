// DTLS sockets when OpenSSL runs out of memory.
#include "Support/Datagrams.h"
#include "Support/DtlsPeers.h"
#include "Support/ScarceOpenSsl.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::CQuickDtls;
using TestSupport::CRunner;
using TestSupport::CScarceOpenSsl;
using TestSupport::receiveRecord;
using TestSupport::SDtlsPair;
using TestSupport::SDtlsResults;
using TestSupport::SDtlsServer;
using TestSupport::sendText;
using TestSupport::setDtlsCertificate;
using TestSupport::setDtlsSessions;

void give(CSslDgram& dgram, const char* name) {
    setDtlsCertificate(dgram, name, "root_ca");
    setDtlsSessions(dgram, SslSessionId | SslSessionTicket, 1);
}

/// What OpenSSL sets up once in a process stays broken if it fails: that is done before.
void warmUp() {
    SDtlsServer server("");
    CSslDgram client;
    give(server.dgram, "server");
    give(client, "client");
    EXPECT_TRUE(TestSupport::negotiate(server, client).areGood());
}

/// A datagram of one record, before any encryption.
std::string plainRecord(char type, int number, const std::string& content) {
    std::string record{type, '\xfe', '\xfd'};
    record.append(6, '\0');
    record += {static_cast<char>(number >> 8), static_cast<char>(number), '\0'};
    return record + static_cast<char>(content.size()) + content;
}

/// As one who is gone, ends the handshake of one who waits for him, who would wait long where a closed port
/// is not reported: by a fatal alert and, if nothing has been heard of him yet, by an empty ClientHello.
void speakFor(const CSockAddrIPv4& gone, const CSockAddrIPv4& waiting,
              const std::function<bool()>& has_ended) {
    TestSupport::SReceiver in_his_place(gone.GetPort());
    const std::string hello = '\1' + std::string(11, '\0');
    const std::string alert = "\2\x50";
    // Higher numbers than his own, or they pass for repetitions.
    for (int number = 1000; !has_ended(); number += 2) {
        TestSupport::sendText(in_his_place.socket, plainRecord(SSL3_RT_HANDSHAKE, number, hello), &waiting);
        TestSupport::sendText(in_his_place.socket, plainRecord(SSL3_RT_ALERT, number + 1, alert), &waiting);
        TestSupport::waitUntil(has_ended, 5);
    }
}

/// What one side may allocate, and what it has.
struct SMemory {
    int allocations = 1'000'000;
    int made = 0;
    bool was_short = false;

    template <typename TCall>
    int run(TCall call) {
        const CScarceOpenSsl scarce(allocations);
        const int result = call();
        made = scarce.made();
        was_short = scarce.hasFailed();
        return result;
    }
};

struct SBoth {
    SMemory server;
    SMemory client;
};

/// Negotiates with the memory that either side has, and says hello if that goes well.
SDtlsResults negotiateWith(SDtlsServer& server, SBoth* both) {
    const CSockAddrIPv4 local("127.0.0.1", TestSupport::freeDatagramPort());
    std::atomic<bool> has_accepted{false};
    std::atomic<bool> has_connected{false};
    SDtlsResults results;
    CSslDgram client;
    give(client, "client");
    CRunner runner([&] {
        results.accepted = both->server.run([&] { return server.dgram.AcceptX(nullptr); });
        has_accepted = true;
        if (results.accepted != 0) speakFor(server.address, local, [&] { return has_connected.load(); });
    });
    results.connected = both->client.run([&] { return client.Connect(&server.address, &local); });
    has_connected = true;
    if (results.connected != 0) speakFor(local, server.address, [&] { return has_accepted.load(); });
    runner.join();
    EXPECT_EQ(results.accepted == 0, server.dgram.GetHandle() != -1);
    EXPECT_EQ(results.connected == 0, client.GetHandle() != -1);
    if (results.areGood()) {
        EXPECT_EQ(5, sendText(client, "hello"));
        EXPECT_EQ("hello", receiveRecord(server.dgram));
    }
    return results;
}

/// Lets one side have more and more memory until it does not want for any and both go on together.
void negotiateUntilThereIsEnough(SMemory SBoth::*side) {
    constexpr int TRIES = 70;
    const CQuickDtls quick(200'000, 500'000);  // who has no memory falls silent
    ASSERT_EQ(0, CSslDgram::Init());
    warmUp();
    const CLogCapture unheard;
    // Under wine a port that the system chose goes with the connection to a client.
    SDtlsServer server("", TestSupport::freeDatagramPort());
    give(server.dgram, "server");
    SBoth full;
    ASSERT_TRUE(negotiateWith(server, &full).areGood());
    const int enough = (full.*side).made;
    ASSERT_LT(TRIES, enough);
    ::testing::internal::CaptureStderr();  // it gets OpenSSL's errors
    int failures = 0;
    bool is_good = false;
    for (int allocations = 0; !is_good && allocations < 10 * enough; allocations += enough / TRIES) {
        SBoth both;
        (both.*side).allocations = allocations;
        const bool was_good = negotiateWith(server, &both).areGood();
        is_good = was_good && !(both.*side).was_short;
        if (!was_good) ++failures;
        ASSERT_TRUE(server.dgram.IsValid() || server.dgram.Open(&server.address, false) == 0);
    }
    ::testing::internal::GetCapturedStderr();
    EXPECT_TRUE(is_good);
    EXPECT_LT(5, failures);
}

TEST(SslDgramMemory, AClientWithoutMemoryFailsAndTheServerServesTheNext) {
    negotiateUntilThereIsEnough(&SBoth::client);
}

TEST(SslDgramMemory, AServerWithoutMemoryFailsAndServesLater) {
    negotiateUntilThereIsEnough(&SBoth::server);
}

TEST(SslDgramMemory, CallsWithoutMemoryFailOrLoseWhatTheyCarry) {
    SDtlsPair pair;
    const CLogCapture unheard;
    for (int allocations = 0; allocations < 5; ++allocations) {
        const CScarceOpenSsl scarce(allocations);
        char bytes[16];
        sendText(pair.client, "x");
        pair.server.dgram.Recv(bytes, sizeof(bytes));
    }
    char bytes[16];
    while (pair.server.dgram.Recv(bytes, sizeof(bytes)) > 0) {
    }
    EXPECT_EQ(5, sendText(pair.client, "hello"));
    EXPECT_EQ("hello", receiveRecord(pair.server.dgram));
}

TEST(SslDgramMemory, AContextThatCannotBeMadeIsLogged) {
    SDtlsServer server;
    const CLogCapture log;
    const CScarceOpenSsl scarce(0);
    EXPECT_EQ(-1, server.dgram.AcceptX(nullptr));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_WARNING, ", SSL_CTX_new failed! errno:"));
    EXPECT_EQ(1U, log.lines().size());
}

TEST(SslDgramMemory, AConnectionThatCannotBeMadeIsLogged) {
    const CQuickDtls quick;
    warmUp();
    const CSockAddrIPv4 address("127.0.0.1", TestSupport::freeDatagramPort());
    for (const bool of_server : {false, true}) {
        const CLogCapture log;
        const std::string function = of_server ? "init_accept_ssl" : "init_connect_ssl";
        const auto found = [&] {
            return log.count(Plinth::LOG_LEVEL_WARNING, function + " : SSL_new failed, fd[") != 0;
        };
        // Fewer than this step itself makes, so that one count ends in it: none gets so far as to wait for a
        // peer.
        constexpr int COUNTS_LEFT_OUT = 10;
        for (int allocations = 0; allocations < 100'000 && !found(); allocations += COUNTS_LEFT_OUT) {
            CSslDgram dgram;
            setDtlsCertificate(dgram, "server");
            const CScarceOpenSsl scarce(allocations);
            EXPECT_EQ(-1,
                      of_server ? dgram.Accept(&address, false, nullptr) : dgram.Connect(&address, nullptr));
            EXPECT_EQ(-1, dgram.GetHandle());
        }
        EXPECT_TRUE(found()) << function;
    }
}

}  // namespace
}  // namespace Veltro::Ravelo
