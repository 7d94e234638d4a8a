#include "message/Scenarios.h"

#include <atomic>
#include <memory>
#include <semaphore>
#include <thread>

#include "common/Clock.h"
#include "common/Histogram.h"
#include "common/Placement.h"
#include "common/ProcessCpu.h"
#include "message/MessageSystem.h"

namespace Bench {
namespace {

/// So many messages may be under way from one poster: enough to keep a worker busy, little enough that no
/// library is measured by how fast it takes memory.
constexpr std::uint64_t kWindow = 8192;

/// Counts messages; signals the last.
class CCounter : public CReceiver {
public:
    explicit CCounter(std::uint64_t wanted) : m_wanted(wanted) {}

    void OnMessage(long) override {
        if (m_count.fetch_add(1, std::memory_order_acq_rel) + 1 == m_wanted) m_done.release();
    }

    std::uint64_t Count() const { return m_count.load(std::memory_order_relaxed); }
    void Wait() { m_done.acquire(); }

private:
    std::uint64_t m_wanted;
    std::atomic<std::uint64_t> m_count{0};
    std::binary_semaphore m_done{0};
};

/// Passes each message on to another receiver, until it has counted down to 0.
class CRelay : public CReceiver {
public:
    CRelay(CMessageSystem& system, std::binary_semaphore& done) : m_system(system), m_done(done) {}

    void SetNext(int receiver) { m_next = receiver; }
    /// Records the time between two messages.
    void SetHistogram(CHistogram* histogram) { m_histogram = histogram; }

    void OnMessage(long info) override {
        if (m_histogram != nullptr) record();
        if (info == 0)
            m_done.release();
        else
            m_system.Post(m_next, info - 1);
    }

private:
    void record() {
        const std::int64_t now = now_ns();
        if (m_last_ns != 0) m_histogram->Add(now - m_last_ns);
        m_last_ns = now;
    }

    CMessageSystem& m_system;
    std::binary_semaphore& m_done;
    CHistogram* m_histogram = nullptr;
    std::int64_t m_last_ns = 0;
    int m_next = 0;
};

void post_all(CMessageSystem& system, int receiver, const CCounter& counter, std::uint64_t messages) {
    for (std::uint64_t i = 0; i < messages; ++i) {
        while (i - counter.Count() >= kWindow) std::this_thread::yield();
        system.Post(receiver, static_cast<long>(i));
    }
}

template <class Body>
SMessageResult measure(std::uint64_t messages, Body body) {
    SMessageResult result;
    result.messages = messages;
    const std::int64_t cpu_ns = own_cpu_ns();
    const std::int64_t start_ns = now_ns();
    body();
    result.wall_ns = now_ns() - start_ns;
    result.cpu_ns = own_cpu_ns() - cpu_ns;
    return result;
}

SMessageResult measure_trips(CMessageSystem& system, int second_pool, std::uint64_t messages) {
    std::binary_semaphore done(0);
    CRelay first(system, done);
    CRelay second(system, done);
    const int first_number = system.Add(first, 0);
    first.SetNext(system.Add(second, second_pool));
    second.SetNext(first_number);
    const auto histogram = std::make_unique<CHistogram>();
    first.SetHistogram(histogram.get());
    SMessageResult result = measure(messages, [&system, &done, first_number, messages] {
        system.Post(first_number, static_cast<long>(messages));
        done.acquire();
    });
    result.p50_us = histogram->PercentileUs(0.5);
    result.p99_us = histogram->PercentileUs(0.99);
    return result;
}

}  // namespace

SMessageResult run_post(std::uint64_t messages) {
    CCounter counter(messages);
    pin_to(1);
    const auto system = make_message_system(1, 1);
    const int receiver = system->Add(counter, 0);
    pin_to(0);
    return measure(messages, [&system, &counter, receiver, messages] {
        post_all(*system, receiver, counter, messages);
        counter.Wait();
    });
}

SMessageResult run_chain(std::uint64_t messages) {
    std::binary_semaphore done(0);
    pin_to(1);
    const auto system = make_message_system(1, 1);
    CRelay relay(*system, done);
    const int receiver = system->Add(relay, 0);
    relay.SetNext(receiver);
    pin_to(0);
    return measure(messages, [&system, &done, receiver, messages] {
        system->Post(receiver, static_cast<long>(messages));
        done.acquire();
    });
}

SMessageResult run_pairs(std::uint64_t messages) {
    unpin();
    CCounter first(messages / 2);
    CCounter second(messages / 2);
    const auto system = make_message_system(1, 2);
    const int first_number = system->Add(first, 0);
    const int second_number = system->Add(second, 0);
    return measure(messages, [&] {
        std::thread other([&] { post_all(*system, second_number, second, messages / 2); });
        post_all(*system, first_number, first, messages / 2);
        other.join();
        first.Wait();
        second.Wait();
    });
}

SMessageResult run_roundtrip(std::uint64_t messages) {
    unpin();
    const auto system = make_message_system(1, 2);
    return measure_trips(*system, 0, messages);
}

SMessageResult run_crosstrip(std::uint64_t messages) {
    const auto system = make_message_system(2, 1);
    return measure_trips(*system, 1, messages);
}

}  // namespace Bench
