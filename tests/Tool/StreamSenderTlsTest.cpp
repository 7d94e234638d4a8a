// Stream senders on TLS streams.
#include <Ravelo/StreamSender.h>

#include <random>

#include "Support/TlsPair.h"
#include "Tool/SockWrite.h"
#include "Tool/StreamSenders.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

/// A sender on a client's TLS stream, and an owner that forwards.
struct STlsSender {
    CPublicPool pool{2};
    STlsPair pair;
    CScopedHandler owner;
    CTestSender sender;

    STlsSender() {
        owner->on_output = [this](int fd) { return sender->handle_output(fd); };
        EXPECT_EQ(0, sender->Attach(owner.get(), &pair.client));
    }
    ~STlsSender() { sender->Clear(); }

    /// How many bytes OpenSSL has sealed in a record that the socket has not taken whole.
    unsigned unfinished() {
        auto& record = SStreamSenderRecord::of(*sender.get());
        Plinth::CLockGuard guard(record.mutex);
        return SockWrite::unfinished(pair.client);
    }
    /// Puts blocks of 8 KiB until a record is stuck in the socket. @return what was taken.
    std::string fillUp() {
        std::string taken;
        waitUntil([&] {
            const std::string block = textFrom(taken.size(), 8192);
            if (sender.put(block) == 0) taken += block;
            return unfinished() > 0;
        });
        return taken;
    }
};

TEST(StreamSenderTls, EveryByteArrivesInOrderThroughASlowReader) {
    STlsSender rig;
    std::mt19937 random(7);
    std::string sent;
    std::string received;
    while (received.size() < 4'000'000) {
        const std::string block = textFrom(sent.size(), random() % 60'000 + 1);
        if (rig.sender.put(block) == 0) {
            sent += block;
        } else {
            received += receive(rig.pair.server, random() % 100'000 + 1);
        }
    }
    received += receive(rig.pair.server, sent.size() - received.size());
    EXPECT_TRUE(sent == received);
    EXPECT_EQ(sent.size(), rig.sender->GetCounters().bytes_sent);
}

TEST(StreamSenderTls, ClearKeepsTheRecordThatIsUnderWay) {
    STlsSender rig;
    const std::string taken = rig.fillUp();
    const unsigned unfinished = rig.unfinished();
    ASSERT_GT(unfinished, 0U);
    EXPECT_EQ(0, rig.sender->Clear());
    const auto counters = rig.sender->GetCounters();
    EXPECT_GT(counters.bytes_queued, 0U);
    EXPECT_LE(counters.bytes_queued, unfinished);
    EXPECT_EQ(counters.bytes_taken, counters.bytes_sent + counters.bytes_queued + counters.bytes_cleared);

    const std::string end = "THE END";
    EXPECT_EQ(0, rig.sender.put(end));
    const std::size_t kept = counters.bytes_sent + counters.bytes_queued;
    const std::string received = receive(rig.pair.server, kept + end.size());
    EXPECT_TRUE(taken.substr(0, kept) + end == received);
}

TEST(StreamSenderTls, NothingIsUnfinishedOnceEverythingIsSent) {
    STlsSender rig;
    const std::string taken = rig.fillUp();
    const std::string received = receive(rig.pair.server, taken.size());
    EXPECT_TRUE(taken == received);
    EXPECT_TRUE(waitUntil([&] { return rig.sender.queued() == 0; }));
    EXPECT_EQ(0U, rig.unfinished());
}

TEST(StreamSenderTls, AClosedPeerIsReported) {
    STlsSender rig;
    CMailbox mailbox;
    rig.sender->WaitException(mailbox.id());
    rig.fillUp();
    rig.pair.server.Close();
    EXPECT_TRUE(mailbox.waitCount(1));
    EXPECT_EQ(unsigned{NOTIFY_STREAM_EXCEPTION}, mailbox.messages().front().type);
}

}  // namespace
}  // namespace Veltro::Ravelo
