#include "Core/CurrentObject.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>

#include "Core/StreamPair.h"
#include "Support/Gate.h"
#include "Support/Reactor.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CGate;
using TestSupport::closeAndWait;
using TestSupport::CPublicPool;
using TestSupport::CRunner;
using TestSupport::CTestHandler;
using TestSupport::SStreamPair;

std::map<unsigned long, const CNetHandler*> currentObjects() {
    std::map<unsigned long, const CNetHandler*> seen;
    unsigned long last = 0;
    CCurrentObject::visit([&](unsigned long thread_id, const CCurrentObject::SModule& module) {
        EXPECT_GT(thread_id, last);
        EXPECT_EQ(module.type != nullptr, module.handler != nullptr);
        last = thread_id;
        seen[thread_id] = module.handler;
    });
    return seen;
}

TEST(CurrentObject, EntersItsThreadWithNoObjectAndTakesItOut) {
    const unsigned long self = Plinth::getCurrentThreadId();
    {
        const CCurrentObject current;
        ASSERT_EQ(currentObjects().count(self), 1U);
        EXPECT_EQ(currentObjects()[self], nullptr);
    }
    EXPECT_EQ(currentObjects().count(self), 0U);
}

TEST(CurrentObject, ShowsTheObjectAndItsClassBetweenSetAndClear) {
    const CPublicPool pool;
    auto* handler = new CTestHandler;
    {
        CCurrentObject current;
        current.set(*handler, handler->GetID());
        EXPECT_EQ(currentObjects()[Plinth::getCurrentThreadId()], handler);
        const std::type_info* type = nullptr;
        CCurrentObject::visit([&type](unsigned long thread_id, const CCurrentObject::SModule& module) {
            if (thread_id == Plinth::getCurrentThreadId()) type = module.type;
        });
        EXPECT_EQ(type, &typeid(CTestHandler));
        current.clear();
        EXPECT_EQ(currentObjects()[Plinth::getCurrentThreadId()], nullptr);
    }
    closeAndWait(handler);
}

TEST(CurrentObject, VisitsThreadsInTheOrderOfTheirIds) {
    CGate leave;
    std::atomic<int> inside{0};
    auto stay = [&] {
        const CCurrentObject current;
        inside.fetch_add(1);
        EXPECT_TRUE(leave.pass());
    };
    CRunner first(stay);
    CRunner second(stay);
    CRunner third(stay);
    EXPECT_TRUE(TestSupport::waitUntil([&inside] { return inside.load() == 3; }));
    EXPECT_EQ(currentObjects().size(), 3U);
    leave.open();
}

TEST(CurrentObject, NamesTheHandlerDuringItsMessageAndNobodyAfterwards) {
    const CPublicPool pool;
    auto* handler = new CTestHandler;
    CGate entered;
    CGate leave;
    std::atomic<unsigned long> worker{0};
    handler->on_message = [&](long, unsigned, long) {
        worker.store(Plinth::getCurrentThreadId());
        entered.open();
        EXPECT_TRUE(leave.pass());
        return 0;
    };
    handler->Notify(handler->GetID(), 1, 0);
    ASSERT_TRUE(entered.pass());
    EXPECT_EQ(currentObjects()[worker.load()], handler);
    leave.open();
    EXPECT_TRUE(TestSupport::waitUntil([&worker] { return currentObjects()[worker.load()] == nullptr; }));
    closeAndWait(handler);
}

TEST(CurrentObject, NamesTheHandlerDuringItsTimer) {
    const CPublicPool pool;
    auto* handler = new CTestHandler;
    CGate seen;
    std::atomic<const CNetHandler*> current{nullptr};
    handler->on_timeout = [&](long) {
        current.store(currentObjects()[Plinth::getCurrentThreadId()]);
        seen.open();
        return -1;
    };
    EXPECT_LT(handler->SetTimer(3'000), 0);
    EXPECT_TRUE(seen.pass());
    EXPECT_EQ(current.load(), handler);
    closeAndWait(handler);
}

TEST(CurrentObject, NamesTheHandlerDuringSocketEventsAndTimeOuts) {
    const CPublicPool pool;
    SStreamPair pair;
    auto* handler = new CTestHandler;
    CGate readable;
    CGate timed_out;
    std::atomic<int> matches{0};
    auto look = [&] {
        if (currentObjects()[Plinth::getCurrentThreadId()] == handler) matches.fetch_add(1);
    };
    handler->on_input = [&](int) {
        char byte;
        if (pair.near_end.Recv(&byte, 1) != 1) return 0;
        look();
        readable.open();
        return 1'000;
    };
    handler->on_input_timeout = [&](int) {
        look();
        timed_out.open();
        return -1;
    };
    ASSERT_EQ(handler->RegisterSock(pair.near_end, EventMask::Read, 0), 0);
    EXPECT_EQ(pair.far_end.Send("x", 1), 1);
    EXPECT_TRUE(readable.pass());
    EXPECT_TRUE(timed_out.pass());
    EXPECT_EQ(matches.load(), 2);
    handler->RemoveSock(pair.near_end);
    closeAndWait(handler);
}

}  // namespace
}  // namespace Veltro::Ravelo
