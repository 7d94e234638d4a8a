#include "Core/TimerHeap.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <set>

using namespace Veltro::Ravelo;

namespace {

std::int64_t makeId(int sequence, int pool, int generation = 0) {
    return (std::int64_t{-100 - sequence} * 64 + pool) * 16 + generation;
}

STimer makeTimer(std::int64_t id, std::uint64_t due_us) {
    STimer timer;
    timer.key = id;
    timer.handler_id = makeId(0, poolOfId(id));
    timer.due_us = due_us;
    return timer;
}

}  // namespace

TEST(TimerHeap, IsEmptyAtTheStart) {
    CTimerHeap heap;
    EXPECT_TRUE(heap.empty());
    EXPECT_EQ(nullptr, heap.root());
    EXPECT_EQ(nullptr, heap.popRoot());
    EXPECT_EQ(nullptr, heap.remove(makeId(0, 0)));
    EXPECT_EQ(nullptr, heap.removePool(0));
}

TEST(TimerHeap, TheRootIsTheOneDueFirst) {
    CTimerHeap heap;
    STimer late = makeTimer(makeId(0, 0), 30);
    STimer early = makeTimer(makeId(1, 0), 10);
    STimer middle = makeTimer(makeId(2, 0), 20);
    for (STimer* timer : {&late, &early, &middle}) EXPECT_TRUE(heap.insert(timer));
    EXPECT_EQ(3U, heap.size());
    EXPECT_EQ(&early, heap.popRoot());
    EXPECT_EQ(&middle, heap.popRoot());
    EXPECT_EQ(&late, heap.popRoot());
    EXPECT_TRUE(heap.empty());
}

TEST(TimerHeap, RemoveFindsOnlyTheExactId) {
    CTimerHeap heap;
    STimer timer = makeTimer(makeId(5, 3, 2), 10);
    EXPECT_TRUE(heap.insert(&timer));
    EXPECT_EQ(nullptr, heap.remove(makeId(5, 3, 1)));
    EXPECT_EQ(nullptr, heap.remove(makeId(5, 4, 2)));
    EXPECT_EQ(nullptr, heap.remove(makeId(6, 3, 2)));
    EXPECT_EQ(&timer, heap.remove(makeId(5, 3, 2)));
    EXPECT_EQ(nullptr, heap.remove(makeId(5, 3, 2)));
}

TEST(TimerHeap, RemoveOfWhatIsNoTimerIdFindsNothing) {
    CTimerHeap heap;
    STimer timer = makeTimer(makeId(0, 0), 10);
    EXPECT_TRUE(heap.insert(&timer));
    for (const std::int64_t id : {std::int64_t{0}, std::int64_t{-1}, std::int64_t{-101},
                                  std::int64_t{1} << 40, INT64_MIN, INT64_MAX}) {
        EXPECT_EQ(nullptr, heap.remove(id)) << id;
    }
    EXPECT_EQ(1U, heap.size());
}

TEST(TimerHeap, RemovePoolTakesThatPoolsTimersOnly) {
    CTimerHeap heap;
    STimer one_a = makeTimer(makeId(0, 1), 10);
    STimer one_b = makeTimer(makeId(7, 1), 40);
    STimer two = makeTimer(makeId(0, 2), 20);
    for (STimer* timer : {&one_a, &two, &one_b}) EXPECT_TRUE(heap.insert(timer));
    std::set<SQueueRecord*> removed;
    for (SQueueRecord* timer = heap.removePool(1); timer != nullptr; timer = timer->next)
        removed.insert(timer);
    EXPECT_EQ((std::set<SQueueRecord*>{&one_a, &one_b}), removed);
    EXPECT_EQ(nullptr, heap.remove(one_a.key));
    EXPECT_EQ(&two, heap.popRoot());
    // The number may be used again.
    EXPECT_TRUE(heap.insert(&one_a));
    EXPECT_EQ(&one_a, heap.remove(one_a.key));
}

namespace {

/// A heap and a plain model of it that are changed alike.
class CModel {
public:
    void insert() {
        const int pool = static_cast<int>(m_random() % 4);
        const int sequence = static_cast<int>(m_random() % 500);
        const std::int64_t id = makeId(sequence, pool, static_cast<int>(m_random() % 16));
        if (m_taken.contains(makeId(sequence, pool))) return;
        m_taken.insert(makeId(sequence, pool));
        auto timer = std::make_unique<STimer>(makeTimer(id, m_random() % 1000));
        ASSERT_TRUE(m_heap.insert(timer.get()));
        m_by_due.emplace(timer->due_us, id);
        m_timers[id] = std::move(timer);
    }
    void popRoot() {
        if (m_timers.empty()) {
            EXPECT_EQ(nullptr, m_heap.popRoot());
            return;
        }
        ASSERT_EQ(m_by_due.begin()->first, m_heap.root()->due_us);
        forget(m_heap.popRoot());
    }
    void removeOne() {
        if (m_timers.empty()) return;
        auto chosen = m_timers.lower_bound(makeId(static_cast<int>(m_random() % 500), 0));
        if (chosen == m_timers.end()) chosen = m_timers.begin();
        STimer* timer = chosen->second.get();
        ASSERT_EQ(timer, m_heap.remove(timer->key));
        forget(timer);
    }
    void removePool() {
        const int pool = static_cast<int>(m_random() % 4);
        SQueueRecord* timer = m_heap.removePool(pool);
        while (timer != nullptr) {
            SQueueRecord* next = timer->next;
            ASSERT_EQ(pool, poolOfId(timer->key));
            forget(static_cast<STimer*>(timer));
            timer = next;
        }
        for (const auto& [id, left] : m_timers) ASSERT_NE(pool, poolOfId(id));
    }
    void check() const { ASSERT_EQ(m_timers.size(), m_heap.size()); }
    void drain() {
        std::uint64_t former_us = 0;
        while (!m_timers.empty()) {
            EXPECT_LE(former_us, m_heap.root()->due_us);
            former_us = m_heap.root()->due_us;
            popRoot();
            if (::testing::Test::HasFatalFailure()) return;
        }
    }
    std::uint64_t random() { return m_random(); }

private:
    void forget(STimer* timer) {
        const std::int64_t id = timer->key;
        ASSERT_TRUE(m_timers.contains(id));
        auto [first, last] = m_by_due.equal_range(timer->due_us);
        while (first != last && first->second != id) ++first;
        ASSERT_NE(first, last);
        m_by_due.erase(first);
        m_taken.erase(id & ~std::int64_t{15});
        m_timers.erase(id);
    }

    CTimerHeap m_heap;
    std::map<std::int64_t, std::unique_ptr<STimer>> m_timers;
    std::multimap<std::uint64_t, std::int64_t> m_by_due;
    std::set<std::int64_t> m_taken;
    std::mt19937 m_random{20};
};

}  // namespace

TEST(TimerHeap, BehavesAsAModelUnderRandomOperations) {
    CModel model;
    for (int i = 0; i < 50'000; ++i) {
        const std::uint64_t choice = model.random() % 1000;
        if (choice < 500) {
            model.insert();
        } else if (choice < 750) {
            model.popRoot();
        } else if (choice < 998) {
            model.removeOne();
        } else {
            model.removePool();
        }
        model.check();
        if (HasFatalFailure()) return;
    }
    model.drain();
}
