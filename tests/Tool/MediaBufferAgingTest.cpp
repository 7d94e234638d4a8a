// How frames age, and what senders learn of those that went before their turn.
#include "Support/ScarceMemory.h"
#include "Tool/MediaRig.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

/// A buffer with a receiver that is in the middle of a first frame, so that frames pile up.
struct MediaAging : MediaFanout {
    static constexpr std::size_t FIRST_BYTES = 200'000;
    static constexpr std::size_t FIRST_SENT = 131'072;

    MediaAging() {
        receiver.slow().SetBandWidth(1);
        putFrame(std::string(FIRST_BYTES, 'K'));
        EXPECT_EQ(FIRST_SENT, receiver->GetCounters().bytes_sent);
        EXPECT_EQ(FIRST_SENT, receiver.text().size());
    }
    /// What the receiver gets once it takes everything again, behind the rest of the first frame.
    std::string after() {
        receiver.open();
        buffer.do_send();
        std::string text = receiver.text();
        const std::string rest(FIRST_BYTES - FIRST_SENT, 'K');
        EXPECT_EQ(rest, text.substr(0, rest.size()));
        return text.substr(std::min(rest.size(), text.size()));
    }
    /// Lets all frames become a step older.
    void age(int steps) {
        for (int i = 0; i < steps; ++i) buffer.do_send();
    }
    int valid() { return buffer.GetBufferNum(); }
};

TEST_F(MediaAging, AFrameOfLevelLIsDiscardedAtAgeTenTimesElevenLessL) {
    for (int level = 1; level <= 10; ++level) {
        const int before = valid();
        putFrame("x", level);  // its own step brings it to age 0
        EXPECT_EQ(before + 1, valid());
        const int steps = 10 * (11 - level);
        age(steps - 1);
        EXPECT_EQ(before + 1, valid()) << level;
        age(1);
        EXPECT_EQ(before, valid()) << level;
        expectInvariants(buffer);
    }
    EXPECT_EQ(10U, buffer.GetCounters().discarded);
    EXPECT_EQ(10U, buffer.GetCounters().discarded_bytes);
}

TEST_F(MediaAging, FramesAgeByOneStepWithEachFrame) {
    putFrame("first", 10);
    for (int i = 0; i < 9; ++i) putFrame("later", 1);
    EXPECT_EQ(11, valid());
    putFrame("last", 1);
    EXPECT_EQ(11, valid()) << "the first one went as the last one came";
    EXPECT_EQ(1U, buffer.GetCounters().discarded);
}

TEST_F(MediaAging, PacketsWithinAFrameAgeNobody) {
    putFrame("first", 10);
    for (int i = 0; i < 100; ++i) put(buffer, packets, "x", 0);
    EXPECT_EQ(2, valid());
    EXPECT_EQ(0U, buffer.GetCounters().discarded);
}

TEST_F(MediaAging, AFrameThatEndsWithAnEmptyPacketAgesTheOthers) {
    putFrame("first", 10);
    for (int i = 0; i < 10; ++i) {
        put(buffer, packets, "x", 0);
        put(buffer, packets, "", 1);
    }
    EXPECT_EQ(1U, buffer.GetCounters().discarded);
}

TEST_F(MediaAging, AFrameThatASenderIsAtIsNeverDiscarded) {
    age(500);
    EXPECT_EQ(1, valid());
    EXPECT_EQ("", after());
    EXPECT_EQ(0, packets.outstanding());
}

TEST_F(MediaAging, ASkippedChannelGoesOnWithItsNextKeyFrame) {
    putFrame("a", 10);
    age(10);
    EXPECT_EQ(1, valid()) << "the frame went before the sender came to it";
    putFrame("b", 10);
    putFrame("c", 2);
    putFrame("K", 1);
    putFrame("d", 10);
    EXPECT_EQ("Kd", after());
    const auto counters = receiver->GetCounters();
    EXPECT_EQ(1U, counters.skipped_late);
    EXPECT_EQ(2U, counters.skipped_to_key);
    EXPECT_EQ(0U, counters.skipped_channel);
    EXPECT_EQ(3U, counters.frames_sent);
    EXPECT_EQ(0, packets.outstanding());
    EXPECT_EQ(0U, buffer.GetBufferSize());
}

TEST_F(MediaAging, ALossOfOneChannelLeavesTheOthersAlone) {
    putFrame("1K", 1, 1);
    putFrame("0a", 10, 0);
    age(10);
    putFrame("1b", 10, 1);
    putFrame("0c", 10, 0);
    EXPECT_EQ("1K1b", after());
    putFrame("0d", 10, 0);
    EXPECT_EQ("", receiver.text());
    putFrame("0K", 1, 0);
    EXPECT_EQ("0K", receiver.text());
}

TEST_F(MediaAging, ALossIsKnownAlsoWhenTheFramesBehindItWentToo) {
    putFrame("a", 10, 3);
    putFrame("b", 9, 2);
    age(30);
    EXPECT_EQ(1, valid());
    // Whatever comes first of these channels must be a key frame.
    putFrame("2x", 10, 2);
    putFrame("3x", 10, 3);
    putFrame("3K", 10, 3);
    EXPECT_EQ("3x3K", after()) << "the best that channel 3 ever had is 10, so that all of it are key frames";
    putFrame("2K", 9, 2);
    EXPECT_EQ("2K", receiver.text());
}

