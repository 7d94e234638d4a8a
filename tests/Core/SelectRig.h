// A multiplexer whose dispatches a test ends itself.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

#include "Core/Select.h"
#include "Support/SockRegistry.h"

namespace Veltro::TestSupport {

using Ravelo::CBTree;
using Ravelo::CEventQueue;
using Ravelo::CMultiplexer;
using Ravelo::CSock;
using Ravelo::SEvent;
using Ravelo::SQueueRecord;

using Fired = std::vector<SEvent*>;

/// A multiplexer with a table and a queue, without a pool: the test ends the dispatches.
struct SRig {
    CBTree sockets;
    CEventQueue queue;
    CMultiplexer multiplexer;
    std::vector<std::unique_ptr<SEvent>> records;

    explicit SRig(unsigned capacity = CMultiplexer::DEFAULT_CAPACITY) : multiplexer(0, capacity) {
        EXPECT_EQ(0, multiplexer.Init());
        queue.setWaiter(&multiplexer, 1);
    }

    SEvent& enroll(const CSock& sock, unsigned mask) {
        records.push_back(std::make_unique<SEvent>());
        SEvent& record = *records.back();
        record.key = sock.GetHandle();
        record.m_event_mask = mask;
        sockets.insert(&record);
        Plinth::CLockGuard guard(record.mutex);
        multiplexer.add(record);
        return record;
    }
    /// One pass; it waits until something fires or somebody wakes it.
    Fired pass() {
        Fired fired;
        for (SQueueRecord* record = multiplexer.Wait(sockets, queue); record != nullptr;
             record = record->next)
            fired.push_back(static_cast<SEvent*>(record));
        return fired;
    }
    /// One pass over what is ready now.
    Fired look() {
        multiplexer.wake();
        return pass();
    }
    void endDispatch(SEvent& record, bool is_drained = false) {
        Plinth::CLockGuard guard(record.mutex);
        record.m_revents = Ravelo::VL_NOPOLL;
        multiplexer.rearm(record, is_drained);
    }
    void setMask(SEvent& record, unsigned mask) {
        Plinth::CLockGuard guard(record.mutex);
        record.m_event_mask = mask;
        multiplexer.modify(record);
    }
    void remove(SEvent& record) {
        Plinth::CLockGuard guard(record.mutex);
        multiplexer.remove(record);
    }
};

/// Runs a pass that is held up between its wait and its walk, and does something meanwhile, with the record's
/// mutex held.
inline Fired passHeldUp(SRig& rig, SEvent& record, const std::function<void()>& meanwhile) {
    Fired fired;
    rig.sockets.enterWrite();
    record.mutex.lock();
    Plinth::CThreadLite waiter([&](Plinth::CThreadLite&) { fired = rig.pass(); }, "waiter");
    EXPECT_TRUE(waiter.createThread());
    // Nothing tells that the waiter has come to a lock. Coming late it sees less, and passes.
    Plinth::sleepMilliSecond(50);
    meanwhile();
    record.mutex.unlock();
    rig.sockets.leaveWrite();
    rig.multiplexer.wake();
    waiter.destroyThread();
    return fired;
}

}  // namespace Veltro::TestSupport
