#include "Core/HandlerShare.h"

#include <gtest/gtest.h>

#include "Core/NetHandlerRecord.h"
#include "Support/Gate.h"
#include "Support/Reactor.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::closeAndWait;
using TestSupport::CPublicPool;
using TestSupport::CRunner;
using TestSupport::CTestHandler;
using TestSupport::waitUntil;

TEST(HandlerShare, GivesTheHandlerWithAReferenceWhileItStandsInItsPoolsTable) {
    const CPublicPool pool;
    auto* handler = new CTestHandler;
    SNetHandlerRecord& record = SNetHandlerRecord::of(*handler);
    const CHandlerShare share(record);
    EXPECT_EQ(share.takeHandler(), handler);
    EXPECT_EQ(record.references.count(), 2);
    handler->DecRef();
    EXPECT_EQ(record.references.count(), 1);
    closeAndWait(handler);
}

TEST(HandlerShare, GivesNoHandlerThatHasLeftTheTableThoughItIsReferenced) {
    const CPublicPool pool;
    auto* handler = new CTestHandler;
    SNetHandlerRecord& record = SNetHandlerRecord::of(*handler);
    const CHandlerShare share(record);
    handler->AddRef();
    std::atomic<int> closed{0};
    handler->closed = &closed;
    handler->Close();
    EXPECT_TRUE(waitUntil([&record] { return record.references.count() == 1; }));
    EXPECT_EQ(share.takeHandler(), nullptr);
    EXPECT_EQ(record.references.count(), 1);
    handler->DecRef();
    EXPECT_EQ(closed.load(), 1);
}

TEST(HandlerShare, KeepsTheRecordBeyondTheHandler) {
    const CPublicPool pool;
    auto* handler = new CTestHandler;
    SNetHandlerRecord& record = SNetHandlerRecord::of(*handler);
    const CHandlerShare share(record);
    share.changeSockets(2);
    share.changeSockets(-2);
    closeAndWait(handler);
    EXPECT_TRUE(waitUntil([&record] { return record.holders.load() == 1; }));
    EXPECT_EQ(share.takeHandler(), nullptr);
    EXPECT_EQ(record.sockets.load(), 0);
}

TEST(HandlerShare, OfNobodyGivesNobody) {
    const CHandlerShare share;
    EXPECT_EQ(share.takeHandler(), nullptr);
    share.changeSockets(1);
}

// Whoever takes the handler while it closes gets it alive or not at all.
TEST(HandlerShare, TakenByTwoThreadsWhileHandlersClose) {
    const CPublicPool pool(2);
    for (int round = 0; round < 200; ++round) {
        auto* handler = new CTestHandler;
        const CHandlerShare share(SNetHandlerRecord::of(*handler));
        std::atomic<int> closed{0};
        handler->closed = &closed;
        const auto take = [&share] {
            while (CNetHandler* taken = share.takeHandler()) {
                EXPECT_LT(taken->GetID(), 0);
                taken->DecRef();
            }
        };
        CRunner first(take);
        CRunner second(take);
        handler->Close();
        EXPECT_TRUE(waitUntil([&closed] { return closed.load() == 1; }));
    }
}

}  // namespace
}  // namespace Veltro::Ravelo