TEST_F(MediaAging, ALossAtTheVeryEndIsLearntWithTheNextFrame) {
    putFrame("a", 10);
    age(10);
    EXPECT_EQ("", after());
    putFrame("b", 10);
    EXPECT_EQ("", receiver.text());
    putFrame("K", 1);
    EXPECT_EQ("K", receiver.text());
    EXPECT_EQ(0, packets.outstanding());
}

TEST_F(MediaAging, ASenderThatHadTheFrameDoesNotLoseItsChannel) {
    CMediaReceiver fast;
    buffer.AddSender(fast.get());
    putFrame("K", 1);
    putFrame("a", 10);
    EXPECT_EQ("Ka", fast.text());
    age(10);  // for the slow one the frame is lost
    putFrame("b", 10);
    EXPECT_EQ("b", fast.text());
    EXPECT_EQ(0U, fast->GetCounters().skipped_late);
    EXPECT_EQ("K", after()) << "the slow one waits for a key frame";
    buffer.DelSender(fast.get());
}

TEST_F(MediaAging, ALossThatASenderHadPassedIsNotItsOwn) {
    CMediaReceiver fast;
    buffer.AddSender(fast.get());
    putFrame("0K", 1, 0);
    putFrame("0a", 10, 0);
    age(10);  // lost to the slow one only
    fast.stall();
    putFrame("2K", 5, 2);
    putFrame("1a", 10, 1);
    age(10);  // lost to both
    fast.open();
    putFrame("0b", 10, 0);
    EXPECT_EQ("0K0a2K0b", fast.text());
    EXPECT_EQ(1U, fast->GetCounters().skipped_late);
    EXPECT_EQ("0K2K", after());
    EXPECT_EQ(2U, receiver->GetCounters().skipped_late);
    buffer.DelSender(fast.get());
}

TEST_F(MediaAging, PositionsCountWhatWasRemovedSoThatFreeingNeverLags) {
    for (int round = 0; round < 20; ++round) {
        putFrame(std::string(1000, 'a'), 10);
        age(10);
        putFrame("K", 1);
    }
    after();
    EXPECT_EQ(0U, buffer.GetBufferSize());
    EXPECT_EQ(0, packets.outstanding());
    EXPECT_EQ(1U, frames());
    expectInvariants(buffer);
    putFrame("b", 10);
    EXPECT_EQ(0, packets.outstanding());
}

TEST_F(MediaAging, BytesOfAStalledReceiverAreBounded) {
    for (int i = 0; i < 2000; ++i) {
        putFrame(std::string(1000, 'x'), i % 25 == 0 ? 1 : 6);
        EXPECT_LE(frames(), 103U);
        if (i % 100 == 0) expectInvariants(buffer);
    }
    EXPECT_LE(buffer.GetBufferSize(), FIRST_BYTES + 101'000);
    after();
    EXPECT_EQ(0U, buffer.GetBufferSize());
}

TEST_F(MediaAging, AFrameBeingSentCountsAsValid) {
    EXPECT_EQ(1, valid());
    buffer.DelSender(receiver.get());
    EXPECT_EQ(0, valid());
    EXPECT_EQ(0U, buffer.GetBufferSize());
}

TEST_F(MediaAging, AFrameThatWasDroppedWhileFilledIsLostToItsChannel) {
    for (int i = 0; i < 32; ++i) put(buffer, packets, "x", 0, 10, 5);
    {
        const CScarceMemory none(0);
        EXPECT_EQ(-1, buffer.Put(packets.make("y"), 1, 0, 1));
    }
    EXPECT_EQ(-1, put(buffer, packets, "end", 1, 10, 0));
    putFrame("a", 10, 0);
    putFrame("K", 1, 0);
    EXPECT_EQ("K", after());
    EXPECT_EQ(1U, receiver->GetCounters().skipped_late);
    expectInvariants(buffer);
}

TEST_F(MediaAging, SendersInTwoPlacesLearnOfTheirOwnLosses) {
    // The second receiver stands behind the frame that the first one has still to get.
    CMediaReceiver second;
    buffer.AddSender(second.get());
    putFrame("K", 1);
    putFrame("a", 10);
    EXPECT_EQ("Ka", second.text());
    second.slow().SetBandWidth(1);
    putFrame(std::string(FIRST_BYTES, 'L'), 1);
    EXPECT_EQ(FIRST_SENT - 2, second.text().size());
    putFrame("b", 10);
    age(10);
    putFrame("c", 10);
    EXPECT_EQ("K" + std::string(FIRST_BYTES, 'L'), after());
    second.open();
    buffer.do_send();
    EXPECT_EQ(std::string(FIRST_BYTES - FIRST_SENT + 2, 'L'), second.text());
    EXPECT_EQ(1U, second->GetCounters().skipped_late);
    EXPECT_EQ(1U, second->GetCounters().skipped_to_key);
    EXPECT_EQ(2U, receiver->GetCounters().skipped_late);
    buffer.DelSender(second.get());
}

}  // namespace
}  // namespace Veltro::Ravelo
