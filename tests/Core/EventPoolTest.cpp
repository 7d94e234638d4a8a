#include "Core/EventPool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "Core/NetHandlerRecord.h"
#include "Support/Gate.h"
#include "Support/ScarceMemory.h"

namespace Veltro::Ravelo {
namespace {

/// The records of a test go back to the heap at its end.
class EventPool : public testing::Test {
protected:
    void TearDown() override { CEventPool::destroy(); }
};

void expectStartValues(const SEvent& record, std::int64_t key) {
    EXPECT_EQ(record.key, key);
    EXPECT_EQ(record.next, nullptr);
    EXPECT_EQ(record.sender, 0);
    EXPECT_EQ(record.receiver, 0);
    EXPECT_EQ(record.info, 0);
    EXPECT_EQ(record.type, 0U);
    EXPECT_EQ(record.obj_id.load(), 0);
    EXPECT_EQ(record.m_revents.load(), VL_NOPOLL);
    EXPECT_EQ(record.m_event_mask, EventMask::None);
    EXPECT_EQ(record.timer.m_set_time, 0);
    EXPECT_EQ(record.timer.m_time_out, 0);
    EXPECT_FALSE(record.timer.linked);
    EXPECT_EQ(record.timer.record, &record);
    EXPECT_EQ(record.armed, 0U);
    EXPECT_EQ(record.owner.takeHandler(), nullptr);
}

TEST_F(EventPool, GivesARecordWithStartValuesAndTheKey) {
    SEvent* record = CEventPool::get(-50);
    ASSERT_NE(record, nullptr);
    expectStartValues(*record, -50);
    CEventPool::put(record);
}

TEST_F(EventPool, GivesTheRecordFreedLastWithStartValuesAgain) {
    SEvent* record = CEventPool::get(7);
    record->sender = record->receiver = record->info = 1;
    record->type = 2;
    record->obj_id.store(-102400);
    record->m_revents.store(VL_POLLIN);
    record->m_event_mask = EventMask::Read;
    record->timer.m_set_time = 5;
    record->timer.m_time_out = 6;
    record->armed = 3;
    auto* handler = new SNetHandlerRecord;
    record->owner = CHandlerShare(*handler);
    EXPECT_EQ(handler->holders.load(), 2);
    CEventPool::put(record);
    EXPECT_EQ(handler->holders.load(), 1);
    handler->leave();
    EXPECT_EQ(CEventPool::get(-80), record);
    expectStartValues(*record, -80);
    CEventPool::put(record);
}

TEST_F(EventPool, CountsRecordsInUse) {
    const auto before = CEventPool::inUse();
    SEvent* first = CEventPool::get(-50);
    SEvent* second = CEventPool::get(-50);
    EXPECT_EQ(CEventPool::inUse(), before + 2);
    CEventPool::put(first);
    CEventPool::put(second);
    EXPECT_EQ(CEventPool::inUse(), before);
}

TEST_F(EventPool, FreedRecordsKeepTheirMemoryUntilDestroy) {
    SEvent* record = CEventPool::get(-50);
    CEventPool::put(record);
    // A late reader of a stale pointer may still take the record's mutex.
    { const Plinth::CLockGuard guard(record->mutex); }
    CEventPool::destroy();
    SEvent* fresh = CEventPool::get(-51);
    ASSERT_NE(fresh, nullptr);
    expectStartValues(*fresh, -51);
    CEventPool::put(fresh);
}

TEST_F(EventPool, GivesNullWithoutMemory) {
    CEventPool::destroy();
    const auto before = CEventPool::inUse();
    SEvent* record;
    {
        const TestSupport::CScarceMemory scarce(0);
        record = CEventPool::get(-50);
    }
    EXPECT_EQ(record, nullptr);
    EXPECT_EQ(CEventPool::inUse(), before);
}

TEST_F(EventPool, NeverGivesARecordToTwoThreads) {
    const auto before = CEventPool::inUse();
    auto take_and_return = [] {
        for (int round = 0; round < 2'000; ++round) {
            SEvent* records[5];
            for (SEvent*& record : records) {
                record = CEventPool::get(-50);
                record->info = reinterpret_cast<std::intptr_t>(&record);
            }
            for (SEvent*& record : records) {
                ASSERT_EQ(record->info, reinterpret_cast<std::intptr_t>(&record));
                CEventPool::put(record);
            }
        }
    };
    {
        TestSupport::CRunner first(take_and_return);
        TestSupport::CRunner second(take_and_return);
        TestSupport::CRunner third(take_and_return);
    }
    EXPECT_EQ(CEventPool::inUse(), before);
}

}  // namespace
}  // namespace Veltro::Ravelo
