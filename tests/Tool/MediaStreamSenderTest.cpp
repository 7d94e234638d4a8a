// One sender: its settings, its failures, its time-outs.
#include <Ravelo/MediaStreamSender.h>

#include <Plinth/Semaphore.h>
#include <Ravelo/SockDgram.h>

#include <type_traits>

#include "Support/ScarceMemory.h"
#include "Support/SockRegistry.h"
#include "Tool/MediaRig.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

constexpr const char* TIMEOUT_LINE = "MediaStreamSender Send socket exception for timeout!\n";
constexpr const char* WARNING_LINE = "MediaStreamSender net warnning ";

/// A fan-out with somebody who is told of failures.
struct MediaStreamSender : MediaFanout {
    struct SMessage {
        long sender;
        unsigned type;
        long info;
    };
    CScopedHandler owner;
    Plinth::CSemaphore told;
    std::vector<SMessage> messages;

    MediaStreamSender() {
        owner->on_message = [this](long sender, unsigned type, long info) {
            messages.push_back({sender, type, info});
            told.post();
            return 0;
        };
        receiver->WaitException(owner->GetID());
    }
    ~MediaStreamSender() override { owner.close(); }

    /// Waits for a message and expects no other before it.
    void expectTold() {
        EXPECT_TRUE(pend(told));
        ASSERT_EQ(1U, messages.size());
        EXPECT_EQ(receiver->GetID(), messages[0].sender);
        EXPECT_EQ(2U, messages[0].type);
        EXPECT_EQ(0, messages[0].info);
    }
    /// Ends the owner, after which no message is on its way.
    void expectNobodyTold() {
        owner.close();
        EXPECT_TRUE(messages.empty());
    }
};

