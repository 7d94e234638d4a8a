#include "Core/Select.h"

#include <memory>
#include <set>
#include <vector>

#include "Core/SelectRig.h"

using namespace Veltro::Ravelo;
using namespace Veltro::TestSupport;
namespace Plinth = Veltro::Plinth;

TEST(Select, ReportsASocketOnceUntilItIsArmedAgain) {
    SRig rig;
    SSocketPair pair;
    SEvent& record = rig.enroll(pair.server, EventMask::Read);
    sendText(pair.client, pair.server, "x");
    EXPECT_EQ(Fired{&record}, rig.pass());
    EXPECT_EQ(unsigned{VL_POLLIN}, record.m_revents.load());
    EXPECT_EQ(Fired{}, rig.look());
    rig.endDispatch(record);
    EXPECT_EQ(Fired{&record}, rig.pass());
}

TEST(Select, ReportsOnlyTheExceptionWhenASocketIsReadableToo) {
    SRig rig;
    SSocketPair pair;
    SEvent& record = rig.enroll(pair.server, EventMask::Read | EventMask::Write | EventMask::Except);
    sendText(pair.client, pair.server, "x");
    sendUrgent(pair.client, pair.server);
    EXPECT_EQ(Fired{&record}, rig.pass());
    EXPECT_EQ(unsigned{VL_POLLERR}, record.m_revents.load());
}

TEST(Select, ReportsReadableAndWritableTogether) {
    SRig rig;
    SSocketPair pair;
    SEvent& record = rig.enroll(pair.server, EventMask::None);
    sendText(pair.client, pair.server, "x");
    rig.setMask(record, EventMask::Read | EventMask::Write);
    EXPECT_EQ(Fired{&record}, rig.pass());
    EXPECT_EQ(unsigned{VL_POLLIN} | VL_POLLOUT, record.m_revents.load());
}

TEST(Select, LeavesOutASocketThatIsStillBeingHandledAndServesOthers) {
    SRig rig;
    SSocketPair busy;
    SSocketPair other;
    SEvent& busy_record = rig.enroll(busy.server, EventMask::Read);
    SEvent& other_record = rig.enroll(other.server, EventMask::Read);
    sendText(busy.client, busy.server, "x");
    EXPECT_EQ(Fired{&busy_record}, rig.pass());
    for (int i = 0; i < 3; ++i) {
        sendText(other.client, other.server, "x");
        EXPECT_EQ(Fired{&other_record}, rig.pass());
        EXPECT_EQ(1, drain(other.server.GetHandle()));
        rig.endDispatch(other_record);
    }
    EXPECT_EQ(unsigned{VL_POLLIN}, busy_record.m_revents.load());
    rig.endDispatch(busy_record);
    EXPECT_EQ(Fired{&busy_record}, rig.look());
}

TEST(Select, ManyWakesLeaveExactlyOneByteInThePipe) {
    SRig rig;
    // Far more than one pass would read.
    for (int i = 0; i < 2000; ++i) rig.multiplexer.wake();
    EXPECT_EQ(Fired{}, rig.pass());
    // The next wait does not return for a byte left over, only for the socket.
    SSocketPair pair;
    SEvent& record = rig.enroll(pair.server, EventMask::Read);
    Fired fired;
    Plinth::CThreadLite waiter([&](Plinth::CThreadLite&) { fired = rig.pass(); }, "waiter");
    ASSERT_TRUE(waiter.createThread());
    Plinth::sleepMilliSecond(20);
    pair.client.Send("x", 1);
    waiter.destroyThread();
    // On Windows enrolling may have woken the wait once more.
    if (isWindows() && fired.empty()) fired = rig.pass();
    EXPECT_EQ(Fired{&record}, fired);
}

TEST(Select, WakeEndsAWaitThatHasBegun) {
    SRig rig;
    Plinth::CThreadLite waiter([&](Plinth::CThreadLite&) { EXPECT_EQ(Fired{}, rig.pass()); }, "waiter");
    ASSERT_TRUE(waiter.createThread());
    Plinth::sleepMilliSecond(10);
    rig.multiplexer.wake();
    waiter.destroyThread();
}

