// What a sender slips in between frames, and what it gives back of a split packet.
#include "Support/ScarceMemory.h"
#include "Support/SockRegistry.h"
#include "Tool/MediaRig.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

using MediaOtherData = MediaFanout;
using MediaTailPacket = MediaFanout;

constexpr std::size_t PERIOD_BYTES = 131'072;

void sendOther(CMediaReceiver& receiver, const std::string& text) {
    receiver->SendOtherData(text.data(), static_cast<int>(text.size()));
}

TEST_F(MediaOtherData, ItGoesBeforeTheNextFrame) {
    sendOther(receiver, "head ");
    EXPECT_EQ("", receiver.text());
    putFrame("K");
    EXPECT_EQ("head K", receiver.text(5));
    sendOther(receiver, "one ");
    sendOther(receiver, "two ");
    buffer.do_send();
    EXPECT_EQ("one two ", receiver.text(8)) << "no frame need be there";
}

TEST_F(MediaOtherData, ItWaitsForTheFirstKeyFrameWithItsSender) {
    putFrame("K");
    CMediaReceiver late;
    sendOther(late, "head ");
    buffer.AddSender(late.get());
    putFrame("a", 5);
    EXPECT_EQ("", late.text());
    putFrame("K2");
    EXPECT_EQ("head K2", late.text(5));
    buffer.DelSender(late.get());
}

