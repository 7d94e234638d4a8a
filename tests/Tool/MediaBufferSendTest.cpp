// How a buffer serves its connections: joining, keeping up, leaving, failing.
#include "Support/Gate.h"
#include "Support/ScarceMemory.h"
#include "Tool/MediaRig.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

using MediaBufferSend = MediaFanout;

/// Something in the place of a frame that the socket takes only in part.
const std::string LONG(200'000, 'K');

TEST_F(MediaBufferSend, AFrameIsSentWhenItIsComplete) {
    put(buffer, packets, "one ", 0);
    put(buffer, packets, "two ", 0);
    EXPECT_EQ("", receiver.text());
    put(buffer, packets, "three", 1);
    EXPECT_EQ("one two three", receiver.text());
    EXPECT_EQ(0, packets.outstanding());
    EXPECT_EQ(0, buffer.GetBufferNum());
    EXPECT_EQ(1U, frames()) << "the next one";
    expectInvariants(buffer);
}

TEST_F(MediaBufferSend, ASenderJoinsAtAKeyFrameOnly) {
    CMediaReceiver late;
    putFrame("K0", 1);
    buffer.AddSender(late.get());
    putFrame("a", 2);
    putFrame("b", 10);
    EXPECT_EQ("", late.text());
    putFrame("K1", 1);
    putFrame("c", 2);
    EXPECT_EQ("K1c", late.text());
    EXPECT_EQ("K0abK1c", receiver.text());
    buffer.DelSender(late.get());
}

TEST_F(MediaBufferSend, ASenderNeverJoinsAtAnEmptyTail) {
    CMediaReceiver late;
    putFrame("K", 1);
    buffer.AddSender(late.get());
    for (int i = 0; i < 3; ++i) buffer.do_send();
    EXPECT_FALSE(late.record().m_started);
    putFrame("a", 5);
    EXPECT_EQ("", late.text());
    buffer.DelSender(late.get());
}

TEST_F(MediaBufferSend, TheVeryFirstByteIsAPositionLikeAnyOther) {
    // The first frame begins at position 0, which does not mean that the sender has not started.
    receiver.stall();
    putFrame("K", 1);
    EXPECT_TRUE(receiver.record().m_started);
    EXPECT_EQ(0U, receiver.record().m_position);
    putFrame("a", 5);
    receiver.open();
    putFrame("b", 5);
    EXPECT_EQ("Kab", receiver.text());
    EXPECT_EQ(0, packets.outstanding());
}

TEST_F(MediaBufferSend, ABetterLevelThanEverIsAKeyFrame) {
    putFrame("5", 5);
    putFrame("6", 6);
    CMediaReceiver late;
    buffer.AddSender(late.get());
    putFrame("6", 6);
    putFrame("3", 3);
    putFrame("5", 5);
    EXPECT_EQ("35", late.text());
    buffer.DelSender(late.get());
}

TEST_F(MediaBufferSend, FramesWaitForTheSlowestSender) {
    CMediaReceiver slow;
    buffer.AddSender(slow.get());
    slow.stall();
    for (int i = 0; i < 5; ++i) putFrame("x", 1);
    EXPECT_EQ("xxxxx", receiver.text());
    EXPECT_EQ(5, buffer.GetBufferNum());
    EXPECT_EQ(5U, buffer.GetBufferSize());
    slow.open();
    buffer.do_send();
    EXPECT_EQ("xxxxx", slow.text());
    EXPECT_EQ(0U, buffer.GetBufferSize());
    EXPECT_EQ(0, packets.outstanding());
    buffer.DelSender(slow.get());
}

TEST_F(MediaBufferSend, FramesBeforeTheSlowestPositionGoOneByOne) {
    receiver.slow().SetBandWidth(1);
    for (int i = 0; i < 3; ++i) putFrame(std::string(100'000, 'x'), 1);
    EXPECT_EQ(2, buffer.GetBufferNum());
    EXPECT_EQ(200'000U, buffer.GetBufferSize());
    EXPECT_EQ(2, packets.outstanding());
    EXPECT_EQ(131'072U, receiver.text().size());
    nextPeriod();
    buffer.do_send();
    EXPECT_EQ(1, packets.outstanding());
    EXPECT_EQ(131'072U, receiver.text().size());
    expectInvariants(buffer);
}

TEST_F(MediaBufferSend, DoSendSendsOnlyAfterTheEndOfAFrame) {
    receiver.stall();
    putFrame("K", 1);
    receiver.open();
    put(buffer, packets, "half", 0);
    buffer.do_send();
    EXPECT_EQ("", receiver.text());
    put(buffer, packets, "", 1, 10);
    EXPECT_EQ("Khalf", receiver.text());
}

TEST_F(MediaBufferSend, OtherMarksContinueAFrame) {
    putFrame("K", 1);
    put(buffer, packets, "a", 2);
    put(buffer, packets, "b", -1);
    EXPECT_EQ("K", receiver.text());
    put(buffer, packets, "c", 1);
    EXPECT_EQ("abc", receiver.text());
}

TEST_F(MediaBufferSend, AFrameOfOtherMarksOutlivesTheLastSender) {
    put(buffer, packets, "a", 2);
    buffer.DelSender(receiver.get());
    EXPECT_EQ(1U, buffer.GetBufferSize()) << "it is being filled";
    CMediaReceiver other;
    buffer.AddSender(other.get());
    put(buffer, packets, "b", 1);
    EXPECT_EQ("ab", other.text());
    buffer.DelSender(other.get());
}

TEST_F(MediaBufferSend, TheLastSenderTakesTheCompleteFramesAlong) {
    receiver.stall();
    for (int i = 0; i < 5; ++i) putFrame("x", 1);
    put(buffer, packets, "half", 0);
    EXPECT_EQ(6, packets.outstanding());
    buffer.DelSender(receiver.get());
    EXPECT_EQ(1, packets.outstanding());
    EXPECT_EQ(4U, buffer.GetBufferSize());
    expectInvariants(buffer);
}

TEST_F(MediaBufferSend, AReceiverThatResetsIsDroppedAndTheOthersAreNot) {
    CMediaReceiver other;
    buffer.AddSender(other.get());
    receiver.slow().SetBandWidth(1);
    putFrame(LONG, 1);
    EXPECT_EQ(131'072U, receiver.text().size()) << "in the middle of a frame";
    reset(receiver.peer());
    waitReadable(receiver.own());
    receiver.open();
    EXPECT_TRUE(waitUntil([this] {
        putFrame("a", 10);
        return !receiver.record().m_started;
    }));
    const std::string text = other.text();
    EXPECT_EQ(LONG, text.substr(0, LONG.size()));
    EXPECT_EQ(std::string(text.size() - LONG.size(), 'a'), text.substr(LONG.size()));
    EXPECT_EQ(0, packets.outstanding());
    expectInvariants(buffer);
    buffer.DelSender(receiver.get());  // no matter
    buffer.DelSender(other.get());
}

TEST_F(MediaBufferSend, TheLastSenderThatFailsTakesTheFramesAlong) {
    receiver.stall();
    putFrame("K", 1);
    putFrame("a", 1);
    EXPECT_EQ(2, packets.outstanding());
    receiver.open();
    receiver.own().Close();
    putFrame("b", 1);
    EXPECT_EQ(0, packets.outstanding());
    EXPECT_EQ(0U, buffer.GetBufferSize());
    putFrame("c", 1);
    EXPECT_EQ(0, packets.outstanding());
}

TEST_F(MediaBufferSend, ASenderOnADeadSocketIsDroppedAtItsFirstFrame) {
    CMediaReceiver dead;
    dead.own().Close();
    buffer.AddSender(dead.get());
    putFrame("K", 1);
    putFrame("a", 1);
    EXPECT_EQ("Ka", receiver.text());
    EXPECT_EQ(0U, dead->GetCounters().bytes_sent);
    EXPECT_EQ(0, packets.outstanding());
}

TEST_F(MediaBufferSend, ASenderWithoutASocketFailsAnAssertion) {
    receiver->Detach();
    EXPECT_ASSERTION(putFrame("K", 1), "m_stream != NULL");
}

TEST_F(MediaBufferSend, ASenderIsLinkedOnce) {
    buffer.AddSender(receiver.get());
    buffer.AddSender(receiver.get());
    buffer.AddSender(nullptr);
    buffer.DelSender(nullptr);
    putFrame("once", 1);
    EXPECT_EQ("once", receiver.text());
    buffer.DelSender(receiver.get());
    putFrame("gone", 1);
    EXPECT_EQ("", receiver.text());
}

TEST_F(MediaBufferSend, ASenderThatComesBackBeginsWithAKeyFrame) {
    CMediaReceiver other;
    buffer.AddSender(other.get());
    putFrame("K0", 1);
    buffer.DelSender(receiver.get());
    putFrame("a", 5);
    buffer.AddSender(receiver.get());
    putFrame("b", 5);
    putFrame("K1", 1);
    EXPECT_EQ("K0K1", receiver.text());
    EXPECT_EQ("K0abK1", other.text());
    expectInvariants(buffer);
    buffer.DelSender(other.get());
}

TEST_F(MediaBufferSend, ASenderThatComesBackInTheMiddleOfAFrameFinishesItFirst) {
    receiver.slow().SetBandWidth(1);
    putFrame(LONG, 1);
    putFrame("a", 5);
    buffer.DelSender(receiver.get());
    EXPECT_EQ(1, packets.outstanding()) << "the frame belongs to the sender now";
    buffer.AddSender(receiver.get());
    putFrame("b", 5);
    receiver.open();
    putFrame("c", 5);
    EXPECT_EQ(LONG, receiver.text());
    EXPECT_EQ(0, packets.outstanding() - 2) << "b and c, which the buffer keeps for those who join";
    putFrame("K1", 1);
    putFrame("d", 5);
    EXPECT_EQ("K1d", receiver.text());
    EXPECT_EQ(0, packets.outstanding());
    expectInvariants(buffer);
}

TEST_F(MediaBufferSend, ASenderMayGoOnInAnotherBuffer) {
    CMediaBuffer other;
    receiver.slow().SetBandWidth(1);
    putFrame(LONG, 1);
    buffer.DelSender(receiver.get());
    other.AddSender(receiver.get());
    receiver.open();
    put(other, packets, "K1", 1, 1);
    EXPECT_EQ(LONG + "K1", receiver.text()) << "the rest of the frame, and the key frame of the same pass";
    other.DelSender(receiver.get());
}

TEST_F(MediaBufferSend, ASenderSurvivesAClearInTheMiddleOfAFrame) {
    receiver.slow().SetBandWidth(1);
    putFrame(LONG, 1);
    buffer.Clear();
    EXPECT_EQ(1, packets.outstanding());
    buffer.AddSender(receiver.get());
    receiver.open();
    putFrame("K1", 1);
    EXPECT_EQ(LONG + "K1", receiver.text());
    EXPECT_EQ(0, packets.outstanding());
}

TEST_F(MediaBufferSend, ASenderIsSentItsOwnChannels) {
    CMediaReceiver two;
    two->SetSendChannel(2);
    buffer.AddSender(two.get());
    putFrame("0K", 1, 0);
    EXPECT_FALSE(two.record().m_started) << "no key frame of its channels";
    putFrame("2K", 1, 2);
    putFrame("0a", 5, 0);
    putFrame("2a", 5, 2);
    EXPECT_EQ("2K2a", two.text());
    EXPECT_EQ("0K2K0a2a", receiver.text());
    EXPECT_EQ(8U, two.record().m_position) << "skipped frames count";
    EXPECT_EQ(1U, two->GetCounters().skipped_channel);
    EXPECT_EQ(0, packets.outstanding());
    buffer.DelSender(two.get());
}

TEST_F(MediaBufferSend, AChannelThatIsSwitchedOnAgainGoesOnWithItsKeyFrame) {
    putFrame("K0", 1);
    receiver->DisableSendChannel(0);
    putFrame("a", 5);
    putFrame("K1", 1);
    receiver->SetSendChannel(0);
    putFrame("b", 5);
    putFrame("K2", 1);
    EXPECT_EQ("K0K2", receiver.text());
}

TEST_F(MediaBufferSend, AFrameThatWaitsIsSkippedWhenItsChannelIsSwitchedOff) {
    receiver.stall();
    putFrame("K0", 1);
    putFrame("a", 5);
    EXPECT_EQ(2, packets.outstanding());
    receiver->DisableSendChannel(0);
    receiver.open();
    buffer.do_send();
    EXPECT_EQ("", receiver.text());
    EXPECT_EQ(0, packets.outstanding());
}

TEST_F(MediaBufferSend, CountersOfTheBufferAddUp) {
    receiver.stall();
    putFrame("K", 1);
    for (int i = 0; i < 20; ++i) putFrame("aa", 10);
    put(buffer, packets, "half", 0);
    const CMediaBuffer::SCounters counters = buffer.GetCounters();
    EXPECT_EQ(21U, counters.frames_put);
    EXPECT_EQ(10U, counters.discarded);
    EXPECT_EQ(20U, counters.discarded_bytes);
    EXPECT_EQ(11U, counters.valid_frames);
    EXPECT_EQ(12U, counters.frames);
    EXPECT_EQ(1U + 20U + 4U, counters.bytes);
    EXPECT_EQ(0U, counters.dropped);
}

TEST_F(MediaBufferSend, WithoutMemoryForTheNextFrameNothingIsLostButWhatComesMeanwhile) {
    receiver.stall();
    CTestPacket* key = packets.make("K");
    CTestPacket* lost = packets.make("lost");
    {
        const CScarceMemory none(0);
        EXPECT_EQ(0, buffer.Put(key, 1, 1, 1)) << "it fits the frame that was there";
        EXPECT_EQ(-1, buffer.Put(lost, 4, 1, 5));
        buffer.do_send();
    }
    putFrame("a", 5);
    putFrame("K1", 1);
    receiver.open();
    buffer.do_send();
    EXPECT_EQ("KK1", receiver.text());
    EXPECT_EQ(0, packets.outstanding());
    expectInvariants(buffer);
}

TEST_F(MediaBufferSend, BytesLeftOverInAnEmptyListFailAnAssertion) {
    const auto break_the_count = [this] {
        SMediaBufferRecord& record = SMediaBufferRecord::of(buffer);
        Plinth::CLockGuard guard(record.mutex);
        record.m_byte_discard -= 3;
    };
    EXPECT_ASSERTION((break_the_count(), putFrame("K", 1)),
                     " tid:.*, CMediaBuffer::send_packet, unexcepted result, discard_byte =3 ");
    EXPECT_ASSERTION((break_the_count(), putFrame("K", 1)), "discard_byte == 0");
}

TEST_F(MediaBufferSend, ReceiversComeAndGoWhileTheStreamRuns) {
    std::atomic<bool> stop{false};
    std::atomic<int> joined{0};
    {
        CRunner producer([&] {
            for (int i = 0; !stop.load(); ++i) {
                putFrame(std::string(500, 'x'), i % 5 == 0 ? 1 : 6);
                Plinth::yieldThread();
            }
        });
        std::vector<std::unique_ptr<CRunner>> clients;
        for (int t = 0; t < 2; ++t) {
            clients.push_back(std::make_unique<CRunner>([&] {
                for (int i = 0; i < 10; ++i) {
                    CMediaReceiver client;
                    client->SendOtherData("head", 4);
                    buffer.AddSender(client.get());
                    EXPECT_TRUE(waitUntil([&] { return client->GetCounters().frames_sent > 2; }));
                    client->SetSendTimeout(7);
                    client->SendOtherData("more", 4);
                    EXPECT_GE(buffer.GetBufferNum(), 0);
                    buffer.DelSender(client.get());
                    joined += 1;
                }
            }));
        }
        clients.clear();
        stop = true;
    }
    EXPECT_EQ(20, joined.load());
    buffer.DelSender(receiver.get());
    receiver.close();
    EXPECT_EQ(0, packets.outstanding());
}

}  // namespace
}  // namespace Veltro::Ravelo
