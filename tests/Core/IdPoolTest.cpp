#include "Core/IdPool.h"

#include <Plinth/Thread.h>
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Support/LogCapture.h"
#include "Support/ScarceMemory.h"

namespace Veltro::Ravelo {

/// Reads and sets what a pool keeps to itself.
class CIdPoolTestAccess {
public:
    static void setMinId(CIdPool& pool, std::int64_t min_id) {
        Plinth::CLockGuard guard(pool.m_mutex);
        pool.m_state.m_min_id = min_id;
    }
    static std::uint32_t capacity(CIdPool& pool) {
        Plinth::CLockGuard guard(pool.m_mutex);
        return pool.m_state.m_max_pool_size;
    }
    static std::uint32_t waiting(CIdPool& pool) {
        Plinth::CLockGuard guard(pool.m_mutex);
        return pool.m_state.m_pool_size;
    }
};

namespace {

using TestSupport::CLogCapture;
using TestSupport::CScarceMemory;

/// The id of a generation-0 sequence number in pool 0.
constexpr std::int64_t idOf(std::int64_t sequence) {
    return sequence * 1024;
}

void putIds(CIdPool& pool, std::int64_t first_sequence, int count) {
    for (int i = 0; i < count; ++i) pool.PutId(idOf(first_sequence - i));
}

TEST(IdPool, FirstIdsOfPoolZeroAreMinus102400AndMinus103424) {
    CIdPool pool(0);

    EXPECT_EQ(pool.GetId(), -102400);
    EXPECT_EQ(pool.GetId(), -103424);
}

TEST(IdPool, BitsFourToNineHoldThePoolNumber) {
    for (unsigned number : {0U, 3U, 63U}) {
        CIdPool pool(number);
        for (int i = 0; i < 100; ++i) {
            const std::int64_t id = pool.GetId();
            EXPECT_EQ((id >> 4) & 63, number);
            EXPECT_EQ(id & 15, 0);
            EXPECT_LT(id, 0);
        }
    }
}

TEST(IdPool, MakesFreshIdsWhile1024OrFewerReturnedOnesWait) {
    CIdPool pool(0);
    putIds(pool, -5000, 1024);

    EXPECT_EQ(pool.GetId(), -102400);
    EXPECT_EQ(pool.GetId(), -103424);
    EXPECT_EQ(CIdPoolTestAccess::waiting(pool), 1024U);
}

TEST(IdPool, HandsTheEarliestReturnedIdOutOnce1025WaitWithItsGenerationRaised) {
    CIdPool pool(0);
    putIds(pool, -5000, 1025);

    EXPECT_EQ(pool.GetId(), idOf(-5000) + 1);
    EXPECT_EQ(pool.GetId(), -102400) << "1024 wait again";
    pool.PutId(idOf(-9000));
    EXPECT_EQ(pool.GetId(), idOf(-5001) + 1);
}

TEST(IdPool, GenerationWrapsFrom15To0) {
    CIdPool pool(0);
    pool.PutId(idOf(-5000) + 15);
    putIds(pool, -6000, 1024);

    EXPECT_EQ(pool.GetId(), idOf(-5000));
}

TEST(IdPool, OneIdComesBackInEveryGenerationBeforeItRepeats) {
    CIdPool pool(0);
    putIds(pool, -5000, 1025);
    std::set<std::int64_t> seen;
    for (int i = 0; i < 16 * 1025; ++i) {
        const std::int64_t id = pool.GetId();
        EXPECT_TRUE(seen.insert(id).second);
        pool.PutId(id);
    }
}

TEST(IdPool, RingStartsAt2048AndDoublesUpTo204800) {
    CIdPool pool(0);
    std::set<std::uint32_t> capacities = {CIdPoolTestAccess::capacity(pool)};
    for (int i = 0; i < 204800; ++i) {
        pool.PutId(idOf(-5000 - i));
        capacities.insert(CIdPoolTestAccess::capacity(pool));
    }

    const std::set<std::uint32_t> expected = {2048, 4096, 8192, 16384, 32768, 65536, 131072, 204800};
    EXPECT_EQ(capacities, expected);
}

TEST(IdPool, FullRingOf204800DropsFurtherIdsSilently) {
    CLogCapture log;
    CIdPool pool(0);
    putIds(pool, -5000, 204800);
    putIds(pool, -900000, 3);

    EXPECT_EQ(CIdPoolTestAccess::waiting(pool), 204800U);
    EXPECT_EQ(CIdPoolTestAccess::capacity(pool), 204800U);
    for (int i = 0; i < 204800 - 1024; ++i) ASSERT_EQ(pool.GetId(), idOf(-5000 - i) + 1);
    EXPECT_EQ(pool.GetId(), -102400);
    EXPECT_TRUE(log.lines().empty());
}

TEST(IdPool, GrowingKeepsTheOrderOfWaitingIdsWhenTheRingHadWrapped) {
    CIdPool pool(0);
    putIds(pool, -5000, 2048);
    for (int i = 0; i < 500; ++i) ASSERT_EQ(pool.GetId(), idOf(-5000 - i) + 1);
    putIds(pool, -5000 - 2048, 2000);

    for (int i = 500; i < 2048 + 2000 - 1024; ++i) ASSERT_EQ(pool.GetId(), idOf(-5000 - i) + 1);
    EXPECT_EQ(CIdPoolTestAccess::capacity(pool), 4096U);
}

TEST(IdPool, LogsAnOverflowAndReturnsTheNonNegativeIdAllTheSame) {
    CLogCapture log;
    CIdPool pool(5);
    CIdPoolTestAccess::setMinId(pool, 2);

    EXPECT_EQ(pool.GetId(), (2 * 64 + 5) * 16);
    EXPECT_EQ(log.count(Plinth::LOG_LEVEL_ERROR,
                        "ID_Pool has overflowed! get unexpected ret:[2128], idpool state(m_min_id:1, "
                        "m_max_pool_size:2048, m_pool_size:0, m_read_ptr:0, m_write_ptr:0)\n"),
              1);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].function, "CIdPool::GetId");
    EXPECT_EQ(log.lines()[0].file, ".\\Src\\Core\\IdPool.cpp");
    EXPECT_EQ(log.lines()[0].text.find("[.\\Src\\Core\\IdPool.cpp:"), 0U);
    EXPECT_NE(log.lines()[0].text.find("] this:"), std::string::npos);
}