TEST_F(MediaOtherData, ItNeverSplitsAFrame) {
    receiver.slow().SetBandWidth(1);
    const std::string frame(200'000, 'K');
    putFrame(frame);
    sendOther(receiver, "other");
    nextPeriod();
    putFrame("a", 5);
    EXPECT_EQ(frame + "othera", receiver.text(5));
}

TEST_F(MediaOtherData, FourKibibytesAreKeptAndAByteMoreIsDropped) {
    sendOther(receiver, std::string(4096, 'o'));
    sendOther(receiver, "x");
    putFrame("K");
    EXPECT_EQ(std::string(4096, 'o') + "K", receiver.text(4096));
    sendOther(receiver, std::string(4097, 'p'));
    sendOther(receiver, "fits");
    sendOther(receiver, std::string(4093, 'p'));
    sendOther(receiver, std::string(4092, 'q'));
    buffer.do_send();
    EXPECT_EQ("fits" + std::string(4092, 'q'), receiver.text(4096));
    EXPECT_EQ(0, log.count(3, "MediaStreamSender"));
}

TEST_F(MediaOtherData, WithoutMemoryItIsDropped) {
    {
        const CScarceMemory none(0);
        sendOther(receiver, "lost");
    }
    sendOther(receiver, "kept");
    putFrame("K");
    EXPECT_EQ("keptK", receiver.text(4));
}

TEST_F(MediaOtherData, NothingIsNoData) {
    receiver->SendOtherData(nullptr, 5);
    receiver->SendOtherData("x", 0);
    receiver->SendOtherData("x", -1);
    receiver->SendOtherData("x", INT32_MIN);
    putFrame("K");
    EXPECT_EQ("K", receiver.text());
}

TEST_F(MediaOtherData, NoFrameIsLostByWaitingForIt) {
    putFrame("K");
    receiver.stall();
    sendOther(receiver, "other");
    putFrame("a", 10);
    for (int i = 0; i < 30; ++i) putFrame(std::string(1, static_cast<char>('A' + i % 26)), 5);
    EXPECT_EQ("K", receiver.text());
    receiver.open();
    buffer.do_send();
    EXPECT_EQ("otheraABCDEFGHIJKLMNOPQRSTUVWXYZABCD", receiver.text(5));
    EXPECT_EQ(0, packets.outstanding());
}

TEST_F(MediaOtherData, ItIsSentInPartsBeforeTheFrame) {
    receiver.slow().SetBandWidth(1);
    putFrame(std::string(PERIOD_BYTES - 10, 'K'));
    EXPECT_EQ(PERIOD_BYTES - 10, receiver.text().size());
    sendOther(receiver, "0123456789ABC");
    putFrame("a", 5);
    EXPECT_EQ("0123456789", receiver.text(10));
    sendOther(receiver, "DEF");
    nextPeriod();
    buffer.do_send();
    EXPECT_EQ("ABCDEFa", receiver.text(6));
}

TEST_F(MediaOtherData, ItCountsForTheTimeoutToo) {
    CScopedHandler owner;
    std::atomic<int> told{0};
    owner->on_message = [&](long, unsigned type, long) {
        EXPECT_EQ(2U, type);
        return ++told;
    };
    receiver->WaitException(owner->GetID());
    receiver->SetSendTimeout(3);
    putFrame("K");
    receiver.stall();
    sendOther(receiver, "x");
    buffer.do_send();
    moveTime(3'000'000);
    buffer.do_send();
    EXPECT_EQ(1, log.count(3, "MediaStreamSender check_other_data socket exception for timeout!\n"));
    for (int i = 0; i < 98; ++i) buffer.do_send();
    EXPECT_EQ(1, log.count(3, "MediaStreamSender net warnning 100!\n"));
    EXPECT_TRUE(waitUntil([&] { return told.load() == 1; }));
    EXPECT_EQ(3'000'000U, receiver->GetCounters().stalled_us);
}

TEST_F(MediaOtherData, AFailureIsToldOnceAndEndsTheSending) {
    CScopedHandler owner;
    std::atomic<int> told{0};
    owner->on_message = [&](long, unsigned, long) { return ++told; };
    receiver->WaitException(owner->GetID());
    putFrame("K");
    sendOther(receiver, "x");
    receiver.own().Close();
    putFrame("a");
    EXPECT_EQ(1, log.count(3, "MediaStreamSender check_other_data socket exception!\n"));
    EXPECT_EQ(0, packets.outstanding());
    EXPECT_TRUE(waitUntil([&] { return told.load() == 1; }));
    buffer.AddSender(receiver.get());
    putFrame("b");
    EXPECT_EQ(1, log.count(3, "MediaStreamSender"));
}

TEST_F(MediaOtherData, AFailureBetweenTwoFramesEndsTheSendingToo) {
    receiver->AttachSendProc([this](CMediaPacket*, int, int) {
        sendOther(receiver, "x");
        receiver.own().Close();
    });
    putFrame("K");
    EXPECT_EQ(nullptr, receiver.record().m_frame);
    EXPECT_EQ(0, packets.outstanding());
    EXPECT_EQ(1, log.count(2, "send failed!"));
}

TEST_F(MediaTailPacket, WithoutASplitPacketThereIsNone) {
    char bytes[4];
    EXPECT_EQ(0, receiver->GetTailPacket(bytes, 4));
    receiver.stall();
    putFrame("K");
    EXPECT_EQ(0, receiver->GetTailPacket(bytes, 4)) << "a frame that has not begun";
}

TEST_F(MediaTailPacket, ATooSmallBufferChangesNothing) {
    receiver.slow().SetBandWidth(1);
    putFrame(std::string(PERIOD_BYTES, 'a') + "tail");
    char bytes[4];
    EXPECT_EQ(-1, receiver->GetTailPacket(bytes, 3));
    EXPECT_EQ(-1, receiver->GetTailPacket(bytes, 0));
    EXPECT_EQ(-1, receiver->GetTailPacket(bytes, -1));
    ASSERT_EQ(4, receiver->GetTailPacket(bytes, 4));
    EXPECT_EQ("tail", std::string(bytes, 4));
}

TEST_F(MediaTailPacket, ItIsTheRestOfThePacketAndTheFrameGoesOnBehindIt) {
    receiver.slow().SetBandWidth(1);
    put(buffer, packets, std::string(100'000, 'a'), 0);
    put(buffer, packets, std::string(100'000, 'b'), 0);
    put(buffer, packets, "cc", 1);
    EXPECT_EQ(PERIOD_BYTES, receiver.text().size());
    std::string tail(100'000, ' ');
    ASSERT_EQ(200'000 - static_cast<int>(PERIOD_BYTES), receiver->GetTailPacket(tail.data(), 100'000));
    EXPECT_EQ('b', tail[0]);
    EXPECT_EQ(0, receiver->GetTailPacket(tail.data(), 100'000));
    EXPECT_EQ(200'000U, receiver.record().m_position);
    nextPeriod();
    buffer.do_send();
    EXPECT_EQ(2U + (200'000U - PERIOD_BYTES), receiver->GetCounters().bytes_sent - PERIOD_BYTES);
    EXPECT_EQ("cc", receive(receiver.peer(), 2));
    EXPECT_EQ(0, packets.outstanding());
}

TEST_F(MediaTailPacket, ATailThatEndsAFrameCountsItAsSent) {
    int calls = 0;
    receiver->AttachSendProc([&](CMediaPacket*, int, int length) {
        calls += 1;
        EXPECT_EQ(static_cast<int>(PERIOD_BYTES) + 4, length);
    });
    receiver.slow().SetBandWidth(1);
    putFrame(std::string(PERIOD_BYTES, 'a') + "tail");
    putFrame("next", 5);
    CFrame* frame = receiver.record().m_frame;
    EXPECT_EQ(static_cast<std::int64_t>(PERIOD_BYTES), frame->m_sending_bytes.load());
    char bytes[4];
    EXPECT_EQ(4, receiver->GetTailPacket(bytes, 4));
    EXPECT_EQ(1, calls);
    EXPECT_EQ(0, frame->m_sending_bytes.load());
    EXPECT_EQ(1U, frame->senders()) << "its reference stays until the sender goes on";
    EXPECT_EQ(0U, frame->m_next->senders()) << "and the next one has none yet";
    EXPECT_EQ(1U, receiver->GetCounters().frames_sent);
    receiver->DetachSendProc();
    nextPeriod();
    buffer.do_send();
    EXPECT_EQ(PERIOD_BYTES, receive(receiver.peer(), PERIOD_BYTES).size());
    EXPECT_EQ("next", receive(receiver.peer(), 4));
    EXPECT_EQ(0, packets.outstanding());
    expectInvariants(buffer);
}

TEST_F(MediaTailPacket, BehindATailTheNextFrameMayBeGone) {
    receiver.slow().SetBandWidth(1);
    putFrame(std::string(PERIOD_BYTES, 'a') + "tail");
    putFrame("b", 10);
    char bytes[4];
    EXPECT_EQ(4, receiver->GetTailPacket(bytes, 4));
    buffer.Clear();
    EXPECT_EQ(1, packets.outstanding()) << "the first frame, which the sender has still";
    buffer.AddSender(receiver.get());
    EXPECT_EQ(0, packets.outstanding());
    nextPeriod();
    putFrame("K");
    EXPECT_EQ(PERIOD_BYTES, receive(receiver.peer(), PERIOD_BYTES).size());
    EXPECT_EQ("K", receive(receiver.peer(), 1));
    expectInvariants(buffer);
}

TEST_F(MediaTailPacket, ATailIsThereAfterTheSenderHasLeft) {
    receiver.slow().SetBandWidth(1);
    putFrame(std::string(PERIOD_BYTES, 'a') + "tail");
    buffer.DelSender(receiver.get());
    char bytes[4];
    ASSERT_EQ(4, receiver->GetTailPacket(bytes, 4));
    EXPECT_EQ("tail", std::string(bytes, 4));
    EXPECT_EQ(0, receiver->GetTailPacket(bytes, 4));
    EXPECT_EQ(1, packets.outstanding()) << "kept until the sender goes on or ends";
    buffer.AddSender(receiver.get());
    EXPECT_EQ(0, packets.outstanding());
    nextPeriod();
    putFrame("K");
    EXPECT_EQ(PERIOD_BYTES, receive(receiver.peer(), PERIOD_BYTES).size());
    EXPECT_EQ("K", receive(receiver.peer(), 1));
}

}  // namespace
}  // namespace Veltro::Ravelo
