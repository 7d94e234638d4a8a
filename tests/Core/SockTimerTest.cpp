#include "Core/SockTimer.h"

#include <memory>

#include "Support/SockRegistry.h"

using namespace Veltro::Ravelo;
using namespace Veltro::TestSupport;
namespace Plinth = Veltro::Plinth;

namespace Veltro::Ravelo {
struct SSockTimerProbe {
    /// One pass of the thread.
    static void pass() { CSockTimer::scan(); }
};
}  // namespace Veltro::Ravelo

namespace {

/// A record of a pool that does not exist, so that its expiry ends in the timer itself.
struct SRecord : SEvent {
    explicit SRecord(unsigned mask = EventMask::Read) {
        timer.record = this;
        m_event_mask = mask;
        obj_id = ((std::int64_t{-100} * 64) + 40) * 16;
    }
    ~SRecord() {
        if (CSockTimer::isInList(*this)) CSockTimer::Delete(*this);
    }
};

/// The coarse clock: what an expiry is counted from.
std::int64_t clockMs() {
    SRecord record;
    CSockTimer::Add(record, 1);
    return record.timer.m_time_out - 1 - CSockTimer::TICK_MS;
}

/// Passes until a record's time-out has come.
int passesToExpiry(const SRecord& record) {
    int passes = 0;
    while (CSockTimer::isInList(record) && passes < 1000) {
        SSockTimerProbe::pass();
        ++passes;
    }
    return passes;
}

}  // namespace

TEST(SockTimer, APassMovesTheClockByHalfASecond) {
    const std::int64_t before_ms = clockMs();
    SSockTimerProbe::pass();
    SSockTimerProbe::pass();
    EXPECT_EQ(before_ms + 1000, clockMs());
}

TEST(SockTimer, AddSetsTheIntervalAndAnExpiryOneStepLater) {
    SRecord record;
    const std::int64_t now_ms = clockMs();
    EXPECT_FALSE(CSockTimer::isInList(record));
    CSockTimer::Add(record, 2500);
    EXPECT_TRUE(CSockTimer::isInList(record));
    EXPECT_EQ(2500, record.timer.m_set_time);
    EXPECT_EQ(now_ms + 3000, record.timer.m_time_out);
}

TEST(SockTimer, ATimeOutOfOneMillisecondComesWithTheSecondPass) {
    SRecord record;
    CSockTimer::Add(record, 1);
    SSockTimerProbe::pass();
    EXPECT_TRUE(CSockTimer::isInList(record));
    SSockTimerProbe::pass();
    EXPECT_FALSE(CSockTimer::isInList(record));
    EXPECT_EQ(0, record.timer.m_set_time);
    EXPECT_EQ(0, record.timer.m_time_out);
}

TEST(SockTimer, NoTimeOutIsEarlyOrMoreThanASecondLate) {
    for (const int interval_ms : {1, 499, 500, 501, 999, 1000, 1001, 2750, 30'000}) {
        SRecord record;
        CSockTimer::Add(record, interval_ms);
        const int passes = passesToExpiry(record);
        // Set at any time within a step: one pass may come at once, the others a step apart.
        EXPECT_GE((passes - 1) * CSockTimer::TICK_MS, interval_ms);
        EXPECT_LE(passes * CSockTimer::TICK_MS, interval_ms + 1000);
    }
}

TEST(SockTimer, ResetCountsFromNowAndKeepsTheRecordInTheList) {
    SRecord record;
    CSockTimer::Add(record, 1000);
    SSockTimerProbe::pass();
    CSockTimer::Reset(record, 1500);
    EXPECT_EQ(1500, record.timer.m_set_time);
    EXPECT_EQ(4, passesToExpiry(record));
}

TEST(SockTimer, DeleteTakesTheRecordOutWhereverItStands) {
    SRecord records[4];
    for (SRecord& record : records) CSockTimer::Add(record, 60'000);
    for (const int i : {1, 3, 0, 2}) {
        CSockTimer::Delete(records[i]);
        EXPECT_FALSE(CSockTimer::isInList(records[i]));
        EXPECT_EQ(0, records[i].timer.m_set_time);
        EXPECT_EQ(0, records[i].timer.m_time_out);
        EXPECT_EQ(nullptr, records[i].timer.next);
        EXPECT_EQ(nullptr, records[i].timer.prev);
    }
    SSockTimerProbe::pass();
}

TEST(SockTimer, ADisarmedRecordStaysInTheListAndNeverExpires) {
    SRecord record;
    CSockTimer::Add(record, 1);
    record.timer.m_time_out = 0;
    for (int i = 0; i < 10; ++i) SSockTimerProbe::pass();
    EXPECT_TRUE(CSockTimer::isInList(record));
    EXPECT_EQ(1, record.timer.m_set_time);
    CSockTimer::Reset(record, 1);
    EXPECT_EQ(2, passesToExpiry(record));
}

TEST(SockTimer, ARecordThatIsHeldIsLookedAtAgainByTheNextPass) PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    SRecord record;
    CSockTimer::Add(record, 1);
    record.mutex.lock();
    for (int i = 0; i < 5; ++i) {
        Plinth::CThreadLite other([](Plinth::CThreadLite&) { SSockTimerProbe::pass(); }, "pass");
        ASSERT_TRUE(other.createThread());
        other.destroyThread();
    }
    EXPECT_TRUE(CSockTimer::isInList(record));
    record.mutex.unlock();
    EXPECT_EQ(1, passesToExpiry(record));
}

TEST(SockTimer, AnExpiryWithoutAPoolQueuesNothing) {
    SRecord record;
    CSockTimer::Add(record, 1);
    passesToExpiry(record);
    EXPECT_EQ(unsigned{VL_NOPOLL}, record.m_revents.load());
}

TEST(SockTimer, StopAndStartSetTheClockBack) {
    SSockTimerProbe::pass();
    EXPECT_GT(clockMs(), 0);
    CSockTimer::stop();
    ASSERT_EQ(0, CSockTimer::start());
    CSockTimer::stop();
    EXPECT_EQ(0, clockMs());
    CSockTimer::stop();
}