TEST(IdPool, NegativeIdsAreNotLogged) {
    CLogCapture log;
    CIdPool pool(0);
    CIdPoolTestAccess::setMinId(pool, -1);

    EXPECT_EQ(pool.GetId(), -1024);
    EXPECT_TRUE(log.lines().empty());
}

TEST(IdPool, DropsIdsThatItHasNoMemoryFor) {
    CIdPool pool(0);
    putIds(pool, -5000, 2048);
    {
        CScarceMemory scarce(0);
        pool.PutId(idOf(-90000));
    }
    EXPECT_EQ(CIdPoolTestAccess::waiting(pool), 2048U);
    pool.PutId(idOf(-90001));
    EXPECT_EQ(CIdPoolTestAccess::waiting(pool), 2049U);
}

TEST(IdPool, MadeWithoutMemoryForItsRingStillMakesFreshIds) {
    std::unique_ptr<CIdPool> pool;
    {
        CScarceMemory scarce(0);
        pool = std::make_unique<CIdPool>(0U);
        pool->PutId(idOf(-5000));
    }
    EXPECT_EQ(CIdPoolTestAccess::waiting(*pool), 0U);
    EXPECT_EQ(pool->GetId(), -102400);
    putIds(*pool, -5000, 1025);
    EXPECT_EQ(pool->GetId(), idOf(-5000) + 1);
}

TEST(IdPool, ThreadsNeverHoldTheSameIdAtOnce) {
    CIdPool pool(0);
    Plinth::CMutex mutex;
    std::set<std::int64_t> held;
    int doubles = 0;
    const auto body = [&pool, &mutex, &held, &doubles](Plinth::CThreadLite&) {
        std::vector<std::int64_t> own;
        for (int round = 0; round < 20; ++round) {
            for (int i = 0; i < 500; ++i) {
                own.push_back(pool.GetId());
                Plinth::CLockGuard guard(mutex);
                doubles += held.insert(own.back()).second ? 0 : 1;
            }
            for (; !own.empty(); own.pop_back()) {
                {
                    Plinth::CLockGuard guard(mutex);
                    held.erase(own.back());
                }
                pool.PutId(own.back());
            }
        }
    };
    std::vector<std::unique_ptr<Plinth::CThreadLite>> threads;
    for (int i = 0; i < 4; ++i) {
        threads.push_back(std::make_unique<Plinth::CThreadLite>(body, "ids"));
        ASSERT_TRUE(threads.back()->createThread());
    }
    for (const auto& thread : threads) thread->destroyThread();
    EXPECT_EQ(doubles, 0);
}

}  // namespace
}  // namespace Veltro::Ravelo
