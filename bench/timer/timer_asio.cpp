// Timers of standalone Asio. A cancelled wait is completed by the io_context, which counts as cancelling.
#include <asio.hpp>
#include <chrono>
#include <deque>

#include "timer/TimerSystem.h"

namespace {

using namespace Bench;

class CAsioTimers : public CTimerSystem {
public:
    void Arm(std::size_t, std::int64_t period_us) override {
        Timer& timer = m_timers.emplace_back(m_context.get_executor());
        timer.expires_after(std::chrono::microseconds(period_us));
        timer.async_wait([](const asio::error_code&) {});
    }

    void Cancel(std::size_t index) override { m_timers[index].cancel(); }
    void Settle() override { m_context.poll(); }

private:
    using Timer =
        asio::basic_waitable_timer<std::chrono::steady_clock, asio::wait_traits<std::chrono::steady_clock>,
                                   asio::io_context::executor_type>;
    asio::io_context m_context{1};
    std::deque<Timer> m_timers;
};

}  // namespace

namespace Bench {

std::unique_ptr<CTimerSystem> make_timer_system(std::size_t) {
    return std::make_unique<CAsioTimers>();
}

const char* timer_system_name() {
    return "asio";
}

}  // namespace Bench
