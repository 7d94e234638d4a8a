#include <Ravelo/SessionCache.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "Plinth/FailingAllocator.h"
#include "Socket/SessionCacheRecord.h"
#include "Support/Gate.h"

namespace Veltro::Ravelo {
namespace {

std::atomic<int> s_freed{0};  // marked sessions that have gone

void countFreed(void*, void* mark, CRYPTO_EX_DATA*, int, long, void*) {
    if (mark != nullptr) ++s_freed;
}

/// A session with one reference, counted in s_freed when it goes.
TSession makeSession() {
    static const int index = SSL_SESSION_get_ex_new_index(0, nullptr, nullptr, nullptr, countFreed);
    TSession session(SSL_SESSION_new());
    EXPECT_EQ(1, SSL_SESSION_set_ex_data(session.get(), index, &s_freed));
    return session;
}

/// One that was made some time ago.
TSession makeSession(long age_s, long timeout_s) {
    TSession session = makeSession();
    SSL_SESSION_set_time(session.get(), static_cast<long>(std::time(nullptr)) - age_s);
    SSL_SESSION_set_timeout(session.get(), timeout_s);
    return session;
}

/// Gets a key's session and gives the reference back.
const SSL_SESSION* look(CSessionCache& cache, const char* key) {
    const TSession session(cache.Get(key));
    const SSL_SESSION* address = session.get();
    return address;
}

void setNextNumber(CSessionCache& cache, unsigned int number) {
    SSessionCacheRecord& record = *SSessionCacheRecord::of(cache);
    const Plinth::CLockGuard guard(record.mutex);
    record.m_next_number = number;
}

class SessionCache : public ::testing::Test {
protected:
    SessionCache() { s_freed = 0; }

