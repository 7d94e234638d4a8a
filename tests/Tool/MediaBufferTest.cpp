// What a buffer takes and keeps, without a connection.
#include <Ravelo/MediaBuffer.h>

#include "Support/ScarceMemory.h"
#include "Tool/MediaRig.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

/// A second-level buffer that writes down what it is offered.
struct CRecorder : CLevel2Buffer_IF {
    std::vector<std::array<int, 3>> calls;
    std::vector<CMediaPacket*> offered;
    std::vector<std::string>* order = nullptr;
    std::string name;
    int result = 0;
    bool deletes_itself = false;

    int PutPacket(CMediaPacket* packet, int len, int mark, int level) override {
        calls.push_back({len, mark, level});
        offered.push_back(packet);
        if (order != nullptr) order->push_back(name);
        const int its_result = result;
        if (deletes_itself) delete this;
        return its_result;
    }
};

struct MediaBuffer : MediaTest {
    CMediaBuffer buffer;

    int putText(const std::string& text, int mark = 1, int level = 1, int channel = 0) {
        return put(buffer, packets, text, mark, level, channel);
    }
    SMediaBufferRecord& record() { return SMediaBufferRecord::of(buffer); }
    /// The level word of a frame whose packets have been stored and that has not ended.
    std::uint32_t storedLevel(int level) PLINTH_NO_THREAD_SAFETY_ANALYSIS {
        CTestPacket* packet = packets.make("x");
        buffer.Put(packet, 1, 0, level);
        return record().m_frame_tail->m_level;
    }
    std::int32_t bestLevel(std::size_t channel) PLINTH_NO_THREAD_SAFETY_ANALYSIS {
        return record().m_min_level[channel];
    }
};

TEST_F(MediaBuffer, ANewOneHasOneEmptyFrame) {
    const CMediaBuffer::SCounters counters = buffer.GetCounters();
    EXPECT_EQ(1U, counters.frames);
    EXPECT_EQ(0U, counters.valid_frames);
    EXPECT_EQ(0U, counters.bytes);
    EXPECT_EQ(0, buffer.GetBufferNum());
    EXPECT_EQ(0U, buffer.GetBufferSize());
    for (std::size_t channel = 0; channel < 8; ++channel) EXPECT_EQ(10, bestLevel(channel));
    expectInvariants(buffer);
}

TEST_F(MediaBuffer, WithoutSendersAFrameGoesAsSoonAsItIsComplete) {
    EXPECT_EQ(0, putText("one", 0));
    EXPECT_EQ(0, putText("two", 0));
    EXPECT_EQ(6U, buffer.GetBufferSize()) << "the frame being filled";
    EXPECT_EQ(2, packets.outstanding());
    EXPECT_EQ(0, putText("three"));
    EXPECT_EQ(0U, buffer.GetBufferSize());
    EXPECT_EQ(0, packets.outstanding());
    EXPECT_EQ(1U, buffer.GetCounters().frames_put);
}

TEST_F(MediaBuffer, ANullPacketDoesNothing) {
    putText("begun", 0);
    EXPECT_EQ(0, buffer.Put(nullptr, 5, 1, 1));
    EXPECT_EQ(0, buffer.Put(nullptr, -5, 0, 99));
    EXPECT_EQ(5U, buffer.GetBufferSize());
    EXPECT_EQ(0U, buffer.GetCounters().frames_put);
}

