// Senders at work: the reactor drains them while other threads put, peers read slowly, go, and owners end.
#include <Ravelo/StreamSender.h>

#include <Ravelo/SimulatorStream.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Socket/SimulatorClock.h"
#include "Support/Gate.h"
#include "Support/Load.h"
#include "Support/LogCapture.h"
#include "Tool/StreamSenders.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

/// Two connected sockets and a sender on one of them.
struct StreamSenderReactor : ::testing::Test {
    CPublicPool pool{2};
    SSocketPair pair;
    CMailbox owner;
    CTestSender sender;

    StreamSenderReactor() {
        // So that little is enough to fill it. Not the receiver's: a small window makes TCP wait.
        pair.client.SetSockSendBuf(64 * 1024);
        owner.handler()->on_output = [this](int fd) { return sender->handle_output(fd); };
        EXPECT_EQ(0, sender->Attach(owner.handler(), &pair.client));
        sender->WaitException(owner.id());
    }
    ~StreamSenderReactor() override { sender.close(); }

    bool hasTold(unsigned type) const {
        for (const auto& message : owner.messages()) {
            if (message.type == type) return true;
        }
        return false;
    }
    /// Puts blocks until the sender keeps some. @return all that was put.
    std::string fillUp() {
        std::string all;
        while (sender.queued() == 0) {
            const std::string text = textFrom(all.size(), 60'000);
            EXPECT_EQ(0, sender.put(text));
            all += text;
        }
        return all;
    }
};

TEST_F(StreamSenderReactor, WhatIsKeptIsSentWhenThePeerReads) {
    const std::string text = fillUp();
    EXPECT_TRUE(text == receive(pair.server, text.size()));
    EXPECT_TRUE(waitUntil([this] { return sender.queued() == 0; }));
    EXPECT_TRUE(
        waitUntil([this] { return (sockState(pair.client.GetHandle()).mask & EventMask::Write) == 0; }));
    EXPECT_EQ("", sender.walk().error);
}

TEST_F(StreamSenderReactor, ASlowReaderCostsTheCapacityAndNoMore) {
    const std::string text(10'000, 's');
    std::size_t taken = 0;
    // The system's own buffers may grow while a block is refused: the peer does not read, so they end.
    for (int refusals = 0; refusals < 100;) {
        if (sender.put(text) == 0) {
            taken += text.size();
            refusals = 0;
        } else {
            refusals += 1;
        }
    }
    EXPECT_LE(sender.walk().used + sender.walk().spares, 9U);
    EXPECT_LE(sender.queued(), CAPACITY_BYTES);
    EXPECT_EQ(taken, receive(pair.server, taken).size());
    EXPECT_TRUE(waitUntil([this] { return sender.queued() == 0; }));
}

TEST_F(StreamSenderReactor, AProducerThatWaitsForRoomGetsEverythingThrough) {
    constexpr std::size_t TOTAL = 16'000'000;  // more than the system keeps for two sockets
    constexpr unsigned PIECE = 50'000;
    std::size_t put = 0;  // by the callback, which never runs twice at once: it asks again at its end only
    Plinth::CSemaphore finished;
    owner.handler()->on_message = [&](long, unsigned type, long info) {
        if (type == NOTIFY_SEND_FINISH) {
            finished.post();
            return 0;
        }
        EXPECT_EQ(NOTIFY_BUFFER_FREE, type);
        EXPECT_GE(info, static_cast<long>(PIECE));
        while (put < TOTAL && sender.put(textFrom(put, PIECE)) == 0) put += PIECE;
        if (put < TOTAL) {
            sender->WaitBufferSize(owner.id(), PIECE);
        } else {
            sender->WaitSendFinish(owner.id());
        }
        return 0;
    };
    sender->WaitBufferSize(owner.id(), PIECE);
    EXPECT_TRUE(waitUntil([this] { return sender->GetCounters().refused_puts > 0; }));
    const std::string received = receive(pair.server, TOTAL);
    EXPECT_TRUE(pend(finished));
    EXPECT_TRUE(textFrom(0, TOTAL) == received) << received.size();
    const auto counters = sender->GetCounters();
    EXPECT_EQ(TOTAL, counters.bytes_taken);
    EXPECT_EQ(TOTAL, counters.bytes_sent);
    EXPECT_EQ(TOTAL / PIECE, counters.puts);
    EXPECT_GT(counters.stalled_us, 0U);
}

TEST_F(StreamSenderReactor, ALimitedStreamIsDrainedPeriodByPeriod) {
    static std::atomic<std::uint64_t> s_now_ms;
    s_now_ms = 5000;
    setSimulatorClock([] { return s_now_ms.load(); });
    CSimulatorStream limited;
    limited.SetRealSocket(&pair.client);
    limited.SetBandWidth(1);
    EXPECT_EQ(0, sender->Attach(owner.handler(), &limited));
    const std::string text = textFrom(0, CAPACITY_BYTES);
    EXPECT_EQ(0, sender.put(text));
    EXPECT_GE(sender.queued(), 131'072U);
    std::string received = receive(pair.server, 131'072);
    EXPECT_TRUE(waitUntil([this] { return sender.queued() == 131'072; }));
    s_now_ms += 1001;
    received += receive(pair.server, 131'072);
    EXPECT_TRUE(text == received);
    EXPECT_TRUE(waitUntil([this] { return sender.queued() == 0; }));
    EXPECT_EQ(&limited, sender->Detach());
    sender.close();
    setSimulatorClock(nullptr);
}

TEST_F(StreamSenderReactor, APeerThatResetsWhileBytesAreKeptIsReported) {
    CLogCapture log;
    fillUp();
    reset(pair.server);
    EXPECT_TRUE(waitUntil([this] { return hasTold(NOTIFY_STREAM_EXCEPTION); }));
    EXPECT_TRUE(waitUntil([this] { return !sockState(pair.client.GetHandle()).registered; }));
    EXPECT_GT(sender.queued(), 0U);
    EXPECT_EQ(1, log.count(2, "CStreamSender socket exception! fd: "));
    EXPECT_EQ(0, sender->Clear());
}

TEST_F(StreamSenderReactor, APeerThatResetBeforeABlockIsReported) {
    CLogCapture log;
    reset(pair.server);
    ASSERT_TRUE(waitReadable(pair.client));
    EXPECT_EQ(-1, sender.put("hello"));
    EXPECT_TRUE(waitUntil([this] { return hasTold(NOTIFY_STREAM_EXCEPTION); }));
    EXPECT_EQ(0U, sender.queued());
}

TEST_F(StreamSenderReactor, TheOwnerMayPutFromItsMessages) {
    std::atomic<int> told{0};
    owner.handler()->on_message = [&](long, unsigned type, long) {
        EXPECT_EQ(NOTIFY_SEND_FINISH, type);
        if (told.fetch_add(1) == 0) {
            EXPECT_EQ(0, sender.put("the end"));
        }
        return 0;
    };
    const std::string text = fillUp() + "the end";
    sender->WaitSendFinish(owner.id());
    EXPECT_TRUE(text == receive(pair.server, text.size()));
    EXPECT_TRUE(waitUntil([&] { return told == 1; }));
}

/// A block that says who put it and as which of his.
struct SBlock {
    std::uint32_t length_bytes;
    std::uint32_t thread;
    std::uint32_t number;
};

std::string makeBlock(std::uint32_t thread, std::uint32_t number) {
    const std::uint32_t length = sizeof(SBlock) + (number * 7919 + thread * 104'729) % 40'000;
    std::string text(length, static_cast<char>('a' + (number + thread) % 26));
    const SBlock head{length, thread, number};
    std::memcpy(text.data(), &head, sizeof head);
    return text;
}

/// Receives blocks until so many have come. @return how many came from each thread, whole and in order.
std::vector<std::uint32_t> receiveBlocks(CSockStream& stream, unsigned threads, std::size_t count) {
    std::vector<std::uint32_t> next(threads, 0);
    for (std::size_t i = 0; i < count; ++i) {
        const std::string begin = receive(stream, sizeof(SBlock));
        if (begin.size() < sizeof(SBlock)) return next;
        SBlock head{};
        std::memcpy(&head, begin.data(), sizeof head);
        const bool known = head.thread < threads && head.number == next[head.thread];
        EXPECT_TRUE(known) << "block " << i;
        if (!known) return next;
        const std::string expected = makeBlock(head.thread, head.number);
        EXPECT_TRUE(expected == begin + receive(stream, expected.size() - begin.size())) << "block " << i;
        next[head.thread] += 1;
    }
    return next;
}

TEST_F(StreamSenderReactor, BlocksOfManyThreadsArriveWholeAndInEachThreadsOrder) {
    constexpr unsigned THREADS = 4;
    const auto each = static_cast<std::uint32_t>(scaledDown(1000));
    std::vector<std::unique_ptr<CRunner>> runners;
    for (std::uint32_t thread = 0; thread < THREADS; ++thread) {
        runners.push_back(std::make_unique<CRunner>([this, thread, each] {
            for (std::uint32_t number = 0; number < each; ++number) {
                const std::string text = makeBlock(thread, number);
                while (sender.put(text) != 0) Plinth::yieldThread();
            }
        }));
    }
    const auto counts = receiveBlocks(pair.server, THREADS, THREADS * each);
    runners.clear();
    EXPECT_EQ(std::vector<std::uint32_t>(THREADS, each), counts);
    EXPECT_TRUE(waitUntil([this] { return sender.queued() == 0; }));
    EXPECT_EQ("", sender.walk().error);
    EXPECT_EQ(THREADS * each, sender->GetCounters().puts);
}

TEST_F(StreamSenderReactor, EveryOperationMayBeCalledWhileThePoolDrains) {
    std::atomic<bool> over{false};
    const auto until_over = [&over](const std::function<void()>& act) {
        return std::make_unique<CRunner>([&over, act] {
            while (!over) act();
        });
    };
    owner.handler()->on_message = [](long, unsigned, long) { return 0; };
    std::vector<std::unique_ptr<CRunner>> runners;
    runners.push_back(until_over([this] { sender.put(std::string(30'000, 'p')); }));
    runners.push_back(until_over([this] {
        sender->WaitBufferSize(owner.id(), 100'000);
        sender->WaitSendFinish(owner.id());
        sender->WaitException(owner.id());
        sender->GetBufferSize();
        sender->GetCounters();
        EXPECT_EQ("", sender.walk().error);
    }));
    runners.push_back(until_over([this] {
        sender->SetBufferSize(9);
        sender->Clear();
        sender->Detach();
        sender->Attach(owner.handler(), &pair.client);
    }));
    // Detach may leave bytes that nobody waits to send; Clear drops them, and so it goes on.
    EXPECT_EQ(3'000'000U, receive(pair.server, 3'000'000).size());
    over = true;
    runners.clear();
    EXPECT_EQ("", sender.walk().error);
}

TEST_F(StreamSenderReactor, ClosingWhileThePoolDrainsLosesTheRestAndNothingElse) {
    std::atomic<bool> over{false};
    CRunner reader([this, &over] {
        std::vector<char> block(100'000);
        while (!over) {
            if (pair.server.Recv(block.data(), 100'000) == 0) Plinth::yieldThread();
        }
    });
    const std::size_t rounds = scaledDown(200);
    for (std::size_t round = 0; round < rounds; ++round) {
        CTestSender brief;
        std::atomic<CStreamSender*> current{brief.get()};
        owner.handler()->on_output = [&current](int fd) { return current.load()->handle_output(fd); };
        EXPECT_EQ(0, brief->Attach(owner.handler(), &pair.client));
        for (std::size_t puts = 0; puts < round % 7 + 1; ++puts) brief.put(std::string(50'000, 'c'));
        // Removing keeps new events away; one that is under way already is waited for.
        EXPECT_EQ(&pair.client, brief->Detach());
        EXPECT_TRUE(waitUntil([this] { return !sockState(pair.client.GetHandle()).registered; }));
        brief.close();
    }
    over = true;
}

/// A connection as an application writes one: it owns its socket and its sender, and ends both.
class CConnection : public CNetHandler {
public:
    CConnection(std::unique_ptr<CSockStream> stream, std::atomic<int>& alive)
        : m_alive(alive), m_stream(std::move(stream)), m_sender(CStreamSender::Create()) {
        m_alive += 1;
        m_sender->Attach(this, m_stream.get());
        m_sender->WaitException(GetID());
    }
    int put(const std::string& text) {
        return m_sender->Put(text.data(), static_cast<unsigned>(text.size()));
    }

private:
    int handle_output(int fd) override { return m_sender->handle_output(fd); }
    int handle_message(long, unsigned type, long) override {
        if (type == NOTIFY_STREAM_EXCEPTION) Close();
        return 0;
    }
    int handle_close(CNetHandler*) override {
        m_sender->Detach();
        m_sender->Close();
        RemoveSock(*m_stream);
        m_stream->Close();
        std::atomic<int>& alive = m_alive;
        delete this;
        alive -= 1;
        return 0;
    }

    std::atomic<int>& m_alive;
    const std::unique_ptr<CSockStream> m_stream;
    CStreamSender* const m_sender;
};

/// Both ends of a connection, one of them served by a CConnection.
struct SServed {
    CSockStream client;
    CConnection* connection = nullptr;

    explicit SServed(std::atomic<int>& alive) {
        SListener listener;
        auto stream = std::make_unique<CSockStream>();
        EXPECT_EQ(0, client.Connect(listener.address));
        EXPECT_EQ(0, listener.accept(*stream));
        connection = new CConnection(std::move(stream), alive);
    }
};

TEST(StreamSenderOwner, AConnectionEndsWithItsPeerWhereverItStands) {
    const CLogCapture log(Plinth::LOG_LEVEL_FATAL);
    const CPublicPool pool;
    std::atomic<int> alive{0};
    const std::size_t rounds = scaledDown(100);
    for (std::size_t round = 0; round < rounds; ++round) {
        SServed served(alive);
        served.connection->AddRef();
        CRunner producer([&served] {
            // Until the peer has gone: every Put fails then, or is refused for good.
            const std::string text(70'000, 'p');
            for (int refusals = 0; refusals < 1000;) {
                refusals = served.connection->put(text) == 0 ? 0 : refusals + 1;
            }
        });
        receive(served.client, round * 3000);
        reset(served.client);
        producer.join();
        served.connection->Close();
        served.connection->DecRef();
    }
    EXPECT_TRUE(waitUntil([&alive] { return alive == 0; }));
}

TEST(StreamSenderOwner, AnOwnerMayEndWhileAnotherThreadPuts) {
    const CLogCapture log(Plinth::LOG_LEVEL_FATAL);
    const CPublicPool pool;
    std::atomic<int> alive{0};
    const std::size_t rounds = scaledDown(100);
    for (std::size_t round = 0; round < rounds; ++round) {
        SServed served(alive);
        served.connection->AddRef();
        CGate started;
        CRunner producer([&served, &started] {
            const std::string text(70'000, 'p');
            for (int i = 0; i < 20; ++i) {
                served.connection->put(text);
                started.open();
            }
            served.connection->DecRef();  // the last one, as a rule
        });
        EXPECT_TRUE(started.pass());
        served.connection->Close();
        producer.join();
    }
    EXPECT_TRUE(waitUntil([&alive] { return alive == 0; }));
}

}  // namespace
}  // namespace Veltro::Ravelo