    CSessionCache m_cache;
};

TEST_F(SessionCache, NumbersStartAtOneAndGoUp) {
    EXPECT_EQ(1U, m_cache.NewNumber());
    EXPECT_EQ(2U, m_cache.NewNumber());
    EXPECT_EQ(3U, m_cache.NewNumber());
}

TEST_F(SessionCache, AfterTheHighestNumberComesOne) {
    setNextNumber(m_cache, UINT32_MAX);
    EXPECT_EQ(UINT32_MAX, m_cache.NewNumber());
    EXPECT_EQ(1U, m_cache.NewNumber());
    EXPECT_EQ(2U, m_cache.NewNumber());
}

TEST_F(SessionCache, NewNumberLeavesExpiredSessions) {
    ASSERT_EQ(0, m_cache.Add(makeSession(10, 5).get(), "old"));
    m_cache.NewNumber();
    EXPECT_EQ(0, s_freed);
}

TEST_F(SessionCache, AnAddedSessionStaysWhenItsMakerLetsItGo) {
    TSession session = makeSession();
    const SSL_SESSION* address = session.get();
    ASSERT_EQ(0, m_cache.Add(session.get(), "#1"));
    session.reset();
    EXPECT_EQ(0, s_freed);
    EXPECT_EQ(address, look(m_cache, "#1"));
}

TEST_F(SessionCache, GetGivesTheCallerAReferenceOfHisOwn) {
    ASSERT_EQ(0, m_cache.Add(makeSession().get(), "#1"));
    TSession mine(m_cache.Get("#1"));
    m_cache.Remove("#1");
    EXPECT_EQ(0, s_freed);
    mine.reset();
    EXPECT_EQ(1, s_freed);
}

TEST_F(SessionCache, GetOfAnAbsentKeyIsNull) {
    ASSERT_EQ(0, m_cache.Add(makeSession().get(), "10.0.0.1:443"));
    EXPECT_EQ(nullptr, m_cache.Get("10.0.0.1:44"));
    EXPECT_EQ(nullptr, m_cache.Get(""));
}

TEST_F(SessionCache, AnExpiredSessionIsGone) {
    ASSERT_EQ(0, m_cache.Add(makeSession(10, 5).get(), "old"));
    EXPECT_EQ(nullptr, m_cache.Get("old"));
    EXPECT_EQ(1, s_freed);
    EXPECT_EQ(-1, m_cache.Remove("old"));
}

TEST_F(SessionCache, ASessionAsOldAsItsTimeoutStays) {
    // Once more if the second has changed meanwhile.
    for (std::time_t start = 0; start != std::time(nullptr);) {
        start = std::time(nullptr);
        const TSession session = makeSession(100, 100);
        ASSERT_EQ(0, m_cache.Add(session.get(), "old"));
        const SSL_SESSION* found = look(m_cache, "old");
        if (start == std::time(nullptr)) {
            EXPECT_EQ(session.get(), found);
        }
    }
}

TEST_F(SessionCache, ASessionOneSecondOlderThanItsTimeoutIsGone) {
    ASSERT_EQ(0, m_cache.Add(makeSession(101, 100).get(), "old"));
    EXPECT_EQ(nullptr, m_cache.Get("old"));
}

TEST_F(SessionCache, ASessionFromAClockThatWentBackStays) {
    ASSERT_EQ(0, m_cache.Add(makeSession(-3600, 5).get(), "future"));
    EXPECT_NE(nullptr, look(m_cache, "future"));
}

TEST_F(SessionCache, AddDropsExpiredSessionsOfOtherKeys) {
    ASSERT_EQ(0, m_cache.Add(makeSession(10, 5).get(), "old"));
    ASSERT_EQ(0, m_cache.Add(makeSession().get(), "new"));
    EXPECT_EQ(1, s_freed);
}

TEST_F(SessionCache, GetDropsExpiredSessionsOfOtherKeys) {
    ASSERT_EQ(0, m_cache.Add(makeSession(10, 5).get(), "old"));
    EXPECT_EQ(nullptr, m_cache.Get("absent"));
    EXPECT_EQ(1, s_freed);
}

TEST_F(SessionCache, RemoveDropsExpiredSessionsOfOtherKeys) {
    ASSERT_EQ(0, m_cache.Add(makeSession(10, 5).get(), "old"));
    EXPECT_EQ(-1, m_cache.Remove("absent"));
    EXPECT_EQ(1, s_freed);
}

TEST_F(SessionCache, ANewSessionUnderAKeyReleasesTheOldOne) {
    const TSession second = makeSession();
    ASSERT_EQ(0, m_cache.Add(makeSession().get(), "#1"));
    ASSERT_EQ(0, m_cache.Add(second.get(), "#1"));
    EXPECT_EQ(1, s_freed);
    EXPECT_EQ(second.get(), look(m_cache, "#1"));
}

TEST_F(SessionCache, AddingTheSameSessionAgainTakesAReferenceThatStays) {
    TSession session = makeSession();
    SSL_SESSION* address = session.get();
    ASSERT_EQ(0, m_cache.Add(address, "#1"));
    ASSERT_EQ(0, m_cache.Add(address, "#1"));
    session.reset();
    EXPECT_EQ(1, m_cache.Remove("#1"));
    EXPECT_EQ(0, s_freed);
    SSL_SESSION_free(address);
    EXPECT_EQ(1, s_freed);
}

TEST_F(SessionCache, RemoveOfAnOrdinaryEntryIsZeroAndReleasesIt) {
    ASSERT_EQ(0, m_cache.Add(makeSession().get(), "#1"));
    EXPECT_EQ(0, m_cache.Remove("#1"));
    EXPECT_EQ(1, s_freed);
    EXPECT_EQ(nullptr, m_cache.Get("#1"));
}

TEST_F(SessionCache, RemoveReturnsTheReferencesThatOtherKeysKeep) {
    const TSession session = makeSession();
    for (const char* key : {"a", "b", "c"}) ASSERT_EQ(0, m_cache.Add(session.get(), key));
    EXPECT_EQ(2, m_cache.Remove("b"));
    EXPECT_EQ(1, m_cache.Remove("a"));
    EXPECT_EQ(0, m_cache.Remove("c"));
}

TEST_F(SessionCache, RemoveOfAnAbsentKeyIsMinusOne) {
    EXPECT_EQ(-1, m_cache.Remove("absent"));
    ASSERT_EQ(0, m_cache.Add(makeSession().get(), "#1"));
    ASSERT_EQ(0, m_cache.Remove("#1"));
    EXPECT_EQ(-1, m_cache.Remove("#1"));
}

TEST_F(SessionCache, AKeyEndsAtItsFirstZeroByte) {
    const TSession session = makeSession();
    ASSERT_EQ(0, m_cache.Add(session.get(), "ab\0cd"));
    EXPECT_EQ(session.get(), look(m_cache, "ab"));
    EXPECT_EQ(session.get(), look(m_cache, "ab\0ef"));
}

TEST_F(SessionCache, TheEmptyKeyIsAKey) {
    const TSession session = makeSession();
    ASSERT_EQ(0, m_cache.Add(session.get(), ""));
    EXPECT_EQ(session.get(), look(m_cache, ""));
}

TEST_F(SessionCache, NullArgumentsFail) {
    EXPECT_EQ(-1, m_cache.Add(nullptr, "#1"));
    EXPECT_EQ(-1, m_cache.Add(makeSession().get(), nullptr));
    EXPECT_EQ(nullptr, m_cache.Get(nullptr));
    EXPECT_EQ(-1, m_cache.Remove(nullptr));
    EXPECT_EQ(1, s_freed);
}

TEST_F(SessionCache, ItsEndReleasesEverySession) {
    auto cache = std::make_unique<CSessionCache>();
    for (const char* key : {"a", "b", "c"}) ASSERT_EQ(0, cache->Add(makeSession().get(), key));
    cache.reset();
    EXPECT_EQ(3, s_freed);
}

TEST_F(SessionCache, CachesAreIndependent) {
    CSessionCache other;
    ASSERT_EQ(0, m_cache.Add(makeSession().get(), "#1"));
    m_cache.NewNumber();
    EXPECT_EQ(nullptr, other.Get("#1"));
    EXPECT_EQ(1U, other.NewNumber());
}

TEST_F(SessionCache, AddWithoutMemoryFailsAndTakesNoReference) {
    const std::string key(200, 'k');
    TSession session = makeSession();
    {
        const TestSupport::CFailingAllocator failing;
        EXPECT_EQ(-1, m_cache.Add(session.get(), key.c_str()));
    }
    session.reset();
    EXPECT_EQ(1, s_freed);
    EXPECT_EQ(nullptr, m_cache.Get(key.c_str()));
}

TEST_F(SessionCache, ACacheMadeWithoutMemoryFailsQuietly) {
    const TSession session = makeSession();
    // In place: only what the cache itself allocates fails.
    alignas(CSessionCache) unsigned char place[sizeof(CSessionCache)];
    CSessionCache* cache = nullptr;
    {
        const TestSupport::CFailingAllocator failing;
        cache = new (place) CSessionCache;
    }
    EXPECT_EQ(-1, cache->Add(session.get(), "#1"));
    EXPECT_EQ(nullptr, cache->Get("#1"));
    EXPECT_EQ(-1, cache->Remove("#1"));
    EXPECT_NE(0U, cache->NewNumber());
    cache->~CSessionCache();
}

TEST_F(SessionCache, ThreadsShareACache) {
    constexpr unsigned THREADS = 4;
    constexpr unsigned ROUNDS = 500;
    std::vector<std::vector<unsigned>> numbers(THREADS);
    {
        std::vector<std::unique_ptr<TestSupport::CRunner>> runners;
        for (unsigned t = 0; t < THREADS; ++t) {
            runners.push_back(std::make_unique<TestSupport::CRunner>([this, t, &numbers] {
                for (unsigned i = 0; i < ROUNDS; ++i) {
                    const std::string key = "#" + std::to_string(i % 7);
                    numbers[t].push_back(m_cache.NewNumber());
                    EXPECT_EQ(0, m_cache.Add(makeSession(i % 3 == 0 ? 10 : 0, 5).get(), key.c_str()));
                    look(m_cache, key.c_str());
                    if (i % 5 == 0) m_cache.Remove(key.c_str());
                }
            }));
        }
    }
    for (unsigned key = 0; key < 7; ++key) m_cache.Remove(("#" + std::to_string(key)).c_str());
    EXPECT_EQ(static_cast<int>(THREADS * ROUNDS), s_freed);
    std::vector<bool> drawn(THREADS * ROUNDS + 1);
    for (const auto& of_thread : numbers) {
        for (const unsigned number : of_thread) {
            ASSERT_LE(number, THREADS * ROUNDS);
            EXPECT_FALSE(drawn[number]);
            drawn[number] = true;
        }
    }
}

}  // namespace
}  // namespace Veltro::Ravelo
