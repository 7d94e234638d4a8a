#include <Plinth/Thread.h>
#include <Ravelo/NetHandler.h>
#include <Ravelo/NetThread.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <vector>

#include "Core/BTreeTestAccess.h"

namespace Veltro::Ravelo {
namespace {

/// Whether another thread could lock a record at this moment.
bool isFree(SEvent& record) {
    bool taken = false;
    Plinth::CThreadLite thread(
        [&record, &taken](Plinth::CThreadLite&) PLINTH_NO_THREAD_SAFETY_ANALYSIS {
            taken = record.mutex.tryLock();
            if (taken) record.mutex.unlock();
        },
        "probe");
    EXPECT_TRUE(thread.createThread());
    thread.destroyThread();
    return taken;
}

/// Gives back a record that a lookup returned.
void release(SEvent* record) PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    record->mutex.unlock();
}

TEST(BTreeFind, ReturnsASocketRecordWithItsMutexHeld) {
    CBTree tree;
    SEvent records[2];
    records[0].key = 0;
    records[1].key = 17;
    for (SEvent& record : records) ASSERT_TRUE(tree.insert(&record));

    for (SEvent& record : records) {
        ASSERT_EQ(tree.findSock(record.key), &record);
        EXPECT_FALSE(isFree(record));
        release(&record);
        EXPECT_TRUE(isFree(record));
    }
    EXPECT_EQ(tree.findSock(16), nullptr);
}

TEST(BTreeFind, UnderTheCallersLockHoldsTheMutexToo) {
    CBTree tree;
    SEvent record;
    record.key = 3;
    {
        Plinth::CWriteGuard guard(tree.lock());
        EXPECT_EQ(tree.findLocked(3), nullptr);
        ASSERT_TRUE(tree.insertLocked(&record));
        ASSERT_EQ(tree.findSockLocked(3), &record);
        EXPECT_EQ(tree.eraseLocked(3), &record);
    }
    EXPECT_FALSE(isFree(record));
    release(&record);
}

TEST(BTreeFind, PeekTakesNoMutex) {
    CBTree tree;
    SEvent record;
    record.key = 3;
    ASSERT_TRUE(tree.insert(&record));
    tree.enterRead();
    EXPECT_EQ(tree.peekLocked(3), &record);
    tree.leaveRead();
    EXPECT_TRUE(isFree(record));
}

/// Tells when its last reference went.
class CClosingHandler : public CNetHandler {
public:
    int handle_close(CNetHandler*) override {
        ++m_closed;
        return 0;
    }
    int closed() const { return m_closed; }

private:
    std::atomic<int> m_closed{0};
};

/// A handler with the one reference that its pool has taken.
class BTreeFindHandler : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(CNetThread::CreateThreadPool(1, false), 0);
        m_handler = std::make_unique<CClosingHandler>();
        m_entry.key = m_handler->GetID();
        m_entry.handler = m_handler.get();
        ASSERT_TRUE(m_tree.insert(&m_entry));
    }
    void TearDown() override {
        m_handler->Close();
        CNetThread::DestroyThreadPool();
    }

    CBTree m_tree;
    SObjectEntry m_entry;
    std::unique_ptr<CClosingHandler> m_handler;
};

TEST_F(BTreeFindHandler, KeepsTheHandlerAliveUntilDecRef) {
    ASSERT_EQ(m_tree.findObject(m_entry.key), m_handler.get());
    m_handler->DecRef();
    EXPECT_EQ(m_handler->closed(), 0) << "the pool's reference is left";
    ASSERT_EQ(m_tree.find(m_entry.key), &m_entry);
    EXPECT_EQ(m_handler->closed(), 0);
    m_handler->DecRef();
    m_handler->DecRef();
    EXPECT_EQ(m_handler->closed(), 1) << "each lookup took exactly one";
    m_handler->AddRef();
}

TEST_F(BTreeFindHandler, ReturnsNullOnceTheHandlerIsUnbound) {
    ASSERT_EQ(m_tree.erase(m_entry.key), &m_entry);
    EXPECT_EQ(m_tree.findObject(m_entry.key), nullptr);
    EXPECT_EQ(m_tree.find(m_entry.key), nullptr);
}

