// Sockets whose dispatches read until nothing is left: nothing that comes may be lost by not asking for it.
#include <Plinth/Thread.h>

#include "Core/SelectRig.h"

using namespace Veltro::Ravelo;
using namespace Veltro::TestSupport;
namespace Plinth = Veltro::Plinth;

namespace {

/// More drained dispatches than the multiplexer wants to see before it relies on them.
constexpr int A_LONG_ROW = 20;

/// A connection whose server's end has been drained by every one of a long row of dispatches.
struct SDrainedRig : SRig {
    SSocketPair pair;
    SEvent& record;

    SDrainedRig() : record(enroll(pair.server, EventMask::Read)) {
        for (int i = 0; i < A_LONG_ROW; ++i) {
            sendText(pair.client, pair.server, "x");
            dispatchDrained(1);
        }
    }
    /// A pass that reports the socket, and a dispatch that takes all.
    void dispatchDrained(int expected_bytes) {
        ASSERT_EQ(Fired{&record}, pass());
        EXPECT_EQ(expected_bytes, drain(pair.server.GetHandle()));
        endDispatch(record, true);
    }
};

}  // namespace

TEST(SelectDrained, IsNotAskedAgainWhetherItIsReadable) {
    if (isWindows()) GTEST_SKIP() << "select() is asked about every socket anew";
    SDrainedRig rig;
    sendText(rig.pair.client, rig.pair.server, "x");
    ASSERT_EQ(Fired{&rig.record}, rig.pass());
    // A byte is left, whatever the dispatch says.
    rig.endDispatch(rig.record, true);
    EXPECT_EQ(Fired{}, rig.look());
    sendText(rig.pair.client, rig.pair.server, "y");
    rig.dispatchDrained(2);
}

TEST(SelectDrained, ReportsWhatComesAfterTheDispatch) {
    SDrainedRig rig;
    EXPECT_EQ(Fired{}, rig.look());
    for (int i = 0; i < 3; ++i) {
        sendText(rig.pair.client, rig.pair.server, "abc");
        rig.dispatchDrained(3);
    }
}

TEST(SelectDrained, ReportsWhatCameDuringTheDispatchAndAfterItsRead) {
    SDrainedRig rig;
    sendText(rig.pair.client, rig.pair.server, "a");
    ASSERT_EQ(Fired{&rig.record}, rig.pass());
    EXPECT_EQ(1, drain(rig.pair.server.GetHandle()));
    sendText(rig.pair.client, rig.pair.server, "b");
    rig.endDispatch(rig.record, true);
    rig.dispatchDrained(1);
}

TEST(SelectDrained, ReportsWhatAPassMetDuringTheDispatch) {
    SDrainedRig rig;
    sendText(rig.pair.client, rig.pair.server, "a");
    ASSERT_EQ(Fired{&rig.record}, rig.pass());
    EXPECT_EQ(1, drain(rig.pair.server.GetHandle()));
    sendText(rig.pair.client, rig.pair.server, "b");
    EXPECT_EQ(Fired{}, rig.look());
    rig.endDispatch(rig.record, true);
    rig.dispatchDrained(1);
    EXPECT_EQ(Fired{}, rig.look());
}

TEST(SelectDrained, ReportsAgainWhenADispatchLeavesSomething) {
    SDrainedRig rig;
    sendText(rig.pair.client, rig.pair.server, "a");
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(Fired{&rig.record}, rig.pass());
        rig.endDispatch(rig.record, false);
    }
    rig.dispatchDrained(1);
}

TEST(SelectDrained, ReportsTheEndThatCameWithTheLastBytes) {
    SDrainedRig rig;
    EXPECT_EQ(3, rig.pair.client.Send("end", 3));
    rig.pair.client.Close();
    // Nothing but a read shows an end behind bytes. Coming late it is reported by itself, and passes.
    Plinth::sleepMilliSecond(20);
    rig.dispatchDrained(3);
    ASSERT_EQ(Fired{&rig.record}, rig.pass());
    EXPECT_EQ(0, drain(rig.pair.server.GetHandle()));
}