TEST_F(MediaBuffer, LevelsAreSignedNumbersOf24BitsFromOneToTen) {
    EXPECT_EQ(1U, storedLevel(0));
    EXPECT_EQ(1U, storedLevel(1));
    EXPECT_EQ(10U, storedLevel(10));
    EXPECT_EQ(10U, storedLevel(11));
    EXPECT_EQ(10U, storedLevel(37));
    EXPECT_EQ(10U, storedLevel(99));
    EXPECT_EQ(10U, storedLevel(0x7F'FFFF));
    EXPECT_EQ(1U, storedLevel(0x80'0000)) << "the least number of 24 bits";
    EXPECT_EQ(1U, storedLevel(0xFF'FFFF)) << "-1";
}

TEST_F(MediaBuffer, TheChannelStandsAboveTheLevel) {
    EXPECT_EQ(0x0700'0003U, storedLevel(levelArgument(3, 7)));
    EXPECT_EQ(0x0200'0001U, storedLevel(levelArgument(0, 2)));
    EXPECT_EQ(0x0900'0005U, storedLevel(levelArgument(5, 9))) << "no matter until the frame ends";
}

TEST_F(MediaBuffer, TheBestLevelOfAChannelIsKept) {
    putText("x", 1, 7, 3);
    EXPECT_EQ(7, bestLevel(3));
    putText("x", 1, 9, 3);
    EXPECT_EQ(7, bestLevel(3));
    putText("x", 1, 2, 3);
    EXPECT_EQ(2, bestLevel(3));
    EXPECT_EQ(10, bestLevel(2));
}

TEST_F(MediaBuffer, AFrameOfChannelEightFailsAnAssertion) {
    EXPECT_ASSERTION(putText("x", 1, 1, 8), "channel <= 7 && channel >= 0");
    EXPECT_ASSERTION(putText("x", 1, 1, 255), "channel <= 7 && channel >= 0");
}

TEST_F(MediaBuffer, ANegativeLengthCountsAsNone) {
    CTestPacket* packet = packets.make("x");
    EXPECT_EQ(0, buffer.Put(packet, -7, 0, 1));
    EXPECT_EQ(0, buffer.Put(packets.make("y"), INT32_MIN, 0, 1));
    EXPECT_EQ(0U, buffer.GetBufferSize());
    putText("three", 0);
    EXPECT_EQ(5U, buffer.GetBufferSize());
}

TEST_F(MediaBuffer, AFrameWithoutBytesLeavesNothing) {
    putText("", 0);
    putText("", 1);
    EXPECT_EQ(0, packets.outstanding());
    EXPECT_EQ(0U, buffer.GetCounters().frames_put);
    EXPECT_EQ(10, bestLevel(0));
    expectInvariants(buffer);
}

TEST_F(MediaBuffer, ClearDropsTheFramesAndSaysSo) {
    putText("one", 0);
    log.clear();
    buffer.Clear();
    EXPECT_EQ(0, packets.outstanding());
    EXPECT_EQ(0U, buffer.GetBufferSize());
    EXPECT_EQ(0U, buffer.GetCounters().frames);
    const auto lines = log.lines();
    ASSERT_EQ(1U, lines.size());
    EXPECT_EQ(3, lines[0].level);
    EXPECT_EQ("CMediaBuffer::Clear", lines[0].function);
    const std::string start = ".\\Src\\Tool\\MediaBuffer.cpp:" + std::to_string(lines[0].number) +
                              " Veltro::Ravelo::CMediaBuffer::Clear CMediaBuffer::Clear,m_frame_header:";
    EXPECT_EQ(start, lines[0].text.substr(0, start.size()));
    putText("again");
    EXPECT_EQ(1U, buffer.GetCounters().frames_put);
}

TEST_F(MediaBuffer, ClearOfNothingIsQuiet) {
    buffer.Clear();
    log.clear();
    buffer.Clear();
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(MediaBuffer, ClearForgetsWhoIsLinkedAndSaysSo) {
    CRecorder recorder;
    CMediaReceiver receiver;
    buffer.AddLevel2Buffer(&recorder);
    buffer.AddSender(receiver.get());
    buffer.Clear();
    EXPECT_EQ(1, log.count(3, " Veltro::Ravelo::CMediaBuffer::Clear m_sender_header:"));
    EXPECT_EQ(1, log.count(3, " Veltro::Ravelo::CMediaBuffer::Clear m_buffer_header:"));
    EXPECT_EQ(2, log.count(3, " not null\n"));
    EXPECT_EQ(2, log.count(3, "[.\\Src\\Tool\\MediaBuffer.cpp:"));
    putText("nobody gets it");
    EXPECT_TRUE(recorder.calls.empty());
    EXPECT_EQ("", receiver.text());
    EXPECT_EQ(0, packets.outstanding()) << "a buffer without senders keeps nothing";
}

TEST_F(MediaBuffer, AFrameInformationReplacesTheOneBefore) {
    CTestPacket* first = packets.make("first");
    CTestPacket* second = packets.make("second");
    EXPECT_EQ(0, buffer.PutFrameInfo(first, 1));
    EXPECT_EQ(0, buffer.PutFrameInfo(nullptr, 9));
    EXPECT_EQ(0, first->released.load());
    EXPECT_EQ(0, buffer.PutFrameInfo(second, 2));
    EXPECT_EQ(1, first->released.load());
    putText("frame");
    EXPECT_EQ(1, second->released.load());
}

TEST_F(MediaBuffer, AFrameInformationMakesAFrameInAnEmptyList) {
    putText("frame");
    EXPECT_EQ(0U, buffer.GetCounters().frames);
    EXPECT_EQ(0, buffer.PutFrameInfo(packets.make("info"), 1));
    EXPECT_EQ(1U, buffer.GetCounters().frames);
}

TEST_F(MediaBuffer, DestroyingItReleasesWhatIsThere) {
    {
        CMediaBuffer other;
        put(other, packets, "one", 0);
        other.PutFrameInfo(packets.make("info"), 1);
        EXPECT_EQ(2, packets.outstanding());
    }
    EXPECT_EQ(0, packets.outstanding());
}

TEST_F(MediaBuffer, SecondLevelBuffersAreOfferedEveryPacketAsItIs) {
    CRecorder recorder;
    buffer.AddLevel2Buffer(&recorder);
    CTestPacket* packet = packets.make("abc");
    buffer.Put(packet, 3, 2, levelArgument(99, 4));
    buffer.Put(packets.make("d"), -1, 1, 0);
    ASSERT_EQ(2U, recorder.calls.size());
    EXPECT_EQ(packet, recorder.offered[0]);
    EXPECT_EQ((std::array<int, 3>{3, 2, levelArgument(99, 4)}), recorder.calls[0]);
    EXPECT_EQ((std::array<int, 3>{-1, 1, 0}), recorder.calls[1]);
}

TEST_F(MediaBuffer, SecondLevelBuffersAreAskedTheLatestFirst) {
    std::vector<std::string> order;
    std::array<CRecorder, 3> recorders;
    for (std::size_t i = 0; i < recorders.size(); ++i) {
        recorders[i].order = &order;
        recorders[i].name = std::to_string(i);
        buffer.AddLevel2Buffer(&recorders[i]);
    }
    putText("x");
    EXPECT_EQ((std::vector<std::string>{"2", "1", "0"}), order);
}

TEST_F(MediaBuffer, ASecondLevelBufferThatRefusesIsTakenOffAtOnce) {
    std::array<CRecorder, 3> recorders;
    for (CRecorder& recorder : recorders) buffer.AddLevel2Buffer(&recorder);
    recorders[1].result = -1;
    putText("x");
    putText("y");
    EXPECT_EQ(2U, recorders[0].calls.size());
    EXPECT_EQ(1U, recorders[1].calls.size());
    EXPECT_EQ(2U, recorders[2].calls.size());
}

TEST_F(MediaBuffer, ASecondLevelBufferThatRefusesMayDeleteItself) {
    CRecorder stays;
    auto* goes = new CRecorder;
    goes->result = -1;
    goes->deletes_itself = true;
    buffer.AddLevel2Buffer(&stays);
    buffer.AddLevel2Buffer(goes);
    putText("x");
    EXPECT_EQ(1U, stays.calls.size());
}

TEST_F(MediaBuffer, SecondLevelBuffersComeAndGo) {
    std::array<CRecorder, 3> recorders;
    CRecorder stranger;
    for (CRecorder& recorder : recorders) buffer.AddLevel2Buffer(&recorder);
    buffer.AddLevel2Buffer(&recorders[0]);  // twice
    buffer.AddLevel2Buffer(nullptr);
    buffer.DelLevel2Buffer(&stranger);
    buffer.DelLevel2Buffer(nullptr);
    buffer.DelLevel2Buffer(&recorders[1]);
    putText("x");
    EXPECT_EQ(1U, recorders[0].calls.size());
    EXPECT_EQ(0U, recorders[1].calls.size());
    EXPECT_EQ(1U, recorders[2].calls.size());
    for (CRecorder& recorder : recorders) buffer.DelLevel2Buffer(&recorder);
    putText("y");
    EXPECT_EQ(1U, recorders[0].calls.size());
}

TEST_F(MediaBuffer, BuffersCanBeChained) {
    struct CNextBuffer : CLevel2Buffer_IF {
        CMediaBuffer buffer;
        CPackets copies;
        int PutPacket(CMediaPacket* packet, int len, int mark, int level) override {
            auto* copy = copies.make(static_cast<CTestPacket*>(packet)->bytes());
            return buffer.Put(copy, len, mark, level);
        }
    } next;
    CMediaReceiver receiver;
    next.buffer.AddSender(receiver.get());
    buffer.AddLevel2Buffer(&next);
    putText("through two");
    EXPECT_EQ("through two", receiver.text());
    next.buffer.DelSender(receiver.get());
}

TEST_F(MediaBuffer, AFrameThatNeverEndsIsDroppedAtItsBound) {
    const std::string block(1 << 20, 'x');
    const int blocks = static_cast<int>(CMediaBuffer::MAX_FRAME_BYTES >> 20);
    CTestPacket* packet = packets.make(block);
    packet->released = 1 - blocks;  // the same one, for the sake of memory
    for (int i = 0; i < blocks; ++i) EXPECT_EQ(0, buffer.Put(packet, 1 << 20, 0, 1));
    EXPECT_EQ(static_cast<std::uint64_t>(CMediaBuffer::MAX_FRAME_BYTES), buffer.GetBufferSize());
    EXPECT_EQ(-1, putText("one too many", 0));
    EXPECT_EQ(0U, buffer.GetBufferSize());
    EXPECT_EQ(-1, putText("goes with it", 0));
    EXPECT_EQ(0, packets.outstanding());
    EXPECT_EQ(-1, putText("and so does its end"));
    EXPECT_EQ(1U, buffer.GetCounters().dropped);
    EXPECT_EQ(0, putText("the next one is a new frame", 0));
    EXPECT_EQ(27U, buffer.GetBufferSize());
    expectInvariants(buffer);
}

TEST_F(MediaBuffer, AFrameOfTooManyPacketsIsDropped) {
    CTestPacket* packet = packets.make("x");
    packet->released = 1 - static_cast<int>(CMediaBuffer::MAX_FRAME_PACKETS);
    for (unsigned i = 0; i < CMediaBuffer::MAX_FRAME_PACKETS; ++i) {
        ASSERT_EQ(0, buffer.Put(packet, i % 2 == 0 ? 0 : 1, 0, 1));
    }
    EXPECT_EQ(-1, putText("one too many"));
    EXPECT_EQ(0, putText("x", 0));
    EXPECT_EQ(1U, buffer.GetCounters().dropped);
}

TEST_F(MediaBuffer, TheInformationOfADroppedFrameGoesWithIt) {
    for (int i = 0; i < 32; ++i) putText("x", 0);
    {
        const CScarceMemory none(0);
        EXPECT_EQ(-1, buffer.Put(packets.make("y"), 1, 0, 1));
    }
    CTestPacket* info = packets.make("info");
    buffer.PutFrameInfo(info, 1);
    EXPECT_EQ(-1, putText("end"));
    EXPECT_EQ(1, info->released.load());
}

TEST_F(MediaBuffer, WithoutMemoryForAFrameItsPacketsAreReleased) {
    putText("so that the list is empty");
    {
        CTestPacket* first = packets.make("x");
        CTestPacket* info = packets.make("info");
        const CScarceMemory none(0);
        EXPECT_EQ(-1, buffer.Put(first, 1, 0, 1));
        EXPECT_EQ(1, first->released.load());
        EXPECT_EQ(-1, buffer.PutFrameInfo(info, 1));
        EXPECT_EQ(1, info->released.load());
    }
    EXPECT_EQ(-1, putText("the rest"));
    EXPECT_EQ(0, putText("a frame", 0));
    EXPECT_EQ(7U, buffer.GetBufferSize());
}

TEST_F(MediaBuffer, ABufferMadeWithoutMemoryTakesNothing) {
    CTestPacket* packet = packets.make("x");
    CTestPacket* info = packets.make("x");
    CMediaReceiver receiver;
    CRecorder recorder;
    const CScarceMemory none(0);
    CMediaBuffer poor;
    EXPECT_EQ(-1, poor.Put(packet, 1, 1, 1));
    EXPECT_EQ(-1, poor.PutFrameInfo(info, 1));
    poor.AddSender(receiver.get());
    poor.DelSender(receiver.get());
    poor.AddLevel2Buffer(&recorder);
    poor.DelLevel2Buffer(&recorder);
    poor.EnableAutoSend();
    poor.DisableAutoSend();
    poor.do_send();
    poor.Clear();
    EXPECT_EQ(0, poor.GetBufferNum());
    EXPECT_EQ(0U, poor.GetBufferSize());
    EXPECT_EQ(0U, poor.GetCounters().frames);
}

TEST_F(MediaBuffer, TheInterfacesCanBeCopied) {
    CRecorder one;
    const CRecorder other = one;
    EXPECT_EQ(0U, other.calls.size());
    static_assert(!std::is_copy_constructible_v<CMediaBuffer>);
}

}  // namespace
}  // namespace Veltro::Ravelo