TEST(Select, IgnoresTheSocketBeyondTheCapacityWithoutALine) {
    CLogCapture log;
    SRig rig(2);
    SSocketPair pairs[3];
    SEvent* records[3];
    for (int i = 0; i < 3; ++i) records[i] = &rig.enroll(pairs[i].server, EventMask::Write);
    Fired fired = rig.look();
    EXPECT_EQ(2U, fired.size());
    EXPECT_EQ(unsigned{VL_NOPOLL}, records[2]->m_revents.load());
    EXPECT_TRUE(log.lines().empty());
    // Once there is room, a fresh arming counts.
    rig.remove(*records[0]);
    rig.setMask(*records[2], EventMask::Write);
    EXPECT_EQ(Fired{records[2]}, rig.look());
}

TEST(Select, CountsTheCapacityPerKindOfInterest) {
    SRig rig(2);
    SSocketPair pairs[2];
    SEvent* writers[2] = {&rig.enroll(pairs[0].server, EventMask::Write),
                          &rig.enroll(pairs[1].server, EventMask::Write)};
    SEvent& reader = rig.enroll(pairs[0].client, EventMask::Read);
    sendText(pairs[0].server, pairs[0].client, "x");
    EXPECT_EQ(3U, rig.look().size());
    EXPECT_EQ(unsigned{VL_POLLIN}, reader.m_revents.load());
    EXPECT_EQ(unsigned{VL_POLLOUT}, writers[1]->m_revents.load());
}

TEST(Select, CapacityDoesNotLeakOverManyArmings) {
    SRig rig(2);
    SSocketPair pair;
    SEvent& record = rig.enroll(pair.server, EventMask::Write);
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(Fired{&record}, rig.look());
        rig.endDispatch(record);
        rig.setMask(record, i % 2 == 0 ? EventMask::Read | EventMask::Write : EventMask::Write);
        if (i % 5 == 0) rig.remove(record);
        rig.setMask(record, record.m_event_mask);
    }
}

TEST(Select, ASocketWithoutInterestIsNeverReported) {
    SRig rig;
    SSocketPair pair;
    rig.enroll(pair.server, EventMask::None);
    sendText(pair.client, pair.server, "x");
    EXPECT_EQ(Fired{}, rig.look());
    pair.client.Close();
    EXPECT_EQ(Fired{}, rig.look());
}

TEST(Select, AnEndedOrResetConnectionIsReadable) {
    for (const bool by_reset : {false, true}) {
        SRig rig;
        SSocketPair pair;
        SEvent& record = rig.enroll(pair.server, EventMask::Read);
        by_reset ? reset(pair.client) : void(pair.client.Close());
        EXPECT_EQ(Fired{&record}, rig.pass());
        EXPECT_EQ(unsigned{VL_POLLIN}, record.m_revents.load());
    }
}

TEST(Select, AResetConnectionIsWritableForAWriter) {
    SRig rig;
    SSocketPair pair;
    fill(pair.server);
    SEvent& record = rig.enroll(pair.server, EventMask::Write);
    reset(pair.client);
    EXPECT_EQ(Fired{&record}, rig.pass());
    EXPECT_EQ(unsigned{VL_POLLOUT}, record.m_revents.load());
}

TEST(Select, ASocketThatIsGoneDoesNotStopTheOthers) {
    CLogCapture log;
    SRig rig;
    SSocketPair gone;
    SSocketPair alive;
    rig.enroll(gone.server, EventMask::Read);
    SEvent& record = rig.enroll(alive.server, EventMask::Read);
    gone.server.Close();
    sendText(alive.client, alive.server, "x");
    Fired fired = rig.look();
    if (fired.empty()) fired = rig.look();  // a wait that fails for the bad socket drops it
    EXPECT_EQ(Fired{&record}, fired);
    if (isWindows()) {
        EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, "select failed!10038,"));
    } else {
        EXPECT_TRUE(log.lines().empty());
    }
}

TEST(Select, AnInterestWithdrawnDuringAPassDoesNotSilenceTheOther) {
    SRig rig;
    SSocketPair pair;
    SEvent& record = rig.enroll(pair.server, EventMask::Read | EventMask::Write);
    ASSERT_EQ(Fired{&record}, rig.pass());
    // The pass sees the socket writable; then its dispatch ends without interest in that.
    passHeldUp(rig, record, [&] {
        record.m_event_mask = EventMask::Read;
        record.m_revents = VL_NOPOLL;
        rig.multiplexer.rearm(record, false);
    });
    EXPECT_EQ(unsigned{VL_NOPOLL}, record.m_revents.load());
    sendText(pair.client, pair.server, "x");
    EXPECT_EQ(Fired{&record}, rig.look());
}