TEST(SelectDrained, ReportsTheEndThatCameDuringTheDispatch) {
    SDrainedRig rig;
    sendText(rig.pair.client, rig.pair.server, "a");
    ASSERT_EQ(Fired{&rig.record}, rig.pass());
    EXPECT_EQ(1, drain(rig.pair.server.GetHandle()));
    rig.pair.client.Close();
    EXPECT_TRUE(waitReadable(rig.pair.server));
    rig.endDispatch(rig.record, true);
    ASSERT_EQ(Fired{&rig.record}, rig.pass());
    EXPECT_EQ(0, drain(rig.pair.server.GetHandle()));
}

// A read stops at the urgent byte's place though more may stand behind it.
TEST(SelectDrained, ReportsWhatStandsBehindUrgentData) {
    SDrainedRig rig;
    EXPECT_EQ(3, rig.pair.client.Send("abc", 3));
    sendUrgent(rig.pair.client, rig.pair.server);
    sendText(rig.pair.client, rig.pair.server, "def");
    ASSERT_EQ(Fired{&rig.record}, rig.pass());
    const int first = drain(rig.pair.server.GetHandle());
    EXPECT_GE(first, 3);
    rig.endDispatch(rig.record, true);
    if (first > 3) return;  // this system reads over the place
    ASSERT_EQ(Fired{&rig.record}, rig.pass());
    EXPECT_EQ(3, drain(rig.pair.server.GetHandle()));
}

TEST(SelectDrained, ReportsAResetConnection) {
    SDrainedRig rig;
    reset(rig.pair.client);
    EXPECT_EQ(Fired{&rig.record}, rig.pass());
    EXPECT_EQ(unsigned{VL_POLLIN}, rig.record.m_revents.load());
}

TEST(SelectDrained, ReportsWritableAsLongAsItIs) {
    SDrainedRig rig;
    rig.setMask(rig.record, EventMask::Read | EventMask::Write);
    for (int i = 0; i < A_LONG_ROW; ++i) {
        ASSERT_EQ(Fired{&rig.record}, rig.pass());
        EXPECT_EQ(unsigned{VL_POLLOUT}, rig.record.m_revents.load());
        rig.endDispatch(rig.record, true);
    }
}

TEST(SelectDrained, ReportsWhatIsLeftAfterAFreshArming) {
    SDrainedRig rig;
    sendText(rig.pair.client, rig.pair.server, "a");
    ASSERT_EQ(Fired{&rig.record}, rig.pass());
    rig.endDispatch(rig.record, true);
    rig.setMask(rig.record, EventMask::Read);
    ASSERT_EQ(Fired{&rig.record}, rig.pass());
    rig.endDispatch(rig.record, false);
    EXPECT_EQ(Fired{&rig.record}, rig.pass());
}

// A short read of a datagram says nothing about the next one.
TEST(SelectDrained, IsNeverBelievedOfADatagramSocket) {
    SRig rig;
    CSockStream socket;
    socket.Attach(SocketApi::create(AF_INET, SOCK_DGRAM, 0));
    CSockAddrIPv4 address("127.0.0.1", 0);
    sockaddr_in system{};
    address.GetAddr(reinterpret_cast<sockaddr*>(&system));
    ASSERT_EQ(0, SocketApi::bind(socket.GetHandle(), reinterpret_cast<sockaddr*>(&system), sizeof system));
    int length = sizeof system;
    ASSERT_EQ(0, SocketApi::getSockName(socket.GetHandle(), reinterpret_cast<sockaddr*>(&system), &length));
    ASSERT_EQ(0, SocketApi::connect(socket.GetHandle(), reinterpret_cast<sockaddr*>(&system), length));
    SEvent& record = rig.enroll(socket, EventMask::Read);
    for (int i = 0; i < A_LONG_ROW; ++i) {
        sendText(socket, socket, "one");
        sendText(socket, socket, "two");
        for (int datagram = 0; datagram < 2; ++datagram) {
            ASSERT_EQ(Fired{&record}, rig.pass());
            EXPECT_EQ(3, drain(socket.GetHandle()));
            rig.endDispatch(record, true);
        }
    }
}