/// Looks a record up while another thread takes it out and this one holds its mutex for a while. Returns
/// whether the lookup got the record though it was out of the table before its mutex was free.
bool isFoundTooLate() PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    CBTree tree;
    SEvent record;
    record.key = 5;
    EXPECT_TRUE(tree.insert(&record));
    bool found = false;
    std::atomic<bool> erased{false};
    Plinth::CThreadLite finder(
        [&tree, &found](Plinth::CThreadLite&) {
            SEvent* const returned = tree.findSock(5);
            found = returned != nullptr;
            if (returned) release(returned);
        },
        "finder");
    Plinth::CThreadLite eraser([&tree, &erased](Plinth::CThreadLite&) { erased = tree.erase(5) != nullptr; },
                               "eraser");
    record.mutex.lock();
    EXPECT_TRUE(finder.createThread());
    for (int i = 0; i < 50; ++i) Plinth::yieldThread();
    EXPECT_TRUE(eraser.createThread());
    for (int i = 0; i < 50; ++i) Plinth::yieldThread();
    const bool erased_before_free = erased;
    record.mutex.unlock();
    finder.destroyThread();
    eraser.destroyThread();
    EXPECT_TRUE(erased);
    return found && erased_before_free;
}

TEST(BTreeFind, HoldsTheRecordBeforeItGivesTheTableBack) {
    int too_late = 0;
    for (int round = 0; round < 200; ++round) too_late += isFoundTooLate() ? 1 : 0;
    EXPECT_EQ(too_late, 0);
}

/// Looks records up again and again; counts what it held, and of these the ones that had been removed.
void findMany(CBTree& tree, int record_count, std::atomic<int>& found,
              std::atomic<int>& removed) PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    for (int i = 0; i < 20000; ++i) {
        SEvent* const record = tree.findSock(i % record_count);
        if (!record) continue;
        ++found;
        if (record->m_event_mask & EventMask::Delete) ++removed;
        record->mutex.unlock();
    }
}

/// Removes and enters a record as the registry does: found and erased under one write lock.
void replace(CBTree& tree, std::int64_t fd) PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    tree.enterWrite();
    SEvent* const record = tree.findSockLocked(fd);
    ASSERT_NE(record, nullptr);
    ASSERT_EQ(tree.eraseLocked(fd), record);
    tree.leaveWrite();
    record->m_event_mask = EventMask::Delete;
    record->mutex.unlock();
    Plinth::yieldThread();
    record->mutex.lock();
    record->m_event_mask = EventMask::Read;
    record->mutex.unlock();
    ASSERT_TRUE(tree.insert(record));
}

TEST(BTreeFind, NeverReturnsARecordThatIsOutOfTheTable) {
    constexpr int record_count = 64;
    std::vector<SEvent> records(record_count);
    CBTree tree;
    for (int fd = 0; fd < record_count; ++fd) {
        records[fd].key = fd;
        ASSERT_TRUE(tree.insert(&records[fd]));
    }
    std::atomic<int> found{0};
    std::atomic<int> removed{0};
    std::vector<std::unique_ptr<Plinth::CThreadLite>> readers;
    for (int i = 0; i < 3; ++i) {
        readers.push_back(std::make_unique<Plinth::CThreadLite>(
            [&tree, &found, &removed](Plinth::CThreadLite&) { findMany(tree, record_count, found, removed); },
            "reader"));
        ASSERT_TRUE(readers.back()->createThread());
    }
    const auto all_over = [&readers] {
        return std::all_of(readers.begin(), readers.end(),
                           [](const auto& reader) { return reader->isThreadOver(); });
    };
    for (int i = 0; i < 200 || !all_over(); ++i) replace(tree, i % record_count);
    for (const auto& reader : readers) reader->destroyThread();

    EXPECT_GT(found, 0);
    EXPECT_EQ(removed, 0);
    EXPECT_EQ(CBTreeTestAccess::fault(tree), "");
}

}  // namespace
}  // namespace Veltro::Ravelo
