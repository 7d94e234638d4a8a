// Timers of this library: all belong to one handler.
#include <Plinth/Log.h>
#include <Ravelo/NetHandler.h>
#include <Ravelo/NetThread.h>

#include <cstdlib>
#include <semaphore>
#include <vector>

#include "timer/TimerSystem.h"

namespace {

using namespace Bench;
using namespace Veltro::Ravelo;

/// Opens the protected timer calls. Deletes itself when closed.
class CTimerHandler : public CNetHandler {
public:
    explicit CTimerHandler(std::binary_semaphore& closed) : m_closed(closed) {}

    long Arm(std::int64_t period_us) { return SetTimer(period_us); }
    void Cancel(long timer_id) { DestroyTimer(timer_id); }

    int handle_close(CNetHandler*) override {
        std::binary_semaphore& closed = m_closed;
        delete this;
        closed.release();
        return 0;
    }

private:
    std::binary_semaphore& m_closed;
};

class CRaveloTimers : public CTimerSystem {
public:
    explicit CRaveloTimers(std::size_t count) : m_ids(count) {
        Veltro::Plinth::setLogLevel(Veltro::Plinth::LOG_LEVEL_FATAL);
        if (CNetThread::CreateThreadPool(1, false) != 0) std::abort();
        m_handler = new CTimerHandler(m_closed);
    }

    ~CRaveloTimers() override {
        m_handler->Close();
        m_closed.acquire();
        CNetThread::DestroyThreadPool();
    }

    CRaveloTimers(const CRaveloTimers&) = delete;
    CRaveloTimers& operator=(const CRaveloTimers&) = delete;

    void Arm(std::size_t index, std::int64_t period_us) override { m_ids[index] = m_handler->Arm(period_us); }
    void Cancel(std::size_t index) override { m_handler->Cancel(m_ids[index]); }

private:
    std::binary_semaphore m_closed{0};
    CTimerHandler* m_handler = nullptr;
    std::vector<long> m_ids;
};

}  // namespace

namespace Bench {

std::unique_ptr<CTimerSystem> make_timer_system(std::size_t count) {
    return std::make_unique<CRaveloTimers>(count);
}

const char* timer_system_name() {
    return "ravelo";
}

}  // namespace Bench
