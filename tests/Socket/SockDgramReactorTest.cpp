// Datagram sockets in the reactor.
#include <atomic>
#include <string>

#include "Support/Datagrams.h"
#include "Support/SockRegistry.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CPublicPool;
using TestSupport::CScopedHandler;
using TestSupport::sendText;
using TestSupport::SReceiver;
using TestSupport::SReceiver6;
using TestSupport::waitUntil;

constexpr int DATAGRAMS = 2000;
constexpr int AT_ONCE = 50;  // that fit a socket's buffer

/// Sends numbered datagrams to a registered socket and expects each to come in, once and in order.
template <class Receiver>
void expectAllReceived() {
    Receiver receiver;
    Receiver sender;
    std::atomic<int> received{0};
    std::atomic<int> out_of_order{0};
    const CPublicPool pool;
    CScopedHandler handler;
    handler->on_input = [&](int fd) {
        EXPECT_EQ(receiver.socket.GetHandle(), fd);
        char text[16] = {};
        const int length = receiver.socket.Recv(text, sizeof text - 1);
        if (length <= 0) return 0;
        if (std::to_string(received) != text) ++out_of_order;
        ++received;
        return 0;
    };
    ASSERT_EQ(0, handler->RegisterSock(receiver.socket, EventMask::Read, 0));
    for (int sent = 0; sent < DATAGRAMS; ++sent) {
        if (sent % AT_ONCE == 0) {
            ASSERT_TRUE(waitUntil([&] { return received == sent; }));
        }
        ASSERT_LT(0, sendText(sender.socket, std::to_string(sent), &receiver.address));
    }
    EXPECT_TRUE(waitUntil([&received] { return received == DATAGRAMS; })) << received;
    EXPECT_EQ(0, out_of_order);
    handler->RemoveSock(receiver.socket);
}

/// What the registry knows of a socket, for the message of a failure.
std::string describe(const CSock& socket) {
    const TestSupport::SSockState state = TestSupport::sockState(socket.GetHandle());
    return "registered " + std::to_string(state.registered) + ", mask " + std::to_string(state.mask) +
           ", revents " + std::to_string(state.revents) + ", time-out " + std::to_string(state.time_out) +
           ", in the list " + std::to_string(state.in_list);
}

TEST(SockDgramReactor, ARegisteredSocketReceivesEveryDatagram) {
    expectAllReceived<SReceiver>();
}

TEST(SockDgramReactor, ARegisteredIPv6SocketReceivesEveryDatagram) {
    SKIP_UNLESS(TestSupport::hasIPv6(), "this machine has no IPv6 loopback");
    expectAllReceived<SReceiver6>();
}

TEST(SockDgramReactor, ARegisteredSocketAnswersWhoeverAsks) {
    SReceiver server;
    const CPublicPool pool;
    CScopedHandler handler;
    handler->on_input = [&](int) {
        char text[64];
        CSockAddrIPv4 client;
        const int length = server.socket.Recv(text, sizeof text, &client);
        if (length > 0) server.socket.Send(text, static_cast<unsigned>(length), &client);
        return 0;
    };
    ASSERT_EQ(0, handler->RegisterSock(server.socket, EventMask::Read, 0));
    for (int i = 0; i < 20; ++i) {
        SReceiver client;
        const std::string text = "question " + std::to_string(i);
        ASSERT_LT(0, sendText(client.socket, text, &server.address));
        EXPECT_EQ(text, TestSupport::receiveDatagram(client.socket));
    }
    handler->RemoveSock(server.socket);
}

TEST(SockDgramReactor, ASocketThatIsWritableIsReported) {
    SReceiver socket;
    std::atomic<int> writable{0};
    const CPublicPool pool;
    CScopedHandler handler;
    handler->on_output = [&](int) {
        handler->UnregisterSock(socket.socket, EventMask::Write);
        ++writable;
        return 0;
    };
    ASSERT_EQ(0, handler->RegisterSock(socket.socket, EventMask::Write, 0));
    EXPECT_TRUE(waitUntil([&writable] { return writable > 0; }));
    handler->RemoveSock(socket.socket);
}

TEST(SockDgramReactor, ASilentSocketTimesOut) {
    SReceiver socket;
    std::atomic<int> timed_out{0};
    const CPublicPool pool;
    CScopedHandler handler;
    handler->on_input = [&](int) {
        ADD_FAILURE() << "nobody sends: " << TestSupport::receiveDatagram(socket.socket);
        return 0;
    };
    handler->on_input_timeout = [&](int) {
        ++timed_out;
        return 0;
    };
    ASSERT_EQ(0, handler->RegisterSock(socket.socket, EventMask::Read, 1000));
    EXPECT_TRUE(waitUntil([&timed_out] { return timed_out > 0; })) << describe(socket.socket);
    handler->RemoveSock(socket.socket);
}

TEST(SockDgramReactor, AClosedPortComesAsInputOnLinux) {
    SKIP_UNLESS(!TestSupport::isWindows(), "on Windows a closed port is never reported");
    const TestSupport::CLogCapture unheard;
    CSockDgram socket;
    {
        SReceiver receiver;
        ASSERT_EQ(0, socket.Open(nullptr));
        ASSERT_EQ(0, socket.SetRemote(&receiver.address));
    }
    std::atomic<int> failures{0};
    const CPublicPool pool;
    CScopedHandler handler;
    handler->on_input = [&](int) {
        char byte = 0;
        if (socket.Recv(&byte, 1) == -1) ++failures;
        return 0;
    };
    ASSERT_EQ(0, handler->RegisterSock(socket, EventMask::Read, 0));
    ASSERT_EQ(1, sendText(socket, "x"));
    EXPECT_TRUE(waitUntil([&failures] { return failures > 0; }));
    handler->RemoveSock(socket);
}

}  // namespace
}  // namespace Veltro::Ravelo
