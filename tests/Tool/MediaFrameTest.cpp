// One frame: packets in, packets out.
#include "Tool/MediaFrame.h"

#include "Support/ScarceMemory.h"
#include "Tool/MediaRig.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

struct MediaFrame : ::testing::Test {
    CPackets packets;
    CFrame* frame = CFrame::create(77);

    ~MediaFrame() override { frame->leaveList(); }
    CTestPacket* store(const std::string& text, int mark = 0, std::uint32_t level = 1) {
        CTestPacket* packet = packets.make(text);
        EXPECT_TRUE(frame->Put(packet, static_cast<std::uint32_t>(packet->length()), mark, level));
        return packet;
    }
};

TEST_F(MediaFrame, ANewOneIsEmpty) {
    EXPECT_EQ(0U, frame->m_packet_num);
    EXPECT_EQ(0, frame->m_byte_len);
    EXPECT_EQ(32U, frame->m_capacity);
    EXPECT_EQ(1U, frame->m_level);
    EXPECT_EQ(0U, frame->m_mark);
    EXPECT_EQ(0U, frame->m_valid);
    EXPECT_EQ(0U, frame->m_key_mask);
    EXPECT_EQ(0U, frame->senders());
    EXPECT_EQ(nullptr, frame->m_next);
    EXPECT_EQ(77U, frame->m_start);
    EXPECT_FALSE(frame->isComplete());
}

TEST_F(MediaFrame, PacketsStandAsAGatherListInTheirOrder) {
    CTestPacket* one = store("one");
    CTestPacket* three = store("three");
    ASSERT_EQ(2U, frame->m_packet_num);
    EXPECT_EQ(8, frame->m_byte_len);
    EXPECT_EQ(one, frame->m_packet[0]);
    EXPECT_EQ(three, frame->m_packet[1]);
    EXPECT_EQ("one", std::string(frame->m_packet_info[0].iov_base, frame->m_packet_info[0].iov_len));
    EXPECT_EQ("three", std::string(frame->m_packet_info[1].iov_base, frame->m_packet_info[1].iov_len));
}

TEST_F(MediaFrame, APacketIsAskedForItsAddressOnce) {
    CTestPacket* packet = store("once");
    store("more", 1);
    EXPECT_EQ(1, packet->asked.load());
}

TEST_F(MediaFrame, TheLastPacketCompletesItAndGivesItsLevel) {
    store("a", 0, 3);
    EXPECT_EQ(0U, frame->m_valid);
    EXPECT_EQ(3U, frame->m_level);
    store("b", 2, 0x0200'0004U);
    EXPECT_FALSE(frame->isComplete()) << "only a mark of 1 ends a frame";
    store("c", 1, 0x0500'0007U);
    EXPECT_TRUE(frame->isComplete());
    EXPECT_EQ(1U, frame->m_valid);
    EXPECT_EQ(-1, frame->m_age);
    EXPECT_EQ(7, frame->level());
    EXPECT_EQ(5U, frame->channel());
    EXPECT_EQ(1U << 5, frame->bit());
    EXPECT_EQ(80U, frame->end());
}

TEST_F(MediaFrame, TheArraysGrowByThirtyTwo) {
    for (int i = 0; i < 32; ++i) store(std::to_string(i));
    EXPECT_EQ(32U, frame->m_capacity);
    store("32");
    EXPECT_EQ(64U, frame->m_capacity);
    for (int i = 33; i < 100; ++i) store(std::to_string(i));
    EXPECT_EQ(128U, frame->m_capacity);
    for (std::uint32_t i = 0; i < 100; ++i) {
        EXPECT_EQ(std::to_string(i),
                  std::string(frame->m_packet_info[i].iov_base, frame->m_packet_info[i].iov_len));
    }
}

TEST_F(MediaFrame, AFrameOfACapacityThatIsNoMultipleFailsAnAssertion) {
    store("x");
    frame->m_capacity = 1;
    EXPECT_DEATH(store("y"), "m_packet_num % BUFFER_INCREMENT == 0");
    frame->m_capacity = 32;
}

TEST_F(MediaFrame, WithoutMemoryItDoesNotTakeThePacketAndKeepsTheOthers) {
    for (int i = 0; i < 32; ++i) store("x");
    CTestPacket* packet = packets.make("y");
    for (int allocations = 0; allocations < 2; ++allocations) {
        const CScarceMemory scarce(allocations);
        EXPECT_FALSE(frame->Put(packet, 1, 1, 1));
    }
    EXPECT_EQ(32U, frame->m_packet_num);
    EXPECT_FALSE(frame->isComplete());
    EXPECT_TRUE(frame->Put(packet, 1, 1, 1));
}

TEST_F(MediaFrame, CannotBeMadeWithoutMemory) {
    for (int allocations = 0; allocations < 3; ++allocations) {
        const CScarceMemory scarce(allocations);
        EXPECT_EQ(nullptr, CFrame::create(0)) << allocations;
    }
}

TEST_F(MediaFrame, ResetReleasesEverythingOnce) {
    CTestPacket* packet = store("x", 1, 5);
    CTestPacket* info = packets.make("info");
    frame->putInfo(info, 9);
    frame->reset();
    EXPECT_EQ(1, packet->released.load());
    EXPECT_EQ(1, info->released.load());
    EXPECT_EQ(0, frame->m_byte_len);
    EXPECT_EQ(0U, frame->m_packet_num);
    EXPECT_FALSE(frame->isComplete());
    EXPECT_EQ(1U, frame->m_level);
}

TEST_F(MediaFrame, AnInformationReplacesTheOneBefore) {
    CTestPacket* first = packets.make("first");
    CTestPacket* second = packets.make("second");
    frame->putInfo(first, 1);
    frame->putInfo(second, 2);
    EXPECT_EQ(1, first->released.load());
    EXPECT_EQ(0, second->released.load());
    EXPECT_EQ(second, frame->m_frame_info);
    EXPECT_EQ(2, frame->m_frame_info_value);
}

TEST_F(MediaFrame, AFrameThatLeftTheListGoesWithItsLastSender) {
    CFrame* other = CFrame::create(0);
    CTestPacket* packet = packets.make("x");
    other->Put(packet, 1, 1, 1);
    other->addSender();
    other->addSender();
    EXPECT_EQ(2U, other->senders());
    other->leaveList();
    EXPECT_EQ(2U, other->senders());
    other->dropSender();
    EXPECT_EQ(0, packet->released.load());
    other->dropSender();
    EXPECT_EQ(1, packet->released.load());
}

TEST_F(MediaFrame, AFrameWithoutSendersStaysInTheList) {
    frame->addSender();
    frame->dropSender();
    EXPECT_EQ(0U, frame->senders());
    store("still there", 1);
}

}  // namespace
}  // namespace Veltro::Ravelo
