// What tests of paced receivers have in common: a time that is moved from outside, and receivers made of
// callables.
#pragma once

#include <Plinth/Mutex.h>
#include <Plinth/Semaphore.h>
#include <Ravelo/MediaStreamReceiver.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "Core/PoolTable.h"
#include "Support/Reactor.h"
#include "Tool/MediaStreamReceiverRecord.h"
#include "Tool/RecvThreads.h"
#include "Tool/ToolClock.h"

namespace Veltro::TestSupport {

using Ravelo::CMediaStreamReceiver;

/// The threads' own default.
constexpr std::int64_t PERIOD_US = 20'000;
constexpr std::int64_t FAST_PERIOD_US = 40'000;

/// A time that moves only when it is told to; whoever sleeps by it wakes when it has come so far. One at a
/// time.
class CSteppedTime {
public:
    /// A whole tenth of a second, where grids begin.
    static constexpr std::uint64_t START_US = 1'000'000'000;

    CSteppedTime() {
        Plinth::CLockGuard guard(s_mutex);
        s_now_us = START_US;
        s_flowing = false;
        s_slept_ms.clear();
        Ravelo::setToolClock({&now, &sleep});
    }
    ~CSteppedTime() { Ravelo::setToolClock({}); }
    CSteppedTime(const CSteppedTime&) = delete;
    CSteppedTime& operator=(const CSteppedTime&) = delete;

    /// Since the start.
    static std::int64_t since() { return static_cast<std::int64_t>(now() - START_US); }
    /// How long each sleep was to be, in milliseconds.
    static std::vector<std::int64_t> slept() {
        Plinth::CLockGuard guard(s_mutex);
        return s_slept_ms;
    }
    /// Waits until every group that has receivers sleeps.
    static void rest() {
        EXPECT_TRUE(waitUntil([] {
            std::size_t groups = 0;
            for (const auto mode :
                 {CMediaStreamReceiver::RECEIVE_MODE_STREAM, CMediaStreamReceiver::RECEIVE_MODE_WRITE}) {
                const auto numbers = Ravelo::RecvThreads::numbers(mode);
                groups +=
                    numbers.size() - static_cast<std::size_t>(std::count(numbers.begin(), numbers.end(), 0U));
            }
            Plinth::CLockGuard guard(s_mutex);
            return s_sleepers.size() == groups;
        }));
    }
    /// Lets the time pass from one waking to the next, everybody at rest in between.
    static void run(std::int64_t time_us) {
        rest();
        const std::uint64_t end_us = now() + static_cast<std::uint64_t>(time_us);
        while (wakeNext(end_us)) rest();
        jumpTo(end_us);
    }
    /// Lets the time go on at once, past whatever should have happened meanwhile.
    static void jump(std::int64_t time_us) {
        rest();
        jumpTo(now() + static_cast<std::uint64_t>(time_us));
        rest();
    }
    /// From now on nobody has to wait: sleeps move the time.
    static void flow() {
        Plinth::CLockGuard guard(s_mutex);
        s_flowing = true;
        wakeUntil(UINT64_MAX);
    }
    /// Moves the time before anybody sleeps by it.
    static void move(std::int64_t time_us) { jumpTo(now() + static_cast<std::uint64_t>(time_us)); }

private:
    struct SSleeper {
        std::uint64_t wakes_us = 0;
        Plinth::CSemaphore semaphore;
    };

    static std::uint64_t now() {
        Plinth::CLockGuard guard(s_mutex);
        return s_now_us;
    }
    static void sleep(std::int64_t time_ms) {
        SSleeper self;
        {
            Plinth::CLockGuard guard(s_mutex);
            s_slept_ms.push_back(time_ms);
            self.wakes_us = s_now_us + static_cast<std::uint64_t>(time_ms) * 1000;
            if (s_flowing) {
                s_now_us = self.wakes_us;
            } else {
                s_sleepers.push_back(&self);
            }
            if (s_flowing) self.semaphore.post();
        }
        self.semaphore.pend();
        if (s_flowing) Plinth::sleepMilliSecond(1);
    }
    static void wakeUntil(std::uint64_t time_us) PLINTH_REQUIRES(s_mutex) {
        const auto due = std::partition(s_sleepers.begin(), s_sleepers.end(),
                                        [time_us](SSleeper* sleeper) { return sleeper->wakes_us > time_us; });
        for (auto sleeper = due; sleeper != s_sleepers.end(); ++sleeper) (*sleeper)->semaphore.post();
        s_sleepers.erase(due, s_sleepers.end());
    }
    static bool wakeNext(std::uint64_t end_us) {
        Plinth::CLockGuard guard(s_mutex);
        const auto next = std::min_element(
            s_sleepers.begin(), s_sleepers.end(),
            [](const SSleeper* left, const SSleeper* right) { return left->wakes_us < right->wakes_us; });
        if (next == s_sleepers.end() || (*next)->wakes_us > end_us) return false;
        s_now_us = (*next)->wakes_us;
        wakeUntil(s_now_us);
        return true;
    }
    static void jumpTo(std::uint64_t time_us) {
        Plinth::CLockGuard guard(s_mutex);
        s_now_us = time_us;
        wakeUntil(time_us);
    }

