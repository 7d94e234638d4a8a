// The end of a handler: Close() inside each callback, and destruction while callbacks run.
#include <Ravelo/NetHandler.h>
#include <gtest/gtest.h>

#include "Core/EventPool.h"
#include "Core/NetHandlerRecord.h"
#include "Core/StreamPair.h"
#include "Support/Gate.h"
#include "Support/Reactor.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CGate;
using TestSupport::connectToNobody;
using TestSupport::CPublicPool;
using TestSupport::CTestHandler;
using TestSupport::SStreamPair;
using TestSupport::waitUntil;

/// A handler that closes itself inside a callback, and what is seen of it.
class NetHandlerClose : public testing::Test {
protected:
    NetHandlerClose() { handler->closed = &closed; }

    /// What the callback under test does: gives its socket up and closes; the object must live until it has
    /// returned.
    int closeInside() {
        calls.fetch_add(1);
        if (registered != nullptr) handler->RemoveSock(*registered);
        handler->Close();
        Plinth::yieldThread();
        EXPECT_EQ(closed.load(), 0);
        EXPECT_EQ(handler->SetTimer(3'000), -1);
        return 0;
    }
    void registerSock(CSock& sock, unsigned mask, int timeout_us) {
        registered = &sock;
        ASSERT_EQ(handler->RegisterSock(sock, mask, timeout_us), 0);
    }
    void expectClosed() {
        EXPECT_TRUE(waitUntil([this] { return closed.load() == 1; }));
        EXPECT_EQ(calls.load(), 1);
    }

    const CPublicPool pool;
    std::atomic<int> closed{0};
    std::atomic<int> calls{0};
    SStreamPair pair;
    CSock* registered = nullptr;
    CTestHandler* handler = new CTestHandler;
};

TEST_F(NetHandlerClose, WorksInsideHandleInput) {
    handler->on_input = [this](int) { return closeInside(); };
    EXPECT_EQ(pair.far_end.Send("x", 1), 1);
    registerSock(pair.near_end, EventMask::Read, 0);
    expectClosed();
}

TEST_F(NetHandlerClose, WorksInsideHandleOutput) {
    handler->on_output = [this](int) { return closeInside(); };
    registerSock(pair.near_end, EventMask::Write, 0);
    expectClosed();
}

TEST_F(NetHandlerClose, WorksInsideHandleException) {
    CSockStream refused;
    handler->on_exception = [this](int) { return closeInside(); };
    connectToNobody(refused);
    registerSock(refused, EventMask::Write | EventMask::Except, 0);
    expectClosed();
}

TEST_F(NetHandlerClose, WorksInsideHandleInputTimeout) {
    handler->on_input_timeout = [this](int) { return closeInside(); };
    registerSock(pair.near_end, EventMask::Read, 1'000);
    expectClosed();
}

TEST_F(NetHandlerClose, WorksInsideHandleOutputTimeout) {
    // A stream whose peer takes nothing is not writable in the end.
    const std::string block(65536, 'x');
    while (pair.near_end.Send(block.data(), static_cast<unsigned>(block.size())) > 0) {
    }
    handler->on_output = [](int) { return 0; };
    handler->on_output_timeout = [this](int) { return closeInside(); };
    registerSock(pair.near_end, EventMask::Write, 1'000);
    expectClosed();
}

TEST_F(NetHandlerClose, WorksInsideHandleTimeout) {
    handler->on_timeout = [this](long) { return closeInside(); };
    EXPECT_LT(handler->SetTimer(3'000), 0);
    expectClosed();
}

TEST_F(NetHandlerClose, WorksInsideHandleMessage) {
    handler->on_message = [this](long, unsigned, long) { return closeInside(); };
    handler->Notify(handler->GetID(), 1, 0);
    expectClosed();
}

TEST_F(NetHandlerClose, WorksInsideASerialMessage) {
    handler->on_message = [this](long, unsigned, long) { return closeInside(); };
    handler->NotifySerial(handler->GetID(), 1, 0, 0);
    expectClosed();
}

TEST_F(NetHandlerClose, WithSocketStillRegisteredStopsItsEvents) {
    handler->on_input = [this](int) {
        calls.fetch_add(1);
        handler->Close();
        return 0;
    };
    EXPECT_EQ(pair.far_end.Send("x", 1), 1);
    ASSERT_EQ(handler->RegisterSock(pair.near_end, EventMask::Read, 0), 0);
    expectClosed();
    EXPECT_EQ(pair.far_end.Send("x", 1), 1);
    // Another handler takes the readable socket over and hears of it; the old one is not called again.
    auto* other = new CTestHandler;
    std::atomic<int> inputs{0};
    other->on_input = [&](int) {
        inputs.fetch_add(1);
        other->RemoveSock(pair.near_end);
        return 0;
    };
    ASSERT_EQ(other->RegisterSock(pair.near_end, EventMask::Read, 0), 0);
    EXPECT_TRUE(waitUntil([&] { return inputs.load() == 1; }));
    EXPECT_EQ(calls.load(), 1);
    TestSupport::closeAndWait(other);
}

/// Closes the handler from this thread while a callback is held up on a worker.
class NetHandlerCloseDuring : public NetHandlerClose {
protected:
    int holdUp() {
        calls.fetch_add(1);
        entered.open();
        EXPECT_TRUE(leave.pass());
        EXPECT_EQ(closed.load(), 0);
        handler->RemoveSock(pair.near_end);
        return -1;
    }
    void closeMeanwhile() {
        ASSERT_TRUE(entered.pass());
        handler->Close();
        // The table's reference has gone once a second worker has served the close message.
        const SNetHandlerRecord& record = SNetHandlerRecord::of(*handler);
        EXPECT_TRUE(waitUntil([&record] { return record.references.count() == 1; }));
        EXPECT_EQ(closed.load(), 0);
        leave.open();
        expectClosed();
    }
    CGate entered;
    CGate leave;
};

TEST_F(NetHandlerCloseDuring, HandleInputLetsTheCallbackReturnFirst) {
    handler->on_input = [this](int) { return holdUp(); };
    EXPECT_EQ(pair.far_end.Send("x", 1), 1);
    ASSERT_EQ(handler->RegisterSock(pair.near_end, EventMask::Read, 0), 0);
    closeMeanwhile();
}

TEST_F(NetHandlerCloseDuring, HandleMessageLetsTheCallbackReturnFirst) {
    handler->on_message = [this](long, unsigned, long) { return holdUp(); };
    handler->Notify(handler->GetID(), 1, 0);
    closeMeanwhile();
}

TEST_F(NetHandlerCloseDuring, HandleTimeoutLetsTheCallbackReturnFirst) {
    handler->on_timeout = [this](long) { return holdUp(); };
    EXPECT_LT(handler->SetTimer(3'000), 0);
    closeMeanwhile();
}

TEST_F(NetHandlerCloseDuring, HandleInputTimeoutLetsTheCallbackReturnFirst) {
    handler->on_input_timeout = [this](int) { return holdUp(); };
    ASSERT_EQ(handler->RegisterSock(pair.near_end, EventMask::Read, 1'000), 0);
    closeMeanwhile();
}

}  // namespace
}  // namespace Veltro::Ravelo