TEST(Select, WhatADispatchTookAwayDuringAPassIsNotReportedAgain) {
    SRig rig;
    SSocketPair pair;
    SEvent& record = rig.enroll(pair.server, EventMask::Read);
    sendText(pair.client, pair.server, "x");
    ASSERT_EQ(Fired{&record}, rig.pass());
    const Fired fired = passHeldUp(rig, record, [&] {
        EXPECT_EQ(1, drain(pair.server.GetHandle()));
        record.m_revents = VL_NOPOLL;
        rig.multiplexer.rearm(record, false);
    });
    EXPECT_EQ(Fired{}, fired);
    sendText(pair.client, pair.server, "x");
    EXPECT_EQ(Fired{&record}, rig.look());
}

TEST(Select, AReusedDescriptorInheritsNoReadiness) {
    SRig rig;
    SSocketPair pair;
    SEvent& record = rig.enroll(pair.server, EventMask::Read);
    sendText(pair.client, pair.server, "x");
    const Fired fired = passHeldUp(rig, record, [&] {
        // To the multiplexer this is another socket under the same number.
        EXPECT_EQ(1, drain(pair.server.GetHandle()));
        rig.multiplexer.modify(record);
    });
    EXPECT_EQ(Fired{}, fired);
    EXPECT_EQ(unsigned{VL_NOPOLL}, record.m_revents.load());
}

namespace {
/// Connections whose far ends have all sent a byte.
struct SReadyPairs {
    explicit SReadyPairs(SRig& rig) {
        for (int i = 0; i < 40; ++i) {
            pairs.push_back(std::make_unique<SSocketPair>());
            records.insert(&rig.enroll(pairs.back()->server, EventMask::Read));
        }
        for (const auto& pair : pairs) sendText(pair->client, pair->server, "x");
    }
    std::vector<std::unique_ptr<SSocketPair>> pairs;
    std::set<SEvent*> records;
};
}  // namespace

TEST(Select, ManyReadySocketsAreFiredOnceEach) {
    SRig rig;
    const SReadyPairs ready(rig);
    std::set<SEvent*> fired;
    while (fired.size() < ready.records.size()) {
        for (SEvent* record : rig.pass()) EXPECT_TRUE(fired.insert(record).second);
    }
    EXPECT_EQ(ready.records, fired);
    EXPECT_EQ(Fired{}, rig.look());
}

TEST(Select, WhatWasReportedWithOthersIsNotFiredOnceItIsRemoved) {
    SRig rig;
    const SReadyPairs ready(rig);
    const Fired first = rig.pass();
    EXPECT_FALSE(first.empty());
    for (SEvent* record : ready.records) rig.remove(*record);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(Fired{}, rig.look());
}

TEST(Select, WhatWasReportedWithOthersGetsTheInterestItHasByThen) {
    SRig rig;
    const SReadyPairs ready(rig);
    std::set<SEvent*> left = ready.records;
    for (SEvent* record : rig.pass()) left.erase(record);
    for (SEvent* record : left) rig.setMask(*record, EventMask::Write);
    while (!left.empty()) {
        for (SEvent* record : rig.pass()) {
            EXPECT_EQ(unsigned{VL_POLLOUT}, record->m_revents.load());
            left.erase(record);
        }
    }
}

TEST(Select, CapacityIsBoundedByThePlatform) {
    EXPECT_GE(CMultiplexer::maxCapacity(), CMultiplexer::DEFAULT_CAPACITY);
    EXPECT_EQ(4096U, CMultiplexer::DEFAULT_CAPACITY);
    EXPECT_EQ(0, CNetThread::SetSocketCapacity(CMultiplexer::maxCapacity()));
    EXPECT_EQ(0, CNetThread::SetSocketCapacity(1));
    CLogCapture log;
    EXPECT_EQ(-1, CNetThread::SetSocketCapacity(0));
    EXPECT_EQ(-1, CNetThread::SetSocketCapacity(CMultiplexer::maxCapacity() + 1));
    EXPECT_EQ(2, log.count(Plinth::LOG_LEVEL_ERROR, "SetSocketCapacity : capacity "));
    EXPECT_EQ(0, CNetThread::SetSocketCapacity(CMultiplexer::DEFAULT_CAPACITY));
}