    inline static Plinth::CMutex s_mutex;
    inline static std::uint64_t s_now_us PLINTH_GUARDED_BY(s_mutex) = START_US;
    inline static std::atomic<bool> s_flowing{false};
    inline static std::vector<SSleeper*> s_sleepers PLINTH_GUARDED_BY(s_mutex);
    inline static std::vector<std::int64_t> s_slept_ms PLINTH_GUARDED_BY(s_mutex);
};

/// A receiver made of callables. Make it with new: it deletes itself in handle_close().
class CTestReceiver : public CMediaStreamReceiver {
public:
    explicit CTestReceiver(std::atomic<int>* closed = nullptr) : m_closed(closed) {}

    std::function<std::int64_t()> on_call;
    std::function<void()> on_close;
    /// When the calls of each mode came; looked at while its thread rests.
    std::vector<std::int64_t> at_us[3];

    int handle_stream_input() override { return static_cast<int>(call(RECEIVE_MODE_STREAM)); }
    std::int64_t handle_passive_input() override { return call(RECEIVE_MODE_PASSIVE); }
    int handle_stream_write() override { return static_cast<int>(call(RECEIVE_MODE_WRITE)); }
    int handle_close(CNetHandler*) override {
        if (on_close) on_close();
        std::atomic<int>* closed = m_closed;
        delete this;
        if (closed != nullptr) closed->fetch_add(1);
        return 0;
    }
    std::size_t calls() const { return at_us[0].size() + at_us[1].size() + at_us[2].size(); }

private:
    std::int64_t call(receiver_mode mode) {
        at_us[mode].push_back(CSteppedTime::since());
        return on_call ? on_call() : 0;
    }

    std::atomic<int>* m_closed;
};

/// The public pool with receivers in a stepped time. Its end closes those that were started.
class CPacedPool {
public:
    explicit CPacedPool(unsigned groups = 0) : m_pool(std::make_unique<CPublicPool>()) {
        if (groups == 0) return;
        Ravelo::RecvThreads::stop();
        EXPECT_EQ(0, Ravelo::RecvThreads::start(groups, Plinth::PRIORITY_NORMAL, Plinth::POLICY_NORMAL, 0));
    }
    ~CPacedPool() { end(); }
    CPacedPool(const CPacedPool&) = delete;
    CPacedPool& operator=(const CPacedPool&) = delete;

    CSteppedTime time;

    CTestReceiver* make(
        CMediaStreamReceiver::receiver_mode mode = CMediaStreamReceiver::RECEIVE_MODE_STREAM) {
        auto* receiver = new CTestReceiver(&m_closed);
        receiver->SetReceiveMode(mode);
        m_made += 1;
        return receiver;
    }
    /// A running one, whose first tick has passed.
    CTestReceiver* start(
        CMediaStreamReceiver::receiver_mode mode = CMediaStreamReceiver::RECEIVE_MODE_STREAM) {
        CTestReceiver* receiver = make(mode);
        receiver->StartReceive(0, 1.0F);
        time.rest();
        return receiver;
    }
    int closed() const { return m_closed.load(); }
    bool waitClosed(int wanted) {
        return waitUntil([this, wanted] { return m_closed.load() >= wanted; }) && m_closed.load() == wanted;
    }
    /// Ends the library; every receiver has gone when this returns.
    void end() {
        if (!m_pool) return;
        time.flow();
        m_pool.reset();
        EXPECT_EQ(m_made, m_closed.load());
    }

private:
    std::unique_ptr<CPublicPool> m_pool;
    int m_made = 0;
    std::atomic<int> m_closed{0};
};

/// A handler of the public pool that notes the messages it gets, for the time of a scope.
class CListener {
public:
    struct SMessage {
        long sender;
        unsigned type;
        long info;
        bool operator==(const SMessage&) const = default;
    };

    CListener() : m_handler(new CTestHandler) {
        m_handler->on_message = [this](long sender, unsigned type, long info) {
            Plinth::CLockGuard guard(m_mutex);
            m_messages.push_back({sender, type, info});
            return 0;
        };
        m_handler->closed = &m_closed;
    }
    ~CListener() { close(); }
    CListener(const CListener&) = delete;
    CListener& operator=(const CListener&) = delete;

    long id() const { return m_handler->GetID(); }
    std::vector<SMessage> messages() const {
        Plinth::CLockGuard guard(m_mutex);
        return m_messages;
    }
    bool waitFor(std::size_t wanted) const {
        return waitUntil([this, wanted] { return messages().size() >= wanted; });
    }

private:
    void close() {
        m_handler->Close();
        // Where the pool has gone nobody else ends it.
        if (m_closed.load() == 0 && !Ravelo::CPoolPin(0)) {
            delete m_handler;
        } else {
            EXPECT_TRUE(waitUntil([this] { return m_closed.load() == 1; }));
        }
    }

    CTestHandler* m_handler;
    std::atomic<int> m_closed{0};
    mutable Plinth::CMutex m_mutex;
    std::vector<SMessage> m_messages PLINTH_GUARDED_BY(m_mutex);
};

}  // namespace Veltro::TestSupport