TEST_F(MediaStreamSender, ItsDefaultsAreAllChannelsAndNoTimeout) {
    const SMediaStreamSenderRecord& record = receiver.record();
    EXPECT_EQ(255, record.m_channel_mask.load());
    EXPECT_EQ(0xFFFF'FFFFU, record.m_send_timeout.load());
    EXPECT_EQ(0, record.m_lost_mask);
    EXPECT_EQ(0U, record.m_position);
    EXPECT_FALSE(record.m_started);
    static_assert(!std::is_copy_constructible_v<CMediaStreamSender>);
}

TEST_F(MediaStreamSender, CannotBeMadeWithoutMemory) {
    for (int allocations = 0; allocations < 2; ++allocations) {
        const CScarceMemory scarce(allocations);
        EXPECT_EQ(nullptr, CMediaStreamSender::Create());
    }
}

TEST_F(MediaStreamSender, AttachAndDetachHandTheSocketOver) {
    CMediaReceiver other;
    EXPECT_EQ(&other.slow(), other->Detach());
    EXPECT_EQ(nullptr, other->Detach());
    EXPECT_EQ(0, other->Attach(&other.own()));
    EXPECT_EQ(&other.own(), other->Detach());
}

TEST_F(MediaStreamSender, TheFirstChannelTakesAllOthersAwayAndTheNextOnesAreAdded) {
    const auto& mask = receiver.record().m_channel_mask;
    receiver->SetSendChannel(2);
    EXPECT_EQ(0x04, mask.load());
    receiver->SetSendChannel(7);
    EXPECT_EQ(0x84, mask.load());
    receiver->DisableSendChannel(2);
    EXPECT_EQ(0x80, mask.load());
    receiver->DisableSendChannel(7);
    EXPECT_EQ(0, mask.load());
    receiver->SetSendChannel(0);
    EXPECT_EQ(0x01, mask.load()) << "none is not all";
    receiver->SetSendChannel(-1);
    EXPECT_EQ(0xFF, mask.load());
    receiver->SetSendChannel(3);
    EXPECT_EQ(0x08, mask.load());
    receiver->SetSendChannel(INT32_MIN);
    receiver->DisableSendChannel(0);
    EXPECT_EQ(0xFE, mask.load());
}

TEST_F(MediaStreamSender, ChannelsThatThereAreNotFailAssertions) {
    EXPECT_ASSERTION(receiver->SetSendChannel(8), "channel <= 7");
    EXPECT_ASSERTION(receiver->DisableSendChannel(8), "channel <= 7 && channel >= 0");
    EXPECT_ASSERTION(receiver->DisableSendChannel(-1), "channel <= 7 && channel >= 0");
}

TEST_F(MediaStreamSender, ASocketOfAnotherTypeFailsAnAssertion) {
    CSock unknown;
    receiver->Detach();
    receiver->Attach(&unknown);
    EXPECT_ASSERTION(putFrame("K"), "");
}

TEST_F(MediaStreamSender, EachTypeOfSocketIsSentThrough) {
    CMediaReceiver plain;
    plain->Detach();
    plain->Attach(&plain.own());
    buffer.AddSender(plain.get());
    CSockDgram from;
    CSockDgram to;
    CSockAddrIPv4 address("127.0.0.1", 0);
    ASSERT_EQ(0, to.Open(&address));
    ASSERT_EQ(0, to.GetLocalAddr(&address));
    ASSERT_EQ(0, from.Open(nullptr));
    ASSERT_EQ(0, from.SetRemote(&address));
    CMediaReceiver datagrams;
    datagrams->Detach();
    datagrams->Attach(&from);
    datagrams->SendOtherData("other", 5);
    buffer.AddSender(datagrams.get());

    put(buffer, packets, "one ", 0);
    put(buffer, packets, "frame", 1);
    EXPECT_EQ("one frame", plain.text());
    EXPECT_EQ("one frame", receiver.text());
    char bytes[32];
    ASSERT_TRUE(waitReadable(to));
    EXPECT_EQ(5, to.Recv(bytes, sizeof bytes)) << "other data are a datagram of their own";
    ASSERT_TRUE(waitReadable(to));
    EXPECT_EQ(9, to.Recv(bytes, sizeof bytes)) << "a frame is one datagram";
    buffer.DelSender(plain.get());
    buffer.DelSender(datagrams.get());
}

TEST_F(MediaStreamSender, TheSendProcIsToldOfEachFrameThatWasSentWhole) {
    struct SCall {
        CMediaPacket* info;
        int value;
        int length;
    };
    std::vector<SCall> calls;
    EXPECT_TRUE(receiver->AttachSendProc([](CMediaPacket*, int, int) { FAIL() << "it was replaced"; }));
    EXPECT_TRUE(receiver->AttachSendProc([&](CMediaPacket* info, int value, int length) {
        EXPECT_EQ(0, info == nullptr ? 0 : static_cast<CTestPacket*>(info)->released.load());
        calls.push_back({info, value, length});
    }));
    CTestPacket* info = packets.make("info");
    buffer.PutFrameInfo(info, 42);
    putFrame("with info");
    EXPECT_EQ(1, info->released.load());
    putFrame("without");
    receiver.stall();
    putFrame("not yet");
    ASSERT_EQ(2U, calls.size());
    EXPECT_EQ(info, calls[0].info);
    EXPECT_EQ(42, calls[0].value);
    EXPECT_EQ(9, calls[0].length);
    EXPECT_EQ(nullptr, calls[1].info);
    EXPECT_EQ(0, calls[1].value);
    EXPECT_EQ(7, calls[1].length);
    receiver.open();
    buffer.do_send();
    EXPECT_EQ(3U, calls.size());
    EXPECT_TRUE(receiver->DetachSendProc());
    EXPECT_TRUE(receiver->DetachSendProc());
    putFrame("nobody is told");
    EXPECT_EQ(3U, calls.size());
}

TEST_F(MediaStreamSender, AFailureIsToldOnceAndLogged) {
    receiver.own().Close();
    putFrame("K");
    expectTold();
    EXPECT_EQ(1, log.count(3, "tid:" + std::to_string(static_cast<int>(Plinth::getCurrentThreadId())) +
                                  ", MediaStreamSender Send socket exception, error:"));
    buffer.AddSender(receiver.get());
    putFrame("K");
    EXPECT_EQ(1, log.count(3, "MediaStreamSender Send socket exception, error:"));
    owner.close();
    EXPECT_EQ(1U, messages.size());
}

TEST_F(MediaStreamSender, AFailureThatNobodyWaitsForIsNotLogged) {
    receiver->WaitException(0);
    receiver.own().Close();
    putFrame("K");
    EXPECT_EQ(0, log.count(3, "MediaStreamSender"));
    expectNobodyTold();
    EXPECT_FALSE(receiver.record().m_frame != nullptr);
}

TEST_F(MediaStreamSender, AConnectionThatTakesNothingForItsTimeoutIsToldOnce) {
    receiver->SetSendTimeout(5);
    receiver.stall();
    putFrame("K");
    moveTime(4'999'999);
    buffer.do_send();
    EXPECT_EQ(0, log.count(3, TIMEOUT_LINE));
    moveTime(1);
    buffer.do_send();
    EXPECT_EQ(1, log.count(3, TIMEOUT_LINE));
    moveTime(60'000'000);
    buffer.do_send();
    EXPECT_EQ(1, log.count(3, TIMEOUT_LINE));
    expectTold();
    receiver.open();
    buffer.do_send();
    EXPECT_EQ("K", receiver.text()) << "the sender goes on all the same";
}

TEST_F(MediaStreamSender, ATimeoutOfZeroIsToldAtTheFirstWriteThatTakesNothing) {
    receiver->SetSendTimeout(0);
    putFrame("K");
    EXPECT_EQ(0, log.count(3, TIMEOUT_LINE));
    receiver.stall();
    putFrame("a");
    EXPECT_EQ(1, log.count(3, TIMEOUT_LINE));
    expectTold();
}

TEST_F(MediaStreamSender, ASlowConnectionIsNotASilentOne) {
    receiver->SetSendTimeout(5);
    receiver.slow().SetBandWidth(1);
    putFrame(std::string(1'000'000, 'K'));
    for (int i = 0; i < 7; ++i) {
        EXPECT_EQ(131'072U, receiver.text().size());
        buffer.do_send();  // takes nothing
        moveTime(4'000'000);
        nextPeriod();
        buffer.do_send();
    }
    EXPECT_EQ(0, log.count(3, "MediaStreamSender"));
    EXPECT_EQ(1U, receiver->GetCounters().frames_sent);
    expectNobodyTold();
}

TEST_F(MediaStreamSender, WithoutATimeoutOnlyEveryHundredthWriteInVainIsLogged) {
    receiver.stall();
    putFrame("K");
    for (int i = 0; i < 98; ++i) buffer.do_send();
    moveTime(UINT64_C(5'000'000'000'000'000));
    EXPECT_EQ(0, log.count(3, WARNING_LINE));
    buffer.do_send();
    EXPECT_EQ(1, log.count(3, std::string(WARNING_LINE) + "100!\n"));
    for (int i = 0; i < 100; ++i) buffer.do_send();
    EXPECT_EQ(1, log.count(3, std::string(WARNING_LINE) + "200!\n"));
    EXPECT_EQ(2, log.count(3, "MediaStreamSender"));
    expectNobodyTold();
}

TEST_F(MediaStreamSender, AWriteThatTakesSomethingEndsTheCount) {
    receiver.stall();
    putFrame("K");
    for (int i = 0; i < 98; ++i) buffer.do_send();
    receiver.open();
    buffer.do_send();
    receiver.stall();
    putFrame("a");
    for (int i = 0; i < 98; ++i) buffer.do_send();
    EXPECT_EQ(0, log.count(3, WARNING_LINE));
    buffer.do_send();
    EXPECT_EQ(1, log.count(3, WARNING_LINE));
}

TEST_F(MediaStreamSender, CountersTellOfFramesBytesAndStalls) {
    putFrame("Key");
    receiver.stall();
    putFrame("a");
    moveTime(300);
    EXPECT_EQ(300U, receiver->GetCounters().stalled_us);
    moveTime(200);
    receiver.open();
    buffer.do_send();
    moveTime(1000);
    CMediaStreamSender::SCounters counters = receiver->GetCounters();
    EXPECT_EQ(500U, counters.stalled_us);
    EXPECT_EQ(2U, counters.frames_sent);
    EXPECT_EQ(4U, counters.bytes_sent);
    receiver.stall();
    putFrame("b");
    moveTime(7);
    receiver.open();
    buffer.do_send();
    EXPECT_EQ(507U, receiver->GetCounters().stalled_us);
}

TEST_F(MediaStreamSender, AStallEndsWhenTheSenderLeaves) {
    receiver.stall();
    putFrame("K");
    moveTime(300);
    buffer.DelSender(receiver.get());
    moveTime(1000);
    EXPECT_EQ(300U, receiver->GetCounters().stalled_us);
}

TEST_F(MediaStreamSender, APartialWriteGoesOnWithinItsPacket) {
    std::string whole;
    for (int i = 0; i < 40; ++i) {
        const std::string packet(static_cast<std::size_t>(1 + i * 997 % 20'000), static_cast<char>('A' + i));
        whole += packet;
        put(buffer, packets, packet, 0);
    }
    receiver.slow().SetBandWidth(1);
    put(buffer, packets, "end", 1);
    whole += "end";
    std::string text = receiver.text();
    EXPECT_EQ(131'072U, text.size());
    while (text.size() < whole.size()) {
        nextPeriod();
        buffer.do_send();
        const std::string more = receiver.text();
        ASSERT_FALSE(more.empty());
        text += more;
    }
    EXPECT_EQ(whole, text);
}

TEST_F(MediaStreamSender, EmptyPacketsWithinAFrameDoNoHarm) {
    receiver.slow().SetBandWidth(1);
    put(buffer, packets, "", 0);
    put(buffer, packets, std::string(131'072, 'a'), 0);
    put(buffer, packets, "", 0);
    put(buffer, packets, "", 0);
    put(buffer, packets, "bb", 0);
    put(buffer, packets, "", 1);
    EXPECT_EQ(131'072U, receiver.text().size());
    nextPeriod();
    buffer.do_send();
    EXPECT_EQ("bb", receiver.text());
    EXPECT_EQ(0, packets.outstanding());
}

TEST_F(MediaStreamSender, AFrameOfMoreElementsThanACallTakesIsSentWhole) {
    std::string whole;
    for (int i = 0; i < 3000; ++i) {
        whole += std::to_string(i % 10);
        put(buffer, packets, whole.substr(whole.size() - 1), i == 2999 ? 1 : 0);
    }
    for (int i = 0; i < 3; ++i) buffer.do_send();
    EXPECT_EQ(whole, receiver.text());
}

TEST_F(MediaStreamSender, AHeldFrameLivesUntilItsSenderEnds) {
    receiver.slow().SetBandWidth(1);
    putFrame(std::string(200'000, 'K'));
    buffer.DelSender(receiver.get());
    EXPECT_EQ(1, packets.outstanding());
    receiver.close();
    EXPECT_EQ(0, packets.outstanding());
}

}  // namespace
}  // namespace Veltro::Ravelo
