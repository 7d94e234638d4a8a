// Receivers of this library, on its pacing threads.
#include <Plinth/Log.h>
#include <Ravelo/MediaStreamReceiver.h>
#include <Ravelo/NetThread.h>

#include <cstdlib>
#include <semaphore>

#include "common/Clock.h"
#include "timer/PaceSystem.h"

namespace {

using namespace Bench;
using namespace Veltro::Ravelo;

/// Notes when it is called, and closes itself once it has been called often enough.
class CPacedReceiver : public CMediaStreamReceiver {
public:
    CPacedReceiver(std::vector<std::int64_t>& ticks, std::size_t count, std::counting_semaphore<>& closed)
        : m_ticks(ticks), m_count(count), m_closed(closed) {}

    int handle_stream_input() override {
        m_ticks.push_back(now_ns());
        if (m_ticks.size() == m_count) Close();
        return 0;
    }

    int handle_close(CNetHandler*) override {
        std::counting_semaphore<>& closed = m_closed;
        delete this;
        closed.release();
        return 0;
    }

private:
    std::vector<std::int64_t>& m_ticks;
    std::size_t m_count;
    std::counting_semaphore<>& m_closed;
};

}  // namespace

namespace Bench {

ReceiverTicks run_paced(std::size_t receivers, std::size_t count, std::int64_t period_us) {
    if (period_us != 20'000) std::abort();  // the threads' own
    Veltro::Plinth::setLogLevel(Veltro::Plinth::LOG_LEVEL_FATAL);
    if (CNetThread::CreateThreadPool(1, false) != 0) std::abort();
    ReceiverTicks ticks(receivers);
    std::counting_semaphore<> closed{0};
    for (auto& own : ticks) {
        own.reserve(count);
        (new CPacedReceiver(own, count, closed))->StartReceive(0, 1.0F);
    }
    for (std::size_t i = 0; i < receivers; ++i) closed.acquire();
    CNetThread::DestroyThreadPool();
    return ticks;
}

const char* pace_system_name() {
    return "ravelo";
}

}  // namespace Bench
